#include "timing/audio_shifter.h"

#include <cmath>

#include "timing/audio_sample_cutting.h"

namespace ov {

using platform::CMSampleBuffer;
using platform::CMTime;

std::vector<CMSampleBuffer> AudioShifter::append(const CMSampleBuffer& sample) {
    if (delta == 0) return {sample};
    const CMTime start = sample.presentationTimeStamp();
    const bool isFirst = !firstTime_;
    if (isFirst) firstTime_ = start;
    const CMTime magnitude = CMTime::makeWithSeconds(std::fabs(delta), start.timescale);
    if (delta > 0) {
        if (isFirst) return {silentAudio(sample.formatDescription(), magnitude, start), sample.withTime(start + magnitude)};
        return {sample.withTime(start + magnitude)};
    }
    const CMTime cutoff = *firstTime_ + magnitude;
    const CMTime end = start + sample.duration();
    if (end <= cutoff) return {};
    if (start < cutoff) {
        // Cut in whole frames: the frames before the cutoff go.
        const double rate = sample.formatDescription()->audioStreamBasicDescription()->mSampleRate;
        const int64_t skip = framesForTime((cutoff - start).convertScale(static_cast<int32_t>(rate),
                                                                          platform::CMTimeRoundingMethod::roundHalfAwayFromZero),
                                           rate);
        auto part = extractingFrames(sample, skip, sample.numSamples() - skip);
        if (!part) return {};
        return {part->withTime(part->presentationTimeStamp() - magnitude)};
    }
    return {sample.withTime(start - magnitude)};
}

}  // namespace ov
