#include "platform/linux/x11/x11_screen_provider.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <xcb/randr.h>

#include <algorithm>
#include <map>

#include "platform/edid.h"
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

X11ScreenProvider::~X11ScreenProvider() { setDisplayReconfigurationHandler({}); }

namespace {

bool isPanelConnector(const std::string& name) {
    return name.rfind("eDP", 0) == 0 || name.rfind("LVDS", 0) == 0 || name.rfind("DSI", 0) == 0;
}

}  // namespace

std::vector<CGDisplayInfo> X11ScreenProvider::activeDisplays() const {
    auto connection = contentConnection();
    const auto monitors = readMonitors(*connection, deadlineIn(contentTimeLimit_));
    const bool anyPrimary = std::any_of(monitors.begin(), monitors.end(), [](const auto& m) { return m.primary; });
    std::vector<CGDisplayInfo> displays;
    for (const auto& m : monitors) {
        CGDisplayInfo info;
        info.displayID = m.displayID;
        info.bounds = {{double(m.x), double(m.y)}, {double(m.width), double(m.height)}};
        info.isMain = anyPrimary ? m.primary : (m.x == 0 && m.y == 0);
        info.isBuiltin = isPanelConnector(m.outputName);
        info.rotation = m.rotation;
        info.screenSize = {double(m.millimetreWidth), double(m.millimetreHeight)};
        info.unitNumber = m.outputIndex;
        std::optional<std::string> productName;
        if (auto edid = parseEDID(m.edid)) {
            info.vendorNumber = edid->vendorNumber;
            info.modelNumber = edid->modelNumber;
            info.serialNumber = edid->serialNumber;
            productName = edid->productName;
        }
        info.screenName = productName ? *productName : m.name;
        displays.push_back(std::move(info));
    }
    // Monitors showing the same rectangle show the same picture.
    for (auto& display : displays)
        for (const auto& other : displays)
            if (other.displayID < display.displayID && other.bounds == display.bounds &&
                (display.mirrorsDisplay == 0 || other.displayID < display.mirrorsDisplay))
                display.mirrorsDisplay = other.displayID;
    if (!anyPrimary) {
        // Only one main, even when mirrors share the origin.
        bool seen = false;
        std::sort(displays.begin(), displays.end(), [](const auto& a, const auto& b) { return a.displayID < b.displayID; });
        for (auto& display : displays) {
            if (display.isMain && seen) display.isMain = false;
            seen = seen || display.isMain;
        }
    }
    return displays;
}

std::vector<CGWindowEntry> X11ScreenProvider::windowList(CGWindowListOption option) const {
    auto connection = contentConnection();
    const auto windows = readWindows(*connection, deadlineIn(contentTimeLimit_));
    return windowEntries(makeShareableContent({}, windows, false, option == CGWindowListOption::onScreenOnly));
}

std::vector<RunningApplicationInfo> X11ScreenProvider::runningApplications() const {
    auto connection = contentConnection();
    const auto windows = readWindows(*connection, deadlineIn(contentTimeLimit_));
    return runningApplicationInfos(makeShareableContent({}, windows, false, false));
}

void X11ScreenProvider::setDisplayReconfigurationHandler(std::function<void()> handler) {
    const bool start = static_cast<bool>(handler);
    {
        std::lock_guard lock(handlerMutex_);
        reconfigurationHandler_ = std::move(handler);
    }
    if (start && !watching_.exchange(true)) {
        wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        watcher_ = std::thread([this] { watchReconfigurations(); });
    } else if (!start && watching_.exchange(false)) {
        const uint64_t one = 1;
        if (wake_ >= 0) (void)!::write(wake_, &one, sizeof one);
        if (watcher_.joinable()) watcher_.join();
        if (wake_ >= 0) ::close(wake_);
        wake_ = -1;
    }
}

void X11ScreenProvider::watchReconfigurations() {
    std::shared_ptr<X11Connection> connection;
    try {
        connection = X11Connection::open(display_, kReconnectTimeLimitSeconds);
    } catch (const std::exception& e) {
        log().error(std::string("Display reconfigurations can't be watched: ") + e.what());
        return;
    }
    if (!connection->extensions().randr) return;
    xcb_connection_t* c = connection->get();
    xcb_randr_select_input(c, connection->root(),
                           XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                               XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
    xcb_flush(c);
    pollfd descriptors[2] = {{xcb_get_file_descriptor(c), POLLIN, 0}, {wake_, POLLIN, 0}};
    while (watching_.load() && !connection->hasError()) {
        // Asleep until the server says something or the handler is cleared.
        ::poll(descriptors, wake_ >= 0 ? 2 : 1, wake_ >= 0 ? -1 : 100);
        bool changed = false;
        while (xcb_generic_event_t* event = xcb_poll_for_event(c)) {
            changed = true;
            std::free(event);
        }
        if (!changed) continue;
        std::function<void()> handler;
        {
            std::lock_guard lock(handlerMutex_);
            handler = reconfigurationHandler_;
        }
        if (handler) handler();
    }
}

}  // namespace ov::platform::x11
