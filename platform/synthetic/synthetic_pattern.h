#pragma once
// SyntheticPattern: the pictures and tones of the synthetic backend.
//
// A picture is a moving test pattern (a gradient that shifts with every frame
// and a bright bar that crosses the picture) with the frame's number written
// across its top: 32 cells, most significant bit first, each all white (1) or
// all black (0), 8 rows high (fewer in a picture less than 8 rows high).
// readFrameCounter() gets the number back from the pixels, so a test can tell
// which frame it got after queues, retimers and copies.
//
// A tone is a sine of a given frequency and peak level, the same on every
// channel; sample n of a stream has the phase 2π·f·n / rate, computed from n,
// so buffers join without a seam however many there are.

#include <cstdint>
#include <optional>

#include "platform/av_audio_pcm_buffer.h"
#include "platform/cv_pixel_buffer.h"
#include "platform/synthetic/synthetic_world.h"

namespace ov::platform {

struct SyntheticPattern {
    static constexpr int kCounterBits = 32;
    static constexpr size_t kCounterRows = 8;

    // Fills a BGRA or 4:2:0 bi-planar picture with frame `frameIndex` of the
    // pattern; other formats throw std::invalid_argument. The picture must be
    // at least 32 pixels wide.
    static void draw(CVPixelBuffer& picture, uint64_t frameIndex);
    // The frame number written into a picture, or none when the top cells are
    // not clean black and white (not a pattern picture).
    static std::optional<uint32_t> readFrameCounter(const CVPixelBuffer& picture);

    // Sample `sampleIndex` of a tone at `sampleRate`.
    static double toneSample(const SyntheticTone& tone, double sampleRate, int64_t sampleIndex);
    // Fills frames [0, frameLength) of `buffer` with the tone's samples from
    // `firstSample` on, converted to the buffer's sample type.
    static void fillTone(AVAudioPCMBuffer& buffer, const SyntheticTone& tone, int64_t firstSample);
};

}  // namespace ov::platform
