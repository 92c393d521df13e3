#include "platform/av_audio_format.h"

#include <cmath>

#include <fmt/format.h>

#include "platform/double_description.h"

namespace ov::platform {

namespace {

AVAudioCommonFormat commonFormatOf(const AudioStreamBasicDescription& d) {
    const AudioFormatFlags f = d.mFormatFlags;
    if (d.mFormatID != kAudioFormatLinearPCM || (f & kAudioFormatFlagIsBigEndian)) return AVAudioCommonFormat::otherFormat;
    const uint32_t channelsPerBuffer = (f & kAudioFormatFlagIsNonInterleaved) ? 1 : d.mChannelsPerFrame;
    // Only tightly packed samples have a typed view.
    if (d.mBytesPerFrame != channelsPerBuffer * (d.mBitsPerChannel / 8) || d.mBitsPerChannel % 8 != 0)
        return AVAudioCommonFormat::otherFormat;
    if (f & kAudioFormatFlagIsFloat) {
        if (d.mBitsPerChannel == 32) return AVAudioCommonFormat::pcmFormatFloat32;
        if (d.mBitsPerChannel == 64) return AVAudioCommonFormat::pcmFormatFloat64;
        return AVAudioCommonFormat::otherFormat;
    }
    if (f & kAudioFormatFlagIsSignedInteger) {
        if (d.mBitsPerChannel == 16) return AVAudioCommonFormat::pcmFormatInt16;
        if (d.mBitsPerChannel == 32) return AVAudioCommonFormat::pcmFormatInt32;
    }
    return AVAudioCommonFormat::otherFormat;
}

const char* commonFormatName(AVAudioCommonFormat f) {
    switch (f) {
        case AVAudioCommonFormat::pcmFormatFloat32: return "Float32";
        case AVAudioCommonFormat::pcmFormatFloat64: return "Float64";
        case AVAudioCommonFormat::pcmFormatInt16: return "Int16";
        case AVAudioCommonFormat::pcmFormatInt32: return "Int32";
        default: return "other";
    }
}

}  // namespace

std::optional<AVAudioFormat> AVAudioFormat::make(AVAudioCommonFormat commonFormat, double sampleRate,
                                                 AVAudioChannelCount channels, bool interleaved) {
    uint32_t bits = 0;
    AudioFormatFlags flags = kAudioFormatFlagIsPacked;
    switch (commonFormat) {
        case AVAudioCommonFormat::pcmFormatFloat32: bits = 32, flags |= kAudioFormatFlagIsFloat; break;
        case AVAudioCommonFormat::pcmFormatFloat64: bits = 64, flags |= kAudioFormatFlagIsFloat; break;
        case AVAudioCommonFormat::pcmFormatInt16: bits = 16, flags |= kAudioFormatFlagIsSignedInteger; break;
        case AVAudioCommonFormat::pcmFormatInt32: bits = 32, flags |= kAudioFormatFlagIsSignedInteger; break;
        default: return std::nullopt;
    }
    if (!interleaved) flags |= kAudioFormatFlagIsNonInterleaved;
    AudioStreamBasicDescription d{};
    d.mSampleRate = sampleRate;
    d.mFormatID = kAudioFormatLinearPCM;
    d.mFormatFlags = flags;
    d.mBitsPerChannel = bits;
    d.mChannelsPerFrame = channels;
    d.mFramesPerPacket = 1;
    d.mBytesPerFrame = (interleaved ? channels : 1) * bits / 8;
    d.mBytesPerPacket = d.mBytesPerFrame;
    return fromStreamDescription(d);
}

std::optional<AVAudioFormat> AVAudioFormat::standard(double sampleRate, AVAudioChannelCount channels) {
    return make(AVAudioCommonFormat::pcmFormatFloat32, sampleRate, channels, false);
}

std::optional<AVAudioFormat> AVAudioFormat::fromStreamDescription(const AudioStreamBasicDescription& d) {
    // The format description's checks are the ones that matter: a format that
    // cannot describe sample buffers is no format here either.
    if (d.mFormatID != kAudioFormatLinearPCM || !CMFormatDescription::makeAudio(d)) return std::nullopt;
    // More channels than any device here delivers is a corrupt description.
    if (d.mChannelsPerFrame > 64) return std::nullopt;
    return AVAudioFormat(d, commonFormatOf(d));
}

std::optional<AVAudioFormat> AVAudioFormat::fromFormatDescription(const CMFormatDescription& description) {
    if (description.mediaType() != kCMMediaType_Audio || !description.audioStreamBasicDescription())
        return std::nullopt;
    return fromStreamDescription(*description.audioStreamBasicDescription());
}

CMFormatDescriptionRef AVAudioFormat::formatDescription() const { return CMFormatDescription::makeAudio(asbd_); }

bool AVAudioFormat::operator==(const AVAudioFormat& other) const {
    const auto& a = asbd_;
    const auto& b = other.asbd_;
    return a.mSampleRate == b.mSampleRate && a.mFormatID == b.mFormatID && a.mFormatFlags == b.mFormatFlags &&
           a.mBytesPerPacket == b.mBytesPerPacket && a.mFramesPerPacket == b.mFramesPerPacket &&
           a.mBytesPerFrame == b.mBytesPerFrame && a.mChannelsPerFrame == b.mChannelsPerFrame &&
           a.mBitsPerChannel == b.mBitsPerChannel;
}

std::string AVAudioFormat::description() const {
    return fmt::format("<{} ch, {} Hz, {}, {}>", channelCount(), doubleDescription(sampleRate()),
                       commonFormatName(commonFormat_), isInterleaved() ? "interleaved" : "deinterleaved");
}

}  // namespace ov::platform
