#include "platform/linux/linux_capture_platform.h"

#include <utility>

#include "foundation/platform_error.h"
#include "platform/audio_capabilities.h"
#include "platform/linux/linux_permissions.h"
#include "platform/os_log.h"

namespace ov::platform {

namespace {

struct Probes {
    std::mutex mutex;
    std::vector<std::pair<std::string, LinuxCapturePlatform::DeviceProbe>> devices;
    std::vector<std::pair<std::string, LinuxCapturePlatform::ScreenProbe>> screens;
    std::vector<std::pair<std::string, LinuxCapturePlatform::InputProbe>> inputs;
};

Probes& probes() {
    static Probes instance;
    return instance;
}

OSLog& log() {
    static OSLog instance(OSLog::defaultSubsystem, "LinuxCapturePlatform");
    return instance;
}

template <class Probe>
auto runProbe(const std::string& api, const Probe& probe) -> decltype(probe()) {
    try {
        auto provider = probe();
        if (!provider) log().info(api + " is not available on this machine; its sources are left out.");
        return provider;
    } catch (const std::exception& e) {
        log().info(api + " is not available on this machine; its sources are left out: " +
                   describeError(e).debugDescription);
        return nullptr;
    }
}

}  // namespace

bool LinuxCapturePlatform::registerDeviceProbe(std::string api, DeviceProbe probe) {
    std::lock_guard lock(probes().mutex);
    probes().devices.emplace_back(std::move(api), std::move(probe));
    return true;
}

bool LinuxCapturePlatform::registerScreenProbe(std::string api, ScreenProbe probe) {
    std::lock_guard lock(probes().mutex);
    probes().screens.emplace_back(std::move(api), std::move(probe));
    return true;
}

bool LinuxCapturePlatform::registerInputProbe(std::string api, InputProbe probe) {
    std::lock_guard lock(probes().mutex);
    probes().inputs.emplace_back(std::move(api), std::move(probe));
    return true;
}

std::shared_ptr<InputCaptureProvider> LinuxCapturePlatform::inputProvider() const {
    std::vector<std::pair<std::string, InputProbe>> inputProbes;
    {
        std::lock_guard lock(probes().mutex);
        inputProbes = probes().inputs;
    }
    for (const auto& [api, probe] : inputProbes)
        if (auto provider = probe()) return provider;
    return CapturePlatform::inputProvider();
}

LinuxCapturePlatform::Providers LinuxCapturePlatform::makeProviders() {
    std::vector<std::pair<std::string, DeviceProbe>> deviceProbes;
    std::vector<std::pair<std::string, ScreenProbe>> screenProbes;
    {
        std::lock_guard lock(probes().mutex);
        deviceProbes = probes().devices;
        screenProbes = probes().screens;
    }
    Providers providers;
    for (const auto& [api, probe] : deviceProbes)
        if (auto provider = runProbe(api, probe)) providers.devices.push_back(std::move(provider));
    for (const auto& [api, probe] : screenProbes) {
        if (auto provider = runProbe(api, probe)) {
            providers.screens = std::move(provider);
            break;
        }
    }
    return providers;
}

LinuxCapturePlatform::LinuxCapturePlatform() {
    auto providers = makeProviders();
    deviceProviders_ = std::move(providers.devices);
    screens_ = std::move(providers.screens);
    for (const auto& provider : deviceProviders_) provider->setDevicesChangedHandler([this] { notifyDevicesChanged(); });
    if (screens_) screens_->setDisplayReconfigurationHandler([this] { notifyDisplaysReconfigured(); });
}

LinuxCapturePlatform::LinuxCapturePlatform(std::vector<std::shared_ptr<CaptureDeviceProvider>> deviceProviders,
                                           std::shared_ptr<ScreenCaptureProvider> screens)
    : deviceProviders_(std::move(deviceProviders)), screens_(std::move(screens)) {
    for (const auto& provider : deviceProviders_) provider->setDevicesChangedHandler([this] { notifyDevicesChanged(); });
    if (screens_) screens_->setDisplayReconfigurationHandler([this] { notifyDisplaysReconfigured(); });
}

LinuxCapturePlatform::~LinuxCapturePlatform() {
    // The handlers point at this object: take them back before it goes.
    for (const auto& provider : deviceProviders_) provider->setDevicesChangedHandler({});
    if (screens_) screens_->setDisplayReconfigurationHandler({});
}

std::vector<AVCaptureDeviceRef> LinuxCapturePlatform::devices() const {
    std::vector<AVCaptureDeviceRef> all;
    for (const auto& provider : deviceProviders_) {
        auto some = provider->devices();
        all.insert(all.end(), std::make_move_iterator(some.begin()), std::make_move_iterator(some.end()));
    }
    return all;
}

AVAuthorizationStatus LinuxCapturePlatform::authorizationStatus(AVMediaType mediaType) const {
    if (mediaType == AVMediaType::video) return linux_permissions::cameraAuthorization();
    return linux_permissions::isSandboxed() ? AVAuthorizationStatus::restricted : AVAuthorizationStatus::authorized;
}

bool LinuxCapturePlatform::preflightScreenCaptureAccess() const {
    if (linux_permissions::isSandboxed()) return false;
    return screens_ ? screens_->preflightScreenCaptureAccess() : linux_permissions::xDisplayAccepts();
}

bool LinuxCapturePlatform::preflightListenEventAccess() const {
    return !linux_permissions::isSandboxed() && linux_permissions::xDisplayAccepts();
}

bool LinuxCapturePlatform::preflightPostEventAccess() const {
    return !linux_permissions::isSandboxed() && linux_permissions::xDisplayAccepts();
}

int LinuxCapturePlatform::audioCaptureAccessStatus() const {
    return !linux_permissions::isSandboxed() && isPerApplicationAudioCaptureAvailable() ? 0 : 1;
}

SCShareableContent LinuxCapturePlatform::shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly) const {
    if (!screens_) return unavailable_.shareableContent(excludingDesktopWindows, onScreenWindowsOnly);
    return screens_->shareableContent(excludingDesktopWindows, onScreenWindowsOnly);
}

std::unique_ptr<ScreenCaptureProducer> LinuxCapturePlatform::startScreenCapture(const SCContentFilter& filter,
                                                                                const SCStreamConfiguration& configuration,
                                                                                ScreenCaptureSink sink) {
    if (!screens_) return unavailable_.startScreenCapture(filter, configuration, std::move(sink));
    return screens_->startScreenCapture(filter, configuration, std::move(sink));
}

void LinuxCapturePlatform::restartShareableContentService() {
    if (screens_) screens_->restartShareableContentService();
}

std::vector<CGDisplayInfo> LinuxCapturePlatform::activeDisplays() const {
    return screens_ ? screens_->activeDisplays() : std::vector<CGDisplayInfo>{};
}

std::vector<CGWindowEntry> LinuxCapturePlatform::windowList(CGWindowListOption option) const {
    return screens_ ? screens_->windowList(option) : std::vector<CGWindowEntry>{};
}

std::vector<RunningApplicationInfo> LinuxCapturePlatform::runningApplications() const {
    return screens_ ? screens_->runningApplications() : std::vector<RunningApplicationInfo>{};
}

}  // namespace ov::platform
