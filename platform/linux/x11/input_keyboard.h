#pragma once
// Key events through an xkbcommon keymap and state: the keysyms and the text
// of each key, repeats, and modifier keys as flag changes. The state is fed
// with the keys in event order and re-synchronised from each event's core
// state, so it follows what the server saw even when keys were pressed
// before the feed started. Nothing here logs: key data stays in the events.

#include <bitset>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/cg_event.h"

struct xkb_keymap;
struct xkb_state;

namespace ov::platform::x11 {

class XkbKeyProcessor {
public:
    // Takes a reference on the keymap.
    explicit XkbKeyProcessor(xkb_keymap* keymap);
    ~XkbKeyProcessor();
    XkbKeyProcessor(const XkbKeyProcessor&) = delete;
    XkbKeyProcessor& operator=(const XkbKeyProcessor&) = delete;

    // A keymap from rules names, as a compositor-free test or the synthetic
    // world builds one ("us", "de", "fr"; options such as "caps:escape").
    static std::unique_ptr<XkbKeyProcessor> fromNames(const char* layout, const char* variant = nullptr,
                                                      const char* options = nullptr);

    // A new keymap (the server's changed); the keys held are kept.
    void setKeymap(xkb_keymap* keymap);

    // One key press or release with the core state before it. Fills the
    // event's type (keyDown, keyUp or flagsChanged), flags, keycode, repeat
    // and key data; absent when nothing is to be sent (a modifier key that
    // changes no flag, a release of a key that isn't down).
    std::optional<CGEvent> process(uint32_t keycode, bool press, uint32_t coreState);

private:
    void resync(uint32_t coreState);

    xkb_keymap* keymap_ = nullptr;
    xkb_state* state_ = nullptr;
    std::bitset<256> down_;
};

}  // namespace ov::platform::x11
