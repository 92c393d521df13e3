#pragma once
// CapturePlatform: the backend behind the capture interfaces (devices,
// sessions, screen streams, shareable content). One is chosen once per
// process from ORVANE_PLATFORM:
//
//   linux      (the default) the machine's own screens, cameras and sound,
//              composed from one provider per Linux API
//              (platform/linux/linux_capture_platform.h). What no provider
//              offers fails with a platform error in the domain
//              "Orvane.CapturePlatform" saying so.
//   synthetic  a generated world of displays, windows, cameras, microphones
//              and phones with exact timestamps (see synthetic_world.h); the
//              world comes from the JSON file named by ORVANE_SYNTHETIC_WORLD,
//              or is the default world without one.
//
// An unknown ORVANE_PLATFORM, or a world file that can't be read, is an error
// that shared() raises on every call, so that the process says what is wrong
// instead of capturing from something else. Tests install a backend of their
// own with ScopedOverride.

#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/av_capture_device.h"
#include "platform/cg_window_list.h"
#include "platform/capture/input_provider.h"
#include "platform/key_value_observing.h"
#include "foundation/platform_error.h"
#include "platform/sc_shareable_content.h"
#include "platform/sc_stream.h"

namespace ov::platform {

class CapturePlatform {
public:
    static constexpr const char* errorDomain = "Orvane.CapturePlatform";
    enum ErrorCode : int64_t {
        // The chosen backend can't capture on this build.
        notAvailable = 1,
        // ORVANE_PLATFORM names no backend.
        unknownPlatform = 2,
        // The synthetic world file can't be read or parsed.
        badWorld = 3,
    };

    virtual ~CapturePlatform() = default;

    // "linux", "synthetic".
    virtual std::string name() const = 0;

    // The machine's model identifier ("MacBookPro16,1" on such hardware), or
    // absent where it can't be read: the DMI product name on Linux.
    virtual std::optional<std::string> machineModel() const;

    // ---- Devices.
    // The connected devices, in a stable order.
    virtual std::vector<AVCaptureDeviceRef> devices() const = 0;
    // The connected device with this id, or null.
    virtual AVCaptureDeviceRef device(const std::string& uniqueID) const;
    // The first connected device that delivers this media type, or null.
    virtual AVCaptureDeviceRef defaultDevice(AVMediaType mediaType) const;
    virtual AVCaptureDeviceRef systemPreferredCamera() const { return defaultDevice(AVMediaType::video); }
    virtual AVAuthorizationStatus authorizationStatus(AVMediaType mediaType) const = 0;
    virtual void requestAccess(AVMediaType mediaType, std::function<void(bool)> completion);
    // Whether screens may be captured (the platform's screen capture preflight).
    virtual bool preflightScreenCaptureAccess() const = 0;
    // Whether global input may be read (input monitoring), and whether input
    // may be posted and windows controlled (accessibility control).
    virtual bool preflightListenEventAccess() const { return preflightScreenCaptureAccess(); }
    virtual bool preflightPostEventAccess() const { return preflightScreenCaptureAccess(); }
    // Per-application audio capture: 0 authorized, 1 denied, 2 undetermined.
    virtual int audioCaptureAccessStatus() const { return 0; }
    // Asks for per-application audio capture; the answer arrives on another thread.
    virtual void requestAudioCaptureAccess(std::function<void(bool)> completion);
    // Observes the device list ("devices"): called whenever a device comes,
    // goes, or changes its suspended state.
    KeyValueObservation observeDevices(std::function<void(const std::string& key)> callback) {
        return deviceObservers_.observe({"devices"}, std::move(callback));
    }

    // Class-level camera settings.
    bool isCenterStageEnabled() const;
    void setCenterStageEnabled(bool enabled);
    AVCaptureCenterStageControlMode centerStageControlMode() const;
    void setCenterStageControlMode(AVCaptureCenterStageControlMode mode);
    // Counts the changes of isCenterStageEnabled, so a backend can tell that
    // the setting was toggled even when it ends as it was.
    uint64_t centerStageChangeCount() const;

    // ---- Screens.
    // A snapshot of what can be captured. Throws a PlatformError when the
    // backend can't answer.
    virtual SCShareableContent shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly) const = 0;
    // Starts capturing a filter. Throws SCStreamError when it can't.
    virtual std::unique_ptr<ScreenCaptureProducer> startScreenCapture(const SCContentFilter& filter,
                                                                      const SCStreamConfiguration& configuration,
                                                                      ScreenCaptureSink sink) = 0;
    // A display's current mode (its size in points and in pixels), or none
    // when the display can't be read. By default the display of the shareable
    // content with pixels equal to points, as on X11.
    virtual std::optional<CGDisplayMode> displayMode(CGDirectDisplayID displayID) const;
    // Restarts whatever answers shareable content, for a retrieval that hangs.
    // Returns when done; bounded in time even when the service doesn't answer.
    // By default nothing to restart.
    virtual void restartShareableContentService() {}

