#pragma once
// A recorder's own snapshot of the recording timeline, and the questions that
// retimers ask of it: which interval holds a capture time, and where on the
// recording's output clock that time lands.
//
// The output clock runs only inside intervals and starts at 0 at the first
// interval's start; a pause takes no output time. So a capture time t maps to
// t − offset(t), where the offset is the first interval's start plus the
// pauses before t. All times are host-clock seconds.
//
// A snapshot is a plain value owned by one queue; update() reads the live list
// again.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/cm_time.h"
#include "timing/recording_interval.h"
#include "timing/volatile_recording_timeline.h"

namespace ov {

struct StableRecordingTimeline {
    std::shared_ptr<VolatileRecordingTimeline> volatileRecordingTimeline;
    std::vector<RecordingInterval> recordingIntervals;
    bool isStopped = false;

    struct Conversion {
        RecordingInterval interval;
        // The time on the output clock.
        double seconds;
    };

    explicit StableRecordingTimeline(std::shared_ptr<VolatileRecordingTimeline> timeline);

    // Takes the snapshot again.
    void update();

    // The recorded length: +∞ until stopped, then the sum of the intervals'
    // lengths (a trailing waiting entry adds nothing).
    double duration() const;

    // What to subtract from a capture time to get its output time.
    double offset(double t) const;
    // The same at the timescale of `t`: bounds become CMTimes of t's timescale
    // and compare exactly with it.
    platform::CMTime offset(const platform::CMTime& t) const;

    // The interval that holds t (from <= t < until) and t's output time; absent
    // in a pause, before the first start and after the stop.
    std::optional<Conversion> convert(double t) const;

    // The first interval that `time` is before the end of: the one holding it,
    // or for a time in a pause the next one; the last interval when the time
    // is after all of them.
    RecordingInterval relevantInterval(const platform::CMTime& time) const;

    // "StableRecordingTimeline(stopped, dur:20.000s, intervals: [1000.000→1010.000] [1020.000→1030.000])".
    std::string debugDescription() const;
};

}  // namespace ov
