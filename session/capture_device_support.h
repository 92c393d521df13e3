#pragma once
// What the capture recorders (microphones, cameras) share: the audio output
// settings and their channel rules, the drain of a writer's backlog at finish,
// the check of a capture session's clock, and where a USB device sits on the
// bus.
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "output/ov_logger.h"
#include "platform/av_capture_device.h"
#include "platform/av_capture_output.h"
#include "platform/cm_clock.h"
#include "platform/cm_sample_buffer.h"
#include "output/unbounded_backpressure_buffer.h"

namespace ov {

struct USBDeviceTopology {
    enum class Source { uniqueID, iokit };
    std::string locationID;  // "0x%08x"
    Source source = Source::uniqueID;
};
// "uniqueID" or "iokit" (the platform's device registry; on Linux, sysfs).
const char* sourceName(USBDeviceTopology::Source source);

// Where the device sits on the USB bus, when it is a USB device that says so.
std::optional<USBDeviceTopology> usbDeviceTopology(const platform::AVCaptureDevice& device);

// Logs "USB device topology." or "No USB device topology found." at debug level.
void logUSBDeviceTopology(const platform::AVCaptureDevice& device, const Logger& logger);

// What the platform's output settings assistant gives for a microphone's
// active format: AAC at its rate (at most 48 kHz) and channel count, with a
// channel layout key.
platform::AVSettingsDictionary aacOutputSettings(const platform::AVCaptureDevice& microphone);
// The recorders' channel rules on those settings, each logged: leftChannelOnly
// forces one channel, a missing count is taken as one, three or more are
// capped at two; a single channel loses the layout key. Returns the count.
int applyAudioChannelRules(platform::AVSettingsDictionary& settings, bool leftChannelOnly,
                           const platform::AVCaptureDevice& microphone, const Logger& logger);

// Logs a change of a camera's observed configuration key ("activeFormat",
// "activeVideoMinFrameDuration", ...) and who made it: when the device can't
// be locked for configuration another process holds it, and the process that
// has the device open is named.
void logDeviceActiveConfiguration(platform::AVCaptureDevice& device, const std::string& key, const Logger& logger);

// Checks that a session clock can stand for the host clock: it advances, it
// agrees with the host clock now and at zero, and the last captured frame is
// recent. Each outcome is logged; the answer is whether every check passed.
bool validateAsSynchronizationClock(const platform::CMClock& clock, double after,
                                    const std::optional<platform::CMSampleBuffer>& lastAudioFrame,
                                    const Logger& logger);
// The same with "No synchronization clock available." for a missing clock.
bool validateSessionClock(const std::shared_ptr<const platform::CMClock>& clock, double after,
                          const std::optional<platform::CMSampleBuffer>& lastAudioFrame, const Logger& logger);

// Drains what a writer still holds at finish: rounds of flushing until the
// buffer is empty, giving up after `stallLimit` rounds in a row without
// progress (then the rest is dropped). A buffer that keeps shrinking is never
// given up. `checkError` runs after each flush and throws the writer's error.
struct DrainOptions {
    std::chrono::duration<double> interval = std::chrono::milliseconds(100);
    int stallLimit = 50;
};
template <class Element>
void drainBackpressureBuffer(UnboundedBackpressureBuffer<Element>& buffer, const std::function<void()>& checkError,
                             const Logger& logger, DrainOptions options = {});

}  // namespace ov

#include "session/capture_device_support_impl.h"
