#pragma once
// Moves an audio stream by a fixed delay so that audio and video of a
// recording line up: a positive delta delays it (silence first), a negative
// one advances it (its first |delta| seconds are cut away).

#include <optional>
#include <vector>

#include "platform/cm_sample_buffer.h"

namespace ov {

class AudioShifter {
public:
    explicit AudioShifter(double delta) : delta(delta) {}

    // Seconds; positive delays, negative advances.
    const double delta;

    // The buffers to pass on, possibly none. Throws when a buffer cannot be
    // built. The delay is taken at the nearest tick of the first buffer's
    // timescale (whole frames for capture audio), once, so that it never drifts.
    std::vector<platform::CMSampleBuffer> append(const platform::CMSampleBuffer& sample);

    const std::optional<platform::CMTime>& firstTime() const { return firstTime_; }

private:
    std::optional<platform::CMTime> firstTime_;
};

}  // namespace ov
