#pragma once
// What a display server offers: the snapshot of displays, windows and
// applications, and screen capture of a content filter.
//
// Threads: every call may come from any thread and blocks until answered or
// until the provider's own time limit; the producer's threads are described in
// screen_capture_producer.h.

#include <memory>
#include <string>

#include "platform/capture/screen_capture_producer.h"
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
};

}  // namespace ov::platform
