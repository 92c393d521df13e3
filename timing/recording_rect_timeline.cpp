#include "timing/recording_rect_timeline.h"

#include <fmt/format.h>

namespace ov {
namespace {

std::string describe(const platform::CGRect& r) {
    return fmt::format("({}, {}, {}, {})", r.origin.x, r.origin.y, r.size.width, r.size.height);
}

}  // namespace

RecordingRectTimeline::RecordingRectTimeline(const Logger& logger) : logger_(logger.with("RecordingRectTimeline")) {}

void RecordingRectTimeline::capture(const platform::CMTime& time, const std::optional<platform::CGRect>& rect) {
    bool added = false;
    {
        std::unique_lock lock(mutex_);
        if (time <= lastCaptureCall_) return;
        logger_.trace([&] {
            return "Capturing " + (rect ? describe(*rect) : std::string("nil")) + ", timeline has " +
                   std::to_string(timeline_.size()) + " entries, last capture at " + lastCaptureCall_.logDescription();
        });
        if (rect && (timeline_.empty() || !(timeline_.back().rect == *rect))) {
            timeline_.push_back({time, *rect});
            added = true;
            logger_.trace([&] { return "Added " + describe(*rect) + " at " + time.logDescription() + " to timeline"; });
        }
        lastCaptureCall_ = time;
    }
    if (added) prepareAdapter_.append(std::monostate{});
}

RecordingRectTimeline::QueryResult RecordingRectTimeline::recordingRect(const platform::CMTime& time) const {
    std::shared_lock lock(mutex_);
    logger_.trace([&] {
        return "RecordingRectTimeline: Query for " + time.logDescription() + ", timeline has " +
               std::to_string(timeline_.size()) + " entries, last capture at " + lastCaptureCall_.logDescription();
    });
    if (timeline_.empty()) return EmptyTimeline{};
    if (time <= lastCaptureCall_) {
        for (auto it = timeline_.rbegin(); it != timeline_.rend(); ++it)
            if (it->timestamp <= time) return Found{*it};
        return BeforeFirstCapture{timeline_.front()};
    }
    return AfterLastCapture{timeline_.back(), lastCaptureCall_};
}

std::shared_ptr<RecordingRectTimeline> RecordingRectTimeline::forItem(const std::string& bundleURL,
                                                                      const std::string& itemID, const Logger& logger) {
    static std::mutex mutex;
    static std::map<std::pair<std::string, std::string>, std::weak_ptr<RecordingRectTimeline>> timelines;
    std::lock_guard lock(mutex);
    for (auto it = timelines.begin(); it != timelines.end();)
        it = it->second.expired() ? timelines.erase(it) : std::next(it);
    auto& slot = timelines[{bundleURL, itemID}];
    if (auto existing = slot.lock()) return existing;
    auto made = std::make_shared<RecordingRectTimeline>(logger);
    slot = made;
    return made;
}

std::vector<RecordingRectTimeline::Observation> RecordingRectTimeline::observations() const {
    std::shared_lock lock(mutex_);
    return timeline_;
}

platform::CMTime RecordingRectTimeline::lastCaptureCall() const {
    std::shared_lock lock(mutex_);
    return lastCaptureCall_;
}

}  // namespace ov
