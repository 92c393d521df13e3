// The sound server's part of the `linux` backend. The provider itself answers
// "nothing" while no server runs, so it is always composed in.
#include "platform/linux/linux_capture_platform.h"
#include "platform/linux/pulse/pulse_device_provider.h"

namespace ov::platform {
namespace {

const bool registered = LinuxCapturePlatform::registerDeviceProbe(
    "PulseAudio", [] { return std::make_shared<PulseDeviceProvider>(); });

}  // namespace
}  // namespace ov::platform
