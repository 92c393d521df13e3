#include "video/video_recording_coordinator.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "foundation/platform_error.h"

namespace ov {

using platform::CMSampleBuffer;
using platform::CMTime;

namespace {

std::string errorText(const std::exception_ptr& e) { return platform::describeError(e).debugDescription; }
std::string seconds(const CMTime& t) { return fmt::format("{}", t.seconds()); }

}  // namespace

std::shared_ptr<VideoRecordingCoordinator> VideoRecordingCoordinator::make(Settings settings) {
    std::shared_ptr<VideoRecordingCoordinator> coordinator(new VideoRecordingCoordinator(std::move(settings)));
    coordinator->install();
    return coordinator;
}

VideoRecordingCoordinator::VideoRecordingCoordinator(Settings settings)
    : videoPrepareAdaptor(RingBuffer<CMSampleBuffer>(prepareRingCapacity), settings.logger),
      audioPrepareAdaptor(RingBuffer<CMSampleBuffer>(prepareRingCapacity), settings.logger),
      settings_(std::move(settings)),
      logger_(settings_.logger),
      videoWriterInputAdaptor_(settings_.videoInput, settings_.logger),
      startingQueue_(std::make_shared<platform::DispatchQueue>(settings_.label + ".StartingQueue")) {
    if (settings_.audioInput)
        audioWriterInputAdaptor_ = std::make_shared<AVAssetWriterInputBufferAdaptor>(settings_.audioInput, logger_);
    auto& timeline = *settings_.recordingTimeline;
    if (settings_.useTimeline) {
        videoRetimerNew_ =
            std::make_unique<RecordingTimelineBoundedRetimer<CMSampleBuffer>>(timeline, retimerCapacity, logger_);
        audioChopper_ = std::make_unique<RecordingTimelineBoundedAudioStream>(timeline, retimerCapacity, logger_);
    } else {
        // Only the first interval counts, as it stands now.
        videoRetimerOld_ = std::make_unique<RecordingIntervalBoundedRetimer<CMSampleBuffer>>(
            RecordingInterval(timeline.volatileRecordingTimeline, 0), retimerCapacity, true);
    }
}

void VideoRecordingCoordinator::install() {
    std::weak_ptr<VideoRecordingCoordinator> weakSelf = weak_from_this();
    if (videoRetimerNew_) {
        videoRetimerNew_->handler = [weakSelf](RecordingTimelineBoundedRetimerItemPosition position,
                                               const CMSampleBuffer& frame, const CMTime& time) {
            if (auto self = weakSelf.lock())
                self->retimedVideoFrame(position == RecordingTimelineBoundedRetimerItemPosition::first, frame, time);
        };
    }
    if (videoRetimerOld_) {
        videoRetimerOld_->handler = [weakSelf](RecordingIntervalBoundedRetimerItemPosition position,
                                               const CMSampleBuffer& frame, const CMTime& time) {
            if (auto self = weakSelf.lock())
                self->retimedVideoFrame(position == RecordingIntervalBoundedRetimerItemPosition::first, frame, time);
        };
    }
    if (audioChopper_) {
        audioChopper_->handler = [weakSelf](RecordingIntervalBoundedAudioStreamItemPosition, const CMSampleBuffer& sample) {
            if (auto self = weakSelf.lock()) self->retimeAndAppendAudio(sample);
        };
    }
}

bool VideoRecordingCoordinator::didStart() const {
    bool started = false;
    startingQueue_->sync([&] { started = didStart_; });
    return started;
}

void VideoRecordingCoordinator::stop(std::exception_ptr error) {
    if (settings_.stopErrorHandler) settings_.stopErrorHandler(error);
}

// ---- Video.

void VideoRecordingCoordinator::appendVideoFrame(const CMSampleBuffer& frame, const CMTime& time,
                                                 const std::optional<CMTime>& repeatAddedTime) {
    try {
        if (videoRetimerNew_)
            videoRetimerNew_->append(frame, time);
        else
            videoRetimerOld_->append(frame, time);
    } catch (const RecordingIntervalBoundedRetimerError& e) {
        if (e.kind == RecordingIntervalBoundedRetimerError::Kind::wrongOrder) {
            logger_.warning("Frame arrived in wrong order, dropping frame.", [&] {
                return LogMetadata{{"previous", seconds(e.previous)}, {"current", seconds(e.current)}};
            });
            return;
        }
        failVideo(frame, time, repeatAddedTime, std::current_exception());
    } catch (...) {
        failVideo(frame, time, repeatAddedTime, std::current_exception());
    }
}

void VideoRecordingCoordinator::failVideo(const CMSampleBuffer& frame, const CMTime& time,
                                          const std::optional<CMTime>& repeatAddedTime, std::exception_ptr error) {
    logger_.error("Failed to append video frame, aborting.", [&] {
        return LogMetadata{{"error", errorText(error)},
                           {"pts", seconds(frame.presentationTimeStamp())},
                           {"time", seconds(time)},
                           {"repeatAddedTime", repeatAddedTime ? seconds(*repeatAddedTime) : "nil"}};
    });
    stop(error);
}

void VideoRecordingCoordinator::retimedVideoFrame(bool isFirst, const CMSampleBuffer& frame, const CMTime& newTime) {
    if (frame.numSamples() > 1)
        logger_.warning("Multiple samples in CMSampleBuffer, but retiming assumes one sample.",
                        [&] { return LogMetadata{{"numSamples", std::to_string(frame.numSamples())}}; });
    const CMSampleBuffer retimed = frame.withTime(newTime);
    if (isFirst) {
        logger_.info("Got first sample after recording interval start, starting recording",
                     [&] { return LogMetadata{{"sessionStart", seconds(newTime)}}; });
        startIfNeeded(newTime);
        videoPrepareAdaptor.clear();
        logger_.info("Got first sample after recording interval start, started recording.", [&] {
            return LogMetadata{{settings_.originalTimeKey, seconds(frame.presentationTimeStamp())},
                               {"newPresentationTime", seconds(newTime)},
                               {"duration", seconds(frame.duration())}};
        });
    } else {
        logger_.trace("Appending video sample buffer.");
    }
    if (videoWriterInputAdaptor_.append(retimed))
        ++appendedVideoFrames_;
    else
        ++droppedVideoFrames_;
}

void VideoRecordingCoordinator::startIfNeeded(const CMTime& time) {
    startingQueue_->sync([&] {
        if (didStart_) return;
        auto& writers = *settings_.outputAssetWriters;
        auto audio = writers.audioAssetWriter();
        auto video = writers.videoAssetWriter();
        audio->startSession(time);
        if (video != audio) video->startSession(time);
        didStart_ = true;
    });
}

// ---- Audio.

void VideoRecordingCoordinator::appendAudioSample(const CMSampleBuffer& sample,
                                                  const std::shared_ptr<const platform::CMClock>& clock) {
    try {
        if (settings_.useTimeline) {
            audioPrepareAdaptor.append(sample);
            CMSampleBuffer onHost = sample;
            if (clock) {
                const CMTime host = clock->convertTime(sample.presentationTimeStamp(), *platform::CMClock::hostTimeClock());
                if (host != sample.presentationTimeStamp()) onHost = sample.withTime(host);
            }
            audioChopper_->append(onHost);
            return;
        }
        auto& timeline = *settings_.recordingTimeline;
        timeline.update();
        const auto& first = timeline.recordingIntervals.front();
        const double at = sample.presentationTimeStamp().seconds();
        if (!(first.recordFrom <= at && at < first.recordUntil)) {
            audioPrepareAdaptor.append(sample);
            return;
        }
        for (const auto& held : audioPrepareAdaptor.buffer().elements()) retimeAndAppendAudio(held);
        audioPrepareAdaptor.clear();
        retimeAndAppendAudio(sample);
    } catch (...) {
        failAudio(sample, std::current_exception());
    }
}

void VideoRecordingCoordinator::retimeAndAppendAudio(const CMSampleBuffer& sample) {
    try {
        // With the timeline the chopper already counts from zero and the
        // offset stays zero; without, the first sample's time becomes zero.
        const CMTime newTime = audioRetimer_.retime(sample.presentationTimeStamp());
        const CMSampleBuffer retimed = sample.withTime(newTime);
        startIfNeeded(newTime);
        if (audioWriterInputAdaptor_) audioWriterInputAdaptor_->append(retimed);
    } catch (...) {
        failAudio(sample, std::current_exception());
    }
}

void VideoRecordingCoordinator::failAudio(const CMSampleBuffer& sample, std::exception_ptr error) {
    logger_.error("Failed to append audio frame, aborting.", [&] {
        return LogMetadata{{"error", errorText(error)}, {"pts", seconds(sample.presentationTimeStamp())}};
    });
    stop(error);
}

// ---- The end.

void VideoRecordingCoordinator::finishRetimers() {
    if (videoRetimerNew_) {
        try {
            videoRetimerNew_->finish();
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("Failed to finish video retimer.", [&] { return LogMetadata{{"error", errorText(error)}}; });
        }
        try {
            audioChopper_->finish();
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("Failed to finish audio chopper.", [&] { return LogMetadata{{"error", errorText(error)}}; });
        }
    } else {
        try {
            videoRetimerOld_->finish();
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("Failed to finish video retimer.", [&] { return LogMetadata{{"error", errorText(error)}}; });
        }
    }
}

void VideoRecordingCoordinator::finishWriting() {
    auto& writers = *settings_.outputAssetWriters;
    auto audioWriter = writers.audioAssetWriter();
    auto videoWriter = writers.videoAssetWriter();

    if (audioWriterInputAdaptor_) {
        auto& buffer = audioWriterInputAdaptor_->unboundedBackpressureBuffer();
        for (;;) {
            const size_t left = buffer.partialFlush();
            if (left == 0) {
                logger_.info("Flushed all samples from buffer.");
                break;
            }
            if (auto error = audioWriter->error()) std::rethrow_exception(error);
            logger_.info("Couldn't flush all frames in buffer at once, retrying a bit.",
                         [&] { return LogMetadata{{"itemsInBuffer", std::to_string(left)}}; });
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    auto& timeline = *settings_.recordingTimeline;
    timeline.update();
    double length = 0;
    if (settings_.useTimeline) {
        length = timeline.duration();
    } else if (!timeline.recordingIntervals.empty()) {
        const auto& first = timeline.recordingIntervals.front();
        length = first.recordUntil - first.recordFrom;
    }
    // A session that never started has nothing to end.
    if (didStart() && std::isfinite(length)) {
        const CMTime end = CMTime::makeWithSeconds(length, 1'000'000'000);
        audioWriter->safe_endSession(end);
        if (videoWriter != audioWriter) videoWriter->safe_endSession(end);
    }
    if (settings_.audioInput) settings_.audioInput->markAsFinished();
    settings_.videoInput->markAsFinished();
    writers.finishWriting();
}

}  // namespace ov
