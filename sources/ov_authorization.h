#pragma once
// Permissions: whether the process may use the camera, the microphone, the
// screen, system audio, input monitoring and accessibility control, and the
// requests for them. On Linux a permission is what the process can reach
// (platform/linux/linux_permissions.h); the synthetic world scripts it.
//
// Two faces: OVAuthorization, plain reads and requests for the protocol and
// the recorders, and OVAuthorizationStatus, the same with the user-interface
// rules (open the privacy settings on a refused request; the requested-once
// marks in the user defaults) and the monitors that tell when a status settles.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "output/ov_logger.h"
#include "platform/av_capture_device.h"
#include "session/schema_options.h"

namespace ov {

// The stand-in for the system's private permission calls of audio capture:
// on Linux the sound server's acceptance, on the synthetic backend the world's.
namespace TCCSPI {
inline constexpr const char* audioCaptureService = "kTCCServiceAudioCapture";
enum class Status { authorized = 0, denied = 1, undetermined = 2 };

using PreflightFunction = std::function<int(const std::string& service)>;
using RequestFunction = std::function<void(const std::string& service, std::function<void(bool)> completion)>;

// The raw values 0, 1, 2 are their Status; any other reads as undetermined.
// Fails with OVError tccUnavailableError when no preflight function exists.
Status preflightAccess(const std::string& service);
// Blocks until answered. Fails with tccUnavailableError when no request function exists.
bool requestAccess(const std::string& service);

// Tests: replace the functions (an empty function stands for one that could
// not be loaded); restoreDefaultFunctions() brings the platform's back.
void setFunctionsForTesting(PreflightFunction preflight, RequestFunction request);
void restoreDefaultFunctions();
}  // namespace TCCSPI

// The privacy settings of the desktop, by kind.
enum class SettingsPane { camera, microphone, screenCapture, listenEvent, accessibility };

class OVAuthorization {
public:
    static platform::AVAuthorizationStatus camera();
    static platform::AVAuthorizationStatus microphone();
    static bool screenRecording();
    // The default backend: per-application capture where the sound server
    // offers it, else the screen capture's system audio.
    static bool systemAudioRecording();
    static bool systemAudioRecording(SystemAudioBackend backend);
    static bool inputMonitoring();
    static bool accessibilityControl();

    // Block until answered.
    static bool requestCameraAccess();
    static bool requestMicrophoneAccess();
    static void requestScreenRecording();
    // Fails with OVError tccUnavailableError where the request can't be made.
    static bool requestSystemAudioRecording(SystemAudioBackend backend);
    // Listens whether system audio can really be captured (CoreAudioPermissionProbe);
    // a probe that fails logs a warning and answers false.
    static bool probeSystemAudioRecordingStatus(SystemAudioBackend backend);
    static void requestInputMonitoring();
    static void requestAccessibilityControl();

    // "notDetermined", "restricted", "denied", "authorized", else "@unknown default".
    static std::string statusText(platform::AVAuthorizationStatus status);
    // Whether the per-application backend can exist on this machine at all
    // (a sound server that offers per-application streams answers).
    static bool perApplicationBackendSupported();
};

// Polls a camera or microphone status that is still notDetermined, every
// 0.1 s, until it settles; then calls every registered callback once, on the
// main queue, and stops. A status settled at creation never starts polling.
class CaptureDeviceAuthorizationMonitor : public std::enable_shared_from_this<CaptureDeviceAuthorizationMonitor> {
public:
    using StatusReader = std::function<platform::AVAuthorizationStatus()>;

    static std::shared_ptr<CaptureDeviceAuthorizationMonitor> sharedAudio();
    static std::shared_ptr<CaptureDeviceAuthorizationMonitor> sharedVideo();
    static std::shared_ptr<CaptureDeviceAuthorizationMonitor> make(platform::AVMediaType mediaType, StatusReader read);
    ~CaptureDeviceAuthorizationMonitor();

    // Cancels its registration when destroyed (or cancelled).
    class Registration {
    public:
        Registration() = default;
        Registration(std::weak_ptr<CaptureDeviceAuthorizationMonitor> monitor, uint64_t key);
        Registration(Registration&& other) noexcept;
        Registration& operator=(Registration&& other) noexcept;
        ~Registration() { cancel(); }
        void cancel();

    private:
        std::weak_ptr<CaptureDeviceAuthorizationMonitor> monitor_;
        uint64_t key_ = 0;
    };

    // Call on the main queue, as the monitor's users live there.
    [[nodiscard]] Registration registerCallback(std::function<void()> callback);
    // Calls every callback now.
    void triggerSiblingUpdate();

    bool isNotDeterminate() const;
    bool isPolling() const;

private:
    CaptureDeviceAuthorizationMonitor(platform::AVMediaType mediaType, StatusReader read);
    void startMonitoringIfNeeded();
    void remove(uint64_t key);
    std::string mediaName() const;

    const platform::AVMediaType mediaType_;
    const StatusReader read_;
    mutable std::mutex mutex_;
    bool isNotDeterminate_;
    std::optional<std::jthread> task_;
    std::map<uint64_t, std::function<void()>> callbacks_;
    uint64_t nextKey_ = 1;
    Logger logger_{"CaptureDeviceAuthorizationMonitor"};
};

// The user-interface face: requests that may open the privacy settings.
class OVAuthorizationStatus {
public:
    static constexpr const char* requestedScreenCaptureOnceKey = "OVRequestedScreenCaptureOnce";
    static constexpr const char* requestedListenEventOnceKey = "OVRequestedListenEventOnce";
    static constexpr const char* requestedAccessibilityOnceKey = "OVRequestedAccessibilityOnce";

    // Opens the desktop's privacy settings; by default the GNOME control
    // centre's panel where that desktop runs, else a logged no-op.
    using SettingsOpener = std::function<void(SettingsPane pane)>;
    static void setSettingsOpener(SettingsOpener opener);
    static void openSettings(SettingsPane pane);

    static bool requestCameraAccess(bool openSystemSettings);
    static bool requestMicrophoneAccess(bool openSystemSettings);
    // The first request with openSystemSettings only asks and sets the
    // requested-once mark; later ones open the settings.
    static void requestScreenRecording(bool openSystemSettings);
    static void requestInputMonitoring(bool openSystemSettings);
    static void requestAccessibilityControl(bool openSystemSettings);
    static bool requestSystemAudioRecording(bool openSystemSettings, SystemAudioBackend backend);
};

}  // namespace ov
