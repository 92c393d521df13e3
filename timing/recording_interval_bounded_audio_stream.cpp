#include "timing/recording_interval_bounded_audio_stream.h"

#include <cmath>

#include "timing/audio_sample_cutting.h"

namespace ov {

using platform::CMSampleBuffer;
using platform::CMTime;
using Error = RecordingIntervalBoundedAudioStreamError;

Error Error::wrongOrder(CMTime previous, CMTime current) {
    return {Kind::wrongOrder,
            "wrongOrder(previous: " + previous.logDescription() + ", current: " + current.logDescription() + ")",
            previous, current};
}
Error Error::timescaleExceedsSession(double timescale, double intervalDuration) {
    return {Kind::timescaleExceedsSession, "timescaleExceedsSession(timescale: " + std::to_string(timescale) +
                                               ", intervalDuration: " + std::to_string(intervalDuration) + ")"};
}
Error Error::handlerNotSet() { return {Kind::handlerNotSet, "handlerNotSet"}; }
Error Error::finishedWithoutFrames() { return {Kind::finishedWithoutFrames, "finishedWithoutFrames"}; }
Error Error::formatDescriptionMissing() { return {Kind::formatDescriptionMissing, "formatDescriptionMissing"}; }

namespace {

// An interval bound at the nearest tick of `timescale`; +∞ stays +∞.
CMTime bound(double seconds, platform::CMTimeScale timescale) { return CMTime::makeWithSeconds(seconds, timescale); }

}  // namespace

std::optional<AudioStreamEntry> safe_clamp(const RecordingInterval& interval, const AudioStreamEntry& entry,
                                           const Logger& logger) {
    const auto timescale = entry.startTime.timescale;
    CMTime skip = bound(interval.recordFrom, timescale) - entry.startTime;
    if (!(skip >= platform::kCMTimeZero)) skip = CMTime(0, timescale);
    CMTime tail = entry.endTime - bound(interval.recordUntil, entry.endTime.timescale);
    if (!(tail > platform::kCMTimeZero)) tail = CMTime(0, timescale);
    CMTime keep = (entry.endTime - entry.startTime) - skip - tail;
    if (!(keep > platform::kCMTimeZero)) return std::nullopt;
    std::optional<CMSampleBuffer> part;
    try {
        const double rate = entry.audioSample.formatDescription()->audioStreamBasicDescription()->mSampleRate;
        part = extractingFrames(entry.audioSample, framesForTime(skip, rate), framesForTime(keep, rate));
    } catch (const std::exception& e) {
        logger.warning("Clamping failed, falling back to original unclamped item.",
                       [&] { return LogMetadata{{"error", e.what()}}; });
        return entry;
    }
    if (!part) return std::nullopt;
    CMTime start = entry.startTime + skip;
    return AudioStreamEntry{*part, start, start + part->duration()};
}

RecordingIntervalBoundedAudioStream::RecordingIntervalBoundedAudioStream(RecordingInterval interval, size_t capacity,
                                                                         const Logger& logger)
    : logger_(logger), interval_(std::move(interval)), buffer_(capacity) {}

void RecordingIntervalBoundedAudioStream::append(const CMSampleBuffer& audioSample) {
    std::lock_guard lock(mutex_);
    if (didEmitLast_) return;
    const CMTime duration = audioSample.duration();
    // Inside a stream, times follow from the durations (whole frames), not
    // from each buffer's own stamp, so that jitter neither overlaps nor gaps.
    CMTime start = lastAppended_ ? lastAppended_->endTime
                                 : audioSample.presentationTimeStamp().convertScale(
                                       duration.timescale, platform::CMTimeRoundingMethod::roundHalfAwayFromZero);
    AudioStreamEntry entry{audioSample, start, start + duration};
    flush(entry);
    lastAppended_ = entry;
}

std::optional<CMSampleBuffer> RecordingIntervalBoundedAudioStream::silence(
    const platform::CMFormatDescriptionRef& format, const CMTime& duration, const CMTime& at) {
    try {
        return silentAudio(format, duration, at);
    } catch (const std::exception& e) {
        logger_.warning("Silent audio generation failed, this might cause an audio gap in the output.",
                        [&] { return LogMetadata{{"error", e.what()}}; });
        return std::nullopt;
    }
}

CMTime RecordingIntervalBoundedAudioStream::wholeIntervalTicks(platform::CMTimeScale timescale) const {
    const double length = interval_.recordUntil - interval_.recordFrom;
    CMTime t = CMTime::makeWithSeconds(length, timescale);
    if (!(t > platform::kCMTimeZero)) throw Error::timescaleExceedsSession(1.0 / timescale, length);
    // Both bounds at their nearest tick, so that neighbouring intervals meet.
    return bound(interval_.recordUntil, timescale) - bound(interval_.recordFrom, timescale);
}

void RecordingIntervalBoundedAudioStream::emit(Position position, const AudioStreamEntry& entry) {
    if (!(lastEmittedEnd_ <= entry.startTime)) throw Error::wrongOrder(lastEmittedEnd_, entry.startTime);
    lastEmittedEnd_ = entry.endTime;
    lastEmittedSample_ = entry.audioSample;
    if (!handler) throw Error::handlerNotSet();
    // Handed on at its place in the stream.
    const CMSampleBuffer& sample = entry.audioSample;
    handler(position, sample.presentationTimeStamp() == entry.startTime ? sample : sample.withTime(entry.startTime));
}

void RecordingIntervalBoundedAudioStream::flush(std::optional<AudioStreamEntry> newItem) {
    interval_.update();
    std::vector<AudioStreamEntry> items = buffer_.elements();
    if (newItem) items.push_back(*newItem);
    if (items.empty()) return;

    const auto timescale = items.back().startTime.timescale;
    const CMTime recordFromTime = bound(interval_.recordFrom, timescale);
    const CMTime recordUntilTime = bound(interval_.recordUntil, timescale);
    std::vector<AudioStreamEntry> overlapping;
    for (const auto& e : items)
        if (e.endTime > recordFromTime) overlapping.push_back(e);
    if (overlapping.empty()) {
        if (newItem) buffer_.append(std::move(*newItem));
        return;
    }
    const AudioStreamEntry& first = overlapping.front();
    const AudioStreamEntry& last = overlapping.back();

    std::vector<AudioStreamEntry> rest;
    if (!lastEmittedSample_) {
        auto clamped = safe_clamp(interval_, first, logger_);
        if (clamped && clamped->startTime > recordFromTime) {
            // The audio begins late: silence from the start up to it.
            const auto& format = first.audioSample.formatDescription();
            if (!format) throw Error::formatDescriptionMissing();
            CMTime gap = clamped->startTime - recordFromTime;
            auto silent = silence(format, gap, recordFromTime);
            if (silent) {
                emit(Position::first, {*silent, recordFromTime, clamped->startTime});
                if (clamped->audioSample.duration() > platform::kCMTimeZero) emit(Position::subsequent, *clamped);
            } else {
                emit(Position::subsequent, *clamped);
            }
        } else if (clamped) {
            emit(Position::first, *clamped);
        } else {
            // Nothing of the first buffer lies inside: silence over it all.
            CMTime length = wholeIntervalTicks(first.startTime.timescale);
            const auto& format = first.audioSample.formatDescription();
            if (!format) throw Error::formatDescriptionMissing();
            CMTime from = bound(interval_.recordFrom, first.startTime.timescale);
            if (auto silent = silence(format, length, from))
                emit(Position::first, {*silent, from, from + silent->duration()});
        }
        for (const auto& e : overlapping)
            if (e.startTime > first.startTime) rest.push_back(e);
        buffer_.clear();
    } else {
        rest = overlapping;
    }

    for (const auto& e : rest)
        if (e.endTime >= recordFromTime && e.endTime < recordUntilTime) emit(Position::subsequent, e);

    if (last.endTime < recordUntilTime) return;

    didEmitLast_ = true;
    const AudioStreamEntry* stickingOut = nullptr;
    for (const auto& e : overlapping)
        if (e.startTime >= recordFromTime && e.startTime < recordUntilTime && e.endTime >= recordUntilTime)
            stickingOut = &e;
    // A buffer that opened the interval and also reaches past its end was cut
    // at both ends already.
    if (!stickingOut || stickingOut->startTime < lastEmittedEnd_) return;
    auto clamped = safe_clamp(interval_, *stickingOut, logger_);
    if (!clamped) {
        logger_.debug("Internal inconsistency: All audio was gone after clamping, this is unexpected.", [&] {
            return LogMetadata{{"lastItemStickingOutAtTheEnd.startTime", stickingOut->startTime.logDescription()},
                               {"lastItemStickingOutAtTheEnd.endTime", stickingOut->endTime.logDescription()},
                               {"interval", interval_.debugDescription()}};
        });
        return;
    }
    emit(Position::subsequent, *clamped);
}

void RecordingIntervalBoundedAudioStream::finish() {
    std::lock_guard lock(mutex_);
    flush(std::nullopt);
    if (didEmitLast_) return;
    didEmitLast_ = true;
    if (!lastAppended_) throw Error::finishedWithoutFrames();
    const auto& format = lastAppended_->audioSample.formatDescription();
    if (!format) throw Error::formatDescriptionMissing();
    if (lastEmittedSample_) {
        CMTime silenceDuration = bound(interval_.recordUntil, lastEmittedEnd_.timescale) - lastEmittedEnd_;
        if (!(silenceDuration > platform::kCMTimeZero)) {
            logger_.error(
                "Internal inconsistency: didEmitLast was false, but it seems we did emit audio beyond `recordUntil` "
                "so nothing to do.",
                [&] {
                    return LogMetadata{{"recordUntil", timeline_text::bound(interval_.recordUntil)},
                                       {"lastEmittedEndTime", lastEmittedEnd_.logDescription()},
                                       {"silenceDuration", silenceDuration.logDescription()}};
                });
            return;
        }
        if (auto silent = silence(format, silenceDuration, lastEmittedEnd_))
            emit(Position::subsequent, {*silent, lastEmittedEnd_, lastEmittedEnd_ + silent->duration()});
        return;
    }
    const auto timescale = lastAppended_->startTime.timescale;
    CMTime length = wholeIntervalTicks(timescale);
    CMTime from = bound(interval_.recordFrom, timescale);
    if (auto silent = silence(format, length, from)) emit(Position::first, {*silent, from, from + silent->duration()});
}

}  // namespace ov
