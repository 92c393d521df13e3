#pragma once
// AVCaptureDevice: a camera, a microphone or an attached phone, as the
// capture backend reports it, and the discovery session that lists them.
//
// A device object is shared and long-lived: the backend hands out the same
// object for the same uniqueID for as long as the process runs, so that an
// observer of one device sees it disconnect and come back. Its identity
// (names, type, formats) is fixed; its state (connected, suspended, in use,
// active format, frame durations) changes, and each change is observable
// through observe() under the property's name.
//
// The backend derives from this class and implements startProducing(), which
// the capture session calls to make the device deliver samples.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/cm_clock.h"
#include "platform/cm_format_description.h"
#include "platform/cm_sample_buffer.h"
#include "platform/cm_time.h"
#include "platform/capture/capture_producer.h"
#include "platform/key_value_observing.h"

namespace ov::platform {


enum class AVAuthorizationStatus : int { notDetermined = 0, restricted = 1, denied = 2, authorized = 3 };
std::string toString(AVAuthorizationStatus status);

// The device type names that discovery sessions filter by.
using AVCaptureDeviceType = std::string;
inline const AVCaptureDeviceType AVCaptureDeviceTypeBuiltInWideAngleCamera = "AVCaptureDeviceTypeBuiltInWideAngleCamera";
inline const AVCaptureDeviceType AVCaptureDeviceTypeExternal = "AVCaptureDeviceTypeExternal";
inline const AVCaptureDeviceType AVCaptureDeviceTypeExternalUnknown = "AVCaptureDeviceTypeExternalUnknown";
inline const AVCaptureDeviceType AVCaptureDeviceTypeContinuityCamera = "AVCaptureDeviceTypeContinuityCamera";
inline const AVCaptureDeviceType AVCaptureDeviceTypeDeskViewCamera = "AVCaptureDeviceTypeDeskViewCamera";
inline const AVCaptureDeviceType AVCaptureDeviceTypeBuiltInMicrophone = "AVCaptureDeviceTypeBuiltInMicrophone";
inline const AVCaptureDeviceType AVCaptureDeviceTypeMicrophone = "AVCaptureDeviceTypeMicrophone";

// Transport types: four characters as a 32-bit value.
inline constexpr uint32_t kAVCaptureDeviceTransportTypeBuiltIn = OV_FOURCC('b', 'l', 't', 'n');
inline constexpr uint32_t kAVCaptureDeviceTransportTypeUSB = OV_FOURCC('u', 's', 'b', ' ');
inline constexpr uint32_t kAVCaptureDeviceTransportTypeVirtual = OV_FOURCC('v', 'i', 'r', 't');
inline constexpr uint32_t kAVCaptureDeviceTransportTypeBluetooth = OV_FOURCC('b', 'l', 'u', 'e');
inline constexpr uint32_t kAVCaptureDeviceTransportTypeUnknown = 0;

enum class AVCaptureDevicePosition : int { unspecified = 0, back = 1, front = 2 };
enum class AVCaptureCenterStageControlMode : int { user = 0, app = 1, cooperative = 2 };

// The range of frame durations that a video format supports.
struct AVFrameRateRange {
    CMTime minFrameDuration;
    CMTime maxFrameDuration;
};

// One format a device can run in: its description (subtype, dimensions and,
// for video, the shortest frame duration) and what it supports.
class AVCaptureDeviceFormat {
public:
    AVCaptureDeviceFormat(CMFormatDescriptionRef formatDescription, std::vector<AVFrameRateRange> frameRateRanges = {},
                          bool isCenterStageSupported = false)
        : formatDescription_(std::move(formatDescription)),
          frameRateRanges_(std::move(frameRateRanges)),
          isCenterStageSupported_(isCenterStageSupported) {}

    const CMFormatDescriptionRef& formatDescription() const { return formatDescription_; }
    const std::vector<AVFrameRateRange>& videoSupportedFrameRateRanges() const { return frameRateRanges_; }
    bool isCenterStageSupported() const { return isCenterStageSupported_; }
    // "video 420v 1280x720 30 fps" / "audio lpcm 48000 Hz 1 ch float32 ...": for logs.
    std::string description() const;

private:
    CMFormatDescriptionRef formatDescription_;
    std::vector<AVFrameRateRange> frameRateRanges_;
    bool isCenterStageSupported_;
};
using AVCaptureDeviceFormatRef = std::shared_ptr<const AVCaptureDeviceFormat>;

class AVCaptureDevice : public std::enable_shared_from_this<AVCaptureDevice> {
public:
    // The fixed identity of a device.
    struct Identity {
        std::string uniqueID;
        std::string modelID;
        std::string localizedName;
        std::string manufacturer;
        AVCaptureDeviceType deviceType;
        uint32_t transportType = kAVCaptureDeviceTransportTypeUnknown;
        std::vector<AVMediaType> mediaTypes;
    };

    virtual ~AVCaptureDevice() = default;
    AVCaptureDevice(const AVCaptureDevice&) = delete;
    AVCaptureDevice& operator=(const AVCaptureDevice&) = delete;

    // ---- The platform's class-level operations, answered by the chosen backend.