    // ---- The window server's lists, for discovery.
    // The active displays, in no particular order. Throws a PlatformError
    // when they can't be read. By default the displays of the shareable
    // content, the one at the origin main.
    virtual std::vector<CGDisplayInfo> activeDisplays() const;
    // The windows front to back. Throws a PlatformError when they can't be
    // read. By default the windows of the shareable content.
    virtual std::vector<CGWindowEntry> windowList(CGWindowListOption option) const;
    // The running applications that the window server knows. By default the
    // applications of the shareable content.
    virtual std::vector<RunningApplicationInfo> runningApplications() const;
    // Whether the machine is a portable (its built-in display can be behind
    // a closed lid); absent when unknown. Linux: the DMI chassis type.
    virtual std::optional<bool> isPortableChassis() const;
    // Observes display reconfigurations ("displays"): called on the thread
    // that noticed, whenever displays come, go or change their arrangement.
    KeyValueObservation observeDisplayReconfigurations(std::function<void(const std::string& key)> callback) {
        return displayObservers_.observe({"displays"}, std::move(callback));
    }
    // ---- Input events and the cursor.
    // The backend's global input feed and cursor. Throws a PlatformError when
    // this backend can't offer them.
    virtual std::shared_ptr<InputCaptureProvider> inputProvider() const;

    // ---- The process's backend.
    // The chosen backend. Throws the PlatformError of a bad choice.
    static std::shared_ptr<CapturePlatform> shared();
    // The backend that the environment names, made fresh. Throws a
    // PlatformError for an unknown name or a bad world file.
    static std::shared_ptr<CapturePlatform> makeFromEnvironment();
    // The error of "capturing isn't possible here", for backends to throw.
    static PlatformError notAvailableError(const std::string& what, const std::string& platformName);

    // Installs a backend for the life of the object (tests).
    class ScopedOverride {
    public:
        explicit ScopedOverride(std::shared_ptr<CapturePlatform> platform);
        ~ScopedOverride();
        ScopedOverride(const ScopedOverride&) = delete;
        ScopedOverride& operator=(const ScopedOverride&) = delete;

    private:
        std::shared_ptr<CapturePlatform> previous_;
    };

protected:
    void notifyDevicesChanged() const { deviceObservers_.notify("devices"); }
    void notifyDisplaysReconfigured() const { displayObservers_.notify("displays"); }

private:
    KeyValueObservable deviceObservers_;
    KeyValueObservable displayObservers_;
    mutable std::mutex settingsMutex_;
    bool centerStageEnabled_ = false;
    uint64_t centerStageChanges_ = 0;
    AVCaptureCenterStageControlMode centerStageControlMode_ = AVCaptureCenterStageControlMode::user;
};

// The platform's screen capture permission calls, answered by the chosen
// backend. The request shows nothing here: Linux has no such prompt, and the
// synthetic world's answer is fixed.
bool CGPreflightScreenCaptureAccess();
bool CGRequestScreenCaptureAccess();
bool CGPreflightListenEventAccess();
bool CGRequestListenEventAccess();
bool CGPreflightPostEventAccess();
bool CGRequestPostEventAccess();

// A backend with nothing to capture and a clear error for every attempt: what
// `linux` answers for a kind of source that no Linux API of this machine offers.
class UnavailableCapturePlatform final : public CapturePlatform {
public:
    explicit UnavailableCapturePlatform(std::string name = "linux") : name_(std::move(name)) {}

    std::string name() const override { return name_; }
    std::vector<AVCaptureDeviceRef> devices() const override { return {}; }
    // Linux asks no permission for devices or screens; saying so lets a
    // recorder fail on the missing source, which is the real reason.
    AVAuthorizationStatus authorizationStatus(AVMediaType) const override { return AVAuthorizationStatus::authorized; }
    bool preflightScreenCaptureAccess() const override { return true; }
    SCShareableContent shareableContent(bool, bool) const override;
    std::unique_ptr<ScreenCaptureProducer> startScreenCapture(const SCContentFilter&, const SCStreamConfiguration&,
                                                              ScreenCaptureSink) override;

private:
    std::string name_;
};

}  // namespace ov::platform
