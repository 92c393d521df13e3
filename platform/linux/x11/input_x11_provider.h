#pragma once
// Input events and the cursor of the `linux` backend on X11.
//
// The feed is the X RECORD extension over all clients: it carries each
// event's exact root position, the modifier state before it and the server's
// key repeats, which XInput2 raw events do not (docs/ARCHITECTURE.md). Its
// device-event range follows the mask, so a mouse-only feed never receives a
// key event. Two connections of our own: the data connection blocks in
// EnableContext on the feed's thread; the control connection holds the
// keymap, the pointer mapping and the context. Keys go through xkbcommon.
//
// The cursor comes from XFixes on a third connection: a cursor notify marks
// the picture stale, and only then is the picture read again.

#include <memory>

#include "platform/capture/input_provider.h"

namespace ov::platform::x11 {

class X11InputProvider final : public InputCaptureProvider {
public:
    // Throws OVError inputRecordingUnavailable on a Wayland session: its X
    // server would only show the input of X clients, a silent partial record.
    X11InputProvider();

    std::string apiName() const override { return "x11"; }
    // Throws CGEventTapError when the display, the RECORD extension or the
    // keymap can't be had.
    std::unique_ptr<InputFeed> startFeed(CGEventMask mask, InputFeedSink sink) override;
    // Throws PlatformError when the display or XFixes can't be had.
    std::shared_ptr<CursorSource> makeCursorSource() override;
};

}  // namespace ov::platform::x11
