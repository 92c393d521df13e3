#pragma once
// The items of a recording schema, one structure per kind of source. They are
// plain data: building one touches no device and checks nothing.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "platform/cg_geometry.h"
#include "session/schema_options.h"

namespace ov {

namespace platform {
class CMSampleBuffer;
class AVAudioPCMBuffer;
}  // namespace platform

class Logger;
class Recorder;
class TopWindowInfoStream;
struct AbortSignal;

// Stream callbacks return whether the buffer was taken.
using SampleBufferCallback = std::function<bool(const platform::CMSampleBuffer&)>;
using PCMBufferCallback = std::function<bool(const platform::AVAudioPCMBuffer&)>;

using AbortFunction = std::function<void(AbortSignal)>;
// Lets a caller of the library supply its own internal recorders for the bundle.
using CustomRecordersFunction = std::function<std::vector<std::shared_ptr<Recorder>>(
    const std::filesystem::path& bundleURL, const Logger& logger, AbortFunction onAbort)>;

struct CustomSchemaItem {
    std::string id;
    CustomRecordersFunction makeRecorders;
};

struct WebcamSchemaItem {
    std::string id;
    std::string microphoneID;
    std::string cameraID;
    std::optional<platform::CGSize> maxVideoDimensions;
    bool allowCaptureDevicesConfiguration = true;
    bool leftAudioChannelOnly = false;
    double audioDelay = 0;  // seconds
    WebcamOutputOptions outputOptions;
};

struct MicrophoneFileSchemaItem {
    std::string id;
    std::string microphoneID;
    bool leftChannelOnly = false;
    double audioDelay = 0;  // seconds
    EchoCancellation echoCancellation = EchoCancellation::off;
    AudioOutputOptions outputOptions;
};

struct MicrophoneStreamSchemaItem {
    std::string id;
    SampleBufferCallback callback;
    std::string microphoneID;
    EchoCancellation echoCancellation = EchoCancellation::off;
    std::optional<AudioStreamConfiguration> audioConfiguration;
};

struct SystemAudioSchemaItem {
    std::string id;
    std::optional<std::vector<ProcessID>> includedApplicationIDs;
    std::optional<std::vector<ProcessID>> excludedApplicationIDs;
    bool excludeCurrentProcess = false;
    SystemAudioBackend backend = SystemAudioBackend::screenCaptureKit;
    AudioOutputOptions outputOptions;
};

struct SystemAudioStreamSchemaItem {
    std::string id;
    std::optional<std::vector<ProcessID>> includedApplicationIDs;
    std::optional<std::vector<ProcessID>> excludedApplicationIDs;
    bool excludeCurrentProcess = false;
    SystemAudioBackend backend = SystemAudioBackend::screenCaptureKit;
    PCMBufferCallback callback;
};

// Where the top window of a display recording comes from.
struct TopWindowInfo {
    enum class Kind { custom, disabled, enabled };
    Kind kind = Kind::disabled;
    std::shared_ptr<TopWindowInfoStream> stream;  // with custom only

    static TopWindowInfo custom(std::shared_ptr<TopWindowInfoStream> stream) {
        return {Kind::custom, std::move(stream)};
    }
    static TopWindowInfo disabled() { return {Kind::disabled, nullptr}; }
    static TopWindowInfo enabled() { return {Kind::enabled, nullptr}; }
};

// A capture's shortest time between frames; zero lets the capture run at the
// display's own rate. Nanoseconds, the unit of the host clock.
using FrameInterval = std::chrono::nanoseconds;

struct DisplaySchemaItem {
    using TopWindowInfo = ov::TopWindowInfo;

    std::string id;
    uint32_t displayID = 0;
    std::optional<platform::CGRect> crop;  // display-local points
    std::set<ScreenRecordingExcludeOptions> excludeOptions;
    OVColorSpace colorSpace = OVColorSpace::sRGB;
    FrameInterval minimumFrameInterval{0};
    std::optional<platform::CGSize> maxVideoDimensions;
    bool captureAudio = false;
    bool showsCursor = true;
    bool mouseEvents = false;
    bool keyboardEvents = false;
    JSONOutputOptions inputEventsOutputOptions;
    TopWindowInfo topWindowInfo;
    JSONOutputOptions topWindowInfoOutputOptions;
    ScreenRecordingOutputOptions outputOptions;
};

// A window recorded on its own, independent of the desktop behind it, and a
// window recorded as a crop of its display follow the same fields.
struct WindowSchemaItemFields {
    std::string id;
    uint32_t windowID = 0;
    OVColorSpace colorSpace = OVColorSpace::sRGB;
    FrameInterval minimumFrameInterval{0};
    std::optional<platform::CGSize> maxVideoDimensions;
    bool captureAudio = false;
    bool showsCursor = true;
    bool mouseEvents = false;
    bool keyboardEvents = false;
    JSONOutputOptions inputEventsOutputOptions;
    ScreenRecordingOutputOptions outputOptions;
};

struct DesktopIndependentWindowSchemaItem : WindowSchemaItemFields {};
struct WindowBasedCropSchemaItem : WindowSchemaItemFields {};

struct AppleDeviceFields {
    std::string id;
    std::string deviceID;
    DeviceOutputOptions outputOptions;
};

struct AppleDeviceSchemaItem : AppleDeviceFields {};
struct AppleDeviceStaticOrientationItem : AppleDeviceFields {};

// One item of a schema; the alternative says which kind.
using InternalSchemaItem =
    std::variant<CustomSchemaItem, WebcamSchemaItem, MicrophoneFileSchemaItem, MicrophoneStreamSchemaItem,
                 SystemAudioSchemaItem, SystemAudioStreamSchemaItem, DisplaySchemaItem,
                 DesktopIndependentWindowSchemaItem, WindowBasedCropSchemaItem, AppleDeviceStaticOrientationItem,
                 AppleDeviceSchemaItem>;

}  // namespace ov
