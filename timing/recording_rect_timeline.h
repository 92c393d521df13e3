#pragma once
// The area of the screen that each recorded frame showed, as it changed: the
// screen recorder writes it per frame, the input recorder asks what it was at
// an event's time. Rectangles are in global coordinates with the origin at
// the top left (root-window pixels on X11), the units of the input events.
//
// Only changes are stored, so a display recording holds one entry however
// long it runs. A capture time not later than the last one is ignored.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <optional>
#include <shared_mutex>
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
        platform::CGRect rect;
    };
    struct BeforeFirstCapture {
        Observation firstAvailableObservation;
    };
    struct Found {
        Observation observation;
    };
    struct AfterLastCapture {
        Observation lastAvailableObservation;
        platform::CMTime lastCaptureCall;
    };
    struct EmptyTimeline {};
    using QueryResult = std::variant<BeforeFirstCapture, Found, AfterLastCapture, EmptyTimeline>;

    explicit RecordingRectTimeline(const Logger& logger = Logger("RecordingRectTimeline"));

    // A frame at `time` showed `rect`; no rectangle says nothing changed.
    void capture(const platform::CMTime& time, const std::optional<platform::CGRect>& rect);
    QueryResult recordingRect(const platform::CMTime& time) const;

    // Signals the first captured rectangle.
    PrepareRingBufferAdapter<std::monostate>& prepareAdapter() { return prepareAdapter_; }

    std::vector<Observation> observations() const;
    platform::CMTime lastCaptureCall() const;

    // The one timeline of a schema item of a recording, shared by the
    // recorders that its assembly makes in different folders (the screen
    // recorder feeds it, the input recorder reads it): the same instance for
    // the same bundle and item while anyone holds it.
    static std::shared_ptr<RecordingRectTimeline> forItem(const std::string& bundleURL, const std::string& itemID,
                                                          const Logger& logger);

private:
    Logger logger_;
    mutable std::shared_mutex mutex_;
    std::vector<Observation> timeline_;
    platform::CMTime lastCaptureCall_ = platform::kCMTimeNegativeInfinity;
    PrepareRingBufferAdapter<std::monostate> prepareAdapter_{RingBuffer<std::monostate>(1)};
};

}  // namespace ov
