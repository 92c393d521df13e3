// The cameras' part of the `linux` backend. The provider lists nothing on a
// machine without video nodes, so it is always composed in.
#include "platform/linux/linux_capture_platform.h"
#include "platform/linux/v4l2/v4l2_device_provider.h"

namespace ov::platform {
namespace {

const bool registered =
    LinuxCapturePlatform::registerDeviceProbe("V4L2", [] { return std::make_shared<V4L2DeviceProvider>(); });

}  // namespace
}  // namespace ov::platform
