#pragma once
// Cutting audio sample buffers to frame ranges, and making silence: the
// operations beneath the bounded audio streams, the gap filler and the shifter.
//
// Positions are whole frames. Times that come in as seconds are turned into
// frames once, here, so that cutting never drifts: an audio time whose
// timescale is the sample rate converts exactly.

#include <memory>
#include <optional>

#include "platform/av_audio_pcm_buffer.h"
#include "platform/cm_format_description.h"
#include "platform/cm_sample_buffer.h"
#include "platform/cm_time.h"

namespace ov {

// The frames of `seconds` at `sampleRate`, truncated toward zero. A product
// within a millionth of a frame below a whole number counts as that number, so
// that 0.25 s × 44100 Hz is 11025 frames however the double rounds.
int64_t framesForSeconds(double seconds, double sampleRate);
// The frames of `time` at `sampleRate`: exact when the timescale is the rate,
// truncated toward zero otherwise.
int64_t framesForTime(const platform::CMTime& time, double sampleRate);

// A PCM buffer without its first `seconds`: the buffer itself for seconds <= 0,
// null when nothing is left. Float, 16-bit and 32-bit integer data, interleaved
// or not; any other sample type throws OVError audioFormatError ("AVAudioPCMBuffer
// has unknown channel data format.").
std::shared_ptr<platform::AVAudioPCMBuffer> extractingFrom(const std::shared_ptr<platform::AVAudioPCMBuffer>& buffer,
                                                           double seconds);
// The first `seconds` of a PCM buffer (null when that is no frame).
std::shared_ptr<platform::AVAudioPCMBuffer> extractingUpTo(const std::shared_ptr<platform::AVAudioPCMBuffer>& buffer,
                                                           double seconds);

// Frames [startFrame, startFrame + frameCount) of an audio sample buffer,
// clipped to its length, starting at its time plus startFrame frames. Absent
// when nothing is left. Throws for buffers that are not linear PCM.
std::optional<platform::CMSampleBuffer> extractingFrames(const platform::CMSampleBuffer& sample, int64_t startFrame,
                                                         int64_t frameCount);
// The part that starts `from` seconds in and lasts `duration` seconds.
std::optional<platform::CMSampleBuffer> extracting(const platform::CMSampleBuffer& sample, double from,
                                                   double duration);

// A silent sample buffer of `duration` at `presentationTimeStamp`. Throws
// OVError: audioFormatError for a duration that is not positive, a description
// that is not linear PCM, or more than 2^32-1 frames; audioBufferCreationFailed
// when no buffer can be made (a duration below one frame).
platform::CMSampleBuffer silentAudio(const platform::CMFormatDescriptionRef& formatDescription,
                                     const platform::CMTime& duration, const platform::CMTime& presentationTimeStamp);

}  // namespace ov
