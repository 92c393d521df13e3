#pragma once
// Clocks, and the host time clock that every capture time is brought to.
//
// The host time clock is CLOCK_MONOTONIC in nanoseconds: it never jumps with
// the wall clock and keeps counting while the process sleeps in a wait.
// Its times are CMTimes with timescale 1,000,000,000, so that a capture time,
// an interval bound of the recording timeline and a host time in an audio
// time stamp all compare directly.
//
// Device clocks (a capture session's synchronisation clock) derive from
// CMClock and say how their time maps to host time; convertTime goes through
// host time.

#include <cstdint>
#include <memory>

#include "platform/cm_time.h"

namespace ov::platform {

inline constexpr CMTimeScale kHostTimeTimescale = 1'000'000'000;

// The host time clock's current reading in nanoseconds.
uint64_t hostTimeNanosecondsNow();
// The host time clock's current reading as a CMTime (timescale 1e9).
CMTime hostTimeNow();
// Host nanoseconds as a CMTime, and back (rounded to the nearest nanosecond;
// non-numeric and negative times give 0, times beyond the range the largest value).
CMTime hostTimeFromNanoseconds(uint64_t nanoseconds);
uint64_t nanosecondsFromHostTime(const CMTime& time);

class CMClock {
public:
    virtual ~CMClock() = default;

    // The clock's current time.
    virtual CMTime time() const = 0;
    // The host time at which this clock shows `clockTime`, and the reverse.
    virtual CMTime hostTime(const CMTime& clockTime) const = 0;
    virtual CMTime clockTime(const CMTime& hostTime) const = 0;

    // `time` on this clock as a time on `clock`. Non-numeric times pass
    // unchanged.
    CMTime convertTime(const CMTime& time, const CMClock& clock) const;

    // The one host time clock of the process.
    static const std::shared_ptr<const CMClock>& hostTimeClock();
};

// A clock that runs at host rate, a fixed offset from host time: what a device
// clock looks like once its epoch is known. The synthetic backend hands these
// out as capture sessions' synchronisation clocks.
class CMOffsetClock final : public CMClock {
public:
    // This clock's time is host time + offset.
    explicit CMOffsetClock(CMTime offset) : offset_(offset) {}

    CMTime time() const override;
    CMTime hostTime(const CMTime& clockTime) const override;
    CMTime clockTime(const CMTime& hostTime) const override;
    const CMTime& offset() const { return offset_; }

private:
    CMTime offset_;
};

// The platform's conversion between audio time stamps' host times and seconds.
struct AVAudioTime {
    static double seconds(uint64_t forHostTime);
    static uint64_t hostTime(double forSeconds);
};

}  // namespace ov::platform
