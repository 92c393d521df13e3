#pragma once
// Cuts a continuous stream of audio sample buffers to one recording interval,
// so that the output covers the interval exactly: the buffer sticking out at
// the start is cut, the one sticking out at the end is cut, and where the
// stream does not reach an edge, silence fills it.
//
// Times inside the stream accumulate from the buffers' durations (in frames of
// the sample rate, so exactly); only the first buffer's own time is read. Each
// interval bound is taken at its nearest frame, so an interval of a stream
// yields round(until × rate) − round(from × rate) frames.
//
// One mutex serialises append and finish; the handler runs under it.

#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "output/ov_logger.h"
#include "platform/cm_sample_buffer.h"
#include "platform/cm_time.h"
#include "timing/recording_interval.h"
#include "foundation/ring_buffer.h"

namespace ov {

enum class RecordingIntervalBoundedAudioStreamItemPosition { first, subsequent };

class RecordingIntervalBoundedAudioStreamError : public std::runtime_error {
public:
    enum class Kind { wrongOrder, timescaleExceedsSession, handlerNotSet, finishedWithoutFrames, formatDescriptionMissing };

    static RecordingIntervalBoundedAudioStreamError wrongOrder(platform::CMTime previous, platform::CMTime current);
    static RecordingIntervalBoundedAudioStreamError timescaleExceedsSession(double timescale, double intervalDuration);
    static RecordingIntervalBoundedAudioStreamError handlerNotSet();
    static RecordingIntervalBoundedAudioStreamError finishedWithoutFrames();
    static RecordingIntervalBoundedAudioStreamError formatDescriptionMissing();

    Kind kind;
    platform::CMTime previous;
    platform::CMTime current;

private:
    RecordingIntervalBoundedAudioStreamError(Kind k, std::string text, platform::CMTime p = {}, platform::CMTime c = {})
        : std::runtime_error(std::move(text)), kind(k), previous(p), current(c) {}
};

// A buffer and where it lies in the stream.
struct AudioStreamEntry {
    platform::CMSampleBuffer audioSample;
    platform::CMTime startTime;
    platform::CMTime endTime;
};

// The part of `entry` inside `interval`, absent when none is. A buffer that
// cannot be cut is passed whole, with a warning.
std::optional<AudioStreamEntry> safe_clamp(const RecordingInterval& interval, const AudioStreamEntry& entry,
                                           const Logger& logger);

class RecordingIntervalBoundedAudioStream {
public:
    using Position = RecordingIntervalBoundedAudioStreamItemPosition;
    using Error = RecordingIntervalBoundedAudioStreamError;
    using Handler = std::function<void(Position, const platform::CMSampleBuffer&)>;

    RecordingIntervalBoundedAudioStream(RecordingInterval interval, size_t capacity, const Logger& logger);

    // Set before the first buffer.
    Handler handler;

    size_t intervalIndex() const { return interval_.index; }

    // Throw RecordingIntervalBoundedAudioStreamError, OVError or the handler's failure.
    void append(const platform::CMSampleBuffer& audioSample);
    void finish();

private:
    void flush(std::optional<AudioStreamEntry> newItem);
    void emit(Position position, const AudioStreamEntry& entry);
    std::optional<platform::CMSampleBuffer> silence(const platform::CMFormatDescriptionRef& format,
                                                    const platform::CMTime& duration, const platform::CMTime& at);
    // Fails unless one tick of `timescale` fits the interval.
    platform::CMTime wholeIntervalTicks(platform::CMTimeScale timescale) const;

    std::mutex mutex_;
    Logger logger_;
    RecordingInterval interval_;
    bool didEmitLast_ = false;
    RingBuffer<AudioStreamEntry> buffer_;
    std::optional<AudioStreamEntry> lastAppended_;
    std::optional<platform::CMSampleBuffer> lastEmittedSample_;
    platform::CMTime lastEmittedEnd_ = platform::kCMTimeNegativeInfinity;
};

}  // namespace ov
