#include "timing/recording_rect_timeline.h"

#include <fmt/format.h>

#include <mutex>

namespace ov {

using platform::CGRect;
using platform::CMTime;

namespace {
std::string rectText(const CGRect& r) {
    return fmt::format("({}, {}, {}, {})", r.origin.x, r.origin.y, r.size.width, r.size.height);
}
}  // namespace

std::string RecordingRectTimeline::Observation::description() const {
    return "Observation(timestamp: " + timestamp.logDescription() + ", rect: " + rectText(rect) + ")";
}

RecordingRectTimeline::RecordingRectTimeline(Logger logger)
    : logger_(std::move(logger)), prepareAdapter_(RingBuffer<std::monostate>(1), logger_) {}

void RecordingRectTimeline::capture(const CMTime& time, const std::optional<CGRect>& rect) {
    std::unique_lock lock(queue_);
    if (time <= lastCaptureCall_) return;
    logger_.trace([&] {
        return "Capturing " + (rect ? rectText(*rect) : std::string("nil")) + ", timeline has " +
               std::to_string(timeline_.size()) + " entries, last capture at " + lastCaptureCall_.logDescription();
    });
    if (rect && (timeline_.empty() || !platform::CGRectEqualToRect(timeline_.back().rect, *rect))) {
        timeline_.push_back({time, *rect});
        prepareAdapter_.append(std::monostate{});
        logger_.trace([&] { return "Added " + timeline_.back().description() + " to timeline"; });
    }
    lastCaptureCall_ = time;
}

RecordingRectTimeline::QueryResult RecordingRectTimeline::recordingRect(const CMTime& time) const {
    using Kind = QueryResult::Kind;
    std::shared_lock lock(queue_);
    logger_.trace([&] {
        return "RecordingRectTimeline: Query for " + time.logDescription() + ", timeline has " +
               std::to_string(timeline_.size()) + " entries, last capture at " + lastCaptureCall_.logDescription();
    });
    if (time <= lastCaptureCall_) {
        for (auto it = timeline_.rbegin(); it != timeline_.rend(); ++it)
            if (it->timestamp <= time) return {Kind::found, *it, std::nullopt};
        if (timeline_.empty()) return {Kind::emptyTimeline, std::nullopt, std::nullopt};
        return {Kind::beforeFirstCapture, timeline_.front(), std::nullopt};
    }
    if (timeline_.empty()) return {Kind::emptyTimeline, std::nullopt, std::nullopt};
    return {Kind::afterLastCapture, timeline_.back(), lastCaptureCall_};
}

CMTime RecordingRectTimeline::lastCaptureCall() const {
    std::shared_lock lock(queue_);
    return lastCaptureCall_;
}

std::vector<RecordingRectTimeline::Observation> RecordingRectTimeline::timeline() const {
    std::shared_lock lock(queue_);
    return timeline_;
}

std::shared_ptr<RecordingRectTimeline> RecordingRectTimelines::forItem(const std::string& itemID, const Logger& logger) {
    std::lock_guard lock(mutex_);
    auto& timeline = timelines_[itemID];
    if (!timeline) timeline = std::make_shared<RecordingRectTimeline>(logger);
    return timeline;
}

}  // namespace ov
