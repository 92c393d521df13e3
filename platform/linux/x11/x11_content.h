#pragma once
// What an X server shows, read through one connection: monitors (RandR 1.5),
// top-level windows front to back (EWMH, with their window manager frames)
// and the processes that own them (X-Resource), as the platform's shareable
// content.

#include <xcb/xcb.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/x11/x11_connection.h"
#include "platform/sc_shareable_content.h"

namespace ov::platform::x11 {

struct X11Monitor {
    CGDirectDisplayID displayID = 0;
    std::string name;
    int32_t x = 0, y = 0, width = 0, height = 0;
    bool primary = false;
    // From the CRTC mode of its first output; 0 when unknown (Xvfb, virtual monitors).
    double refreshRate = 0;
    // Of its first output: the connector's name ("eDP-1", "HDMI-1", "screen"),
    // its index among the screen's outputs, its physical size, its CRTC's
    // rotation in degrees and its EDID block (empty without one). Empty and
    // zero for a monitor without outputs.
    std::string outputName;
    uint32_t outputIndex = 0;
    uint32_t millimetreWidth = 0, millimetreHeight = 0;
    double rotation = 0;
    std::vector<uint8_t> edid;
};

// How many window and monitor reads this process has sent (for checks that
// nothing polls the server while nobody listens).
uint64_t x11ContentReadCount();

// Core Graphics window levels, as the platform numbers them.
namespace level {
inline constexpr int32_t normal = 0, floating = 3, tornOffMenu = 3, modalPanel = 8, utility = 19, dock = 20,
                         statusBar = 25, popUpMenu = 101, help = 200, dragging = 500;
inline constexpr int32_t desktop = INT32_MIN + 25;
}  // namespace level

struct X11Window {
    xcb_window_t client = 0;  // the id EWMH and tools name
    xcb_window_t frame = 0;   // the root child that holds it (itself without a window manager)
    int32_t x = 0, y = 0, width = 0, height = 0;  // the frame, in root pixels
    std::optional<std::string> title;
    std::optional<int32_t> pid;
    std::string wmClass;  // the class part of WM_CLASS
    int32_t layer = level::normal;
    bool onScreen = false;
    bool desktop = false;
    bool overrideRedirect = false;
    xcb_visualid_t visual = 0;  // of the frame
    uint8_t depth = 0;
};

// Display ids: FNV-1a-32 of the monitor name (stable across server restarts,
// unlike atoms and XIDs), never 0.
CGDirectDisplayID displayIDForMonitorName(const std::string& name);

// Active monitors; the root as one monitor "screen" when RandR is missing.
std::vector<X11Monitor> readMonitors(const X11Connection& connection, Deadline deadline);

// Top-level windows front to back: managed clients and viewable
// override-redirect windows (with no window manager, the mapped root children).
std::vector<X11Window> readWindows(const X11Connection& connection, Deadline deadline);

// The process of the client that created a window (X-Resource), if local.
std::optional<int32_t> windowProcessID(const X11Connection& connection, xcb_window_t window, Deadline deadline);

SCShareableContent makeShareableContent(const std::vector<X11Monitor>& monitors, const std::vector<X11Window>& windows,
                                        bool excludingDesktopWindows, bool onScreenWindowsOnly);

}  // namespace ov::platform::x11
