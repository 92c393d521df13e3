#include "platform/linux/x11/input_mapping.h"

#include <xkbcommon/xkbcommon-keysyms.h>

namespace ov::platform::x11 {

CGEventFlags flagsFromCoreState(uint32_t state) {
    CGEventFlags flags = 0;
    if (state & 0x01) flags |= kCGEventFlagMaskShift;
    if (state & 0x02) flags |= kCGEventFlagMaskAlphaShift;
    if (state & 0x04) flags |= kCGEventFlagMaskControl;
    if (state & 0x08) flags |= kCGEventFlagMaskAlternate;
    if (state & 0x40) flags |= kCGEventFlagMaskCommand;
    return flags;
}

bool isModifierKeysym(uint32_t keysym) {
    switch (keysym) {
        case XKB_KEY_Shift_L: case XKB_KEY_Shift_R: case XKB_KEY_Control_L: case XKB_KEY_Control_R:
        case XKB_KEY_Caps_Lock: case XKB_KEY_Shift_Lock: case XKB_KEY_Meta_L: case XKB_KEY_Meta_R:
        case XKB_KEY_Alt_L: case XKB_KEY_Alt_R: case XKB_KEY_Super_L: case XKB_KEY_Super_R:
        case XKB_KEY_Hyper_L: case XKB_KEY_Hyper_R: case XKB_KEY_Num_Lock: case XKB_KEY_ISO_Level3_Shift:
        case XKB_KEY_ISO_Level5_Shift: case XKB_KEY_Mode_switch:
            return true;
        default:
            return false;
    }
}

uint8_t PointerMapping::logical(uint8_t physical) const {
    if (physical == 0 || physical > map_.size()) return physical;
    return map_[physical - 1];
}

bool isWheelButton(uint8_t logical) { return logical >= 4 && logical <= 7; }

std::optional<ButtonEvent> buttonEvent(uint8_t logical, bool press) {
    if (logical == 0 || isWheelButton(logical)) return std::nullopt;
    if (logical == 1) return ButtonEvent{press ? CGEventType::leftMouseDown : CGEventType::leftMouseUp, 0};
    if (logical == 3) return ButtonEvent{press ? CGEventType::rightMouseDown : CGEventType::rightMouseUp, 1};
    const int64_t number = logical == 2 ? 2 : logical - 5;
    return ButtonEvent{press ? CGEventType::otherMouseDown : CGEventType::otherMouseUp, number};
}

CGEventType motionType(const std::set<uint8_t>& held) {
    if (held.count(1)) return CGEventType::leftMouseDragged;
    if (held.count(3)) return CGEventType::rightMouseDragged;
    for (auto b : held)
        if (b != 0 && !isWheelButton(b)) return CGEventType::otherMouseDragged;
    return CGEventType::mouseMoved;
}

ServerTimeMapper::ServerTimeMapper(uint32_t serverNow, uint64_t hostNowNanoseconds) {
    const uint64_t nowMs = hostNowNanoseconds / 1'000'000;
    const auto difference = static_cast<int32_t>(static_cast<uint32_t>(nowMs) - serverNow);
    sameClock_ = difference >= -1000 && difference <= 1000;
}

uint64_t ServerTimeMapper::hostNanoseconds(uint32_t serverTime, uint64_t hostNowNanoseconds) {
    const uint64_t nowMs = hostNowNanoseconds / 1'000'000;
    if (sameClock_) {
        const auto behind = static_cast<int32_t>(static_cast<uint32_t>(nowMs) - serverTime);
        return static_cast<uint64_t>(static_cast<int64_t>(nowMs) - behind) * 1'000'000;
    }
    if (lastServerTime_ && serverTime < *lastServerTime_ && *lastServerTime_ - serverTime > 0x80000000u)
        ++serverEpochs_;
    lastServerTime_ = serverTime;
    const int64_t unwrapped = static_cast<int64_t>((serverEpochs_ << 32) + serverTime);
    const int64_t offset = static_cast<int64_t>(nowMs) - unwrapped;
    if (!offsetMilliseconds_ || offset < *offsetMilliseconds_) offsetMilliseconds_ = offset;
    return static_cast<uint64_t>(unwrapped + *offsetMilliseconds_) * 1'000'000;
}

}  // namespace ov::platform::x11
