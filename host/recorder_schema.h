#pragma once
// The recorder schema as the host writes it in the params of "init" for
// "Recorder": a reduced, flat JSON view of a recording schema. Decoding reads
// it through coding::Decoder, so a failure names the path of the bad value
// (".schema.items[0].type"); makeSchema() then turns it into the library's
// schema with the factories the host's choices stand for.
//
// No crop, frame interval, video size limit, echo cancellation or top window
// can be asked for over the wire: those are fixed here.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/halvern_rpc.h"
#include "foundation/json_coding.h"
#include "session/ov_recorder_types.h"

namespace ov::host {

// A "type" (or other discriminator) that is a string but names no known case.
class UnknownDiscriminator : public std::exception, public platform::DescribableError {
public:
    static constexpr const char* domain = "orvane_rpc.UnknownDiscriminator";

    UnknownDiscriminator(coding::DecodingError underlyingError, std::string field, std::string value);

    const coding::DecodingError& underlyingError() const { return underlyingError_; }
    const std::string& field() const { return field_; }
    const std::string& value() const { return value_; }

    // "Unknown .type 'foo' decoded at path: .schema.items[0].type"; the path only
    // when the underlying error is a data-corrupted one.
    const std::string& debugDescription() const { return debugDescription_; }
    const char* what() const noexcept override { return debugDescription_.c_str(); }
    platform::ErrorDescription errorDescription() const override;

private:
    coding::DecodingError underlyingError_;
    std::string field_;
    std::string value_;
    std::string debugDescription_;
};

// ---- the wire form ----------------------------------------------------------------------------

namespace wire {

enum class VideoOutput { singleFile, segmented };
enum class AudioOutput { singleFile, segmented, stream };
enum class Backend { screenCaptureKit, coreAudio, _beta_coreAudio };
enum class SystemAudioMode { exclude, include };

// The keys of items that write files. A key of another output mode is
// accepted and has no effect.
struct FileKeys {
    std::optional<std::string> filename;
    std::optional<std::string> filenamePrefix;
    std::optional<std::string> segmentCallback;
};

struct WebcamItem {
    std::string microphone;
    std::string camera;
    OVVideoCodec videoCodec = OVVideoCodec::h264;
    bool preserveActiveCameraConfiguration = false;
    bool leftAudioChannelOnly = false;
    double audioDelay = 0;
    VideoOutput output = VideoOutput::singleFile;
    FileKeys file;
};

struct DisplayItem {
    uint32_t display = 0;
    OVColorSpace colorSpace = OVColorSpace::sRGB;
    OVVideoCodec videoCodec = OVVideoCodec::h264;
    bool shows_cursor = true;
    bool mouse_events = false;
    bool keyboard_events = false;
    bool include_audio = false;
    VideoOutput output = VideoOutput::singleFile;
    FileKeys file;
};

struct WindowBasedCropItem {
    uint32_t window = 0;
    OVColorSpace colorSpace = OVColorSpace::sRGB;
    OVVideoCodec videoCodec = OVVideoCodec::h264;
    bool shows_cursor = true;
    bool mouse_events = false;
    bool keyboard_events = false;
    VideoOutput output = VideoOutput::singleFile;
    FileKeys file;
};

struct AppleDeviceKeys {
    std::string device;
    std::optional<std::string> filename;
};
struct AppleDeviceStaticOrientationItem : AppleDeviceKeys {};
struct AppleDeviceItem : AppleDeviceKeys {};

struct SystemAudioItem {
    SystemAudioMode mode = SystemAudioMode::exclude;
    std::optional<Backend> backend;
    std::vector<std::string> excludeOptions;
    std::vector<ProcessID> excludedProcessIDs;
    std::optional<std::vector<ProcessID>> includedApplicationIDs;
    AudioOutput output = AudioOutput::singleFile;
    FileKeys file;
    std::optional<std::string> streamCallback;
};

struct ApplicationAudioItem {
    ProcessID applicationID = 0;
    std::optional<Backend> backend;
    AudioOutput output = AudioOutput::singleFile;
    FileKeys file;
    std::optional<std::string> streamCallback;
};

struct MicrophoneItem {
    std::string microphone;
    bool leftChannelOnly = false;
    double audioDelay = 0;
    // Optional on the wire; absent is "off", so older messages keep their meaning.
    EchoCancellation echoCancellation = EchoCancellation::off;
    AudioOutput output = AudioOutput::singleFile;
    FileKeys file;
    std::optional<std::string> streamCallback;
};

// In the order of the "type" names.
using Item = std::variant<WebcamItem, DisplayItem, WindowBasedCropItem, AppleDeviceStaticOrientationItem,
                          AppleDeviceItem, SystemAudioItem, ApplicationAudioItem, MicrophoneItem>;

// The "type" of each alternative of Item, by index.
std::string_view typeName(const Item& item);

struct Settings {
    std::optional<bool> allowFrameReordering;
};

}  // namespace wire

struct RecorderSchema {
    std::optional<std::string> output_directory;
    std::vector<wire::Item> items;
    std::optional<wire::Settings> settings;
};

// ---- into the library's schema ----------------------------------------------------------------

// What the conversion needs from the RPC layer around it.
struct RecorderSchemaContext {
    // Sends a callback request to a host identifier (the engine's perform).
    std::function<void(const std::string& target, const Json& params)> perform;
    // Sinks for streamed audio under a host identifier; they turn buffers into
    // the host's audio records and return true whether or not that worked.
    std::function<SampleBufferCallback(const std::string& streamCallback)> microphoneStreamCallback;
    std::function<PCMBufferCallback(const std::string& streamCallback)> audioStreamCallback;
    // Whether per-application capture ("coreAudio") can be used here.
    std::function<bool()> perApplicationAudioAvailable;
};

// The library's schema, item by item in the host's order. The first failure
// stops the whole conversion: a per-application backend that this machine
// can't offer fails with HVRPCError 202.
OVRecorderSchema makeSchema(const RecorderSchema& schema, const RecorderSchemaContext& context);

// No settings key: no settings at all, so the recorder's defaults apply. A
// settings object: the defaults with allowFrameReordering as given (true when absent).
std::optional<OVRecorderSettings> makeSettings(const RecorderSchema& schema);

// The backend the host asked for: absent is the machine's default; both
// per-application names are coreAudio, which fails where it can't be offered.
SystemAudioBackend resolveBackend(const std::optional<wire::Backend>& backend, const std::function<bool()>& available);

// A file path as a URL path: every byte that a URL path can't hold as it is
// becomes %XX ("/tmp/my file.mp4" -> "/tmp/my%20file.mp4").
std::string percentEncodedPath(const std::string& path);

}  // namespace ov::host

namespace ov::coding {

template <>
struct Decodable<host::wire::Item> {
    static host::wire::Item decode(const Decoder& d);
};
template <>
struct Decodable<host::wire::Settings> {
    static host::wire::Settings decode(const Decoder& d);
};
template <>
struct Decodable<host::RecorderSchema> {
    static host::RecorderSchema decode(const Decoder& d);
};

}  // namespace ov::coding
