#pragma once
// What a window system offers for input recording: a listen-only global feed
// of mouse and keyboard events, and the pointer and cursor as they are now.
//
// Threads: a feed calls its sink from a thread of its own ("CGEventTapQueue"),
// one event at a time, in the order the window system generated them, with
// host-clock times. ended() is called at most once, from that thread, and no
// event follows it: with null after stop(), with the error when the window
// system went away. A cursor source answers from any thread, one call at a
// time (the display link's).
//
// Privacy: a feed whose mask holds no key type never reads key events from
// the window system at all; a backend never logs key codes, symbols or text.

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "foundation/platform_error.h"
#include "platform/cg_event.h"

namespace ov::platform {

// Why an event tap could not be made.
class CGEventTapError : public PlatformError {
public:
    static constexpr const char* errorDomain = "Orvane.CGEventTapError";
    enum Code : int64_t { tapCreationFailed = 0 };

    explicit CGEventTapError(std::string debugDescription)
        : PlatformError(errorDomain, tapCreationFailed, "The input event feed could not be created.",
                        std::move(debugDescription)) {}
};

struct InputFeedSink {
    std::function<void(const CGEvent&)> event;
    std::function<void(std::exception_ptr)> ended;
};

// A running feed. stop() returns once no sink call runs and none follows.
class InputFeed {
public:
    virtual ~InputFeed() = default;
    virtual void stop() = 0;
};

// The cursor shown now. The image is width and height as u32 little endian,
// then the ARGB32 pixels as u32 little endian, row by row; absent when the
// window system would not hand it out (animated theme cursors on X11).
struct NSCursor {
    CGPoint hotSpot;
    CGSize size;
    // The theme's name of the cursor, when it has one ("left_ptr", "xterm").
    std::optional<std::string> name;
    // Changes whenever the displayed cursor changes, also at a still pointer.
    uint64_t serial = 0;
    std::optional<std::string> image;
};

// The pointer as a null event reads it: location and modifier flags; no button.
struct PointerState {
    CGPoint location;
    CGEventFlags flags = 0;
};

class CursorSource {
public:
    virtual ~CursorSource() = default;
    // Absent when the window system does not answer.
    virtual std::optional<PointerState> pointer() = 0;
    virtual std::optional<NSCursor> currentSystemCursor() = 0;
    // Frames per second of the display under `location`; 0 when unknown.
    virtual double refreshRate(CGPoint location) = 0;
};

class InputCaptureProvider {
public:
    virtual ~InputCaptureProvider() = default;
    // "x11", "synthetic": for logs.
    virtual std::string apiName() const = 0;
    // Starts a feed of the types in `mask` (plus flagsChanged when key types are
    // in it). Throws CGEventTapError when no feed can be made, or an error
    // saying why input can't be recorded on this session.
    virtual std::unique_ptr<InputFeed> startFeed(CGEventMask mask, InputFeedSink sink) = 0;
    // Throws when the window system can't be reached.
    virtual std::shared_ptr<CursorSource> makeCursorSource() = 0;
};

}  // namespace ov::platform
