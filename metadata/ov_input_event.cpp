#include "metadata/ov_input_event.h"

#include <array>
#include <clocale>
#include <cmath>
#include <cwctype>
#include <locale.h>

#include <xkbcommon/xkbcommon-keysyms.h>

#include "foundation/ov_error.h"

namespace ov {
namespace {

using platform::CGEvent;
using platform::CGEventType;

constexpr std::array<std::string_view, 5> kMouseEventTypes{"down", "up", "moved", "dragged", "cursorChanged"};
constexpr std::array<std::string_view, 4> kMouseButtons{"primary", "secondary", "center", "other"};
constexpr std::array<std::string_view, 2> kKeyboardEventTypes{"down", "up"};
constexpr std::array<std::string_view, 6> kModifiers{"capsLock", "shift", "control", "option", "command", "function"};
constexpr std::array<std::string_view, kOVCursorTypeCount> kCursorTypes{
    "custom", "arrow", "iBeam", "crosshair", "closedHand", "openHand", "pointingHand", "resizeLeft", "resizeRight",
    "resizeLeftRight", "resizeUp", "resizeDown", "resizeUpDown", "disappearingItem", "iBeamCursorForVerticalLayout",
    "operationNotAllowed", "dragLink", "dragCopy", "contextualMenu", "columnResize", "rowResize", "zoomIn", "zoomOut",
    "bottomLeftResize", "bottomRightResize", "topLeftResize", "topRightResize", "horizontalResize", "verticalResize",
    "busyButClickable", "genericDrag", "hand", "help", "overrideHelp", "windowResizeEast", "windowResizeEastWest",
    "windowResizeNorth", "windowResizeNorthEast", "windowResizeNorthEastSouthWest", "windowResizeNorthSouth",
    "windowResizeNorthWest", "windowResizeNorthWestSouthEast", "windowResizeSouth", "windowResizeSouthEast",
    "windowResizeSouthWest", "windowResizeWest"};

struct KeyInfo {
    std::string_view raw, title, symbol;
};
constexpr std::array<KeyInfo, 35> kKeys{{
    {"character", "\u25A1", "\u25A1"},
    {"escape", "esc", "\u238B"},
    {"delete", "delete", "\u232B"},
    {"tab", "tab", "\u21E5"},
    {"return", "return", "\u23CE"},
    {"space", "space", "\u2423"},
    {"leftArrow", "left", "\u2190"},
    {"rightArrow", "right", "\u2192"},
    {"downArrow", "down", "\u2193"},
    {"upArrow", "up", "\u2191"},
    {"deleteForward", "forward delete", "\u2326"},
    {"home", "home", "\u2196"},
    {"end", "end", "\u2198"},
    {"pageUp", "page up", "\u21DE"},
    {"pageDown", "page down", "\u21DF"},
    {"clear", "clear", "\u2327"},
    {"f1", "F1", "F1"}, {"f2", "F2", "F2"}, {"f3", "F3", "F3"}, {"f4", "F4", "F4"}, {"f5", "F5", "F5"},
    {"f6", "F6", "F6"}, {"f7", "F7", "F7"}, {"f8", "F8", "F8"}, {"f9", "F9", "F9"}, {"f10", "F10", "F10"},
    {"f11", "F11", "F11"}, {"f12", "F12", "F12"}, {"f13", "F13", "F13"}, {"f14", "F14", "F14"},
    {"f15", "F15", "F15"}, {"f16", "F16", "F16"}, {"f17", "F17", "F17"}, {"f18", "F18", "F18"},
    {"f19", "F19", "F19"},
}};

template <class E, size_t N>
std::optional<E> fromRaw(const std::array<std::string_view, N>& names, std::string_view text) {
    for (size_t i = 0; i < N; ++i)
        if (names[i] == text) return static_cast<E>(i);
    return std::nullopt;
}

template <class E, size_t N>
E decodeEnum(const coding::Decoder& d, const std::array<std::string_view, N>& names, std::string_view typeName) {
    const auto text = d.decode<std::string>();
    if (auto value = fromRaw<E>(names, text)) return *value;
    d.throwDataCorrupted("Cannot initialize " + std::string(typeName) + " from invalid String value " + text);
}

std::optional<OVKeyboardKeyType> keyTypeOfKeysym(uint32_t keysym) {
    using K = OVKeyboardKeyType;
    switch (keysym) {
        case XKB_KEY_Escape: return K::escape;
        case XKB_KEY_BackSpace: return K::delete_;
        case XKB_KEY_Tab: case XKB_KEY_ISO_Left_Tab: case XKB_KEY_KP_Tab: return K::tab;
        case XKB_KEY_Return: case XKB_KEY_KP_Enter: return K::return_;
        case XKB_KEY_space: case XKB_KEY_KP_Space: return K::space;
        case XKB_KEY_Left: case XKB_KEY_KP_Left: return K::leftArrow;
        case XKB_KEY_Right: case XKB_KEY_KP_Right: return K::rightArrow;
        case XKB_KEY_Down: case XKB_KEY_KP_Down: return K::downArrow;
        case XKB_KEY_Up: case XKB_KEY_KP_Up: return K::upArrow;
        case XKB_KEY_Delete: case XKB_KEY_KP_Delete: return K::deleteForward;
        case XKB_KEY_Home: case XKB_KEY_KP_Home: return K::home;
        case XKB_KEY_End: case XKB_KEY_KP_End: return K::end;
        case XKB_KEY_Prior: case XKB_KEY_KP_Prior: return K::pageUp;
        case XKB_KEY_Next: case XKB_KEY_KP_Next: return K::pageDown;
        case XKB_KEY_Clear: return K::clear;
        default: break;
    }
    if (keysym >= XKB_KEY_F1 && keysym <= XKB_KEY_F19)
        return static_cast<K>(static_cast<int>(K::f1) + static_cast<int>(keysym - XKB_KEY_F1));
    return std::nullopt;
}

// Upper case by Unicode rules where the C library knows them.
std::string upperCased(const std::string& text) {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    std::string out;
    size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        int length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 1;
        if (i + length > text.size()) length = 1;
        char32_t cp = length == 1 ? c : c & (0xFF >> (length + 1));
        for (int k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        i += length;
        const char32_t upper = utf8 ? static_cast<char32_t>(towupper_l(static_cast<wint_t>(cp), utf8))
                                    : (cp < 0x80 ? static_cast<char32_t>(std::toupper(static_cast<int>(cp))) : cp);
        if (upper < 0x80) {
            out += static_cast<char>(upper);
        } else if (upper < 0x800) {
            out += static_cast<char>(0xC0 | (upper >> 6));
            out += static_cast<char>(0x80 | (upper & 0x3F));
        } else if (upper < 0x10000) {
            out += static_cast<char>(0xE0 | (upper >> 12));
            out += static_cast<char>(0x80 | ((upper >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (upper & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (upper >> 18));
            out += static_cast<char>(0x80 | ((upper >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((upper >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (upper & 0x3F));
        }
    }
    return out;
}

nlohmann::json modifiersJSON(const OVInputModifierSet& modifiers) {
    auto array = nlohmann::json::array();
    for (auto m : modifiers) array.push_back(rawValue(m));
    return array;
}

OVInputModifierSet decodeModifiers(const coding::Decoder& d) {
    d.requireArray("Set<OVInputModifier>");
    OVInputModifierSet set;
    for (size_t i = 0; i < d.count(); ++i)
        set.insert(decodeEnum<OVInputModifier>(d.at(i), kModifiers, "OVInputModifier"));
    return set;
}

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

}  // namespace

std::string_view rawValue(OVMouseEventType v) { return kMouseEventTypes[static_cast<size_t>(v)]; }
std::string_view rawValue(OVMouseButton v) { return kMouseButtons[static_cast<size_t>(v)]; }
std::string_view rawValue(OVKeyboardEventType v) { return kKeyboardEventTypes[static_cast<size_t>(v)]; }
std::string_view rawValue(OVInputModifier v) { return kModifiers[static_cast<size_t>(v)]; }
std::string_view rawValue(OVCursorType v) { return kCursorTypes[static_cast<size_t>(v)]; }
std::string_view rawValue(OVKeyboardKeyType v) { return kKeys[static_cast<size_t>(v)].raw; }
std::string_view keyTitle(OVKeyboardKeyType v) { return kKeys[static_cast<size_t>(v)].title; }
std::string_view keySymbol(OVKeyboardKeyType v) { return kKeys[static_cast<size_t>(v)].symbol; }

std::optional<OVCursorType> cursorTypeFromRawValue(std::string_view text) {
    return fromRaw<OVCursorType>(kCursorTypes, text);
}

OVTime nanosecondTime(double seconds) {
    return OVTime::make(seconds, static_cast<int64_t>(std::trunc(seconds * 1e9)), OVTime::kNanosecondTimescale);
}

const OVTime& OVInputEvent::time() const {
    return std::visit([](const auto& e) -> const OVTime& { return e.time; }, payload);
}

OVInputEvent OVInputEvent::withTime(const OVTime& time) const {
    OVInputEvent copy = *this;
    std::visit([&](auto& e) { e.time = time; }, copy.payload);
    return copy;
}

std::string_view OVInputEvent::typeName() const {
    return std::visit(Overloaded{
                          [](const OVMouseEvent&) { return std::string_view("mouse"); },
                          [](const OVKeyboardEvent&) { return std::string_view("keyboard"); },
                          [](const OVInputModifiersChangedEvent&) { return std::string_view("modifiersChanged"); },
                          [](const OVDiscontinuationEvent&) { return std::string_view("discontinuation"); },
                      },
                      payload);
}

nlohmann::json OVInputEvent::json() const {
    nlohmann::json j = nlohmann::json::object();
    std::visit(Overloaded{
                   [&](const OVMouseEvent& e) {
                       j["mouseEventType"] = rawValue(e.mouseEventType);
                       j["time"] = e.time;
                       j["modifiers"] = modifiersJSON(e.modifiers);
                       j["x"] = e.x;
                       j["y"] = e.y;
                       if (e.button) j["button"] = rawValue(*e.button);
                       j["cursorType"] = rawValue(e.cursorType);
                       j["targetsCurrentProcess"] = e.targetsCurrentProcess;
                   },
                   [&](const OVKeyboardEvent& e) {
                       j["keyboardEventType"] = rawValue(e.keyboardEventType);
                       j["time"] = e.time;
                       j["modifiers"] = modifiersJSON(e.modifiers);
                       j["keyType"] = rawValue(e.keyType);
                       j["keyTitle"] = e.keyTitle;
                       j["keySymbol"] = e.keySymbol;
                       if (e.characters) j["characters"] = *e.characters;
                       j["isARepeat"] = e.isARepeat;
                   },
                   [&](const OVInputModifiersChangedEvent& e) {
                       j["time"] = e.time;
                       j["modifiers"] = modifiersJSON(e.modifiers);
                   },
                   [&](const OVDiscontinuationEvent& e) { j["time"] = e.time; },
               },
               payload);
    j["type"] = typeName();
    return j;
}

void to_json(nlohmann::json& j, const OVInputEvent& event) { j = event.json(); }

OVInputEvent OVInputEvent::decode(const coding::Json& json) {
    const coding::Decoder d(json);
    d.requireObject("OVInputEvent");
    const auto type = d.decode<std::string>("type");
    const auto time = d.decode<OVTime>("time");
    if (type == "mouse") {
        OVMouseEvent e;
        e.mouseEventType = decodeEnum<OVMouseEventType>(d["mouseEventType"], kMouseEventTypes, "OVMouseEventType");
        e.time = time;
        e.modifiers = decodeModifiers(d["modifiers"]);
        e.x = d.decode<double>("x");
        e.y = d.decode<double>("y");
        if (auto b = d.ifPresent("button")) e.button = decodeEnum<OVMouseButton>(*b, kMouseButtons, "OVMouseButton");
        e.cursorType = decodeEnum<OVCursorType>(d["cursorType"], kCursorTypes, "OVCursorType");
        e.targetsCurrentProcess = d.decode<bool>("targetsCurrentProcess");
        return e;
    }
    if (type == "keyboard") {
        OVKeyboardEvent e;
        e.keyboardEventType =
            decodeEnum<OVKeyboardEventType>(d["keyboardEventType"], kKeyboardEventTypes, "OVKeyboardEventType");
        e.time = time;
        e.modifiers = decodeModifiers(d["modifiers"]);
        const auto keyType = d.decode<std::string>("keyType");
        bool found = false;
        for (size_t i = 0; i < kKeys.size(); ++i)
            if (kKeys[i].raw == keyType) {
                e.keyType = static_cast<OVKeyboardKeyType>(i);
                found = true;
            }
        if (!found) d["keyType"].throwDataCorrupted("Cannot initialize OVKeyboardKeyType from invalid String value " + keyType);
        e.keyTitle = d.decode<std::string>("keyTitle");
        e.keySymbol = d.decode<std::string>("keySymbol");
        e.characters = d.decodeIfPresent<std::string>("characters");
        e.isARepeat = d.decode<bool>("isARepeat");
        return e;
    }
    if (type == "modifiersChanged") return OVInputModifiersChangedEvent{time, decodeModifiers(d["modifiers"])};
    if (type == "discontinuation") return OVDiscontinuationEvent{time};
    d["type"].throwDataCorrupted("Cannot initialize OVInputEvent from invalid type " + type);
}

OVInputModifierSet toOVInputModifierSet(platform::CGEventFlags flags) {
    OVInputModifierSet set;
    if (flags & platform::kCGEventFlagMaskAlphaShift) set.insert(OVInputModifier::capsLock);
    if (flags & platform::kCGEventFlagMaskShift) set.insert(OVInputModifier::shift);
    if (flags & platform::kCGEventFlagMaskControl) set.insert(OVInputModifier::control);
    if (flags & platform::kCGEventFlagMaskAlternate) set.insert(OVInputModifier::option);
    if (flags & platform::kCGEventFlagMaskCommand) set.insert(OVInputModifier::command);
    if (flags & platform::kCGEventFlagMaskSecondaryFn) set.insert(OVInputModifier::function);
    return set;
}

std::optional<OVMouseButton> mouseButton(const CGEvent& event) {
    switch (event.type) {
        case CGEventType::leftMouseDown: case CGEventType::leftMouseUp: case CGEventType::leftMouseDragged:
            return OVMouseButton::primary;
        case CGEventType::rightMouseDown: case CGEventType::rightMouseUp: case CGEventType::rightMouseDragged:
            return OVMouseButton::secondary;
        case CGEventType::otherMouseDown: case CGEventType::otherMouseUp: case CGEventType::otherMouseDragged:
            return event.integerValueField(platform::CGEventField::mouseEventButtonNumber) == 2 ? OVMouseButton::center
                                                                                                 : OVMouseButton::other;
        default: return std::nullopt;
    }
}

std::optional<OVMouseEventType> mouseEventType(const CGEvent& event) {
    switch (event.type) {
        case CGEventType::leftMouseDown: case CGEventType::rightMouseDown: case CGEventType::otherMouseDown:
            return OVMouseEventType::down;
        case CGEventType::leftMouseUp: case CGEventType::rightMouseUp: case CGEventType::otherMouseUp:
            return OVMouseEventType::up;
        case CGEventType::mouseMoved: return OVMouseEventType::moved;
        case CGEventType::leftMouseDragged: case CGEventType::rightMouseDragged: case CGEventType::otherMouseDragged:
            return OVMouseEventType::dragged;
        default: return std::nullopt;
    }
}

OVKeyboardKeyType keyboardKeyType(const CGEvent& event) {
    if (auto type = keyTypeOfKeysym(event.keysym)) return *type;
    // A key that typed text is a character key, whatever its plain symbol
    // is (KP_7 with NumLock on is "7", not home). Control characters don't
    // count: Ctrl+a stays a character key by its plain symbol anyway.
    if (event.characters && !event.characters->empty()) {
        const auto first = static_cast<unsigned char>(event.characters->front());
        if (first >= 0x20 && first != 0x7F) return OVKeyboardKeyType::character;
    }
    // Otherwise the plain symbol: Ctrl+Alt+F1 gives a VT switch symbol on an F1 key.
    if (auto type = keyTypeOfKeysym(event.levelZeroKeysym)) return *type;
    // evdev KEY_F13..KEY_F19 (183..189); X keycodes are evdev + 8.
    const int64_t evdev = event.keycode - 8;
    if (evdev >= 183 && evdev <= 189)
        return static_cast<OVKeyboardKeyType>(static_cast<int>(OVKeyboardKeyType::f13) + static_cast<int>(evdev - 183));
    return OVKeyboardKeyType::character;
}

OVKeyboardEvent keyboardEvent(const CGEvent& event, const OVTime& time) {
    OVKeyboardEvent e;
    if (event.type == CGEventType::keyDown)
        e.keyboardEventType = OVKeyboardEventType::down;
    else if (event.type == CGEventType::keyUp)
        e.keyboardEventType = OVKeyboardEventType::up;
    else
        throw OVError(OVError::Code::inputEventProcessingFailed,
                      "Unknown CGEventType: " + std::to_string(static_cast<uint32_t>(event.type)),
                      std::string("Failed to record keypress"));
    e.time = time;
    e.keyType = keyboardKeyType(event);
    if (e.keyType == OVKeyboardKeyType::character) {
        const auto& ignoring = event.charactersIgnoringModifiers;
        const auto& typed = event.characters;
        if (ignoring && !ignoring->empty()) {
            e.keyTitle = e.keySymbol = upperCased(*ignoring);
        } else if (typed && !typed->empty()) {
            e.keyTitle = e.keySymbol = upperCased(*typed);
        } else {
            e.keyTitle = keyTitle(e.keyType);
            e.keySymbol = keySymbol(e.keyType);
        }
        if (typed && !typed->empty()) e.characters = typed;
    } else {
        e.keyTitle = keyTitle(e.keyType);
        e.keySymbol = keySymbol(e.keyType);
    }
    e.modifiers = toOVInputModifierSet(event.flags);
    e.isARepeat = event.integerValueField(platform::CGEventField::keyboardEventAutorepeat) == 1;
    return e;
}

}  // namespace ov
