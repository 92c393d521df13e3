#pragma once
// Streamed audio as the host reads it: one JSON record per buffer, each channel
// its float32 samples in the machine's byte order, Base64 encoded.
#include <optional>

#include "foundation/json_coding.h"
#include "output/ov_logger.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cm_sample_buffer.h"

namespace ov::host {

// {"sampleRate", "numberOfChannels", "numberOfFrames", "channelData"}, or
// nothing (with the reason logged at error level) when the buffer is empty or
// not float32 non-interleaved (or a single channel).
std::optional<coding::Json> audioBufferData(const platform::AVAudioPCMBuffer& buffer, const Logger& logger);
// The same for a sample buffer, through its PCM form.
std::optional<coding::Json> audioBufferData(const platform::CMSampleBuffer& sampleBuffer, const Logger& logger);

}  // namespace ov::host
