#pragma once
// The pure parts of turning X input into the platform's events, apart from
// any connection so that tests need no server: core state to flags, pointer
// buttons (physical to logical, logical to event types), motion types by the
// buttons held, and the X server's millisecond times to the host clock.

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <vector>

#include "platform/cg_event.h"

namespace ov::platform::x11 {

// Core state bits: Shift 1, Lock 2, Control 4, Mod1 8, Mod2 16, Mod3 32,
// Mod4 64, Mod5 128. Mod1 is Alt (option), Mod4 Super (command); NumLock
// (Mod2), Mod3 and AltGr (Mod5) are device-dependent and ignored, and the
// function key never reaches X (its code is above 255).
CGEventFlags flagsFromCoreState(uint32_t state);

// Whether a level-0 keysym names a modifier key, which sends flagsChanged
// rather than key down and up.
bool isModifierKeysym(uint32_t keysym);

// The core pointer mapping: physical button n gives logical map[n-1]. The
// identity when empty. A left-handed mapping swaps 1 and 3.
class PointerMapping {
public:
    PointerMapping() = default;
    explicit PointerMapping(std::vector<uint8_t> map) : map_(std::move(map)) {}
    uint8_t logical(uint8_t physical) const;

private:
    std::vector<uint8_t> map_;
};

// Logical buttons 4 to 7 are the wheel.
bool isWheelButton(uint8_t logical);

// Down or up of a logical button: 1 left, 3 right, 2 other with number 2, 8
// and beyond other with number n - 5. None for the wheel and button 0.
struct ButtonEvent {
    CGEventType type;
    int64_t buttonNumber;
};
std::optional<ButtonEvent> buttonEvent(uint8_t logical, bool press);

// Motion while buttons are held: left first, then right, then any other.
CGEventType motionType(const std::set<uint8_t>& heldLogicalButtons);

// Maps the X server's CARD32 millisecond times to host nanoseconds. The server
// reads CLOCK_MONOTONIC (truncated to ms, wrapping at 2^32), so on the same
// clock an event's time is now less the signed 32-bit difference, which carries
// across the wrap. A server on another clock (a remote display, found when
// its time and ours differ by more than a second at connection) is mapped by
// the smallest delay seen.
class ServerTimeMapper {
public:
    // `serverNow` is a server time read at host time `hostNowNanoseconds`.
    ServerTimeMapper(uint32_t serverNow, uint64_t hostNowNanoseconds);

    bool isSameClock() const { return sameClock_; }
    // An event's host time, given the host time at receipt.
    uint64_t hostNanoseconds(uint32_t serverTime, uint64_t hostNowNanoseconds);

private:
    bool sameClock_ = true;
    // Foreign clock: the server's time unwrapped to 64 bits, and the smallest
    // host − server offset seen, in ms.
    std::optional<uint32_t> lastServerTime_;
    uint64_t serverEpochs_ = 0;
    std::optional<int64_t> offsetMilliseconds_;
};

}  // namespace ov::platform::x11
