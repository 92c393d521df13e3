#include "host/audio_buffer_data.h"

namespace ov::host {

using platform::AVAudioCommonFormat;

namespace {

// "<AVAudioFormat 0x..: 2 ch, 48000 Hz, Int16, interleaved>" in spirit: what a
// reader of the log needs to see why the buffer was refused.
std::string describeFormat(const platform::AVAudioFormat& format) {
    const char* sampleType = "other";
    switch (format.commonFormat()) {
        case AVAudioCommonFormat::pcmFormatFloat32: sampleType = "Float32"; break;
        case AVAudioCommonFormat::pcmFormatFloat64: sampleType = "Float64"; break;
        case AVAudioCommonFormat::pcmFormatInt16: sampleType = "Int16"; break;
        case AVAudioCommonFormat::pcmFormatInt32: sampleType = "Int32"; break;
        default: break;
    }
    return "<AVAudioFormat: " + std::to_string(format.channelCount()) + " ch, " +
           std::to_string(static_cast<long long>(format.sampleRate())) + " Hz, " + sampleType +
           (format.isInterleaved() ? ", interleaved>" : ", deinterleaved>");
}

}  // namespace

std::optional<coding::Json> audioBufferData(const platform::AVAudioPCMBuffer& buffer, const Logger& logger) {
    const auto& format = buffer.format();
    if (buffer.frameLength() == 0 || format.channelCount() == 0) {
        logger.error("Audio buffer has zero frames and/or zero channels");
        return std::nullopt;
    }
    if (format.commonFormat() != AVAudioCommonFormat::pcmFormatFloat32 ||
        (format.isInterleaved() && format.channelCount() != 1)) {
        logger.error([&] {
            return "Audio format is not Float32 non-interleaved with at least one channel as expected: " +
                   describeFormat(format);
        });
        return std::nullopt;
    }
    const float* const* channels = buffer.floatChannelData();
    if (!channels) {
        logger.error("Failed to get float channel data");
        return std::nullopt;
    }
    coding::Json channelData = coding::Json::array();
    for (uint32_t c = 0; c < format.channelCount(); ++c)
        channelData.push_back(coding::base64Encode(channels[c], size_t(buffer.frameLength()) * sizeof(float)));
    coding::Json record = coding::Json::object();
    record["sampleRate"] = format.sampleRate();
    record["numberOfChannels"] = format.channelCount();
    record["numberOfFrames"] = buffer.frameLength();
    record["channelData"] = std::move(channelData);
    return record;
}

std::optional<coding::Json> audioBufferData(const platform::CMSampleBuffer& sampleBuffer, const Logger& logger) {
    auto pcm = sampleBuffer.audioPCMBuffer();
    if (!pcm) {
        logger.error("Failed to convert CMSampleBuffer to AVAudioPCMBuffer");
        return std::nullopt;
    }
    return audioBufferData(*pcm, logger);
}

}  // namespace ov::host
