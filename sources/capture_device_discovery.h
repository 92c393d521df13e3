#pragma once
// Camera and microphone discovery: the lists of OVCamera and OVMicrophone kept
// from what the capture platform reports, with each item's availability, and
// the "best" device by a fixed ladder of preferences.
//
// Items live for the process, one per id, updated in place: a device that is
// unplugged and plugged in again is the same object. Only connected devices
// are published, sorted by name, then id. A closed lid of a portable whose
// generation suspends its built-in camera shows as `lidClosed` on that camera
// and on the built-in microphone.
//
// Updates run on the main queue (the platform's device notifications post
// them there) and once, synchronously, when a discovery is made, so its first
// list is there before anyone subscribes.

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "output/ov_logger.h"
#include "platform/av_capture_device.h"
#include "session/source_lookup.h"
#include "sources/availability.h"
#include "sources/discovery.h"

namespace ov {

// One camera or microphone; the fields change in update steps. Observable:
// "localizedName", "availability".
class OVCaptureSource : public DiscoveryItem {
public:
    explicit OVCaptureSource(std::string id, bool isDeskView = false) : id(std::move(id)), isDeskView(isDeskView) {}

    const std::string id;
    const bool isDeskView;

    bool isVirtual() const;
    std::string localizedName() const;
    std::string modelID() const;
    std::string manufacturer() const;
    CaptureDeviceAvailability availability() const;

    // Sets the fields from the device; true if the name changed.
    bool updateFrom(const platform::AVCaptureDevice& device);
    // True if it changed.
    bool setAvailability(CaptureDeviceAvailability availability);

private:
    bool isVirtual_ = false;
    std::string localizedName_;
    std::string modelID_;
    std::string manufacturer_;
    CaptureDeviceAvailability availability_ = CaptureDeviceAvailability::notConnected;
};

using OVCamera = OVCaptureSource;
using OVMicrophone = OVCaptureSource;
using OVCameraRef = std::shared_ptr<OVCamera>;
using OVMicrophoneRef = std::shared_ptr<OVMicrophone>;

class CaptureDeviceDiscovery final : public Discovery<OVCaptureSource, std::string> {
public:
    enum class Kind { camera, microphone };

    // The process's discoveries, made on first use.
    static std::shared_ptr<CaptureDeviceDiscovery> sharedCameras();
    static std::shared_ptr<CaptureDeviceDiscovery> sharedMicrophones();
    // A discovery of its own over the current capture platform (tests).
    static std::shared_ptr<CaptureDeviceDiscovery> make(Kind kind);
    ~CaptureDeviceDiscovery();

    Kind kind() const { return kind_; }
    // The published list.
    std::vector<std::shared_ptr<OVCaptureSource>> devices() const { return current(); }
    // Cameras: desk-view cameras only when asked for.
    std::vector<std::shared_ptr<OVCaptureSource>> devices(bool includeDeskView) const;

    // One update step, now, on the calling thread.
    void update() override;
    std::shared_ptr<OVCaptureSource> getPreferred() const;

private:
    explicit CaptureDeviceDiscovery(Kind kind);
    void start();
    void observeDevices();
    void postUpdate();

    const Kind kind_;
    std::vector<std::unique_ptr<platform::AVCaptureDeviceDiscoverySession>> sessions_;
    std::vector<platform::KeyValueObservation> sessionObservations_;
    std::vector<platform::KeyValueObservation> suspendedObservations_;
};


}  // namespace ov
