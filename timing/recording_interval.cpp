#include "timing/recording_interval.h"

namespace ov {

RecordingInterval::RecordingInterval(std::shared_ptr<VolatileRecordingTimeline> timeline, size_t index_)
    : volatileRecordingTimeline(std::move(timeline)), index(index_) {
    update();
}

RecordingInterval::RecordingInterval(std::shared_ptr<VolatileRecordingTimeline> timeline, size_t index_,
                                     double recordFrom_, double recordUntil_)
    : volatileRecordingTimeline(std::move(timeline)), index(index_), recordFrom(recordFrom_), recordUntil(recordUntil_) {}

void RecordingInterval::update() {
    auto entry = volatileRecordingTimeline->interval(index);
    recordFrom = entry.from;
    recordUntil = entry.until;
}

std::string RecordingInterval::debugDescription() const {
    return "RecordingInterval(" + std::to_string(index) + ")[" + timeline_text::bound(recordFrom) + "→" +
           timeline_text::bound(recordUntil) + ", dur:" + timeline_text::bound(recordUntil - recordFrom) + "s]";
}

}  // namespace ov
