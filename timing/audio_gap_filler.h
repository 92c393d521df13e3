#pragma once
// Inserts silence where the presentation times of an audio stream jump ahead,
// so that output files get continuous audio. Any positive jump counts; an
// overlap is an error. Its owner calls it from one serial context: no lock.

#include <optional>
#include <stdexcept>
#include <vector>

#include "output/ov_logger.h"
#include "platform/cm_sample_buffer.h"

namespace ov {

class AudioGapFillerError : public std::runtime_error {
public:
    enum class Kind { negativeGap };
    static AudioGapFillerError negativeGap() { return AudioGapFillerError(Kind::negativeGap); }
    Kind kind;

private:
    explicit AudioGapFillerError(Kind k) : std::runtime_error("negativeGap"), kind(k) {}
};

class AudioGapFiller {
public:
    explicit AudioGapFiller(const Logger& logger);

    // The buffers to pass on, in order: the buffer, preceded by silence when it
    // starts after the previous one ended. Throws AudioGapFillerError or the
    // OVError of silence creation; the expected next time then stays.
    std::vector<platform::CMSampleBuffer> process(const platform::CMSampleBuffer& sampleBuffer);

    // Where the next buffer is expected to start.
    const std::optional<platform::CMTime>& nextTime() const { return nextTime_; }

private:
    Logger logger_;
    std::optional<platform::CMTime> nextTime_;
};

}  // namespace ov
