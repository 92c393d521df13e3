#include "host/recorder_schema.h"

#include <array>
#include <utility>

#include <fmt/format.h>

#include "platform/audio_capabilities.h"

namespace ov::host {

using coding::Decoder;
using coding::DecodingError;

UnknownDiscriminator::UnknownDiscriminator(DecodingError underlyingError, std::string field, std::string value)
    : underlyingError_(std::move(underlyingError)), field_(std::move(field)), value_(std::move(value)) {
    debugDescription_ = "Unknown ." + field_ + " '" + value_ + "' decoded";
    if (underlyingError_.kind() == DecodingError::Kind::dataCorrupted)
        debugDescription_ += " at path: " + coding::renderCodingPath(underlyingError_.codingPath());
}

platform::ErrorDescription UnknownDiscriminator::errorDescription() const {
    return {domain, 1, "The operation couldn't be completed. (" + std::string(domain) + " error 1.)",
            debugDescription_};
}

namespace wire {

std::string_view typeName(const Item& item) {
    static constexpr std::array<std::string_view, std::variant_size_v<Item>> names = {
        "webcam",      "display",     "windowBasedCrop",  "appleDeviceStaticOrientation",
        "appleDevice", "systemAudio", "applicationAudio", "microphone"};
    return names[item.index()];
}

}  // namespace wire

namespace {

template <class E>
using Cases = std::initializer_list<std::pair<std::string_view, E>>;

// A string-valued enumeration: a string that names no case is data corrupted.
template <class E>
E decodeEnum(const Decoder& d, std::string_view typeName, Cases<E> cases) {
    const std::string text = d.decode<std::string>();
    for (const auto& [name, value] : cases)
        if (name == text) return value;
    d.throwDataCorrupted(fmt::format("Cannot initialize {} from invalid String value {}", typeName, text));
}

template <class E>
std::optional<E> decodeEnumIfPresent(const Decoder& d, std::string_view key, std::string_view typeName,
                                     Cases<E> cases) {
    auto value = d.ifPresent(key);
    if (!value) return std::nullopt;
    return decodeEnum(*value, typeName, cases);
}

const Cases<OVVideoCodec> kVideoCodecs = {{"h264", OVVideoCodec::h264}, {"hevc", OVVideoCodec::hevc}};
const Cases<OVColorSpace> kColorSpaces = {{"sRGB", OVColorSpace::sRGB}, {"displayP3", OVColorSpace::displayP3}};
const Cases<wire::VideoOutput> kVideoOutputs = {{"singleFile", wire::VideoOutput::singleFile},
                                                {"segmented", wire::VideoOutput::segmented}};
const Cases<wire::AudioOutput> kAudioOutputs = {{"singleFile", wire::AudioOutput::singleFile},
                                                {"segmented", wire::AudioOutput::segmented},
                                                {"stream", wire::AudioOutput::stream}};
const Cases<wire::Backend> kBackends = {{"screenCaptureKit", wire::Backend::screenCaptureKit},
                                        {"coreAudio", wire::Backend::coreAudio},
                                        {"_beta_coreAudio", wire::Backend::_beta_coreAudio}};
// The short names are the wire's; the long ones are the library's, taken too.
const Cases<EchoCancellation> kEchoCancellations = {{"off", EchoCancellation::off},
                                                    {"online", EchoCancellation::aec3Online},
                                                    {"offline", EchoCancellation::aec3Offline},
                                                    {"both", EchoCancellation::aec3Both},
                                                    {"aec3Online", EchoCancellation::aec3Online},
                                                    {"aec3Offline", EchoCancellation::aec3Offline},
                                                    {"aec3Both", EchoCancellation::aec3Both}};
const Cases<wire::SystemAudioMode> kModes = {{"exclude", wire::SystemAudioMode::exclude},
                                             {"include", wire::SystemAudioMode::include}};

enum class ItemType {
    webcam,
    display,
    windowBasedCrop,
    appleDeviceStaticOrientation,
    appleDevice,
    systemAudio,
    applicationAudio,
    microphone
};
const Cases<ItemType> kItemTypes = {{"webcam", ItemType::webcam},
                                    {"display", ItemType::display},
                                    {"windowBasedCrop", ItemType::windowBasedCrop},
                                    {"appleDeviceStaticOrientation", ItemType::appleDeviceStaticOrientation},
                                    {"appleDevice", ItemType::appleDevice},
                                    {"systemAudio", ItemType::systemAudio},
                                    {"applicationAudio", ItemType::applicationAudio},
                                    {"microphone", ItemType::microphone}};

// The discriminator: a known name, an UnknownDiscriminator for any other
// string, and the first failure when "type" is missing or no string at all.
ItemType decodeItemType(const Decoder& d) {
    try {
        return decodeEnum(d["type"], "ItemType", kItemTypes);
    } catch (const DecodingError& first) {
        std::optional<std::string> text;
        try {
            text = d.decode<std::string>("type");
        } catch (const DecodingError&) {
        }
        if (text) throw UnknownDiscriminator(first, "type", *text);
        throw;
    }
}

wire::FileKeys decodeFileKeys(const Decoder& d) {
    return {d.decodeIfPresent<std::string>("filename"), d.decodeIfPresent<std::string>("filenamePrefix"),
            d.decodeIfPresent<std::string>("segmentCallback")};
}

wire::VideoOutput decodeVideoOutput(const Decoder& d) {
    return decodeEnumIfPresent(d, "output", "VideoOutput", kVideoOutputs).value_or(wire::VideoOutput::singleFile);
}

wire::AudioOutput decodeAudioOutput(const Decoder& d) {
    return decodeEnumIfPresent(d, "output", "AudioOutput", kAudioOutputs).value_or(wire::AudioOutput::singleFile);
}

OVVideoCodec decodeVideoCodec(const Decoder& d) {
    return decodeEnumIfPresent(d, "videoCodec", "OVVideoCodec", kVideoCodecs).value_or(OVVideoCodec::h264);
}

OVColorSpace decodeColorSpace(const Decoder& d) {
    return decodeEnumIfPresent(d, "colorSpace", "OVColorSpace", kColorSpaces).value_or(OVColorSpace::sRGB);
}

std::optional<wire::Backend> decodeBackend(const Decoder& d) {
    return decodeEnumIfPresent(d, "backend", "SystemAudioBackend", kBackends);
}

bool flag(const Decoder& d, std::string_view key, bool defaultValue) {
    return d.decodeIfPresent<bool>(key).value_or(defaultValue);
}

wire::Item decodeItem(const Decoder& d, ItemType type) {
    switch (type) {
        case ItemType::webcam: {
            wire::WebcamItem item;
            item.microphone = d.decode<std::string>("microphone");
            item.camera = d.decode<std::string>("camera");
            item.videoCodec = decodeVideoCodec(d);
            item.preserveActiveCameraConfiguration = flag(d, "preserveActiveCameraConfiguration", false);
            item.leftAudioChannelOnly = flag(d, "leftAudioChannelOnly", false);
            item.audioDelay = d.decodeIfPresent<double>("audioDelay").value_or(0);
            item.output = decodeVideoOutput(d);
            item.file = decodeFileKeys(d);
            return item;
        }
        case ItemType::display: {
            wire::DisplayItem item;
            item.display = d.decode<uint32_t>("display");
            item.colorSpace = decodeColorSpace(d);
            item.videoCodec = decodeVideoCodec(d);
            item.shows_cursor = flag(d, "shows_cursor", true);
            item.mouse_events = flag(d, "mouse_events", false);
            item.keyboard_events = flag(d, "keyboard_events", false);
            item.include_audio = flag(d, "include_audio", false);
            item.output = decodeVideoOutput(d);
            item.file = decodeFileKeys(d);
            return item;
        }
        case ItemType::windowBasedCrop: {
            wire::WindowBasedCropItem item;
            item.window = d.decode<uint32_t>("window");
            item.colorSpace = decodeColorSpace(d);
            item.videoCodec = decodeVideoCodec(d);
            item.shows_cursor = flag(d, "shows_cursor", true);
            item.mouse_events = flag(d, "mouse_events", false);
            item.keyboard_events = flag(d, "keyboard_events", false);
            item.output = decodeVideoOutput(d);
            item.file = decodeFileKeys(d);
            return item;
        }
        case ItemType::appleDeviceStaticOrientation:
            return wire::AppleDeviceStaticOrientationItem{
                {d.decode<std::string>("device"), d.decodeIfPresent<std::string>("filename")}};
        case ItemType::appleDevice:
            return wire::AppleDeviceItem{{d.decode<std::string>("device"), d.decodeIfPresent<std::string>("filename")}};
        case ItemType::systemAudio: {
            wire::SystemAudioItem item;
            item.mode = decodeEnum(d["mode"], "Mode", kModes);
            item.backend = decodeBackend(d);
            item.excludeOptions = d.decodeIfPresent<std::vector<std::string>>("excludeOptions").value_or(
                std::vector<std::string>{});
            item.excludedProcessIDs = d.decodeIfPresent<std::vector<ProcessID>>("excludedProcessIDs")
                                          .value_or(std::vector<ProcessID>{});
            item.includedApplicationIDs = d.decodeIfPresent<std::vector<ProcessID>>("includedApplicationIDs");
            item.output = decodeAudioOutput(d);
            item.file = decodeFileKeys(d);
            item.streamCallback = d.decodeIfPresent<std::string>("streamCallback");
            return item;
        }
        case ItemType::applicationAudio: {
            wire::ApplicationAudioItem item;
            item.applicationID = d.decode<ProcessID>("applicationID");
            item.backend = decodeBackend(d);
            item.output = decodeAudioOutput(d);
            item.file = decodeFileKeys(d);
            item.streamCallback = d.decodeIfPresent<std::string>("streamCallback");
            return item;
        }
        case ItemType::microphone: {
            wire::MicrophoneItem item;
            item.microphone = d.decode<std::string>("microphone");
            item.leftChannelOnly = flag(d, "leftChannelOnly", false);
            item.audioDelay = d.decodeIfPresent<double>("audioDelay").value_or(0);
            item.echoCancellation = decodeEnumIfPresent(d, "echoCancellation", "EchoCancellation", kEchoCancellations)
                                        .value_or(EchoCancellation::off);
            item.output = decodeAudioOutput(d);
            item.file = decodeFileKeys(d);
            item.streamCallback = d.decodeIfPresent<std::string>("streamCallback");
            return item;
        }
    }
    d.throwDataCorrupted("Unhandled item type.");
}

// ---- conversion ---------------------------------------------------------------------------------

SegmentCallback segmentCallbackFor(const std::optional<std::string>& target, const RecorderSchemaContext& context) {
    if (!target || !context.perform) return {};
    return [perform = context.perform, target = *target](const std::filesystem::path& segmentURL) {
        Json params = Json::object();
        params["path"] = percentEncodedPath(segmentURL.string());
        perform(target, params);
    };
}

ScreenRecordingOutputOptions screenOutput(wire::VideoOutput output, OVVideoCodec codec, const wire::FileKeys& file,
                                          const RecorderSchemaContext& context) {
    if (output == wire::VideoOutput::segmented)
        return ScreenRecordingOutputOptions::segmented(file.filenamePrefix, codec,
                                                       segmentCallbackFor(file.segmentCallback, context));
    return ScreenRecordingOutputOptions::singleFile(file.filename, codec);
}

WebcamOutputOptions webcamOutput(wire::VideoOutput output, OVVideoCodec codec, const wire::FileKeys& file,
                                 const RecorderSchemaContext& context) {
    if (output == wire::VideoOutput::segmented)
        return WebcamOutputOptions::segmented(file.filenamePrefix, codec,
                                              segmentCallbackFor(file.segmentCallback, context));
    return WebcamOutputOptions::singleFile(file.filename, codec);
}

AudioOutputOptions audioOutput(wire::AudioOutput output, const wire::FileKeys& file,
                               const RecorderSchemaContext& context) {
    if (output == wire::AudioOutput::segmented)
        return AudioOutputOptions::segmented(file.filenamePrefix, segmentCallbackFor(file.segmentCallback, context));
    return AudioOutputOptions::singleFile(file.filename);
}

// Without a host identifier the stream is recorded and its buffers discarded.
PCMBufferCallback audioStreamFor(const std::optional<std::string>& target, const RecorderSchemaContext& context) {
    if (target && context.audioStreamCallback) return context.audioStreamCallback(*target);
    return [](const platform::AVAudioPCMBuffer&) { return true; };
}

SampleBufferCallback microphoneStreamFor(const std::optional<std::string>& target,
                                         const RecorderSchemaContext& context) {
    if (target && context.microphoneStreamCallback) return context.microphoneStreamCallback(*target);
    return [](const platform::CMSampleBuffer&) { return true; };
}

// The set that mode "exclude" means: "currentProcess" and each process id;
// other words are dropped, so a host may send options that a newer engine knows.
std::set<SystemAudioExcludeOptions> excludeSet(const wire::SystemAudioItem& item) {
    std::set<SystemAudioExcludeOptions> set;
    for (const auto& word : item.excludeOptions)
        if (word == "currentProcess") set.insert(SystemAudioExcludeOptions::currentProcess());
    for (ProcessID pid : item.excludedProcessIDs) set.insert(SystemAudioExcludeOptions::processID(pid));
    return set;
}

const auto kNoFrameInterval = FrameInterval::zero();

struct ItemConverter {
    const RecorderSchemaContext& context;

