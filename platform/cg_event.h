#pragma once
// One input event of the global input feed: what the user did with mouse or
// keyboard, where, with which modifiers held, and when on the host clock.
//
// The type numbers and flag masks are the platform's own, so that the logic
// reads its tables one to one. On Linux the backend fills the key data that
// the window system computes (keysyms and the text a key makes) in event
// order, when the event arrives: a later keymap or modifier state would give
// another answer.

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>

#include "platform/cg_geometry.h"

namespace ov::platform {

enum class CGEventType : uint32_t {
    null = 0,
    leftMouseDown = 1,
    leftMouseUp = 2,
    rightMouseDown = 3,
    rightMouseUp = 4,
    mouseMoved = 5,
    leftMouseDragged = 6,
    rightMouseDragged = 7,
    keyDown = 10,
    keyUp = 11,
    flagsChanged = 12,
    otherMouseDown = 25,
    otherMouseUp = 26,
    otherMouseDragged = 27,
    tapDisabledByTimeout = 0xFFFFFFFE,
    tapDisabledByUserInput = 0xFFFFFFFF,
};

using CGEventFlags = uint64_t;
inline constexpr CGEventFlags kCGEventFlagMaskAlphaShift = 0x10000;
inline constexpr CGEventFlags kCGEventFlagMaskShift = 0x20000;
inline constexpr CGEventFlags kCGEventFlagMaskControl = 0x40000;
inline constexpr CGEventFlags kCGEventFlagMaskAlternate = 0x80000;
inline constexpr CGEventFlags kCGEventFlagMaskCommand = 0x100000;
inline constexpr CGEventFlags kCGEventFlagMaskSecondaryFn = 0x800000;

enum class CGEventField : int {
    mouseEventButtonNumber = 3,
    keyboardEventAutorepeat = 8,
    keyboardEventKeycode = 9,
};

// Bit n for each type n of at most 31; the tap-disabled types add no bit.
using CGEventMask = uint64_t;
constexpr CGEventMask CGEventMaskBit(CGEventType type) {
    const auto n = static_cast<uint32_t>(type);
    return n <= 31 ? (CGEventMask{1} << n) : 0;
}
constexpr CGEventMask CGEventMaskFromTypes(std::initializer_list<CGEventType> types) {
    CGEventMask mask = 0;
    for (auto type : types) mask |= CGEventMaskBit(type);
    return mask;
}
constexpr bool CGEventMaskContains(CGEventMask mask, CGEventType type) { return (mask & CGEventMaskBit(type)) != 0; }

struct CGEvent {
    CGEventType type = CGEventType::null;
    CGEventFlags flags = 0;
    // Global coordinates, origin at the top left; on X11 root-window pixels.
    CGPoint location;
    // Host clock (CLOCK_MONOTONIC) nanoseconds.
    uint64_t timestamp = 0;

    // Integer fields 3, 8 and 9.
    int64_t buttonNumber = 0;
    bool autorepeat = false;
    // The X keycode (evdev code + 8).
    int64_t keycode = 0;

    // Key data, computed by the backend at receipt. 0 is no symbol.
    uint32_t keysym = 0;
    // The key's symbol at level 0 of the event's layout (no modifier).
    uint32_t levelZeroKeysym = 0;
    // The text the key makes with the modifiers held, and with shift alone.
    std::optional<std::string> characters;
    std::optional<std::string> charactersIgnoringModifiers;

    int64_t integerValueField(CGEventField field) const {
        switch (field) {
            case CGEventField::mouseEventButtonNumber: return buttonNumber;
            case CGEventField::keyboardEventAutorepeat: return autorepeat ? 1 : 0;
            case CGEventField::keyboardEventKeycode: return keycode;
        }
        return 0;
    }
};

}  // namespace ov::platform
