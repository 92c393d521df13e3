#include "platform/sc_shareable_content.h"

#include <thread>

#include <fmt/format.h>

#include "platform/capture_platform.h"

namespace ov::platform {

namespace {
std::string rectText(const CGRect& r) {
    return fmt::format("({:g}, {:g}, {:g}, {:g})", r.origin.x, r.origin.y, r.size.width, r.size.height);
}

void fetch(bool excludingDesktopWindows, bool onScreenWindowsOnly, SCShareableContent::CompletionHandler handler) {
    // The platform answers from another thread; so do we, so that callers
    // can't come to rely on an answer arriving before the call returns.
    std::thread([=, handler = std::move(handler)] {
        std::optional<SCShareableContent> content;
        std::exception_ptr error;
        try {
            content = CapturePlatform::shared()->shareableContent(excludingDesktopWindows, onScreenWindowsOnly);
        } catch (...) {
            error = std::current_exception();
        }
        handler(std::move(content), error);
    }).detach();
}
}  // namespace

std::string SCDisplay::description() const {
    return fmt::format("<SCDisplay: {}, {}x{}, frame {}>", displayID, width, height, rectText(frame));
}

std::string SCWindow::description() const {
    return fmt::format("<SCWindow: {}, \"{}\", owner {}, frame {}, layer {}{}>", windowID, title.value_or(""),
                       owningApplication ? std::to_string(owningApplication->processID) : "none", rectText(frame),
                       windowLayer, isOnScreen ? "" : ", off screen");
}

std::optional<CGDisplayMode> CGDisplayCopyDisplayMode(CGDirectDisplayID display) {
    try {
        return CapturePlatform::shared()->displayMode(display);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void SCShareableContent::getShareableContent(CompletionHandler completionHandler) {
    fetch(false, false, std::move(completionHandler));
}

void SCShareableContent::getShareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly,
                                             CompletionHandler completionHandler) {
    fetch(excludingDesktopWindows, onScreenWindowsOnly, std::move(completionHandler));
}

}  // namespace ov::platform