    OVRecorderSchemaItem operator()(const wire::WebcamItem& w) const {
        return OVRecorderSchemaItem::webcam(w.microphone, w.camera, std::nullopt, w.preserveActiveCameraConfiguration,
                                            w.leftAudioChannelOnly, w.audioDelay,
                                            webcamOutput(w.output, w.videoCodec, w.file, context));
    }
    OVRecorderSchemaItem operator()(const wire::DisplayItem& w) const {
        // The engine's own process and the capture indicator never show in a display recording.
        return OVRecorderSchemaItem::display(
            w.display, std::nullopt,
            {ScreenRecordingExcludeOptions::currentProcess(), ScreenRecordingExcludeOptions::screenRecordingIndicator()},
            w.colorSpace, kNoFrameInterval, std::nullopt, w.shows_cursor, w.mouse_events, w.keyboard_events,
            JSONOutputOptions::singleFile(), w.include_audio, screenOutput(w.output, w.videoCodec, w.file, context));
    }
    OVRecorderSchemaItem operator()(const wire::WindowBasedCropItem& w) const {
        return OVRecorderSchemaItem::windowBasedCrop(w.window, w.colorSpace, kNoFrameInterval, std::nullopt,
                                                     w.shows_cursor, w.mouse_events, w.keyboard_events,
                                                     JSONOutputOptions::singleFile(), false,
                                                     screenOutput(w.output, w.videoCodec, w.file, context));
    }
    OVRecorderSchemaItem operator()(const wire::AppleDeviceStaticOrientationItem& w) const {
        return OVRecorderSchemaItem::appleDeviceStaticOrientation(w.device, w.filename);
    }
    OVRecorderSchemaItem operator()(const wire::AppleDeviceItem& w) const {
        return OVRecorderSchemaItem::appleDevice(w.device, w.filename);
    }
    OVRecorderSchemaItem operator()(const wire::SystemAudioItem& w) const {
        const SystemAudioBackend backend = resolveBackend(w.backend, context.perApplicationAudioAvailable);
        const bool stream = w.output == wire::AudioOutput::stream;
        if (w.mode == wire::SystemAudioMode::exclude) {
            if (stream) return OVRecorderSchemaItem::systemAudio(excludeSet(w), backend, audioStreamFor(w.streamCallback, context));
            return OVRecorderSchemaItem::systemAudio(excludeSet(w), backend, audioOutput(w.output, w.file, context));
        }
        std::vector<ProcessID> included = w.includedApplicationIDs.value_or(std::vector<ProcessID>{});
        if (stream)
            return OVRecorderSchemaItem::systemAudio(std::move(included), backend,
                                                     audioStreamFor(w.streamCallback, context));
        return OVRecorderSchemaItem::systemAudio(std::move(included), backend, audioOutput(w.output, w.file, context));
    }
    OVRecorderSchemaItem operator()(const wire::ApplicationAudioItem& w) const {
        const SystemAudioBackend backend = resolveBackend(w.backend, context.perApplicationAudioAvailable);
        if (w.output == wire::AudioOutput::stream)
            return OVRecorderSchemaItem::applicationAudio(w.applicationID, backend,
                                                          audioStreamFor(w.streamCallback, context));
        return OVRecorderSchemaItem::applicationAudio(w.applicationID, backend, audioOutput(w.output, w.file, context));
    }
    OVRecorderSchemaItem operator()(const wire::MicrophoneItem& w) const {
        if (w.output == wire::AudioOutput::stream)
            // The host reads 32-bit float, one plane per channel.
            return OVRecorderSchemaItem::microphone(w.microphone, AudioStreamConfiguration{32, true, false},
                                                    EchoCancellation::off, microphoneStreamFor(w.streamCallback, context));
        return OVRecorderSchemaItem::microphone(w.microphone, w.leftChannelOnly, w.audioDelay, w.echoCancellation,
                                                audioOutput(w.output, w.file, context));
    }
};

}  // namespace

SystemAudioBackend resolveBackend(const std::optional<wire::Backend>& backend, const std::function<bool()>& available) {
    const auto perApplicationAvailable = [&] {
        return available ? available() : platform::isPerApplicationAudioCaptureAvailable();
    };
    if (!backend)
        return perApplicationAvailable() ? SystemAudioBackend::coreAudio : SystemAudioBackend::screenCaptureKit;
    if (*backend == wire::Backend::screenCaptureKit) return SystemAudioBackend::screenCaptureKit;
    if (!perApplicationAvailable())
        throw HVRPCError(HVRPCStatusCode::operationFailed, "Core Audio backend requires macOS 14.2 or later");
    return SystemAudioBackend::coreAudio;
}

OVRecorderSchema makeSchema(const RecorderSchema& schema, const RecorderSchemaContext& context) {
    OVRecorderSchema out;
    if (schema.output_directory) out.outputDirectory = std::filesystem::path(*schema.output_directory);
    out.items.reserve(schema.items.size());
    for (const auto& item : schema.items) out.items.push_back(std::visit(ItemConverter{context}, item));
    return out;
}

std::optional<OVRecorderSettings> makeSettings(const RecorderSchema& schema) {
    if (!schema.settings) return std::nullopt;
    OVRecorderSettings settings;
    settings.allowFrameReordering = schema.settings->allowFrameReordering.value_or(true);
    return settings;
}

std::string percentEncodedPath(const std::string& path) {
    // Unreserved characters, sub-delimiters, ':', '@' and '/' stand as they are in a URL path.
    static constexpr std::string_view allowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$&'()*+,;=:@/";
    std::string out;
    out.reserve(path.size());
    for (unsigned char c : path) {
        if (allowed.find(static_cast<char>(c)) != std::string_view::npos)
            out.push_back(static_cast<char>(c));
        else
            out += fmt::format("%{:02X}", c);
    }
    return out;
}

}  // namespace ov::host

namespace ov::coding {

host::wire::Item Decodable<host::wire::Item>::decode(const Decoder& d) {
    d.requireObject("SchemaItem");
    return host::decodeItem(d, host::decodeItemType(d));
}

host::wire::Settings Decodable<host::wire::Settings>::decode(const Decoder& d) {
    d.requireObject("Settings");
    return {d.decodeIfPresent<bool>("allowFrameReordering")};
}

host::RecorderSchema Decodable<host::RecorderSchema>::decode(const Decoder& d) {
    d.requireObject("RecorderSchema");
    host::RecorderSchema schema;
    schema.output_directory = d.decodeIfPresent<std::string>("output_directory");
    schema.items = d.decode<std::vector<host::wire::Item>>("items");
    schema.settings = d.decodeIfPresent<host::wire::Settings>("settings");
    return schema;
}

}  // namespace ov::coding
