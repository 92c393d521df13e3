// Input event values, their JSON, and how platform events and X key data
// become them (keymaps built from names: no server needed).
#include <gtest/gtest.h>

#include <xkbcommon/xkbcommon-keysyms.h>

#include "foundation/ov_error.h"
#include "metadata/ov_input_event.h"
#include "platform/linux/x11/input_keyboard.h"
#include "platform/linux/x11/input_mapping.h"

namespace ov {
namespace {

using platform::CGEvent;
using platform::CGEventType;
using platform::x11::XkbKeyProcessor;

constexpr uint32_t kShift = 0x01, kLock = 0x02, kControl = 0x04, kMod1 = 0x08, kMod2 = 0x10, kMod4 = 0x40,
                   kMod5 = 0x80;

OVKeyboardEvent keyOf(XkbKeyProcessor& keys, uint32_t keycode, uint32_t state, bool press = true) {
    auto event = keys.process(keycode, press, state);
    EXPECT_TRUE(event.has_value());
    return keyboardEvent(*event, nanosecondTime(1.5));
}

TEST(InputEventJSON, FlatObjectsWithTypeAndOptionalKeysLeftOut) {
    OVMouseEvent move;
    move.mouseEventType = OVMouseEventType::moved;
    move.time = nanosecondTime(1.25);
    move.x = 0.5;
    move.y = 1.5;
    const auto moveJSON = OVInputEvent(move).json();
    EXPECT_EQ(moveJSON["type"], "mouse");
    EXPECT_FALSE(moveJSON.contains("button"));
    EXPECT_EQ(moveJSON["time"]["value"], 1'250'000'000);
    EXPECT_EQ(moveJSON["time"]["timescale"], 1'000'000'000);
    EXPECT_EQ(moveJSON["y"], 1.5);  // outside the area is kept

    OVMouseEvent drag = move;
    drag.mouseEventType = OVMouseEventType::dragged;
    drag.button = OVMouseButton::primary;
    EXPECT_EQ(OVInputEvent(drag).json()["button"], "primary");

    OVKeyboardEvent key;
    key.keyType = OVKeyboardKeyType::return_;
    key.keyTitle = "return";
    key.keySymbol = "\u23CE";
    const auto keyJSON = OVInputEvent(key).json();
    EXPECT_EQ(keyJSON["keyType"], "return");
    EXPECT_FALSE(keyJSON.contains("characters"));
    EXPECT_EQ(keyJSON["type"], "keyboard");

    // Round trips, and decoding refuses a missing or unknown type.
    for (const OVInputEvent& event :
         {OVInputEvent(drag), OVInputEvent(key), OVInputEvent(OVInputModifiersChangedEvent{nanosecondTime(2), {OVInputModifier::shift}}),
          OVInputEvent(OVDiscontinuationEvent{nanosecondTime(3)})}) {
        const coding::Json parsed = coding::Json::parse(event.json().dump());
        EXPECT_EQ(OVInputEvent::decode(parsed), event);
    }
    auto noType = coding::Json::parse(OVInputEvent(key).json().dump());
    noType.erase("type");
    EXPECT_THROW(OVInputEvent::decode(noType), coding::DecodingError);
    auto unknown = coding::Json::parse(OVInputEvent(key).json().dump());
    unknown["type"] = "scroll";
    EXPECT_THROW(OVInputEvent::decode(unknown), coding::DecodingError);
}

TEST(InputEventJSON, CursorTypesKeepTheirOrder) {
    EXPECT_EQ(rawValue(OVCursorType::custom), "custom");
    EXPECT_EQ(rawValue(OVCursorType::windowResizeWest), "windowResizeWest");
    EXPECT_EQ(cursorTypeFromRawValue("busyButClickable"), OVCursorType::busyButClickable);
    EXPECT_EQ(static_cast<int>(OVCursorType::windowResizeWest), kOVCursorTypeCount - 1);
}

TEST(InputEventFromPlatform, ButtonsTypesAndModifiers) {
    CGEvent event;
    event.type = CGEventType::otherMouseDown;
    event.buttonNumber = 2;
    EXPECT_EQ(mouseButton(event), OVMouseButton::center);
    event.buttonNumber = 3;
    EXPECT_EQ(mouseButton(event), OVMouseButton::other);
    event.type = CGEventType::mouseMoved;
    EXPECT_EQ(mouseButton(event), std::nullopt);
    EXPECT_EQ(mouseEventType(event), OVMouseEventType::moved);
    event.type = CGEventType::rightMouseDragged;
    EXPECT_EQ(mouseEventType(event), OVMouseEventType::dragged);
    EXPECT_EQ(mouseButton(event), OVMouseButton::secondary);

    EXPECT_EQ(toOVInputModifierSet(platform::kCGEventFlagMaskAlphaShift | platform::kCGEventFlagMaskCommand | 0x100),
              (OVInputModifierSet{OVInputModifier::capsLock, OVInputModifier::command}));

    // X core state: Lock, Shift, Control, Mod1 and Mod4 count; NumLock (Mod2) and AltGr (Mod5) don't.
    EXPECT_EQ(toOVInputModifierSet(platform::x11::flagsFromCoreState(kLock | kShift | kControl | kMod1 | kMod4)),
              (OVInputModifierSet{OVInputModifier::capsLock, OVInputModifier::shift, OVInputModifier::control,
                                  OVInputModifier::option, OVInputModifier::command}));
    EXPECT_TRUE(toOVInputModifierSet(platform::x11::flagsFromCoreState(kMod2 | kMod5)).empty());

    CGEvent notAKey;
    notAKey.type = CGEventType::flagsChanged;
    try {
        keyboardEvent(notAKey, nanosecondTime(0));
        FAIL();
    } catch (const OVError& error) {
        EXPECT_EQ(error.code(), OVError::Code::inputEventProcessingFailed);
        EXPECT_EQ(error.debugDescription(), "Unknown CGEventType: 12");
    }
}

TEST(XkbKeys, LayoutsFromNames) {
    auto us = XkbKeyProcessor::fromNames("us");
    auto de = XkbKeyProcessor::fromNames("de");
    auto fr = XkbKeyProcessor::fromNames("fr");
    ASSERT_TRUE(us && de && fr);
    EXPECT_EQ(keyOf(*de, 29, 0).characters, "z");
    EXPECT_EQ(keyOf(*fr, 24, 0).characters, "a");
    EXPECT_EQ(keyOf(*us, 24, 0).characters, "q");

    // AltGr (ISO_Level3_Shift on Mod5) + q on de.
    const auto at = keyOf(*de, 24, kMod5);
    EXPECT_EQ(at.characters, "@");
    EXPECT_EQ(at.keyTitle, "Q");
    EXPECT_TRUE(at.modifiers.empty());

    const auto shiftA = keyOf(*us, 38, kShift);
    EXPECT_EQ(shiftA.characters, "A");
    EXPECT_EQ(shiftA.keyTitle, "A");
    EXPECT_EQ(shiftA.modifiers, OVInputModifierSet{OVInputModifier::shift});
    const auto controlA = keyOf(*us, 38, kControl);
    EXPECT_EQ(controlA.characters, "\u0001");
    EXPECT_EQ(controlA.keyTitle, "A");
    EXPECT_EQ(controlA.keyType, OVKeyboardKeyType::character);
}

TEST(XkbKeys, TableKeysOptionsAndKeypad) {
    auto capsEscape = XkbKeyProcessor::fromNames("us", nullptr, "caps:escape");
    ASSERT_TRUE(capsEscape);
    const auto caps = keyOf(*capsEscape, 66, 0);
    EXPECT_EQ(caps.keyType, OVKeyboardKeyType::escape);
    EXPECT_EQ(caps.keyTitle, "esc");
    EXPECT_FALSE(caps.characters.has_value());

    auto us = XkbKeyProcessor::fromNames("us");
    // evdev KEY_F13 (183) gives a launcher keysym under the evdev rules.
    EXPECT_EQ(keyOf(*us, 183 + 8, 0).keyType, OVKeyboardKeyType::f13);
    EXPECT_EQ(keyOf(*us, 71, 0).keyType, OVKeyboardKeyType::f5);
    // KP_7: Home without NumLock, "7" with it.
    EXPECT_EQ(keyOf(*us, 79, 0).keyType, OVKeyboardKeyType::home);
    keyOf(*us, 79, 0, false);
    const auto seven = keyOf(*us, 79, kMod2);
    EXPECT_EQ(seven.keyType, OVKeyboardKeyType::character);
    EXPECT_EQ(seven.characters, "7");
    EXPECT_TRUE(seven.modifiers.empty());

    // Keys outside the table without text: Menu, XF86AudioMute.
    for (uint32_t keycode : {135u, 121u}) {
        const auto key = keyOf(*us, keycode, 0);
        EXPECT_EQ(key.keyType, OVKeyboardKeyType::character) << keycode;
        EXPECT_EQ(key.keyTitle, "\u25A1");
        EXPECT_EQ(key.keySymbol, "\u25A1");
        EXPECT_FALSE(key.characters.has_value());
    }
}

TEST(XkbKeys, ModifierKeysRepeatsAndReleases) {
    auto us = XkbKeyProcessor::fromNames("us");
    // Shift_L: one flagsChanged with the set after the key, on press and release.
    auto shift = us->process(50, true, 0);
    ASSERT_TRUE(shift);
    EXPECT_EQ(shift->type, CGEventType::flagsChanged);
    EXPECT_EQ(toOVInputModifierSet(shift->flags), OVInputModifierSet{OVInputModifier::shift});
    auto shiftUp = us->process(50, false, kShift);
    ASSERT_TRUE(shiftUp);
    EXPECT_TRUE(toOVInputModifierSet(shiftUp->flags).empty());
    // NumLock changes no recorded modifier: nothing.
    EXPECT_FALSE(us->process(77, true, 0));
    EXPECT_FALSE(us->process(77, false, kMod2));

    // The server repeats a held key as presses; one release ends it; a
    // duplicate release adds nothing.
    EXPECT_FALSE(us->process(38, true, 0)->autorepeat);
    EXPECT_TRUE(us->process(38, true, 0)->autorepeat);
    EXPECT_TRUE(us->process(38, true, 0)->autorepeat);
    EXPECT_EQ(us->process(38, false, 0)->type, CGEventType::keyUp);
    EXPECT_FALSE(us->process(38, false, 0));

    // Caps lock on: every event carries capsLock while it is on.
    auto capsOn = us->process(66, true, 0);
    ASSERT_TRUE(capsOn);
    EXPECT_EQ(toOVInputModifierSet(capsOn->flags), OVInputModifierSet{OVInputModifier::capsLock});
    const auto a = keyOf(*us, 38, kLock);
    EXPECT_EQ(a.modifiers, OVInputModifierSet{OVInputModifier::capsLock});
    EXPECT_EQ(a.characters, "A");
}

TEST(X11Pointer, ButtonsAndMotion) {
    using namespace platform::x11;
    const PointerMapping leftHanded({3, 2, 1});
    EXPECT_EQ(buttonEvent(leftHanded.logical(1), true)->type, CGEventType::rightMouseDown);
    EXPECT_EQ(buttonEvent(PointerMapping().logical(1), true)->type, CGEventType::leftMouseDown);
    for (uint8_t wheel = 4; wheel <= 7; ++wheel) EXPECT_FALSE(buttonEvent(wheel, true)) << int(wheel);
    for (uint8_t extra : {8, 9}) {
        CGEvent event;
        const auto button = buttonEvent(extra, false);
        ASSERT_TRUE(button);
        event.type = button->type;
        event.buttonNumber = button->buttonNumber;
        EXPECT_EQ(mouseButton(event), OVMouseButton::other);
        EXPECT_EQ(mouseEventType(event), OVMouseEventType::up);
    }
    EXPECT_EQ(buttonEvent(2, true)->buttonNumber, 2);
    EXPECT_EQ(motionType({}), CGEventType::mouseMoved);
    EXPECT_EQ(motionType({8, 3, 1}), CGEventType::leftMouseDragged);
    EXPECT_EQ(motionType({8, 3}), CGEventType::rightMouseDragged);
    EXPECT_EQ(motionType({8}), CGEventType::otherMouseDragged);
    EXPECT_EQ(motionType({4}), CGEventType::mouseMoved);
}

TEST(X11Time, ServerMillisecondsToHostNanoseconds) {
    using platform::x11::ServerTimeMapper;
    // Same clock: the server's time is our CLOCK_MONOTONIC in ms, mod 2^32.
    const uint64_t host = 5'000'123'456ull * 1'000'000 + 789;  // ms = 5'000'123'456, past 2^32
    const auto serverNow = static_cast<uint32_t>(5'000'123'456ull);
    ServerTimeMapper same(serverNow, host);
    EXPECT_TRUE(same.isSameClock());
    EXPECT_EQ(same.hostNanoseconds(serverNow - 3, host), (5'000'123'456ull - 3) * 1'000'000);

    // Across the wrap: host ms just past a multiple of 2^32, event just before it.
    const uint64_t wrapMs = (uint64_t{3} << 32) + 5;
    ServerTimeMapper wrapped(static_cast<uint32_t>(wrapMs), wrapMs * 1'000'000);
    EXPECT_EQ(wrapped.hostNanoseconds(0xFFFFFFFEu, wrapMs * 1'000'000), (wrapMs - 7) * 1'000'000);

    // Another clock: the smallest delay seen maps all later events.
    ServerTimeMapper foreign(1000, host);
    EXPECT_FALSE(foreign.isSameClock());
    const uint64_t first = foreign.hostNanoseconds(1000, host + 2'000'000);
    EXPECT_EQ(first, host / 1'000'000 * 1'000'000 + 2'000'000);
    // A faster delivery lowers the offset; later events keep the lowest.
    const uint64_t second = foreign.hostNanoseconds(1010, host + 11'000'000);
    EXPECT_EQ(second, first + 9'000'000);
    EXPECT_EQ(foreign.hostNanoseconds(1020, host + 30'000'000), second + 10'000'000);
}

}  // namespace
}  // namespace ov
