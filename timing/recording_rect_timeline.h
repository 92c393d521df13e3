#pragma once
// Where the recorded area lay on the screen over time: the screen recorder
// writes each frame's rectangle, the input recorder asks what it was at the
// time of an event. Only changes are stored, so a display recording keeps one
// entry however long it runs.
//
// Writers hold the lock exclusively and readers share it. It lives below the
// recorder folders because a video recorder writes it and an input recorder
// reads it.

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <variant>
#include <vector>

#include "output/ov_logger.h"
#include "platform/cg_geometry.h"
#include "platform/cm_time.h"
#include "timing/prepare_ring_buffer_adapter.h"

namespace ov {

class RecordingRectTimeline {
public:
    struct Observation {
        platform::CMTime timestamp;
        platform::CGRect rect;  // global points
        std::string description() const;
    };

    struct QueryResult {
        enum class Kind { beforeFirstCapture, found, afterLastCapture, emptyTimeline };
        Kind kind = Kind::emptyTimeline;
        // beforeFirstCapture: the first observation; found: the one in force;
        // afterLastCapture: the last one.
        std::optional<Observation> observation;
        // afterLastCapture: the time of the last capture call.
        std::optional<platform::CMTime> lastCaptureCall;
    };

    explicit RecordingRectTimeline(Logger logger = Logger("RecordingRectTimeline"));

    // Notes the frame at `time`: its rectangle, or none when the frame said
    // nothing changed. Times not after the last call are ignored.
    void capture(const platform::CMTime& time, const std::optional<platform::CGRect>& rect);
    // The rectangle at `time`, or why it isn't known.
    QueryResult recordingRect(const platform::CMTime& time) const;

    platform::CMTime lastCaptureCall() const;
    std::vector<Observation> timeline() const;
    // Signals the first stored rectangle.
    PrepareRingBufferAdapter<std::monostate>& prepareAdapter() { return prepareAdapter_; }

private:
    Logger logger_;
    mutable std::shared_mutex queue_;
    std::vector<Observation> timeline_;
    platform::CMTime lastCaptureCall_ = platform::kCMTimeNegativeInfinity;
    PrepareRingBufferAdapter<std::monostate> prepareAdapter_;
};

// The rectangle timelines of one recording, one per schema item: the screen
// recorder of an item feeds the timeline that the item's input recorder
// reads, though neither recorder folder sees the other. Whichever asks first
// makes it.
class RecordingRectTimelines {
public:
    std::shared_ptr<RecordingRectTimeline> forItem(const std::string& itemID, const Logger& logger);

private:
    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<RecordingRectTimeline>> timelines_;
};

}  // namespace ov