    // The connected device with this id, or null.
    static std::shared_ptr<AVCaptureDevice> device(const std::string& uniqueID);
    static std::shared_ptr<AVCaptureDevice> defaultDevice(AVMediaType mediaType);
    static std::shared_ptr<AVCaptureDevice> systemPreferredCamera();
    static AVAuthorizationStatus authorizationStatus(AVMediaType mediaType);
    // Asks for access and calls back with the answer (on any thread).
    static void requestAccess(AVMediaType mediaType, std::function<void(bool granted)> completion);
    static bool isCenterStageEnabled();
    static void setCenterStageEnabled(bool enabled);
    static AVCaptureCenterStageControlMode centerStageControlMode();
    static void setCenterStageControlMode(AVCaptureCenterStageControlMode mode);

    // ---- Identity.
    const std::string& uniqueID() const { return identity_.uniqueID; }
    const std::string& modelID() const { return identity_.modelID; }
    const std::string& localizedName() const { return identity_.localizedName; }
    const std::string& manufacturer() const { return identity_.manufacturer; }
    const AVCaptureDeviceType& deviceType() const { return identity_.deviceType; }
    uint32_t transportType() const { return identity_.transportType; }
    bool hasMediaType(AVMediaType mediaType) const;
    const std::vector<AVMediaType>& mediaTypes() const { return identity_.mediaTypes; }

    // ---- State; each is observable under its name.
    bool isConnected() const;
    bool isSuspended() const;
    bool isInUseByAnotherApplication() const;
    bool isCenterStageActive() const;

    // ---- Configuration. Setting the active format or a frame duration
    // without holding the configuration lock is a programming error and throws
    // std::logic_error, as the platform raises an exception.
    const std::vector<AVCaptureDeviceFormatRef>& formats() const { return formats_; }
    AVCaptureDeviceFormatRef activeFormat() const;
    // Sets the format (one of formats()) and resets the frame durations to its
    // defaults; std::invalid_argument for a format of another device.
    void setActiveFormat(const AVCaptureDeviceFormatRef& format);
    CMTime activeVideoMinFrameDuration() const;
    void setActiveVideoMinFrameDuration(const CMTime& duration);
    CMTime activeVideoMaxFrameDuration() const;
    void setActiveVideoMaxFrameDuration(const CMTime& duration);
    // Throws a PlatformError when the device can't be configured (gone, or
    // locked by another application). Calls nest.
    void lockForConfiguration();
    void unlockForConfiguration();

    // Observes the named properties ("isConnected", "isSuspended",
    // "isInUseByAnotherApplication", "isCenterStageActive", "activeFormat",
    // "activeVideoMinFrameDuration", "activeVideoMaxFrameDuration"); every
    // property when `keys` is empty.
    KeyValueObservation observe(std::vector<std::string> keys, std::function<void(const std::string& key)> callback) {
        return observers_.observe(std::move(keys), std::move(callback));
    }

    // "<AVCaptureDevice [Synthetic Camera][synthetic-camera-1]>".
    std::string debugDescription() const;

    // ---- For the capture session.

    // The file system node the device is opened through, where it has one (a
    // V4L2 camera's /dev/videoN): who else holds the device is found by it.
    virtual std::optional<std::string> devicePath() const { return std::nullopt; }

    // The clock the device stamps samples on, or null for the host time clock.
    virtual std::shared_ptr<const CMClock> synchronizationClock() const = 0;
    // Starts delivering samples of one media type. Throws a PlatformError when
    // the device can't deliver (gone, not available on this build).
    virtual std::unique_ptr<CaptureProducer> startProducing(const CaptureProducerRequest& request,
                                                            CaptureProducerSink sink) = 0;

protected:
    AVCaptureDevice(Identity identity, std::vector<AVCaptureDeviceFormatRef> formats, size_t activeFormatIndex);

    // State changes of the backend; each notifies its observers.
    void setConnected(bool connected);
    void setSuspended(bool suspended);
    void setInUseByAnotherApplication(bool inUse);
    void setCenterStageActive(bool active);
    // Whether lockForConfiguration may succeed; the backend's say.
    virtual bool canLockForConfiguration() const { return isConnected() && !isInUseByAnotherApplication(); }

private:
    void requireLock(const char* operation) const;
    void set(bool& field, bool value, const char* key);

    Identity identity_;
    std::vector<AVCaptureDeviceFormatRef> formats_;
    mutable std::mutex mutex_;
    AVCaptureDeviceFormatRef activeFormat_;
    CMTime minFrameDuration_;
    CMTime maxFrameDuration_;
    int lockCount_ = 0;
    bool connected_ = true;
    bool suspended_ = false;
    bool inUse_ = false;
    bool centerStageActive_ = false;
    KeyValueObservable observers_;
};

using AVCaptureDeviceRef = std::shared_ptr<AVCaptureDevice>;

// The connected devices of some types and one media type, kept current: its
// "devices" key is notified whenever the list may have changed.
class AVCaptureDeviceDiscoverySession {
public:
    AVCaptureDeviceDiscoverySession(std::vector<AVCaptureDeviceType> deviceTypes, std::optional<AVMediaType> mediaType,
                                    AVCaptureDevicePosition position = AVCaptureDevicePosition::unspecified);
    ~AVCaptureDeviceDiscoverySession();

    // The matching connected devices, in the backend's order.
    std::vector<AVCaptureDeviceRef> devices() const;
    KeyValueObservation observe(std::function<void(const std::string& key)> callback) {
        return observers_->observe({"devices"}, std::move(callback));
    }

private:
    std::vector<AVCaptureDeviceType> deviceTypes_;
    std::optional<AVMediaType> mediaType_;
    std::shared_ptr<KeyValueObservable> observers_;
    KeyValueObservation platformObservation_;
};

}  // namespace ov::platform
