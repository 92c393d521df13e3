#include "timing/recording_timeline_bounded_audio_stream.h"

#include <cmath>

#include "timing/audio_sample_cutting.h"

namespace ov {

using platform::CMSampleBuffer;
using platform::CMTime;

RecordingTimelineBoundedAudioStream::RecordingTimelineBoundedAudioStream(StableRecordingTimeline timeline,
                                                                         size_t capacity, const Logger& logger)
    : logger_(logger.with("RecordingTimelineBoundedAudioStream")), capacity_(capacity), timeline_(std::move(timeline)),
      current_(makeWrapper(timeline_.recordingIntervals.at(0))) {}

RecordingTimelineBoundedAudioStream::Wrapper RecordingTimelineBoundedAudioStream::makeWrapper(
    const RecordingInterval& interval) {
    Wrapper w{std::make_shared<std::vector<CMSampleBuffer>>(),
              std::make_shared<RecordingIntervalBoundedAudioStream>(interval, capacity_, logger_)};
    w.stream->handler = [collected = w.collected](Position, const CMSampleBuffer& sample) {
        collected->push_back(sample);
    };
    return w;
}

void RecordingTimelineBoundedAudioStream::append(const CMSampleBuffer& audioSample) {
    std::lock_guard lock(mutex_);
    struct StoreLast {
        RecordingTimelineBoundedAudioStream* self;
        const CMSampleBuffer& sample;
        ~StoreLast() { self->lastAppended_ = sample; }
    } storeLast{this, audioSample};
    timeline_.update();
    transition(timeline_.relevantInterval(audioSample.presentationTimeStamp()));
    current_.stream->append(audioSample);
    emit(current_.take());
}

void RecordingTimelineBoundedAudioStream::finish() {
    std::lock_guard lock(mutex_);
    timeline_.update();
    RecordingInterval last = timeline_.recordingIntervals.back();
    transition(last);
    if (std::isfinite(last.recordUntil)) {
        current_.stream->finish();
        emit(current_.take());
    } else {
        // Stopped during a pause: the output ends with the interval before it.
        logger_.debug("Unfinished last interval while finishing, all items already emitted.");
    }
    lastAppended_.reset();
}

void RecordingTimelineBoundedAudioStream::transition(const RecordingInterval& interval) {
    const size_t currentIndex = current_.stream->intervalIndex();
    if (currentIndex == interval.index) return;
    logger_.debug("Transitioning to new interval audio stream.", [&] {
        return LogMetadata{{"currentIntervalIndex", std::to_string(currentIndex)},
                           {"newInterval", interval.debugDescription()}};
    });
    current_.stream->finish();
    emit(current_.take());
    current_ = makeWrapper(interval);
    if (lastAppended_) {
        // The buffer before the seam counts as the audio before the new
        // interval's start, and is cut where it reaches over it.
        logger_.debug("Passing last appended sample to new interval.", [&] {
            return LogMetadata{{"time", lastAppended_->presentationTimeStamp().logDescription()}};
        });
        current_.stream->append(*lastAppended_);
        emit(current_.take());
    }
}

CMTime RecordingTimelineBoundedAudioStream::offset(const CMTime& time) const {
    // The first start plus the pauses before `time`, each bound at its nearest
    // tick: the output of one interval then ends exactly where the next begins.
    const auto timescale = time.timescale;
    auto bound = [&](double s) { return CMTime::makeWithSeconds(s, timescale); };
    const auto& intervals = timeline_.recordingIntervals;
    CMTime result = bound(intervals.front().recordFrom);
    for (size_t i = 1; i < intervals.size() && bound(intervals[i].recordFrom) <= time; ++i)
        result = result + (bound(intervals[i].recordFrom) - bound(intervals[i - 1].recordUntil));
    return result;
}

void RecordingTimelineBoundedAudioStream::emit(std::vector<CMSampleBuffer> samples) {
    for (const auto& sample : samples) {
        const CMTime pts = sample.presentationTimeStamp();
        CMSampleBuffer moved = sample.withTime(pts - offset(pts));
        if (nextOutputTime_ && moved.presentationTimeStamp() < *nextOutputTime_) {
            // The interval before reached past its end: its audio was emitted
            // before the pause was known (capture stamps run a little ahead of
            // the clock that pauses). Trim as much off this interval's head, so
            // that the output neither overlaps nor loses its exact length.
            const double rate = sample.formatDescription()->audioStreamBasicDescription()->mSampleRate;
            const int64_t overlap = framesForTime(*nextOutputTime_ - moved.presentationTimeStamp(), rate);
            logger_.debug("Trimming audio that overlaps the previous output.", [&] {
                return LogMetadata{{"nextOutputTime", nextOutputTime_->logDescription()},
                                   {"overlapFrames", std::to_string(overlap)}};
            });
            auto rest = extractingFrames(moved, overlap, moved.numSamples() - overlap);
            if (!rest) continue;
            moved = rest->withTime(*nextOutputTime_);
        }
        nextOutputTime_ = moved.presentationTimeStamp() + moved.duration();
        if (!handler) throw RecordingIntervalBoundedAudioStreamError::handlerNotSet();
        Position position = didEmitFirst_ ? Position::subsequent : Position::first;
        didEmitFirst_ = true;
        handler(position, moved);
    }
}

}  // namespace ov
