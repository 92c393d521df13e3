#pragma once
// The option values of schema items: where an item's output goes, which codec,
// colour space and audio backend it uses, and what a capture leaves out.

#include <compare>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "output/segment_callback.h"

namespace ov {

using ProcessID = int32_t;


enum class OVVideoCodec { h264, hevc };
enum class OVColorSpace { sRGB, displayP3 };

std::string_view rawValue(OVVideoCodec codec);
std::string_view rawValue(OVColorSpace colorSpace);
std::optional<OVVideoCodec> videoCodecFromRawValue(std::string_view text);
std::optional<OVColorSpace> colorSpaceFromRawValue(std::string_view text);

// Output of a source without a video codec choice: one file, or segments.
// Tag keeps audio, device and JSON output apart as types.
template <class Tag>
struct FileOutputOptions {
    struct SingleFile {
        std::optional<std::string> filename;
    };
    struct Segmented {
        std::optional<std::string> filenamePrefix;
        SegmentCallback segmentCallback;  // empty: no callback
    };

    std::variant<SingleFile, Segmented> mode;

    static FileOutputOptions singleFile() { return {SingleFile{}}; }
    static FileOutputOptions singleFile(std::optional<std::string> filename) {
        FileOutputOptions options{SingleFile{}};
        std::get<SingleFile>(options.mode).filename = std::move(filename);
        return options;
    }
    static FileOutputOptions segmented(std::optional<std::string> filenamePrefix = std::nullopt,
                                       SegmentCallback segmentCallback = {}) {
        return {Segmented{std::move(filenamePrefix), std::move(segmentCallback)}};
    }
    bool isSingleFile() const { return std::holds_alternative<SingleFile>(mode); }
    const SingleFile* asSingleFile() const { return std::get_if<SingleFile>(&mode); }
    const Segmented* asSegmented() const { return std::get_if<Segmented>(&mode); }
};

// Output of a video source: one file or segments, each with its codec.
template <class Tag>
struct VideoOutputOptions {
    struct SingleFile {
        std::optional<std::string> filename;
        OVVideoCodec videoCodec = OVVideoCodec::h264;
    };
    struct Segmented {
        std::optional<std::string> filenamePrefix;
        OVVideoCodec videoCodec = OVVideoCodec::h264;
        SegmentCallback segmentCallback;  // empty: no callback
    };

    std::variant<SingleFile, Segmented> mode;

    static VideoOutputOptions singleFile(std::optional<std::string> filename, OVVideoCodec videoCodec) {
        return {SingleFile{std::move(filename), videoCodec}};
    }
    static VideoOutputOptions segmented(std::optional<std::string> filenamePrefix, OVVideoCodec videoCodec,
                                        SegmentCallback segmentCallback = {}) {
        return {Segmented{std::move(filenamePrefix), videoCodec, std::move(segmentCallback)}};
    }
    bool isSingleFile() const { return std::holds_alternative<SingleFile>(mode); }
    const SingleFile* asSingleFile() const { return std::get_if<SingleFile>(&mode); }
    const Segmented* asSegmented() const { return std::get_if<Segmented>(&mode); }
    OVVideoCodec videoCodec() const {
        return std::visit([](const auto& m) { return m.videoCodec; }, mode);
    }
};

using AudioOutputOptions = FileOutputOptions<struct AudioOutputTag>;
using DeviceOutputOptions = FileOutputOptions<struct DeviceOutputTag>;
using JSONOutputOptions = FileOutputOptions<struct JSONOutputTag>;
using ScreenRecordingOutputOptions = VideoOutputOptions<struct ScreenRecordingOutputTag>;
using WebcamOutputOptions = VideoOutputOptions<struct WebcamOutputTag>;

// The sample format that a microphone stream hands to its callback.
struct AudioStreamConfiguration {
    int bitDepth = 32;
    bool isFloat = true;
    bool isInterleaved = false;
    friend bool operator==(const AudioStreamConfiguration&, const AudioStreamConfiguration&) = default;
};

enum class EchoCancellation { off, aec3Online, aec3Offline, aec3Both };

// How system and application audio is captured. On Linux, `coreAudio` is the
// sound server's per-process capture (a monitor stream per playback stream of
// the chosen processes) and `screenCaptureKit` the whole output through the
// default sink's monitor. `_beta_coreAudio` is kept as a case of its own so
// that callers that name it still compile; the wire maps it to `coreAudio`.
enum class SystemAudioBackend { coreAudio, screenCaptureKit, _beta_coreAudio };

std::string_view caseName(SystemAudioBackend backend);
// Per-process capture where the sound server offers it, else the whole output.
SystemAudioBackend defaultSystemAudioBackend();

struct SystemAudioExcludeOptions {
    enum class Kind { processID, currentProcess };
    Kind kind = Kind::currentProcess;
    ProcessID pid = 0;  // with processID only

    static SystemAudioExcludeOptions processID(ProcessID pid) { return {Kind::processID, pid}; }
    static SystemAudioExcludeOptions currentProcess() { return {Kind::currentProcess, 0}; }
    friend auto operator<=>(const SystemAudioExcludeOptions&, const SystemAudioExcludeOptions&) = default;
};

struct ScreenRecordingExcludeOptions {
    enum class Kind { processID, currentProcess, screenRecordingIndicator };
    Kind kind = Kind::currentProcess;
    ProcessID pid = 0;  // with processID only

    static ScreenRecordingExcludeOptions processID(ProcessID pid) { return {Kind::processID, pid}; }
    static ScreenRecordingExcludeOptions currentProcess() { return {Kind::currentProcess, 0}; }
    static ScreenRecordingExcludeOptions screenRecordingIndicator() { return {Kind::screenRecordingIndicator, 0}; }
    friend auto operator<=>(const ScreenRecordingExcludeOptions&, const ScreenRecordingExcludeOptions&) = default;
};

}  // namespace ov
