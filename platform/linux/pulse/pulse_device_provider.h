#pragma once
// The `linux` backend's microphones: the sound server's sources, reached with
// the PulseAudio client library (PulseAudio itself, or PipeWire's pulse server).
// A microphone's id is its source name; monitors of outputs are not
// microphones.
//
// While a devices-changed handler is set, the provider keeps one connection to
// the server and subscribes to its source events: the handler hears a source
// come, go or change its suspended state as the server tells it (well within a
// second). Without a server the list is empty; the provider then reconnects
// with a growing back-off (0.1 s doubling to 2 s), and the handler hears the
// sources when a server appears. Without a handler, devices() asks the server
// on a short-lived connection.
//
// Capture is a PulseRecordStream (pulse_record_stream.h): the requested PCM
// format, in 20 ms chunks, stamped on the host clock.
#include <functional>
#include <memory>
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
    PulseDeviceProvider();
    ~PulseDeviceProvider() override;
    std::string apiName() const override { return "pulse"; }
    std::vector<AVCaptureDeviceRef> devices() const override;
    void setDevicesChangedHandler(std::function<void()> handler) override;

    struct Impl;

private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace ov::platform
