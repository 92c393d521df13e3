#pragma once
// The `linux` backend's microphones: the sound server's sources, reached with
// the PulseAudio client library (PulseAudio itself, or PipeWire's pulse server).
// A microphone's id is its source name; monitors of outputs are not
// microphones.
//
// Samples are float32 at the source's rate and channel count, delivered in
// fragments of about 20 ms, stamped on the host clock: the first buffer's time
// is its arrival less the stream's reported latency, and each later buffer
// starts exactly where the one before ended, so times advance by frame counts.
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/capture/device_provider.h"

namespace ov::platform {

struct PulseSourceInfo {
    std::string name;
    std::string description;
    std::string driver;
    std::string bus;  // the "device.bus" property: "usb", "pci", ...
    uint32_t rate = 48000;
    uint32_t channels = 1;
    bool isMonitor = false;
    bool isSuspended = false;
};

// The server's sources, or none (with the reason) when no server answers
// within the time-out.
std::vector<PulseSourceInfo> listPulseSources(std::string* unavailableReason = nullptr);

// The sound server's sources as microphones.
class PulseDeviceProvider final : public CaptureDeviceProvider {
public:
    std::string apiName() const override { return "pulse"; }
    // The server's microphones, asked anew on every call.
    std::vector<AVCaptureDeviceRef> devices() const override;
    void setDevicesChangedHandler(std::function<void()> handler) override;

private:
    mutable std::mutex mutex_;
    mutable std::map<std::string, AVCaptureDeviceRef> known_;
    mutable bool loggedUnavailable_ = false;
    std::function<void()> changed_;
};

}  // namespace ov::platform
