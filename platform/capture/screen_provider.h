#pragma once
// What a display server offers: the snapshot of displays, windows and
// applications, and screen capture of a content filter.
//
// Threads: every call may come from any thread and blocks until answered or
// until the provider's own time limit; the producer's threads are described in
// screen_capture_producer.h.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/capture/screen_capture_producer.h"
#include "platform/cg_window_list.h"
#include "platform/sc_shareable_content.h"

namespace ov::platform {

class ScreenCaptureProvider {
public:
    virtual ~ScreenCaptureProvider() = default;
    // "x11", ...: for logs.
    virtual std::string apiName() const = 0;
    // Throws a PlatformError when the display server can't answer.
    virtual SCShareableContent shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly) const = 0;
    // Throws SCStreamError when capture can't start.
    virtual std::unique_ptr<ScreenCaptureProducer> startScreenCapture(const SCContentFilter& filter,
                                                                      const SCStreamConfiguration& configuration,
                                                                      ScreenCaptureSink sink) = 0;
    virtual bool preflightScreenCaptureAccess() const = 0;
    // Drops and reopens whatever answers shareableContent(), for a caller
    // whose retrievals stopped answering; returns within a bounded time.
    // Whether a fresh service is in place.
    virtual bool restartShareableContentService() { return false; }

    // The window server's lists for discovery (see cg_window_list.h); by
    // default read off a shareable content snapshot. Throw a PlatformError
    // when the server can't answer.
    virtual std::vector<CGDisplayInfo> activeDisplays() const { return displayInfos(shareableContent(false, false)); }
    virtual std::vector<CGWindowEntry> windowList(CGWindowListOption option) const {
        return windowEntries(shareableContent(false, option == CGWindowListOption::onScreenOnly));
    }
    virtual std::vector<RunningApplicationInfo> runningApplications() const {
        return runningApplicationInfos(shareableContent(false, false));
    }
    // Who to tell when displays are reconfigured; called on a thread of the
    // provider. Providers that can't tell leave it unused (discovery then
    // re-reads when asked).
    virtual void setDisplayReconfigurationHandler(std::function<void()> handler) { (void)handler; }
};

}  // namespace ov::platform
