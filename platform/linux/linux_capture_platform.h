#pragma once
// The `linux` backend: one provider per Linux API (the sound server for
// microphones, the X server for screens, V4L2 for cameras, ...), composed
// here. Each API is probed when the backend is made; one that is absent is
// logged and left out, never a failure of the others: a machine without an
// X server still records its microphones.

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/capture/device_provider.h"
#include "platform/capture/screen_provider.h"
#include "platform/capture_platform.h"

namespace ov::platform {

class LinuxCapturePlatform final : public CapturePlatform {
public:
    // The providers of every API this machine offers (see makeProviders()).
    LinuxCapturePlatform();
    // Exactly these providers (tests). A null screen provider leaves screens
    // unavailable.
    LinuxCapturePlatform(std::vector<std::shared_ptr<CaptureDeviceProvider>> deviceProviders,
                         std::shared_ptr<ScreenCaptureProvider> screens);
    ~LinuxCapturePlatform() override;

    std::string name() const override { return "linux"; }
    // Every provider's devices, in provider order.
    std::vector<AVCaptureDeviceRef> devices() const override;
    // See linux_permissions.h. Microphones: restricted in a sandbox, else
    // authorized (the sound server serves every local client; with no server
    // there is no microphone, which is the error a recorder then reports).
    AVAuthorizationStatus authorizationStatus(AVMediaType mediaType) const override;
    bool preflightScreenCaptureAccess() const override;
    bool preflightListenEventAccess() const override;
    bool preflightPostEventAccess() const override;
    // The sound server accepting us: per-application capture needs nothing more.
    int audioCaptureAccessStatus() const override;
    SCShareableContent shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly) const override;
    std::unique_ptr<ScreenCaptureProducer> startScreenCapture(const SCContentFilter& filter,
                                                              const SCStreamConfiguration& configuration,
                                                              ScreenCaptureSink sink) override;
    // The screen provider's, bounded by it.
    void restartShareableContentService() override;
    // The screen provider's; empty lists without one, so that a machine with
    // no display server lists nothing rather than failing.
    std::vector<CGDisplayInfo> activeDisplays() const override;
    std::vector<CGWindowEntry> windowList(CGWindowListOption option) const override;
    std::vector<RunningApplicationInfo> runningApplications() const override;
    std::optional<bool> isPortableChassis() const override { return dmiChassisIsPortable(); }
    // The first input API that answers, asked anew on each call so that a
    // display server started later is found.
    std::shared_ptr<InputCaptureProvider> inputProvider() const override;

    // The providers this machine offers. Each API registers a probe below;
    // a probe that throws or returns null leaves its API out, with a log line.
    struct Providers {
        std::vector<std::shared_ptr<CaptureDeviceProvider>> devices;
        std::shared_ptr<ScreenCaptureProvider> screens;
    };
    static Providers makeProviders();

    // A probe of one API. Device probes are tried in registration order;
    // the first screen probe that answers wins.
    using DeviceProbe = std::function<std::shared_ptr<CaptureDeviceProvider>()>;
    using ScreenProbe = std::function<std::shared_ptr<ScreenCaptureProvider>()>;
    static bool registerDeviceProbe(std::string api, DeviceProbe probe);
    static bool registerScreenProbe(std::string api, ScreenProbe probe);
    // Input probes are run when a recording asks for input, not at start.
    using InputProbe = std::function<std::shared_ptr<InputCaptureProvider>()>;
    static bool registerInputProbe(std::string api, InputProbe probe);

private:
    std::vector<std::shared_ptr<CaptureDeviceProvider>> deviceProviders_;
    std::shared_ptr<ScreenCaptureProvider> screens_;
    UnavailableCapturePlatform unavailable_{"linux"};
};

}  // namespace ov::platform
