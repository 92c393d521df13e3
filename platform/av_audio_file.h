#pragma once
// Reading an audio file whole and a resampler that keeps its state between
// calls: the stand-ins for AVAudioFile and AVAudioConverter that the echo
// cancellation needs, on libavformat, libavcodec and libswresample.
#include <filesystem>
#include <memory>
#include <vector>

namespace ov::platform {

struct DecodedMonoAudio {
    std::vector<float> samples;
    // The file's own rate and channel count, before conversion.
    double fileSampleRate = 0;
    int fileChannels = 0;
    // Whether the samples went through the converter (anything but a mono
    // float file at the target rate does).
    bool converted = false;
};

// The first audio stream of the file, decoded, averaged to mono and brought
// to the rate. Throws PlatformError (domain "Orvane.AVAudioFile") when the
// file can't be opened or decoded.
DecodedMonoAudio readAudioFileAsMonoFloat(const std::filesystem::path& path, double targetSampleRate);

// Mono float at one rate to mono float at another, for a stream cut into
// buffers: state carries over between calls, so the joins are seamless and
// the output lags the input by the filter's length until flush().
class AVAudioConverter {
public:
    // Null when the rates are not positive or the library refuses them.
    static std::unique_ptr<AVAudioConverter> make(double inputRate, double outputRate);
    ~AVAudioConverter();
    AVAudioConverter(const AVAudioConverter&) = delete;
    AVAudioConverter& operator=(const AVAudioConverter&) = delete;

    // What the converter can give for these samples now; throws PlatformError.
    std::vector<float> convert(const float* samples, size_t count);
    // What it still holds, at the end of the stream.
    std::vector<float> flush();

    double inputRate() const { return inputRate_; }
    double outputRate() const { return outputRate_; }

private:
    AVAudioConverter(void* context, double inputRate, double outputRate)
        : context_(context), inputRate_(inputRate), outputRate_(outputRate) {}
    void* context_;
    double inputRate_;
    double outputRate_;
};

}  // namespace ov::platform
