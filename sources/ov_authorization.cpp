#include "sources/ov_authorization.h"

#include "sources/core_audio_permission_probe.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>

#include "foundation/ov_error.h"
#include "foundation/platform_error.h"
#include "platform/audio_capabilities.h"
#include "platform/capture_platform.h"
#include "platform/dispatch_queue.h"
#include "sources/user_defaults.h"

extern char** environ;

namespace ov {

using platform::AVAuthorizationStatus;
using platform::AVCaptureDevice;
using platform::AVMediaType;
using platform::CapturePlatform;

// ---- TCCSPI

namespace TCCSPI {
namespace {

struct Functions {
    std::mutex mutex;
    bool overridden = false;
    PreflightFunction preflight;
    RequestFunction request;
};

Functions& functions() {
    static Functions f;
    return f;
}

PreflightFunction currentPreflight() {
    auto& f = functions();
    std::lock_guard lock(f.mutex);
    if (f.overridden) return f.preflight;
    return [](const std::string&) { return CapturePlatform::shared()->audioCaptureAccessStatus(); };
}

RequestFunction currentRequest() {
    auto& f = functions();
    std::lock_guard lock(f.mutex);
    if (f.overridden) return f.request;
    return [](const std::string&, std::function<void(bool)> completion) {
        CapturePlatform::shared()->requestAudioCaptureAccess(std::move(completion));
    };
}

}  // namespace

Status preflightAccess(const std::string& service) {
    const auto preflight = currentPreflight();
    if (!preflight)
        throw OVError(OVError::Code::tccUnavailableError, std::string("Failed to load TCC preflight function."),
                      std::string("Unable to check permission status."));
    const int raw = preflight(service);
    if (raw == 0) return Status::authorized;
    if (raw == 1) return Status::denied;
    return Status::undetermined;
}

bool requestAccess(const std::string& service) {
    const auto request = currentRequest();
    if (!request)
        throw OVError(OVError::Code::tccUnavailableError, std::string("Failed to load TCC request function."),
                      std::string("Unable to request permission."));
    auto answer = std::make_shared<std::promise<bool>>();
    auto future = answer->get_future();
    request(service, [answer](bool granted) { answer->set_value(granted); });
    return future.get();
}

void setFunctionsForTesting(PreflightFunction preflight, RequestFunction request) {
    auto& f = functions();
    std::lock_guard lock(f.mutex);
    f.overridden = true;
    f.preflight = std::move(preflight);
    f.request = std::move(request);
}

void restoreDefaultFunctions() {
    auto& f = functions();
    std::lock_guard lock(f.mutex);
    f.overridden = false;
    f.preflight = nullptr;
    f.request = nullptr;
}

}  // namespace TCCSPI

// ---- OVAuthorization

namespace {

Logger& authorizationLogger() {
    static Logger logger("OVAuthorization");
    return logger;
}

bool waitForAccess(AVMediaType mediaType) {
    auto answer = std::make_shared<std::promise<bool>>();
    auto future = answer->get_future();
    AVCaptureDevice::requestAccess(mediaType, [answer](bool granted) { answer->set_value(granted); });
    return future.get();
}

bool usesPerApplicationBackend(SystemAudioBackend backend) { return backend != SystemAudioBackend::screenCaptureKit; }

void logUnsupportedBackend() {
    authorizationLogger().error(
        "Core Audio backend was selected on a macOS version that does not support it, this shouldn't be possible. "
        "Will return unauthorized status.");
}

}  // namespace

AVAuthorizationStatus OVAuthorization::camera() { return AVCaptureDevice::authorizationStatus(AVMediaType::video); }
AVAuthorizationStatus OVAuthorization::microphone() { return AVCaptureDevice::authorizationStatus(AVMediaType::audio); }
bool OVAuthorization::screenRecording() { return platform::CGPreflightScreenCaptureAccess(); }
bool OVAuthorization::inputMonitoring() { return platform::CGPreflightListenEventAccess(); }
bool OVAuthorization::accessibilityControl() { return platform::CGPreflightPostEventAccess(); }

bool OVAuthorization::perApplicationBackendSupported() { return platform::isPerApplicationAudioCaptureAvailable(); }

bool OVAuthorization::systemAudioRecording() {
    return systemAudioRecording(perApplicationBackendSupported() ? SystemAudioBackend::coreAudio
                                                                 : SystemAudioBackend::screenCaptureKit);
}

bool OVAuthorization::systemAudioRecording(SystemAudioBackend backend) {
    if (!usesPerApplicationBackend(backend)) return platform::CGPreflightScreenCaptureAccess();
    if (!perApplicationBackendSupported()) {
        logUnsupportedBackend();
        return false;
    }
    try {
        return TCCSPI::preflightAccess(TCCSPI::audioCaptureService) == TCCSPI::Status::authorized;
    } catch (const std::exception&) {
        return false;
    }
}

bool OVAuthorization::requestCameraAccess() { return waitForAccess(AVMediaType::video); }
bool OVAuthorization::requestMicrophoneAccess() { return waitForAccess(AVMediaType::audio); }
void OVAuthorization::requestScreenRecording() { (void)platform::CGRequestScreenCaptureAccess(); }
void OVAuthorization::requestInputMonitoring() { (void)platform::CGRequestListenEventAccess(); }
void OVAuthorization::requestAccessibilityControl() { (void)platform::CGRequestPostEventAccess(); }

bool OVAuthorization::requestSystemAudioRecording(SystemAudioBackend backend) {
    if (!usesPerApplicationBackend(backend)) return platform::CGRequestScreenCaptureAccess();
    if (!perApplicationBackendSupported()) return false;
    try {
        return TCCSPI::requestAccess(TCCSPI::audioCaptureService);
    } catch (const std::exception&) {
        // Without a request to make, listening is the answer.
        return probeSystemAudioRecordingStatus(backend);
    }
}

bool OVAuthorization::probeSystemAudioRecordingStatus(SystemAudioBackend backend) {
    if (!usesPerApplicationBackend(backend)) return platform::CGPreflightScreenCaptureAccess();
    try {
        return CoreAudioPermissionProbe::probe();
    } catch (const std::exception& e) {
        authorizationLogger().warning(
            [&] { return std::string("System audio permission probe failed, treating as not authorized: ") + e.what(); });
        return false;
    }
}

std::string OVAuthorization::statusText(AVAuthorizationStatus status) {
    switch (status) {
        case AVAuthorizationStatus::notDetermined: return "notDetermined";
        case AVAuthorizationStatus::restricted: return "restricted";
        case AVAuthorizationStatus::denied: return "denied";
        case AVAuthorizationStatus::authorized: return "authorized";
    }
    return "@unknown default";
}

// ---- CaptureDeviceAuthorizationMonitor

CaptureDeviceAuthorizationMonitor::CaptureDeviceAuthorizationMonitor(AVMediaType mediaType, StatusReader read)
    : mediaType_(mediaType), read_(std::move(read)), isNotDeterminate_(read_() == AVAuthorizationStatus::notDetermined) {}

CaptureDeviceAuthorizationMonitor::~CaptureDeviceAuthorizationMonitor() {
    // The task holds only a weak reference; it ends on its next look.
    if (task_) {
        task_->request_stop();
        if (task_->get_id() == std::this_thread::get_id())
            task_->detach();
        else
            task_->join();
    }
}

std::shared_ptr<CaptureDeviceAuthorizationMonitor> CaptureDeviceAuthorizationMonitor::make(AVMediaType mediaType,
                                                                                          StatusReader read) {
    return std::shared_ptr<CaptureDeviceAuthorizationMonitor>(new CaptureDeviceAuthorizationMonitor(mediaType, std::move(read)));
}

std::shared_ptr<CaptureDeviceAuthorizationMonitor> CaptureDeviceAuthorizationMonitor::sharedAudio() {
    static auto monitor = make(AVMediaType::audio, [] { return OVAuthorization::microphone(); });
    return monitor;
}

std::shared_ptr<CaptureDeviceAuthorizationMonitor> CaptureDeviceAuthorizationMonitor::sharedVideo() {
    static auto monitor = make(AVMediaType::video, [] { return OVAuthorization::camera(); });
    return monitor;
}

std::string CaptureDeviceAuthorizationMonitor::mediaName() const {
    if (mediaType_ == AVMediaType::audio) return "audio";
    if (mediaType_ == AVMediaType::video) return "video";
    return platform::toString(mediaType_);
}

bool CaptureDeviceAuthorizationMonitor::isNotDeterminate() const {
    std::lock_guard lock(mutex_);
    return isNotDeterminate_;
}

bool CaptureDeviceAuthorizationMonitor::isPolling() const {
    std::lock_guard lock(mutex_);
    return task_.has_value();
}

void CaptureDeviceAuthorizationMonitor::startMonitoringIfNeeded() {
    std::lock_guard lock(mutex_);
    if (!isNotDeterminate_ || task_) return;
    const std::string media = mediaName();
    logger_.debug([&] { return "Starting " + media + " authorization monitoring."; });
    std::weak_ptr<CaptureDeviceAuthorizationMonitor> weak = weak_from_this();
    task_.emplace([weak, media, read = read_, logger = logger_](std::stop_token stop) {
        AVAuthorizationStatus status = read();
        while (status == AVAuthorizationStatus::notDetermined) {
            if (weak.expired() || stop.stop_requested()) {
                logger.debug([&] { return "Stopping " + media + " authorization monitoring, object no longer exists."; });
                return;
            }
            std::mutex sleepMutex;
            std::unique_lock sleepLock(sleepMutex);
            std::condition_variable_any wake;
            wake.wait_for(sleepLock, stop, std::chrono::milliseconds(100), [] { return false; });
            if (stop.stop_requested()) {
                logger.debug([&] { return "Stopping " + media + " authorization monitoring, error: cancelled"; });
                return;
            }
            status = read();
        }
        platform::DispatchQueue::main().async([weak] {
            auto self = weak.lock();
            if (!self) return;
            std::map<uint64_t, std::function<void()>> callbacks;
            {
                std::lock_guard lock(self->mutex_);
                self->isNotDeterminate_ = false;
                callbacks = self->callbacks_;
            }
            for (auto& [key, callback] : callbacks) callback();
        });
        logger.debug([&] {
            return "Stopping " + media + " authorization monitoring, authorization status is " +
                   OVAuthorization::statusText(status) + ".";
        });
    });
}

CaptureDeviceAuthorizationMonitor::Registration CaptureDeviceAuthorizationMonitor::registerCallback(
    std::function<void()> callback) {
    startMonitoringIfNeeded();
    std::lock_guard lock(mutex_);
    const uint64_t key = nextKey_++;
    callbacks_[key] = std::move(callback);
    return Registration(weak_from_this(), key);
}

void CaptureDeviceAuthorizationMonitor::remove(uint64_t key) {
    std::optional<std::jthread> ending;
    {
        std::lock_guard lock(mutex_);
        callbacks_.erase(key);
        if (!callbacks_.empty() || !task_) return;
        ending = std::move(task_);
        task_.reset();
    }
    // The polling task ends when its last callback goes.
    ending->request_stop();
    if (ending->get_id() == std::this_thread::get_id()) ending->detach();
}

void CaptureDeviceAuthorizationMonitor::triggerSiblingUpdate() {
    std::map<uint64_t, std::function<void()>> callbacks;
    {
        std::lock_guard lock(mutex_);
        callbacks = callbacks_;
    }
    for (auto& [key, callback] : callbacks) callback();
}

CaptureDeviceAuthorizationMonitor::Registration::Registration(std::weak_ptr<CaptureDeviceAuthorizationMonitor> monitor,
                                                              uint64_t key)
    : monitor_(std::move(monitor)), key_(key) {}

CaptureDeviceAuthorizationMonitor::Registration::Registration(Registration&& other) noexcept
    : monitor_(std::move(other.monitor_)), key_(other.key_) {
    other.key_ = 0;
}

CaptureDeviceAuthorizationMonitor::Registration& CaptureDeviceAuthorizationMonitor::Registration::operator=(
    Registration&& other) noexcept {
    if (this != &other) {
        cancel();
        monitor_ = std::move(other.monitor_);
        key_ = other.key_;
        other.key_ = 0;
    }
    return *this;
}

void CaptureDeviceAuthorizationMonitor::Registration::cancel() {
    if (key_ == 0) return;
    const uint64_t key = key_;
    key_ = 0;
    // The removal runs on the main queue, where the callbacks run.
    platform::DispatchQueue::main().async([monitor = monitor_, key] {
        if (auto self = monitor.lock()) self->remove(key);
    });
}

// ---- OVAuthorizationStatus

namespace {

std::mutex openerMutex;

OVAuthorizationStatus::SettingsOpener& openerSlot() {
    static OVAuthorizationStatus::SettingsOpener opener;
    return opener;
}

const char* gnomePanel(SettingsPane pane) {
    switch (pane) {
        case SettingsPane::camera: return "camera";
        case SettingsPane::microphone: return "microphone";
        default: return "privacy";
    }
}

void openWithDesktop(SettingsPane pane) {
    const char* desktop = std::getenv("XDG_CURRENT_DESKTOP");
    if (!desktop || std::string(desktop).find("GNOME") == std::string::npos) {
        authorizationLogger().info("No privacy settings are known for this desktop; nothing was opened.");
        return;
    }
    const char* panel = gnomePanel(pane);
    char program[] = "gnome-control-center";
    char* argv[] = {program, const_cast<char*>(panel), nullptr};
    pid_t pid = 0;
    if (posix_spawnp(&pid, program, nullptr, nullptr, argv, environ) != 0) {
        authorizationLogger().info("Could not open the desktop's privacy settings.");
        return;
    }
    // Reaped on a thread of its own: the settings window may stay open for long.
    std::thread([pid] { ::waitpid(pid, nullptr, 0); }).detach();
}

void requestWithOnceKey(const char* key, bool openSystemSettings, SettingsPane pane) {
    if (!openSystemSettings) return;
    auto& defaults = UserDefaults::standard();
    if (defaults.boolForKey(key)) OVAuthorizationStatus::openSettings(pane);
    try {
        defaults.setObject(true, key);
    } catch (const std::exception& e) {
        authorizationLogger().warning("Could not store the requested-once mark",
                                      [&] { return LogMetadata{{"error", e.what()}}; });
    }
}

}  // namespace

void OVAuthorizationStatus::setSettingsOpener(SettingsOpener opener) {
    std::lock_guard lock(openerMutex);
    openerSlot() = std::move(opener);
}

void OVAuthorizationStatus::openSettings(SettingsPane pane) {
    SettingsOpener opener;
    {
        std::lock_guard lock(openerMutex);
        opener = openerSlot();
    }
    if (opener)
        opener(pane);
    else
        openWithDesktop(pane);
}

bool OVAuthorizationStatus::requestCameraAccess(bool openSystemSettings) {
    const bool granted = OVAuthorization::requestCameraAccess();
    CaptureDeviceAuthorizationMonitor::sharedVideo()->triggerSiblingUpdate();
    if (!granted && openSystemSettings) openSettings(SettingsPane::camera);
    return granted;
}

bool OVAuthorizationStatus::requestMicrophoneAccess(bool openSystemSettings) {
    const bool granted = OVAuthorization::requestMicrophoneAccess();
    CaptureDeviceAuthorizationMonitor::sharedAudio()->triggerSiblingUpdate();
    if (!granted && openSystemSettings) openSettings(SettingsPane::microphone);
    return granted;
}

void OVAuthorizationStatus::requestScreenRecording(bool openSystemSettings) {
    OVAuthorization::requestScreenRecording();
    requestWithOnceKey(requestedScreenCaptureOnceKey, openSystemSettings, SettingsPane::screenCapture);
}

void OVAuthorizationStatus::requestInputMonitoring(bool openSystemSettings) {
    OVAuthorization::requestInputMonitoring();
    requestWithOnceKey(requestedListenEventOnceKey, openSystemSettings, SettingsPane::listenEvent);
}

void OVAuthorizationStatus::requestAccessibilityControl(bool openSystemSettings) {
    OVAuthorization::requestAccessibilityControl();
    requestWithOnceKey(requestedAccessibilityOnceKey, openSystemSettings, SettingsPane::accessibility);
}

bool OVAuthorizationStatus::requestSystemAudioRecording(bool openSystemSettings, SystemAudioBackend backend) {
    if (!usesPerApplicationBackend(backend)) {
        const bool granted = platform::CGRequestScreenCaptureAccess();
        requestWithOnceKey(requestedScreenCaptureOnceKey, openSystemSettings, SettingsPane::screenCapture);
        return granted;
    }
    if (!OVAuthorization::perApplicationBackendSupported()) return false;
    const bool wasUndetermined = OVAuthorization::systemAudioRecording(backend)
                                     ? false
                                     : TCCSPI::preflightAccess(TCCSPI::audioCaptureService) ==
                                           TCCSPI::Status::undetermined;
    bool granted = false;
    try {
        granted = TCCSPI::requestAccess(TCCSPI::audioCaptureService);
    } catch (const std::exception&) {
        granted = OVAuthorization::probeSystemAudioRecordingStatus(backend);
    }
    // A request that began undetermined showed its own question: the settings stay closed.
    if (!granted && !wasUndetermined && openSystemSettings) {
        openSettings(SettingsPane::screenCapture);
        return false;
    }
    return granted;
}

}  // namespace ov
