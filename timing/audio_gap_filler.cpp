#include "timing/audio_gap_filler.h"

#include "timing/audio_sample_cutting.h"

namespace ov {

using platform::CMSampleBuffer;
using platform::CMTime;

AudioGapFiller::AudioGapFiller(const Logger& logger) : logger_(logger.with("AudioGapFiller")) {}

std::vector<CMSampleBuffer> AudioGapFiller::process(const CMSampleBuffer& sampleBuffer) {
    const CMTime pts = sampleBuffer.presentationTimeStamp();
    const CMTime dur = sampleBuffer.duration();
    if (!pts.isValid()) {
        logger_.warning("Invalid presentation time in sample buffer, unable to detect gaps.",
                        [&] { return LogMetadata{{"samplePTS", pts.logDescription()}}; });
        return {sampleBuffer};
    }
    if (!nextTime_) {
        logger_.debug("Received first sample buffer, gap detection started.",
                      [&] { return LogMetadata{{"samplePTS", pts.logDescription()}}; });
        nextTime_ = pts + dur;
        return {sampleBuffer};
    }
    // Exact on the rational times: buffers stamped in frames of the sample
    // rate meet with a delta of exactly zero.
    const CMTime delta = pts - *nextTime_;
    auto gapMetadata = [&] {
        return LogMetadata{{"nextTime", nextTime_->logDescription()}, {"delta", delta.logDescription()}};
    };
    // Less than one frame apart is no gap: times rounded to the nanosecond
    // (host clock stamps of buffers whose length isn't a whole number of
    // nanoseconds) meet within a frame, and no silence is that short.
    const auto& timing = sampleBuffer.sampleTimingInfos();
    const CMTime frame = timing.size() == 1 && timing[0].duration.isNumeric() ? timing[0].duration : CMTime();
    if (frame.isNumeric() && frame > platform::kCMTimeZero && delta < frame && -delta < frame) {
        nextTime_ = pts + dur;
        return {sampleBuffer};
    }
    if (delta > platform::kCMTimeZero) {
        logger_.debug("Detected gap in audio.", gapMetadata);
        const auto& format = sampleBuffer.formatDescription();
        if (!format) {
            logger_.warning("Sample buffer is missing format description, unable to fill detected audio gap.",
                            gapMetadata);
            nextTime_ = pts + dur;
            return {sampleBuffer};
        }
        CMSampleBuffer silence;
        try {
            silence = silentAudio(format, delta, *nextTime_);
        } catch (...) {
            logger_.warning("Could not create silent audio", [&] {
                return LogMetadata{{"formatDescription", format->description()},
                                   {"nextTime", nextTime_->logDescription()},
                                   {"delta", delta.logDescription()}};
            });
            throw;
        }
        nextTime_ = pts + dur;
        return {silence, sampleBuffer};
    }
    if (delta < platform::kCMTimeZero) {
        logger_.warning("Negative gap detected, got overlapping audio, this should never happen.", [&] {
            return LogMetadata{{"nextTime", nextTime_->logDescription()},
                               {"delta", delta.logDescription()},
                               {"samplePTS", pts.logDescription()},
                               {"sampleDuration", dur.logDescription()}};
        });
        throw AudioGapFillerError::negativeGap();
    }
    nextTime_ = pts + dur;
    return {sampleBuffer};
}

}  // namespace ov
