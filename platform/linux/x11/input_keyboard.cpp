#include "platform/linux/x11/input_keyboard.h"

#include <xkbcommon/xkbcommon.h>

#include "platform/linux/x11/input_mapping.h"

namespace ov::platform::x11 {
namespace {

std::optional<std::string> utf8(xkb_state* state, xkb_keycode_t key) {
    char buffer[64];
    const int n = xkb_state_key_get_utf8(state, key, buffer, sizeof buffer);
    if (n <= 0 || n >= static_cast<int>(sizeof buffer)) return std::nullopt;
    return std::string(buffer, static_cast<size_t>(n));
}

// The core state's modifier bits as the state's effective real modifiers.
uint32_t effectiveCoreMods(xkb_state* state) {
    return static_cast<uint32_t>(xkb_state_serialize_mods(state, XKB_STATE_MODS_EFFECTIVE)) & 0xFF;
}

}  // namespace

XkbKeyProcessor::XkbKeyProcessor(xkb_keymap* keymap) { setKeymap(keymap); }

XkbKeyProcessor::~XkbKeyProcessor() {
    if (state_) xkb_state_unref(state_);
    if (keymap_) xkb_keymap_unref(keymap_);
}

std::unique_ptr<XkbKeyProcessor> XkbKeyProcessor::fromNames(const char* layout, const char* variant,
                                                            const char* options) {
    xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_ENVIRONMENT_NAMES);
    if (!context) return nullptr;
    xkb_rule_names names{"evdev", "pc105", layout, variant, options};
    xkb_keymap* keymap = xkb_keymap_new_from_names(context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
    xkb_context_unref(context);
    if (!keymap) return nullptr;
    auto processor = std::make_unique<XkbKeyProcessor>(keymap);
    xkb_keymap_unref(keymap);
    return processor;
}

void XkbKeyProcessor::setKeymap(xkb_keymap* keymap) {
    if (state_) xkb_state_unref(state_);
    if (keymap_) xkb_keymap_unref(keymap_);
    keymap_ = xkb_keymap_ref(keymap);
    state_ = xkb_state_new(keymap_);
}

void XkbKeyProcessor::resync(uint32_t coreState) {
    const uint32_t mods = coreState & 0xFF;
    const uint32_t group = (coreState >> 13) & 0x3;
    const auto layout = xkb_state_serialize_layout(state_, XKB_STATE_LAYOUT_EFFECTIVE);
    if (effectiveCoreMods(state_) == mods && layout == group) return;
    // Lock (Caps) is latched by the server's state, the others held.
    const uint32_t locked = mods & 0x02;
    xkb_state_update_mask(state_, mods & ~locked, 0, locked, 0, 0, group);
}

std::optional<CGEvent> XkbKeyProcessor::process(uint32_t keycode, bool press, uint32_t coreState) {
    if (keycode > 255) return std::nullopt;
    resync(coreState);
    CGEvent event;
    event.keycode = keycode;
    event.flags = flagsFromCoreState(coreState);
    const auto layout = xkb_state_key_get_layout(state_, keycode);
    const xkb_keysym_t* syms = nullptr;
    const int count = xkb_keymap_key_get_syms_by_level(keymap_, keycode, layout == XKB_LAYOUT_INVALID ? 0 : layout, 0, &syms);
    event.levelZeroKeysym = count > 0 ? syms[0] : 0;

    if (isModifierKeysym(event.levelZeroKeysym)) {
        if (!press && !down_.test(keycode)) return std::nullopt;
        const auto before = flagsFromCoreState(effectiveCoreMods(state_));
        xkb_state_update_key(state_, keycode, press ? XKB_KEY_DOWN : XKB_KEY_UP);
        down_.set(keycode, press);
        const auto after = flagsFromCoreState(effectiveCoreMods(state_));
        if (after == before) return std::nullopt;
        event.type = CGEventType::flagsChanged;
        event.flags = after;
        return event;
    }

    if (press) {
        event.type = CGEventType::keyDown;
        // The server repeats a held key as further presses with no release.
        event.autorepeat = down_.test(keycode);
    } else {
        if (!down_.test(keycode)) return std::nullopt;
        event.type = CGEventType::keyUp;
    }
    event.keysym = xkb_state_key_get_one_sym(state_, keycode);
    event.characters = utf8(state_, keycode);
    // The key under shift alone (when held), in the same layout.
    xkb_state* plain = xkb_state_new(keymap_);
    const uint32_t shift = coreState & 0x01;
    xkb_state_update_mask(plain, shift, 0, 0, 0, 0, (coreState >> 13) & 0x3);
    event.charactersIgnoringModifiers = utf8(plain, keycode);
    xkb_state_unref(plain);
    if (!event.autorepeat) xkb_state_update_key(state_, keycode, press ? XKB_KEY_DOWN : XKB_KEY_UP);
    down_.set(keycode, press);
    return event;
}

}  // namespace ov::platform::x11
