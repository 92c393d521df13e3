#include "timing/volatile_recording_timeline.h"

#include <cmath>
#include <cstdlib>
#include <limits>

#include <fmt/format.h>

#include "platform/os_log.h"

namespace ov {

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// A broken invariant of the timeline means every recorder would cut wrongly;
// there is nothing sensible to go on with.
[[noreturn]] void invariantFailure(const std::string& message) {
    platform::OSLog(platform::OSLog::defaultSubsystem, "VolatileRecordingTimeline").fault(message);
    std::abort();
}

}  // namespace

namespace timeline_text {

std::string bound(double seconds) {
    if (std::isinf(seconds)) return seconds > 0 ? "∞" : "-∞";
    // ∞ − ∞ of a waiting entry's length carries a sign bit on this machine;
    // the text is plain "nan" everywhere.
    if (std::isnan(seconds)) return "nan";
    return fmt::format("{:.3f}", seconds);
}

std::string entries(const std::vector<VolatileRecordingTimeline::Entry>& list) {
    std::string text;
    for (const auto& e : list) {
        if (!text.empty()) text += " ";
        text += "[" + bound(e.from) + "→" + bound(e.until) + "]";
    }
    return text;
}

}  // namespace timeline_text

VolatileRecordingTimeline::VolatileRecordingTimeline() { state_.timeline.push_back({kInfinity, kInfinity}); }

VolatileRecordingTimeline::Entry VolatileRecordingTimeline::popLast() {
    if (state_.timeline.empty()) invariantFailure("VolatileRecordingTimeline is in an invalid state: Empty timeline");
    Entry last = state_.timeline.back();
    state_.timeline.pop_back();
    return last;
}

void VolatileRecordingTimeline::start(double at) {
    std::lock_guard lock(mutex_);
    Entry last = popLast();
    state_.timeline.push_back({at, last.until});
}

void VolatileRecordingTimeline::pause(double at) {
    std::lock_guard lock(mutex_);
    Entry last = popLast();
    state_.timeline.push_back({last.from, at});
    state_.timeline.push_back({kInfinity, kInfinity});
}

void VolatileRecordingTimeline::stop(double at) {
    std::lock_guard lock(mutex_);
    Entry last = popLast();
    if (std::isinf(last.from))
        state_.timeline.push_back(last);
    else
        state_.timeline.push_back({last.from, at});
    state_.isStopped = true;
}

VolatileRecordingTimeline::Entry VolatileRecordingTimeline::interval(size_t index) const {
    std::lock_guard lock(mutex_);
    if (index >= state_.timeline.size())
        invariantFailure("VolatileRecordingTimeline index out of bounds: " + std::to_string(index));
    return state_.timeline[index];
}

VolatileRecordingTimeline::State VolatileRecordingTimeline::state() const {
    std::lock_guard lock(mutex_);
    return state_;
}

std::string VolatileRecordingTimeline::debugDescription() const {
    State s = state();
    return std::string("VolatileRecordingTimeline(") + (s.isStopped ? "stopped" : "active") +
           ", intervals: " + timeline_text::entries(s.timeline) + ")";
}

}  // namespace ov
