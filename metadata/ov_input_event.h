#pragma once
// What the user did with mouse and keyboard during a recording, as the
// "input-events.json" side file writes it: one flat object per entry, the
// payload's keys plus "type". Optional keys are left out when absent, never
// written as null. The keys and value strings are a contract with readers of
// a bundle.

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>

#include <nlohmann/json.hpp>

#include "foundation/json_coding.h"
#include "platform/cg_event.h"
#include "timing/ov_time.h"

namespace ov {

enum class OVMouseEventType { down, up, moved, dragged, cursorChanged };
enum class OVMouseButton { primary, secondary, center, other };
enum class OVKeyboardEventType { down, up };
enum class OVInputModifier { capsLock, shift, control, option, command, function };
using OVInputModifierSet = std::set<OVInputModifier>;

enum class OVCursorType {
    custom, arrow, iBeam, crosshair, closedHand, openHand, pointingHand, resizeLeft, resizeRight,
    resizeLeftRight, resizeUp, resizeDown, resizeUpDown, disappearingItem, iBeamCursorForVerticalLayout,
    operationNotAllowed, dragLink, dragCopy, contextualMenu, columnResize, rowResize, zoomIn, zoomOut,
    bottomLeftResize, bottomRightResize, topLeftResize, topRightResize, horizontalResize, verticalResize,
    busyButClickable, genericDrag, hand, help, overrideHelp, windowResizeEast, windowResizeEastWest,
    windowResizeNorth, windowResizeNorthEast, windowResizeNorthEastSouthWest, windowResizeNorthSouth,
    windowResizeNorthWest, windowResizeNorthWestSouthEast, windowResizeSouth, windowResizeSouthEast,
    windowResizeSouthWest, windowResizeWest,
};
inline constexpr int kOVCursorTypeCount = 46;

enum class OVKeyboardKeyType {
    character, escape, delete_, tab, return_, space, leftArrow, rightArrow, downArrow, upArrow, deleteForward,
    home, end, pageUp, pageDown, clear, f1, f2, f3, f4, f5, f6, f7, f8, f9, f10, f11, f12, f13, f14, f15, f16,
    f17, f18, f19,
};

std::string_view rawValue(OVMouseEventType value);
std::string_view rawValue(OVMouseButton value);
std::string_view rawValue(OVKeyboardEventType value);
std::string_view rawValue(OVInputModifier value);
std::string_view rawValue(OVCursorType value);
std::string_view rawValue(OVKeyboardKeyType value);
std::optional<OVCursorType> cursorTypeFromRawValue(std::string_view text);

// The label and glyph of a key that is not a character key.
std::string_view keyTitle(OVKeyboardKeyType type);
std::string_view keySymbol(OVKeyboardKeyType type);

struct OVMouseEvent {
    OVMouseEventType mouseEventType = OVMouseEventType::moved;
    OVTime time = OVTime::make(0, 0, OVTime::kNanosecondTimescale);
    OVInputModifierSet modifiers;
    double x = 0;
    double y = 0;
    std::optional<OVMouseButton> button;
    OVCursorType cursorType = OVCursorType::arrow;
    bool targetsCurrentProcess = false;
    bool operator==(const OVMouseEvent&) const = default;
};

struct OVKeyboardEvent {
    OVKeyboardEventType keyboardEventType = OVKeyboardEventType::down;
    OVTime time = OVTime::make(0, 0, OVTime::kNanosecondTimescale);
    OVInputModifierSet modifiers;
    OVKeyboardKeyType keyType = OVKeyboardKeyType::character;
    std::string keyTitle;
    std::string keySymbol;
    std::optional<std::string> characters;
    bool isARepeat = false;
    bool operator==(const OVKeyboardEvent&) const = default;
};

struct OVInputModifiersChangedEvent {
    OVTime time = OVTime::make(0, 0, OVTime::kNanosecondTimescale);
    OVInputModifierSet modifiers;
    bool operator==(const OVInputModifiersChangedEvent&) const = default;
};

struct OVDiscontinuationEvent {
    OVTime time = OVTime::make(0, 0, OVTime::kNanosecondTimescale);
    bool operator==(const OVDiscontinuationEvent&) const = default;
};

struct OVInputEvent {
    std::variant<OVMouseEvent, OVKeyboardEvent, OVInputModifiersChangedEvent, OVDiscontinuationEvent> payload;

    OVInputEvent(OVMouseEvent e) : payload(std::move(e)) {}
    OVInputEvent(OVKeyboardEvent e) : payload(std::move(e)) {}
    OVInputEvent(OVInputModifiersChangedEvent e) : payload(std::move(e)) {}
    OVInputEvent(OVDiscontinuationEvent e) : payload(std::move(e)) {}

    const OVTime& time() const;
    // The same event at another time.
    OVInputEvent withTime(const OVTime& time) const;
    // "mouse", "keyboard", "modifiersChanged", "discontinuation".
    std::string_view typeName() const;

    nlohmann::json json() const;
    // Reads "type" first; a missing or unknown "type" fails with a
    // coding::DecodingError, as does a payload key of the wrong kind.
    static OVInputEvent decode(const coding::Json& json);

    bool operator==(const OVInputEvent&) const = default;
};

void to_json(nlohmann::json& j, const OVInputEvent& event);

// An OVTime of host-clock or output seconds at the nanosecond timescale: the
// value is the seconds times 10^9, truncated.
OVTime nanosecondTime(double seconds);

// ---- From the platform's events.

OVInputModifierSet toOVInputModifierSet(platform::CGEventFlags flags);
// By type: left types primary, right types secondary, other types center for
// button number 2 and other beyond; no button for any other type.
std::optional<OVMouseButton> mouseButton(const platform::CGEvent& event);
// Absent for a type that is no mouse type.
std::optional<OVMouseEventType> mouseEventType(const platform::CGEvent& event);
// The table's key type: the effective keysym, then the level-0 keysym, then
// the evdev codes of F13 to F19, which X gives launcher keysyms.
OVKeyboardKeyType keyboardKeyType(const platform::CGEvent& event);
// Throws OVError inputEventProcessingFailed for a type other than key down or up.
OVKeyboardEvent keyboardEvent(const platform::CGEvent& event, const OVTime& time);

}  // namespace ov
