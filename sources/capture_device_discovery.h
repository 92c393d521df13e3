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
#include "sources/discovery_subject.h"

namespace ov {

// "Available", "MacBook lid closed", "Suspended", "Not connected".
std::string availabilityStatus(CaptureDeviceAvailability availability);
// "", "Open MacBook lid", "Unsuspend camera"/"Unsuspend microphone", "Connect camera"/"Connect microphone".
std::string availabilityRecoverySuggestion(CaptureDeviceAvailability availability, bool camera);

// One camera or microphone; the fields change on the main queue.
class OVCaptureSource {
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
    mutable std::mutex mutex_;
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

class CaptureDeviceDiscovery : public std::enable_shared_from_this<CaptureDeviceDiscovery> {
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
    std::vector<std::shared_ptr<OVCaptureSource>> devices() const { return subject_.value(); }
    // Cameras: desk-view cameras only when asked for.
    std::vector<std::shared_ptr<OVCaptureSource>> devices(bool includeDeskView) const;
    std::shared_ptr<DiscoverySubject<std::shared_ptr<OVCaptureSource>>::Subscription> updates() {
        return subject_.subscribe();
    }
    // Any item ever seen, connected or not.
    std::shared_ptr<OVCaptureSource> item(const std::string& id) const;

    // One update step, now, on the calling thread.
    void update();
    // Logs "Trigger update" and runs the update step on the main queue.
    void triggerUpdate();
    std::shared_ptr<OVCaptureSource> getPreferred() const;

private:
    explicit CaptureDeviceDiscovery(Kind kind);
    void start();
    void observeDevices();
    void postUpdate();

    const Kind kind_;
    Logger logger_;
    mutable std::mutex mutex_;
    std::map<std::string, std::shared_ptr<OVCaptureSource>> all_;
    DiscoverySubject<std::shared_ptr<OVCaptureSource>> subject_;
    std::vector<std::unique_ptr<platform::AVCaptureDeviceDiscoverySession>> sessions_;
    std::vector<platform::KeyValueObservation> sessionObservations_;
    std::vector<platform::KeyValueObservation> suspendedObservations_;
};

// Answers error diagnostics from the camera and microphone discoveries.
void installCaptureDeviceSourceLookup();

}  // namespace ov
