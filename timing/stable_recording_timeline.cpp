#include "timing/stable_recording_timeline.h"

#include <cmath>
#include <limits>

namespace ov {

using platform::CMTime;

StableRecordingTimeline::StableRecordingTimeline(std::shared_ptr<VolatileRecordingTimeline> timeline)
    : volatileRecordingTimeline(std::move(timeline)) {
    update();
}

void StableRecordingTimeline::update() {
    // One lock hold for the list and the flag; the intervals are built outside it.
    VolatileRecordingTimeline::State state = volatileRecordingTimeline->state();
    recordingIntervals.clear();
    recordingIntervals.reserve(state.timeline.size());
    for (size_t i = 0; i < state.timeline.size(); ++i)
        recordingIntervals.emplace_back(volatileRecordingTimeline, i, state.timeline[i].from, state.timeline[i].until);
    isStopped = state.isStopped;
}

double StableRecordingTimeline::duration() const {
    if (!isStopped) return std::numeric_limits<double>::infinity();
    double total = 0;
    for (const auto& interval : recordingIntervals) {
        double length = interval.recordUntil - interval.recordFrom;
        if (std::isfinite(length)) total += length;
    }
    return total;
}

double StableRecordingTimeline::offset(double t) const {
    // The first interval's start, plus each pause between the intervals that
    // began at or before t.
    double result = recordingIntervals.front().recordFrom;
    for (size_t i = 1; i < recordingIntervals.size() && recordingIntervals[i].recordFrom <= t; ++i)
        result += recordingIntervals[i].recordFrom - recordingIntervals[i - 1].recordUntil;
    return result;
}

CMTime StableRecordingTimeline::offset(const CMTime& t) const {
    auto bound = [&](double seconds) { return CMTime::makeWithSeconds(seconds, t.timescale); };
    double result = recordingIntervals.front().recordFrom;
    for (size_t i = 1; i < recordingIntervals.size() && bound(recordingIntervals[i].recordFrom) <= t; ++i)
        result += recordingIntervals[i].recordFrom - recordingIntervals[i - 1].recordUntil;
    return bound(result);
}

std::optional<StableRecordingTimeline::Conversion> StableRecordingTimeline::convert(double t) const {
    for (const auto& interval : recordingIntervals)
        if (interval.recordFrom <= t && interval.recordUntil > t) return Conversion{interval, t - offset(t)};
    return std::nullopt;
}

RecordingInterval StableRecordingTimeline::relevantInterval(const CMTime& time) const {
    for (const auto& interval : recordingIntervals)
        if (time < CMTime::makeWithSeconds(interval.recordUntil, time.timescale)) return interval;
    return recordingIntervals.back();
}

std::string StableRecordingTimeline::debugDescription() const {
    std::vector<VolatileRecordingTimeline::Entry> entries;
    for (const auto& interval : recordingIntervals) entries.push_back({interval.recordFrom, interval.recordUntil});
    return std::string("StableRecordingTimeline(") + (isStopped ? "stopped" : "active") +
           ", dur:" + timeline_text::bound(duration()) + "s, intervals: " + timeline_text::entries(entries) + ")";
}

}  // namespace ov
