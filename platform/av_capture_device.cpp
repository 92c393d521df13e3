#include "platform/av_capture_device.h"

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

#include "platform/capture_platform.h"

namespace ov::platform {

std::string toString(AVMediaType mediaType) {
    switch (mediaType) {
        case AVMediaType::video: return "vide";
        case AVMediaType::audio: return "soun";
        case AVMediaType::muxed: return "muxx";
    }
    return "unknown";
}

std::string toString(AVAuthorizationStatus status) {
    switch (status) {
        case AVAuthorizationStatus::notDetermined: return "notDetermined";
        case AVAuthorizationStatus::restricted: return "restricted";
        case AVAuthorizationStatus::denied: return "denied";
        case AVAuthorizationStatus::authorized: return "authorized";
    }
    return "unknown";
}

std::string AVCaptureDeviceFormat::description() const {
    if (!formatDescription_) return "<no format>";
    std::string text = formatDescription_->description();
    if (!frameRateRanges_.empty() && frameRateRanges_.front().minFrameDuration.isNumeric())
        text += fmt::format(" {:g} fps", 1.0 / frameRateRanges_.front().minFrameDuration.seconds());
    return text;
}

// ---- Class-level operations go to the chosen backend.

std::shared_ptr<AVCaptureDevice> AVCaptureDevice::device(const std::string& uniqueID) {
    return CapturePlatform::shared()->device(uniqueID);
}
std::shared_ptr<AVCaptureDevice> AVCaptureDevice::defaultDevice(AVMediaType mediaType) {
    return CapturePlatform::shared()->defaultDevice(mediaType);
}
std::shared_ptr<AVCaptureDevice> AVCaptureDevice::systemPreferredCamera() {
    return CapturePlatform::shared()->systemPreferredCamera();
}
AVAuthorizationStatus AVCaptureDevice::authorizationStatus(AVMediaType mediaType) {
    return CapturePlatform::shared()->authorizationStatus(mediaType);
}
void AVCaptureDevice::requestAccess(AVMediaType mediaType, std::function<void(bool)> completion) {
    CapturePlatform::shared()->requestAccess(mediaType, std::move(completion));
}
bool AVCaptureDevice::isCenterStageEnabled() { return CapturePlatform::shared()->isCenterStageEnabled(); }
void AVCaptureDevice::setCenterStageEnabled(bool enabled) { CapturePlatform::shared()->setCenterStageEnabled(enabled); }
AVCaptureCenterStageControlMode AVCaptureDevice::centerStageControlMode() {
    return CapturePlatform::shared()->centerStageControlMode();
}
void AVCaptureDevice::setCenterStageControlMode(AVCaptureCenterStageControlMode mode) {
    CapturePlatform::shared()->setCenterStageControlMode(mode);
}

// ---- Instances.

namespace {
std::pair<CMTime, CMTime> defaultFrameDurations(const AVCaptureDeviceFormatRef& format) {
    if (!format || format->videoSupportedFrameRateRanges().empty()) return {kCMTimeInvalid, kCMTimeInvalid};
    const auto& range = format->videoSupportedFrameRateRanges().front();
    return {range.minFrameDuration, range.maxFrameDuration};
}
}  // namespace

AVCaptureDevice::AVCaptureDevice(Identity identity, std::vector<AVCaptureDeviceFormatRef> formats,
                                 size_t activeFormatIndex)
    : identity_(std::move(identity)), formats_(std::move(formats)) {
    if (!formats_.empty()) activeFormat_ = formats_.at(std::min(activeFormatIndex, formats_.size() - 1));
    std::tie(minFrameDuration_, maxFrameDuration_) = defaultFrameDurations(activeFormat_);
}

bool AVCaptureDevice::hasMediaType(AVMediaType mediaType) const {
    return std::find(identity_.mediaTypes.begin(), identity_.mediaTypes.end(), mediaType) != identity_.mediaTypes.end();
}

bool AVCaptureDevice::isConnected() const {
    std::lock_guard lock(mutex_);
    return connected_;
}
bool AVCaptureDevice::isSuspended() const {
    std::lock_guard lock(mutex_);
    return suspended_;
}
bool AVCaptureDevice::isInUseByAnotherApplication() const {
    std::lock_guard lock(mutex_);
    return inUse_;
}
bool AVCaptureDevice::isCenterStageActive() const {
    std::lock_guard lock(mutex_);
    return centerStageActive_;
}

void AVCaptureDevice::set(bool& field, bool value, const char* key) {
    {
        std::lock_guard lock(mutex_);
        if (field == value) return;
        field = value;
    }
    observers_.notify(key);
}
void AVCaptureDevice::setConnected(bool connected) { set(connected_, connected, "isConnected"); }
void AVCaptureDevice::setSuspended(bool suspended) { set(suspended_, suspended, "isSuspended"); }
void AVCaptureDevice::setInUseByAnotherApplication(bool inUse) { set(inUse_, inUse, "isInUseByAnotherApplication"); }
void AVCaptureDevice::setCenterStageActive(bool active) { set(centerStageActive_, active, "isCenterStageActive"); }

AVCaptureDeviceFormatRef AVCaptureDevice::activeFormat() const {
    std::lock_guard lock(mutex_);
    return activeFormat_;
}

void AVCaptureDevice::requireLock(const char* operation) const {
    if (lockCount_ == 0)
        throw std::logic_error(fmt::format("{}: {} called without lockForConfiguration", debugDescription(), operation));
}

void AVCaptureDevice::setActiveFormat(const AVCaptureDeviceFormatRef& format) {
    if (std::find(formats_.begin(), formats_.end(), format) == formats_.end())
        throw std::invalid_argument(debugDescription() + ": the format is not one of the device's formats");
    {
        std::lock_guard lock(mutex_);
        requireLock("setActiveFormat");
        activeFormat_ = format;
        std::tie(minFrameDuration_, maxFrameDuration_) = defaultFrameDurations(format);
    }
    observers_.notify("activeFormat");
    observers_.notify("activeVideoMinFrameDuration");
    observers_.notify("activeVideoMaxFrameDuration");
}

CMTime AVCaptureDevice::activeVideoMinFrameDuration() const {
    std::lock_guard lock(mutex_);
    return minFrameDuration_;
}
CMTime AVCaptureDevice::activeVideoMaxFrameDuration() const {
    std::lock_guard lock(mutex_);
    return maxFrameDuration_;
}

void AVCaptureDevice::setActiveVideoMinFrameDuration(const CMTime& duration) {
    {
        std::lock_guard lock(mutex_);
        requireLock("setActiveVideoMinFrameDuration");
        // An invalid duration asks for the format's default, as on the platform.
        minFrameDuration_ = duration.isValid() ? duration : defaultFrameDurations(activeFormat_).first;
    }
    observers_.notify("activeVideoMinFrameDuration");
}

void AVCaptureDevice::setActiveVideoMaxFrameDuration(const CMTime& duration) {
    {
        std::lock_guard lock(mutex_);
        requireLock("setActiveVideoMaxFrameDuration");
        maxFrameDuration_ = duration.isValid() ? duration : defaultFrameDurations(activeFormat_).second;
    }
    observers_.notify("activeVideoMaxFrameDuration");
}

void AVCaptureDevice::lockForConfiguration() {
    if (!canLockForConfiguration())
        throw PlatformError("AVFoundationErrorDomain", -11817, "Cannot lock the device for configuration.",
                            debugDescription() + " can't be locked for configuration (disconnected or in use)");
    std::lock_guard lock(mutex_);
    ++lockCount_;
}

void AVCaptureDevice::unlockForConfiguration() {
    std::lock_guard lock(mutex_);
    if (lockCount_ > 0) --lockCount_;
}

std::string AVCaptureDevice::debugDescription() const {
    return fmt::format("<AVCaptureDevice [{}][{}]>", identity_.localizedName, identity_.uniqueID);
}

// ---- Discovery sessions.

AVCaptureDeviceDiscoverySession::AVCaptureDeviceDiscoverySession(std::vector<AVCaptureDeviceType> deviceTypes,
                                                                 std::optional<AVMediaType> mediaType,
                                                                 AVCaptureDevicePosition)
    : deviceTypes_(std::move(deviceTypes)),
      mediaType_(mediaType),
      observers_(std::make_shared<KeyValueObservable>()) {
    std::weak_ptr<KeyValueObservable> weak = observers_;
    platformObservation_ = CapturePlatform::shared()->observeDevices([weak](const std::string&) {
        if (auto observers = weak.lock()) observers->notify("devices");
    });
}

AVCaptureDeviceDiscoverySession::~AVCaptureDeviceDiscoverySession() = default;

std::vector<AVCaptureDeviceRef> AVCaptureDeviceDiscoverySession::devices() const {
    std::vector<AVCaptureDeviceRef> result;
    for (auto& device : CapturePlatform::shared()->devices()) {
        if (mediaType_ && !device->hasMediaType(*mediaType_)) continue;
        const bool typeListed =
            std::find(deviceTypes_.begin(), deviceTypes_.end(), device->deviceType()) != deviceTypes_.end();
        // Linux's sound server does not tell built-in microphones from others:
        // asking for built-in microphones asks for every microphone, as the
        // platform's own older API did.
        const bool anyMicrophone =
            device->hasMediaType(AVMediaType::audio) && !device->hasMediaType(AVMediaType::muxed) &&
            std::find(deviceTypes_.begin(), deviceTypes_.end(), AVCaptureDeviceTypeBuiltInMicrophone) != deviceTypes_.end();
        if (!typeListed && !anyMicrophone) continue;
        result.push_back(std::move(device));
    }
    return result;
}

}  // namespace ov::platform
