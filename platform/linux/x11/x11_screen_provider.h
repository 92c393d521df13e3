#pragma once
// The X server's part of the `linux` backend: shareable content read through
// one connection, and a screen stream per filter on connections of their own.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/capture/screen_provider.h"
#include "platform/linux/x11/x11_connection.h"

namespace ov::platform::x11 {

class X11ScreenProvider final : public ScreenCaptureProvider {
public:
    // How long a content retrieval may wait for the server, by default.
    static constexpr double kContentTimeLimitSeconds = 5.0;
    // How long a reconnect may take before it is given up.
    static constexpr double kReconnectTimeLimitSeconds = 2.0;

    // Connects to `display` (empty: $DISPLAY); throws X11Error when there is
    // no server or it lacks RandR 1.5.
    explicit X11ScreenProvider(std::string display = {}, double contentTimeLimitSeconds = kContentTimeLimitSeconds);

    std::string apiName() const override { return "x11"; }
    // Throws X11Error (a PlatformError) when the server can't answer in time.
    SCShareableContent shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly) const override;
    std::unique_ptr<ScreenCaptureProducer> startScreenCapture(const SCContentFilter& filter,
                                                              const SCStreamConfiguration& configuration,
                                                              ScreenCaptureSink sink) override;
    // X11 has no screen capture permission.
    bool preflightScreenCaptureAccess() const override { return true; }
    // Replaces the content connection with a new one, waiting at most
    // kReconnectTimeLimitSeconds; retrievals still waiting on the old one
    // finish on it. Whether a new connection was made.
    bool restartShareableContentService() override;

    const std::string& displayName() const { return display_; }

    // Monitors as displays: main is the primary monitor (else the one at
    // the origin), built in when the connector is a panel's (eDP, LVDS,
    // DSI), the EDID numbers of its first output, mirrors by identical
    // rectangles (the higher id mirrors the lower).
    std::vector<CGDisplayInfo> activeDisplays() const override;
    // One pipelined window read; no monitor read.
    std::vector<CGWindowEntry> windowList(CGWindowListOption option) const override;
    std::vector<RunningApplicationInfo> runningApplications() const override;
    // RandR screen, CRTC and output notifications on a connection of their
    // own, watched by a thread while a handler is set. Virtual monitors
    // (--setmonitor) send none: callers re-read when asked.
    void setDisplayReconfigurationHandler(std::function<void()> handler) override;
    ~X11ScreenProvider() override;

private:
    std::shared_ptr<X11Connection> contentConnection() const;
    void watchReconfigurations();

    std::string display_;
    double contentTimeLimit_;
    mutable std::mutex mutex_;
    std::shared_ptr<X11Connection> content_;

    std::mutex handlerMutex_;
    std::function<void()> reconfigurationHandler_;
    std::atomic<bool> watching_{false};
    int wake_ = -1;  // eventfd that ends the watcher's wait
    std::thread watcher_;
};

}  // namespace ov::platform::x11
