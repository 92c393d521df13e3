#include "platform/cm_clock.h"

#include <cmath>
#include <ctime>
#include <limits>

namespace ov::platform {

namespace {

class HostTimeClock final : public CMClock {
public:
    CMTime time() const override { return hostTimeNow(); }
    CMTime hostTime(const CMTime& clockTime) const override { return clockTime; }
    CMTime clockTime(const CMTime& hostTime) const override { return hostTime; }
};

}  // namespace

uint64_t hostTimeNanosecondsNow() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

CMTime hostTimeNow() { return hostTimeFromNanoseconds(hostTimeNanosecondsNow()); }

CMTime hostTimeFromNanoseconds(uint64_t nanoseconds) {
    // Beyond 2^63 ns (292 years of uptime) there is no host time.
    if (nanoseconds > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return kCMTimePositiveInfinity;
    return CMTime(static_cast<int64_t>(nanoseconds), kHostTimeTimescale);
}

uint64_t nanosecondsFromHostTime(const CMTime& time) {
    if (time.isPositiveInfinity()) return std::numeric_limits<uint64_t>::max();
    if (!time.isNumeric()) return 0;
    CMTime ns = time.convertScale(kHostTimeTimescale, CMTimeRoundingMethod::roundHalfAwayFromZero);
    if (ns.isPositiveInfinity()) return std::numeric_limits<uint64_t>::max();
    if (!ns.isNumeric() || ns.value < 0) return 0;
    return static_cast<uint64_t>(ns.value);
}

CMTime CMClock::convertTime(const CMTime& time, const CMClock& clock) const {
    if (!time.isNumeric() || &clock == this) return time;
    return clock.clockTime(hostTime(time));
}

const std::shared_ptr<const CMClock>& CMClock::hostTimeClock() {
    static const std::shared_ptr<const CMClock> clock = std::make_shared<HostTimeClock>();
    return clock;
}

CMTime CMOffsetClock::time() const { return clockTime(hostTimeNow()); }
CMTime CMOffsetClock::hostTime(const CMTime& clockTime) const { return clockTime - offset_; }
CMTime CMOffsetClock::clockTime(const CMTime& hostTime) const { return hostTime + offset_; }

double AVAudioTime::seconds(uint64_t forHostTime) { return static_cast<double>(forHostTime) / 1e9; }

uint64_t AVAudioTime::hostTime(double forSeconds) {
    if (!(forSeconds > 0)) return 0;
    double ns = std::round(forSeconds * 1e9);
    if (ns >= 18446744073709551616.0) return std::numeric_limits<uint64_t>::max();
    return static_cast<uint64_t>(ns);
}

}  // namespace ov::platform
