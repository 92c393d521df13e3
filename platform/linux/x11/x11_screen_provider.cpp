#include "platform/linux/x11/x11_screen_provider.h"

#include "platform/linux/x11/x11_content.h"
#include "platform/linux/x11/x11_stream.h"
#include "platform/os_log.h"

namespace ov::platform::x11 {
namespace {

OSLog& log() {
    static OSLog instance(OSLog::defaultSubsystem, "X11ScreenProvider");
    return instance;
}

}  // namespace

X11ScreenProvider::X11ScreenProvider(std::string display, double contentTimeLimitSeconds)
    : contentTimeLimit_(contentTimeLimitSeconds) {
    content_ = X11Connection::open(display, kReconnectTimeLimitSeconds);
    display_ = content_->displayName();
    if (!content_->extensions().randr)
        log().info("The X server has no RandR 1.5: its root counts as one display.");
    log().info("X display " + display_ + ": " + content_->extensions().describe());
}

std::shared_ptr<X11Connection> X11ScreenProvider::contentConnection() const {
    std::lock_guard lock(mutex_);
    return content_;
}

SCShareableContent X11ScreenProvider::shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly) const {
    auto connection = contentConnection();
    const auto deadline = deadlineIn(contentTimeLimit_);
    auto monitors = readMonitors(*connection, deadline);
    auto windows = readWindows(*connection, deadline);
    return makeShareableContent(monitors, windows, excludingDesktopWindows, onScreenWindowsOnly);
}

std::unique_ptr<ScreenCaptureProducer> X11ScreenProvider::startScreenCapture(const SCContentFilter& filter,
                                                                             const SCStreamConfiguration& configuration,
                                                                             ScreenCaptureSink sink) {
    return startX11ScreenCapture(display_, filter, configuration, std::move(sink));
}

bool X11ScreenProvider::restartShareableContentService() {
    try {
        auto fresh = X11Connection::open(display_, kReconnectTimeLimitSeconds);
        std::lock_guard lock(mutex_);
        content_ = std::move(fresh);
        log().info("Reconnected the shareable content connection to " + display_ + ".");
        return true;
    } catch (const std::exception& e) {
        log().error(std::string("Reconnecting the shareable content connection failed: ") + e.what());
        return false;
    }
}

}  // namespace ov::platform::x11
