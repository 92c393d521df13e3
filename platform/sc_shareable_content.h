#pragma once
// What can be captured at one moment: displays, windows and the applications
// that own them, as plain values. A snapshot is taken through the chosen
// backend and doesn't change afterwards.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/cg_geometry.h"

namespace ov::platform {

using CGDirectDisplayID = uint32_t;
using CGWindowID = uint32_t;

struct SCDisplay {
    CGDirectDisplayID displayID = 0;
    // In global points, top-left origin.
    CGRect frame;
    // Points; pixels are these times the display's scale.
    int32_t width = 0;
    int32_t height = 0;
    std::string description() const;
};

struct SCRunningApplication {
    int32_t processID = 0;
    std::string bundleIdentifier;
    std::string applicationName;
    friend bool operator==(const SCRunningApplication&, const SCRunningApplication&) = default;
};

struct SCWindow {
    CGWindowID windowID = 0;
    CGRect frame;
    std::optional<std::string> title;
    std::optional<SCRunningApplication> owningApplication;
    int32_t windowLayer = 0;
    bool isOnScreen = true;
    std::string description() const;
};

// A display's mode: its size in points and in pixels, and its refresh rate
// (0 when unknown).
struct CGDisplayMode {
    int32_t width = 0;
    int32_t height = 0;
    int32_t pixelWidth = 0;
    int32_t pixelHeight = 0;
    double refreshRate = 0;
};
// The display's current mode, or none when it can't be read.
std::optional<CGDisplayMode> CGDisplayCopyDisplayMode(CGDirectDisplayID display);
inline int32_t CGDisplayModeGetWidth(const CGDisplayMode& mode) { return mode.width; }
inline int32_t CGDisplayModeGetPixelWidth(const CGDisplayMode& mode) { return mode.pixelWidth; }

class SCShareableContent {
public:
    SCShareableContent() = default;
    SCShareableContent(std::vector<SCDisplay> displays, std::vector<SCWindow> windows,
                       std::vector<SCRunningApplication> applications)
        : displays_(std::move(displays)), windows_(std::move(windows)), applications_(std::move(applications)) {}

    const std::vector<SCDisplay>& displays() const { return displays_; }
    // Front to back.
    const std::vector<SCWindow>& windows() const { return windows_; }
    const std::vector<SCRunningApplication>& applications() const { return applications_; }

    using CompletionHandler = std::function<void(std::optional<SCShareableContent>, std::exception_ptr)>;
    // Every display, window (desktop and off-screen ones too) and application.
    // The handler runs once, on another thread, with the content or an error;
    // it may take long or never run, which callers guard against.
    static void getShareableContent(CompletionHandler completionHandler);
    // Leaves out desktop windows and/or windows that are not on screen.
    static void getShareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly,
                                    CompletionHandler completionHandler);

private:
    std::vector<SCDisplay> displays_;
    std::vector<SCWindow> windows_;
    std::vector<SCRunningApplication> applications_;
};

}  // namespace ov::platform
