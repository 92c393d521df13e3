#pragma once
// Runs one interval-bounded audio stream per recording interval across a whole
// timeline and moves the results onto the gapless output clock that starts
// at 0. Recorders hold it as their audio chopper: capture buffers in,
// buffers that cover exactly the recorded intervals out.
//
// Output times are whole frames: each interval bound is taken at its nearest
// frame and the pauses are summed in frames, so the intervals' outputs meet
// without a gap or an overlap and a stream gives exactly
// Σ (round(until × rate) − round(from × rate)) frames. Audio that an interval
// emitted past its end before the pause was known is made up for by trimming
// the next interval's head by as much.
//
// One mutex serialises append and finish; the handler runs under it.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "output/ov_logger.h"
#include "platform/cm_sample_buffer.h"
#include "timing/recording_interval_bounded_audio_stream.h"
#include "timing/stable_recording_timeline.h"

namespace ov {

class RecordingTimelineBoundedAudioStream {
public:
    using Position = RecordingIntervalBoundedAudioStreamItemPosition;
    using Handler = std::function<void(Position, const platform::CMSampleBuffer&)>;

    // capacity: buffers kept from before an interval's start (recorders use 3).
    RecordingTimelineBoundedAudioStream(StableRecordingTimeline timeline, size_t capacity, const Logger& logger);

    // Set before the first buffer. Only the recording's very first buffer is `first`.
    Handler handler;

    // Throw RecordingIntervalBoundedAudioStreamError, OVError or the handler's failure.
    void append(const platform::CMSampleBuffer& audioSample);
    // Once, after the timeline has stopped.
    void finish();

private:
    struct Wrapper {
        std::shared_ptr<std::vector<platform::CMSampleBuffer>> collected;
        std::shared_ptr<RecordingIntervalBoundedAudioStream> stream;
        std::vector<platform::CMSampleBuffer> take() { return std::exchange(*collected, {}); }
    };
    Wrapper makeWrapper(const RecordingInterval& interval);
    void transition(const RecordingInterval& interval);
    void emit(std::vector<platform::CMSampleBuffer> samples);
    // What to subtract from `time` (of an interval's audio) for its output time, in its timescale.
    platform::CMTime offset(const platform::CMTime& time) const;

    std::mutex mutex_;
    Logger logger_;
    size_t capacity_;
    StableRecordingTimeline timeline_;
    Wrapper current_;
    std::optional<platform::CMSampleBuffer> lastAppended_;
    bool didEmitFirst_ = false;
    // Where the output so far ends.
    std::optional<platform::CMTime> nextOutputTime_;
};

}  // namespace ov
