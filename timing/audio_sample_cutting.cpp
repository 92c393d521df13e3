#include "timing/audio_sample_cutting.h"

#include <cmath>
#include <limits>

#include "platform/av_audio_format.h"
#include "foundation/ov_error.h"

namespace ov {

using platform::AVAudioCommonFormat;
using platform::AVAudioFrameCount;
using platform::AVAudioPCMBuffer;
using platform::CMSampleBuffer;
using platform::CMTime;

int64_t framesForSeconds(double seconds, double sampleRate) {
    double product = seconds * sampleRate;
    if (!std::isfinite(product)) return product > 0 ? std::numeric_limits<int64_t>::max() : 0;
    return static_cast<int64_t>(std::trunc(product + (product >= 0 ? 1e-6 : -1e-6)));
}

int64_t framesForTime(const CMTime& time, double sampleRate) {
    if (time.isNumeric() && time.timescale == sampleRate) return time.value;
    return framesForSeconds(time.seconds(), sampleRate);
}

namespace {

void requireKnownChannelData(const AVAudioPCMBuffer& buffer) {
    switch (buffer.format().commonFormat()) {
        case AVAudioCommonFormat::pcmFormatFloat32:
        case AVAudioCommonFormat::pcmFormatInt16:
        case AVAudioCommonFormat::pcmFormatInt32: return;
        default: throw OVError(OVError::Code::audioFormatError, "AVAudioPCMBuffer has unknown channel data format.");
    }
}

}  // namespace

std::shared_ptr<AVAudioPCMBuffer> extractingFrom(const std::shared_ptr<AVAudioPCMBuffer>& buffer, double seconds) {
    if (seconds <= 0) return buffer;
    requireKnownChannelData(*buffer);
    int64_t skip = framesForSeconds(seconds, buffer->format().sampleRate());
    if (skip >= buffer->frameLength()) return nullptr;
    // One copy of bytes per buffer: per channel when planar, the one
    // interleaved plane otherwise; the sample type only sets the frame size.
    return buffer->copyFrames(static_cast<AVAudioFrameCount>(skip),
                              buffer->frameLength() - static_cast<AVAudioFrameCount>(skip));
}

std::shared_ptr<AVAudioPCMBuffer> extractingUpTo(const std::shared_ptr<AVAudioPCMBuffer>& buffer, double seconds) {
    requireKnownChannelData(*buffer);
    int64_t keep = std::min<int64_t>(framesForSeconds(seconds, buffer->format().sampleRate()), buffer->frameLength());
    if (keep <= 0) return nullptr;
    if (keep == buffer->frameLength()) return buffer;
    return buffer->copyFrames(0, static_cast<AVAudioFrameCount>(keep));
}

std::optional<CMSampleBuffer> extractingFrames(const CMSampleBuffer& sample, int64_t startFrame, int64_t frameCount) {
    auto pcm = sample.audioPCMBuffer();
    requireKnownChannelData(*pcm);
    startFrame = std::max<int64_t>(startFrame, 0);
    frameCount = std::min<int64_t>(frameCount, int64_t{pcm->frameLength()} - startFrame);
    if (frameCount <= 0) return std::nullopt;
    if (startFrame == 0 && frameCount == pcm->frameLength()) return sample;
    auto part = pcm->copyFrames(static_cast<AVAudioFrameCount>(startFrame), static_cast<AVAudioFrameCount>(frameCount));
    if (!part) return std::nullopt;
    const CMTime pts = sample.presentationTimeStamp();
    const auto rate = static_cast<platform::CMTimeScale>(pcm->format().sampleRate());
    return CMSampleBuffer::makeAudio(*part, pts + CMTime(startFrame, rate));
}

std::optional<CMSampleBuffer> extracting(const CMSampleBuffer& sample, double from, double duration) {
    auto pcm = sample.audioPCMBuffer();
    const double rate = pcm->format().sampleRate();
    int64_t skip = from > 0 ? framesForSeconds(from, rate) : 0;
    return extractingFrames(sample, skip, framesForSeconds(duration, rate));
}

CMSampleBuffer silentAudio(const platform::CMFormatDescriptionRef& formatDescription, const CMTime& duration,
                           const CMTime& presentationTimeStamp) {
    if (!(duration > platform::kCMTimeZero))
        throw OVError(OVError::Code::audioFormatError, "Silent audio duration must be greater than zero.");
    std::optional<platform::AVAudioFormat> format;
    if (formatDescription) format = platform::AVAudioFormat::fromFormatDescription(*formatDescription);
    if (!format) throw OVError(OVError::Code::audioFormatError, "Incompatible audio format description.");
    int64_t frames = framesForTime(duration, format->sampleRate());
    if (frames > std::numeric_limits<uint32_t>::max())
        throw OVError(OVError::Code::audioFormatError,
                      "Silent audio duration exceeds UInt32 size at format description sample rate.");
    auto pcm = frames > 0 ? AVAudioPCMBuffer::make(*format, static_cast<AVAudioFrameCount>(frames)) : nullptr;
    if (!pcm)
        throw OVError(OVError::Code::audioBufferCreationFailed,
                      "AVAudioPCMBuffer for silent audio returned nil, check duration and format description.");
    pcm->setFrameLength(static_cast<AVAudioFrameCount>(frames));
    return CMSampleBuffer::makeAudio(*pcm, presentationTimeStamp);
}

}  // namespace ov
