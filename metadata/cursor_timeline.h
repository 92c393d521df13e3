#pragma once
// The cursor as it looked during a recording: one observation per change of
// cursor, sampled at display rate by the cursor recorder and read by the
// input recorder to stamp mouse events and to write cursor changes.
//
// A cursor is known by its theme name first (through the alias table below),
// then by its picture: a picture seen before keeps its id, a new one gets the
// SHA-1 of its bytes. The picture is the image as width, height and ARGB32
// pixels, little endian.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "metadata/ov_input_event.h"
#include "output/ov_logger.h"
#include "platform/capture/input_provider.h"
#include "platform/cm_time.h"
#include "timing/prepare_ring_buffer_adapter.h"

namespace ov {

// The cursor type of a theme cursor name ("left_ptr" is arrow, "xterm" iBeam);
// absent for names the table doesn't know.
std::optional<OVCursorType> cursorTypeForName(std::string_view name);

// Lower-case hex SHA-1 of the bytes.
std::string sha1Hex(std::string_view bytes);

struct Cursor {
    struct Shape {
        platform::CGPoint hotspot;
        platform::CGSize size;
        auto key() const { return std::make_tuple(hotspot.x, hotspot.y, size.width, size.height); }
        bool operator<(const Shape& other) const { return key() < other.key(); }
        bool operator==(const Shape& other) const { return key() == other.key(); }
    };

    std::string id;
    OVCursorType type = OVCursorType::custom;
    Shape shape;
    std::string tiffRepresentation;
    bool loadedUsingPrivateSelector = false;

    // The theme's cursors; none on a system without a loadable theme.
    static std::vector<Cursor> allSystemCursors();
};

class CursorTimeline {
public:
    struct Observation {
        platform::CMTime timestamp;
        platform::CGPoint location;
        std::optional<OVMouseButton> activeButton;
        platform::CGEventFlags flags = 0;
        std::string cursorId;
        OVCursorType cursorType = OVCursorType::custom;
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
    struct NoCursorsCaptured {};
    using QueryResult = std::variant<BeforeFirstCapture, Found, AfterLastCapture, NoCursorsCaptured>;

    struct Duplicate {
        Cursor skipped;
        Cursor isDuplicateOf;
    };

    explicit CursorTimeline(const Logger& logger = Logger("CursorTimeline"));

    // Stores the cursors by picture; the first of two with the same picture wins.
    std::vector<Duplicate> preload(const std::vector<Cursor>& cursors);
    // Records the cursor shown at `time` with the pointer; returns its id, or
    // none when its picture could not be read.
    std::optional<std::string> capture(const platform::NSCursor& cursor, const platform::CMTime& time,
                                       const platform::PointerState& pointer);
    QueryResult cursor(const platform::CMTime& time) const;
    // after < timestamp <= untilIncluding, in order.
    std::vector<Observation> observations(const platform::CMTime& after, const platform::CMTime& untilIncluding) const;

    PrepareRingBufferAdapter<std::monostate>& prepareAdapter() { return prepareAdapter_; }
    std::set<Cursor::Shape> unsafeCursorsMissingTiffRepresentation() const;
    std::vector<Observation> allObservations() const;

private:
    struct LastCaptureCall {
        Cursor::Shape cursorShape{{-1, -1}, {-1, -1}};
        uint64_t serial = 0;
        platform::CMTime timestamp = platform::kCMTimeNegativeInfinity;
        platform::CGPoint location;
    };

    Logger logger_;
    mutable std::shared_mutex mutex_;
    std::set<Cursor::Shape> unsafeCursorsMissingTiffRepresentation_;
    std::vector<Observation> cursorTimeline_;
    std::map<Cursor::Shape, std::map<std::string, Cursor>> cursorMap_;
    LastCaptureCall lastCaptureCall_;
    PrepareRingBufferAdapter<std::monostate> prepareAdapter_{RingBuffer<std::monostate>(1)};
};

}  // namespace ov
