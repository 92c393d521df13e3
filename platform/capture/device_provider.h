#pragma once
// A list of capture devices that one Linux API offers (the sound server's
// sources, the V4L2 nodes, attached phones), with change notifications.
//
// Threads: devices() may be called from any thread. The changed handler is
// called from the provider's own event thread with no lock of the provider
// held, whenever a device comes, goes or changes its state; it may call
// devices() again. A provider whose API is absent lists nothing and never
// fails.

#include <functional>
#include <string>
#include <vector>

#include "platform/av_capture_device.h"

namespace ov::platform {

class CaptureDeviceProvider {
public:
    virtual ~CaptureDeviceProvider() = default;
    // "pulse", "v4l2", ...: for logs.
    virtual std::string apiName() const = 0;
    // The connected devices, in a stable order. A device object lives on per
    // id, so observers of one see it disconnect and come back.
    virtual std::vector<AVCaptureDeviceRef> devices() const = 0;
    // Replaces the handler; an empty function removes it. The provider may
    // watch its API only while a handler is set.
    virtual void setDevicesChangedHandler(std::function<void()> handler) = 0;
};

}  // namespace ov::platform
