// The X server's part of the `linux` backend, composed in when $DISPLAY names
// a server that answers.
#include <cstdlib>

#include "platform/linux/linux_capture_platform.h"
#include "platform/linux/x11/x11_screen_provider.h"
#include "platform/os_log.h"

namespace ov::platform {
namespace {

std::shared_ptr<ScreenCaptureProvider> probeX11() {
    static OSLog log(OSLog::defaultSubsystem, "X11ScreenProvider");
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) {
        log.info("No $DISPLAY: screens, windows and applications are not available.");
        return nullptr;
    }
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    const char* session = std::getenv("XDG_SESSION_TYPE");
    if ((wayland && *wayland) || (session && std::string(session) == "wayland"))
        log.notice("This is a Wayland session: only X11 clients (through XWayland) are visible and captured.");
    return std::make_shared<x11::X11ScreenProvider>(display);
}

const bool registered = LinuxCapturePlatform::registerScreenProbe("X11", probeX11);

}  // namespace
}  // namespace ov::platform
