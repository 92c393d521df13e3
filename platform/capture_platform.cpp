#include "platform/capture_platform.h"

#include <algorithm>
#include <fstream>

#include "platform/linux/linux_capture_platform.h"

#include <cstdlib>
#include <thread>

#include "platform/synthetic/synthetic_capture_platform.h"
#include "platform/synthetic/synthetic_world.h"

namespace ov::platform {

namespace {
struct SharedState {
    std::mutex mutex;
    bool chosen = false;
    std::shared_ptr<CapturePlatform> platform;
    std::exception_ptr error;
};
SharedState& sharedState() {
    static SharedState state;
    return state;
}
}  // namespace

AVCaptureDeviceRef CapturePlatform::device(const std::string& uniqueID) const {
    for (auto& device : devices())
        if (device->uniqueID() == uniqueID) return device;
    return nullptr;
}

std::optional<std::string> CapturePlatform::machineModel() const {
    std::ifstream in("/sys/class/dmi/id/product_name");
    std::string model;
    if (!in || !std::getline(in, model)) return std::nullopt;
    // Control characters trimmed, as the firmware pads the field.
    model.erase(std::remove_if(model.begin(), model.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }),
                model.end());
    while (!model.empty() && model.back() == ' ') model.pop_back();
    if (model.empty()) return std::nullopt;
    return model;
}

AVCaptureDeviceRef CapturePlatform::defaultDevice(AVMediaType mediaType) const {
    for (auto& device : devices())
        if (device->hasMediaType(mediaType)) return device;
    return nullptr;
}

void CapturePlatform::requestAccess(AVMediaType mediaType, std::function<void(bool)> completion) {
    const bool granted = authorizationStatus(mediaType) == AVAuthorizationStatus::authorized;
    std::thread([granted, completion = std::move(completion)] { completion(granted); }).detach();
}

bool CapturePlatform::isCenterStageEnabled() const {
    std::lock_guard lock(settingsMutex_);
    return centerStageEnabled_;
}

void CapturePlatform::setCenterStageEnabled(bool enabled) {
    std::lock_guard lock(settingsMutex_);
    if (centerStageEnabled_ != enabled) ++centerStageChanges_;
    centerStageEnabled_ = enabled;
}

uint64_t CapturePlatform::centerStageChangeCount() const {
    std::lock_guard lock(settingsMutex_);
    return centerStageChanges_;
}

AVCaptureCenterStageControlMode CapturePlatform::centerStageControlMode() const {
    std::lock_guard lock(settingsMutex_);
    return centerStageControlMode_;
}

void CapturePlatform::setCenterStageControlMode(AVCaptureCenterStageControlMode mode) {
    std::lock_guard lock(settingsMutex_);
    centerStageControlMode_ = mode;
}

std::optional<CGDisplayMode> CapturePlatform::displayMode(CGDirectDisplayID displayID) const {
    // Held in a variable: a loop over the temporary's list would read freed memory.
    const auto content = shareableContent(false, false);
    for (const auto& display : content.displays())
        if (display.displayID == displayID)
            return CGDisplayMode{display.width, display.height, display.width, display.height, 0};
    return std::nullopt;
}

PlatformError CapturePlatform::notAvailableError(const std::string& what, const std::string& platformName) {
    return PlatformError(errorDomain, notAvailable, what + " is not available on this build.",
                         what + " through the " + platformName + " capture backend is not available on this build");
}

std::shared_ptr<InputCaptureProvider> CapturePlatform::inputProvider() const {
    throw notAvailableError("Input event recording", name());
}

std::shared_ptr<CapturePlatform> CapturePlatform::makeFromEnvironment() {
    const char* chosen = std::getenv("ORVANE_PLATFORM");
    const std::string name = chosen && *chosen ? chosen : "linux";
    if (name == "linux") return std::make_shared<LinuxCapturePlatform>();
    if (name == "synthetic") {
        const char* worldPath = std::getenv("ORVANE_SYNTHETIC_WORLD");
        SyntheticWorld world = worldPath && *worldPath ? SyntheticWorld::load(worldPath) : SyntheticWorld::makeDefault();
        return std::make_shared<SyntheticCapturePlatform>(std::move(world));
    }
    throw PlatformError(errorDomain, unknownPlatform, "Unknown capture platform \"" + name + "\".",
                        "ORVANE_PLATFORM is \"" + name + "\"; expected \"linux\" or \"synthetic\"");
}

std::shared_ptr<CapturePlatform> CapturePlatform::shared() {
    auto& state = sharedState();
    std::lock_guard lock(state.mutex);
    if (!state.chosen) {
        state.chosen = true;
        try {
            state.platform = makeFromEnvironment();
        } catch (...) {
            state.error = std::current_exception();
        }
    }
    if (state.platform) return state.platform;
    std::rethrow_exception(state.error);
}

CapturePlatform::ScopedOverride::ScopedOverride(std::shared_ptr<CapturePlatform> platform) {
    auto& state = sharedState();
    std::lock_guard lock(state.mutex);
    previous_ = state.platform;
    if (!state.chosen) previous_ = nullptr;
    state.chosen = true;
    state.platform = std::move(platform);
}

CapturePlatform::ScopedOverride::~ScopedOverride() {
    auto& state = sharedState();
    std::lock_guard lock(state.mutex);
    state.platform = std::move(previous_);
    // Without an earlier backend the choice is made afresh on the next use.
    if (!state.platform && !state.error) state.chosen = false;
}

bool CGPreflightScreenCaptureAccess() { return CapturePlatform::shared()->preflightScreenCaptureAccess(); }
bool CGRequestScreenCaptureAccess() { return CapturePlatform::shared()->preflightScreenCaptureAccess(); }
bool CGPreflightListenEventAccess() { return CapturePlatform::shared()->preflightListenEventAccess(); }
bool CGRequestListenEventAccess() { return CapturePlatform::shared()->preflightListenEventAccess(); }
bool CGPreflightPostEventAccess() { return CapturePlatform::shared()->preflightPostEventAccess(); }
bool CGRequestPostEventAccess() { return CapturePlatform::shared()->preflightPostEventAccess(); }

void CapturePlatform::requestAudioCaptureAccess(std::function<void(bool)> completion) {
    const bool granted = audioCaptureAccessStatus() == 0;
    std::thread([granted, completion = std::move(completion)] { completion(granted); }).detach();
}

SCShareableContent UnavailableCapturePlatform::shareableContent(bool, bool) const {
    throw notAvailableError("Screen capture", name_);
}

std::unique_ptr<ScreenCaptureProducer> UnavailableCapturePlatform::startScreenCapture(const SCContentFilter&,
                                                                                      const SCStreamConfiguration&,
                                                                                      ScreenCaptureSink) {
    auto error = notAvailableError("Screen capture", name_);
    throw SCStreamError(SCStreamError::failedToStart, error.errorDescription().localizedDescription,
                        error.errorDescription().debugDescription);
}

}  // namespace ov::platform
