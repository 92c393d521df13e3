#pragma once
// AVAudioFormat: a linear PCM format as the audio code speaks of it: sample
// rate, channel count, sample type and whether channels share one buffer
// (interleaved) or each have their own. It is built from and turned into the
// platform's stream description and format description.

#include <cstdint>
#include <optional>
#include <string>

#include "platform/cm_format_description.h"
#include "platform/core_audio_types.h"

namespace ov::platform {

using AVAudioChannelCount = uint32_t;
using AVAudioFrameCount = uint32_t;

enum class AVAudioCommonFormat {
    otherFormat = 0,
    pcmFormatFloat32 = 1,
    pcmFormatFloat64 = 2,
    pcmFormatInt16 = 3,
    pcmFormatInt32 = 4,
};

class AVAudioFormat {
public:
    // Native-endian packed PCM of the common format. Absent for otherFormat, a
    // sample rate that is not positive and finite, or no channel.
    static std::optional<AVAudioFormat> make(AVAudioCommonFormat commonFormat, double sampleRate,
                                             AVAudioChannelCount channels, bool interleaved);
    // The standard format: 32-bit float, non-interleaved.
    static std::optional<AVAudioFormat> standard(double sampleRate, AVAudioChannelCount channels);
    // Any valid linear PCM description; the common format is otherFormat for
    // sample types that have none (24-bit, big-endian, unsigned, ...).
    static std::optional<AVAudioFormat> fromStreamDescription(const AudioStreamBasicDescription& description);
    static std::optional<AVAudioFormat> fromFormatDescription(const CMFormatDescription& description);

    double sampleRate() const { return asbd_.mSampleRate; }
    AVAudioChannelCount channelCount() const { return asbd_.mChannelsPerFrame; }
    bool isInterleaved() const { return !(asbd_.mFormatFlags & kAudioFormatFlagIsNonInterleaved); }
    AVAudioCommonFormat commonFormat() const { return commonFormat_; }
    bool isStandard() const { return commonFormat_ == AVAudioCommonFormat::pcmFormatFloat32 && !isInterleaved(); }
    const AudioStreamBasicDescription& streamDescription() const { return asbd_; }
    // Bytes of one frame in one buffer (all channels when interleaved, one otherwise).
    uint32_t bytesPerFrame() const { return asbd_.mBytesPerFrame; }
    // Buffers that the data occupies: 1 when interleaved, one per channel otherwise.
    uint32_t bufferCount() const { return isInterleaved() ? 1 : channelCount(); }
    // The format description that sample buffers of this format carry.
    CMFormatDescriptionRef formatDescription() const;

    bool operator==(const AVAudioFormat& other) const;

    // "<2 ch, 48000 Hz, Float32, interleaved>".
    std::string description() const;

private:
    AVAudioFormat(const AudioStreamBasicDescription& asbd, AVAudioCommonFormat commonFormat)
        : asbd_(asbd), commonFormat_(commonFormat) {}

    AudioStreamBasicDescription asbd_;
    AVAudioCommonFormat commonFormat_;
};

}  // namespace ov::platform
