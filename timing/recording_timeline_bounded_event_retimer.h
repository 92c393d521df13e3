#pragma once
// Maps single moments, such as input events, onto the recording's output
// timeline. Unlike the frame retimers it holds nothing back and carries
// nothing across a seam: an event inside an interval is kept, an event in a
// pause is gone, and the first event of each later interval is preceded by a
// discontinuation at the output time where that interval begins.

#include <optional>
#include <variant>
#include <vector>

#include "output/ov_logger.h"
#include "timing/stable_recording_timeline.h"

namespace ov {

template <class Item>
class RecordingTimelineBoundedEventRetimer {
public:
    struct Discontinuation {
        double seconds = 0;
    };
    struct Retimed {
        Item item;
        double seconds = 0;
    };
    using ItemOrDiscontinuation = std::variant<Retimed, Discontinuation>;

    RecordingTimelineBoundedEventRetimer(StableRecordingTimeline timeline, const Logger& logger)
        : timeline_(std::move(timeline)), logger_(logger.with("RecordingTimelineBoundedEventRetimer")) {}

    // `moment` in host-clock seconds; empty when it lies in a pause, before the
    // first interval or after the last.
    std::vector<ItemOrDiscontinuation> retime(Item item, double moment) {
        timeline_.update();
        auto converted = timeline_.convert(moment);
        if (!converted) return {};
        std::vector<ItemOrDiscontinuation> out;
        if (lastIntervalIndex_ && *lastIntervalIndex_ != converted->interval.index) {
            if (auto start = timeline_.convert(converted->interval.recordFrom)) {
                out.emplace_back(std::in_place_type<Discontinuation>, Discontinuation{start->seconds});
            } else {
                logger_.warning("Could not convert recordFrom to TimeInterval", [&] {
                    return LogMetadata{{"timeline", timeline_.debugDescription()},
                                       {"interval", converted->interval.debugDescription()},
                                       {"moment", std::to_string(moment)},
                                       {"adjustedTime", std::to_string(converted->seconds)}};
                });
            }
        }
        lastIntervalIndex_ = converted->interval.index;
        out.emplace_back(std::in_place_type<Retimed>, Retimed{std::move(item), converted->seconds});
        return out;
    }

    const std::optional<size_t>& lastIntervalIndex() const { return lastIntervalIndex_; }

private:
    StableRecordingTimeline timeline_;
    Logger logger_;
    std::optional<size_t> lastIntervalIndex_;
};

}  // namespace ov
