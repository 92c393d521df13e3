#include "video/screen_recorder.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "foundation/ov_error.h"
#include "foundation/platform_error.h"
#include "output/master_playlist.h"
#include "platform/capture_platform.h"
#include "platform/cg_rect_dictionary.h"
#include "platform/cm_clock.h"
#include "session/disk_space_info.h"
#include "timing/frame_repeater.h"
#include "timing/with_timeout.h"
#include "video/output_settings_assistant.h"
#include "video/video_recording_coordinator.h"

namespace ov {

using platform::AVMediaType;
using platform::CGRect;
using platform::CGSize;
using platform::CMSampleBuffer;
using platform::CMTime;
using platform::SCStream;
using platform::SCStreamOutputType;

namespace {

constexpr double prepareTimeout = 3.0;
constexpr double frameRepeatInterval = 1.0;

std::string errorText(const std::exception_ptr& e) { return platform::describeError(e).debugDescription; }
std::string sizeText(const CGSize& s) { return fmt::format("{}x{}", s.width, s.height); }
std::string dimensionsText(const VideoDimensions& d) { return fmt::format("{}x{}", d.width, d.height); }

// The format of an audio sample, for the prepare ring's stable-format wait.
std::optional<std::tuple<double, uint32_t, uint32_t, uint32_t, uint32_t>> formatOf(const CMSampleBuffer& sample) {
    const auto& description = sample.formatDescription();
    if (!description || !description->audioStreamBasicDescription()) return std::nullopt;
    const auto& a = *description->audioStreamBasicDescription();
    return std::make_tuple(a.mSampleRate, a.mFormatID, a.mFormatFlags, a.mBytesPerFrame, a.mChannelsPerFrame);
}

// Whether a stream's clock can stand for the host clock: it advances and
// agrees with host time. Logged only; capture goes on either way.
void validateSessionClock(const std::shared_ptr<const platform::CMClock>& clock, double after, const Logger& logger) {
    if (!clock) {
        logger.info("No synchronization clock available.");
        return;
    }
    const auto& host = *platform::CMClock::hostTimeClock();
    const CMTime first = clock->time();
    std::this_thread::sleep_for(std::chrono::duration<double>(after));
    const CMTime second = clock->time();
    const double delta = clock->convertTime(clock->time(), host).seconds() - host.time().seconds();
    const bool good = second > first && std::fabs(delta) < 0.1;
    logger.log(good ? OVLogLevel::info : OVLogLevel::error,
               good ? "Synchronization clock is good." : "Synchronization clock is not usable as host time.", [&] {
                   return LogMetadata{{"first", fmt::format("{}", first.seconds())},
                                      {"second", fmt::format("{}", second.seconds())},
                                      {"delta", fmt::format("{}", delta)}};
               });
}

std::optional<int64_t> streamErrorCode(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const platform::PlatformError& e) {
        if (e.domain() == platform::SCStreamError::errorDomain) return e.code();
    } catch (...) {
    }
    return std::nullopt;
}

}  // namespace

bool isVolumeLowOnDiskSpace(const OutputDescription& outputDescription, const Logger& logger) {
    std::filesystem::path directory;
    if (const auto* single = outputDescription.asSingleFile())
        directory = single->url.parent_path();
    else
        directory = outputDescription.asMultipleStreams()->directoryURL;
    try {
        const auto info = getDiskSpaceInfo(directory);
        if (!info.availableForOpportunisticUsage)
            throw OVError(OVError::Code::fileOperationFailed, std::string("Can't access disk space info"));
        const int64_t available = *info.availableForOpportunisticUsage;
        logger.info([&] { return "Now available opportunistic disk space: " + std::to_string(available) + " bytes"; });
        return available == 0;
    } catch (...) {
        const auto error = std::current_exception();
        logger.error("Could not compute free disk space", [&] { return LogMetadata{{"error", errorText(error)}}; });
        return false;
    }
}

// ---- The coordinator: the per-sample work.

class ScreenRecorder::StreamCoordinator final : public VideoRecordingCoordinator,
                                                public platform::SCStreamOutput,
                                                public platform::SCStreamDelegate {
public:
    static std::shared_ptr<StreamCoordinator> make(Settings settings, CGRect contentRect) {
        std::shared_ptr<StreamCoordinator> coordinator(new StreamCoordinator(std::move(settings), contentRect));
        coordinator->install();
        std::weak_ptr<StreamCoordinator> weakSelf = coordinator;
        coordinator->frameRepeater.handler = [weakSelf](const CMSampleBuffer& frame, const CMTime& time,
                                                        const std::optional<CMTime>& repeatAddedTime) {
            auto self = weakSelf.lock();
            if (!self || self->finished_) return;
            if (repeatAddedTime)
                self->logger_.debug("Repeating video frame.",
                                    [&] { return LogMetadata{{"after", fmt::format("{}", repeatAddedTime->seconds())}}; });
            self->appendVideoFrame(frame, time, repeatAddedTime);
        };
        return coordinator;
    }

    FrameRepeater<CMSampleBuffer> frameRepeater;
    std::shared_ptr<RecordingRectTimeline> recordingRectTimeline;
    // Set once finish has drained the queues: later samples change nothing.
    std::atomic<bool> finished_{false};

    void stream(SCStream& stream, const CMSampleBuffer& sampleBuffer, SCStreamOutputType type) override {
        if (!sampleBuffer.isValid() || finished_) return;
        switch (type) {
            case SCStreamOutputType::screen: handleScreenSample(stream, sampleBuffer); return;
            case SCStreamOutputType::audio: appendAudioSample(sampleBuffer, stream.synchronizationClock()); return;
            case SCStreamOutputType::microphone: return;
        }
        if (!didLogUnknownOutputWarning_.exchange(true))
            logger_.warning("Got data of unknown type, ignoring.",
                            [&] { return LogMetadata{{"type", std::to_string(static_cast<int>(type))}}; });
    }

    void streamDidStopWithError(SCStream&, std::exception_ptr error) override { stopErrorHandler(error); }

    void stopErrorHandler(std::exception_ptr error) {
        if (settings_.stopErrorHandler) settings_.stopErrorHandler(error);
    }

private:
    StreamCoordinator(Settings settings, CGRect contentRect)
        : VideoRecordingCoordinator(std::move(settings)),
          frameRepeater(frameRepeatInterval, settings_.logger),
          recordingRectTimeline(std::make_shared<RecordingRectTimeline>(settings_.logger)),
          contentRect_(contentRect) {}

    void handleScreenSample(SCStream& stream, const CMSampleBuffer& sampleBuffer) {
        // Host-clock backends give the host clock, so the capture time survives queueing.
        CMTime time;
        if (auto clock = stream.synchronizationClock())
            time = clock->convertTime(sampleBuffer.presentationTimeStamp(), *platform::CMClock::hostTimeClock());
        else
            time = platform::hostTimeNow();

        const auto& attachments = sampleBuffer.sampleAttachments();
        if (attachments.empty() || !attachments.front().is_object()) return;
        const auto& info = attachments.front();

        std::optional<CGRect> rect;
        if (auto it = info.find(platform::SCStreamFrameInfoScreenRect); it != info.end()) {
            rect = platform::CGRectMakeWithDictionaryRepresentation(*it);
            if (!rect)
                logger_.warning("Got unknown format from SCStreamFrameInfo.screenRect.",
                                [&] { return LogMetadata{{"screenRect", it->dump()}}; });
        }
        recordingRectTimeline->capture(time, rect);

        const auto status = info.find(platform::SCStreamFrameInfoStatus);
        if (status == info.end() || !status->is_number_integer() ||
            status->get<int>() != static_cast<int>(platform::SCFrameStatus::complete))
            return;

        videoPrepareAdaptor.append(sampleBuffer);
        try {
            frameRepeater.append(sampleBuffer, time);
        } catch (const FrameRepeaterError&) {
            logger_.error("Frame repeater handler is missing, aborting.");
            stopErrorHandler(std::current_exception());
        }
    }

    CGRect contentRect_;
    std::atomic<bool> didLogUnknownOutputWarning_{false};
};

// ---- Set-up.

ScreenRecorder::ScreenRecorder(std::string id, OutputDescription outputDescription, FilterFunction filter,
                               FilterFunction audioFilter, std::set<ScreenRecordingExcludeOptions> excludeOptions,
                               CGRect contentRect, double pointPixelScale, std::optional<CGRect> cropRect,
                               CMTime minimumFrameInterval, std::optional<CGSize> maxVideoDimensions, bool captureAudio,
                               bool showsCursor, RecordMode mode, int audioSegmentDuration, int videoSegmentDuration,
                               std::optional<double> keyframeIntervalDuration,
                               std::shared_ptr<StableRecordingTimeline> recordingTimeline, bool useTimeline,
                               const Logger& logger, AbortFunction onAbort,
                               std::shared_ptr<RecordingRectTimeline> recordingRectTimeline)
    : id_(std::move(id)),
      logger_(logger.with("ScreenRecorder", id_)),
      recordingTimeline_(std::move(recordingTimeline)),
      useTimeline_(useTimeline),
      screenSampleBufferQueue_(std::make_shared<platform::DispatchQueue>("ScreenRecorder.ScreenSampleBufferQueue")),
      audioSampleBufferQueue_(std::make_shared<platform::DispatchQueue>("ScreenRecorder.AudioSampleBufferQueue")),
      createFilter_(std::move(filter)),
      createAudioFilter_(std::move(audioFilter)),
      excludeOptions_(std::move(excludeOptions)),
      outputDescription_(std::move(outputDescription)),
      onAbort_(std::move(onAbort)) {
    if (!platform::CGPreflightScreenCaptureAccess()) {
        logger_.error("Missing required screen capture permissions. See OVAuthorizationStatus.");
        throw OVError(OVError::Code::screenRecordingPermissionRequired,
                      std::string("Screen capture permission is required to record (a part of) the display. See "
                                  "OVAuthorizationStatus."),
                      std::string("Screen capture permission is required to record (a part of) the display."));
    }
    logger_.info("Necessary permissions are granted.");

    // Video sizes.
    recordingSize_ = cropRect ? cropRect->size : contentRect.size;
    const VideoDimensions limit = codecLimit(mode);
    const CGSize maxSource = maxVideoDimensions.value_or(CGSize{double(limit.width), double(limit.height)});
    maxSize_ = codecAlignedVideoSize(maxSource, 1.0, limit);
    videoSize_ = {static_cast<int32_t>(recordingSize_.width * pointPixelScale),
                  static_cast<int32_t>(recordingSize_.height * pointPixelScale)};
    videoDimensions_ = codecAlignedVideoSize(recordingSize_, pointPixelScale, maxSize_);
    logger_.info("Calculated video sizes.", [&] {
        return LogMetadata{{"recordingSize", sizeText(recordingSize_)},
                           {"maxSize", dimensionsText(maxSize_)},
                           {"videoSize", dimensionsText(videoSize_)},
                           {"videoDimensions", dimensionsText(videoDimensions_)},
                           {"pointPixelScale", fmt::format("{}", pointPixelScale)}};
    });

    // Output settings.
    logger_.info("Resolving output settings.");
    logger_.info("Resolving settings using AVOutputSettingsAssistant.");
    auto assistant = AVOutputSettingsAssistant::make(isHEVC(mode) ? AVOutputSettingsPresetHEVC7680x4320
                                                                   : AVOutputSettingsPreset3840x2160);
    if (!assistant) {
        logger_.error("Failed to initialize AVOutputSettingsAssistant.");
        throw OVError(OVError::Code::videoFormatConfigurationFailed);
    }
    assistant->setSourceVideoFormat(platform::CMFormatDescription::makeVideo(
        platform::FourCharCode(isHEVC(mode) ? OV_FOURCC('h', 'v', 'c', '1') : OV_FOURCC('a', 'v', 'c', '1')),
        {videoSize_.width, videoSize_.height}));
    auto audioSettings = assistant->audioSettings();
    auto videoSettings = assistant->videoSettings();
    if (!audioSettings)
        throw OVError(OVError::Code::audioFormatError, std::string("AVOutputSettingsAssistant didn't provide any audioSettings."));
    if (!videoSettings)
        throw OVError(OVError::Code::videoFormatError, std::string("AVOutputSettingsAssistant didn't provide any videoSettings."));
    audioSettings_ = *audioSettings;
    videoSettings_ = *videoSettings;
    videoSettings_[platform::AVVideoWidthKey] = videoDimensions_.width;
    videoSettings_[platform::AVVideoHeightKey] = videoDimensions_.height;
    videoSettings_[platform::AVVideoColorPropertiesKey] = videoColorProperties(mode);
    auto& compression = videoSettings_[platform::AVVideoCompressionPropertiesKey];
    if (!compression.is_object()) compression = platform::AVSettingsDictionary::object();
    if (mode == RecordMode::hevcDisplayP3)
        compression[platform::AVVideoProfileLevelKey] = platform::kVTProfileLevel_HEVC_Main10_AutoLevel;
    compression[platform::AVVideoAllowFrameReorderingKey] = false;
    if (keyframeIntervalDuration) {
        compression[platform::AVVideoMaxKeyFrameIntervalDurationKey] = *keyframeIntervalDuration;
        if (minimumFrameInterval.isNumeric() && minimumFrameInterval.seconds() > 0)
            compression[platform::AVVideoMaxKeyFrameIntervalKey] =
                static_cast<int64_t>(*keyframeIntervalDuration / minimumFrameInterval.seconds());
    }

    // Writers.
    MasterPlaylist playlist;
    const auto channels = audioSettings_.find(platform::AVNumberOfChannelsKey);
    playlist.audioChannelsCount =
        channels != audioSettings_.end() && channels->is_number_integer() ? channels->get<int>() : 1;
    playlist.audioTrackName = "System Audio";
    playlist.audioCodecName = "mp4a.40.2";
    playlist.videoTrackName = "Screen Recording";
    playlist.videoCodecName = playlistVideoCodecName(mode);
    playlist.videoResolution = MasterPlaylist::Resolution{videoDimensions_.width, videoDimensions_.height};
    outputAssetWriters_ = makeOutputAssetWriters(outputDescription_, playlist, audioSegmentDuration,
                                                 videoSegmentDuration, logger_, [&] {
        const auto* streams = outputDescription_.asMultipleStreams();
        return LogMetadata{{"directoryURL", streams->directoryURL.string()},
                           {"filenamePrefix", streams->filenamePrefix},
                           {"audioSegmentDuration", std::to_string(audioSegmentDuration)},
                           {"videoSegmentDuration", std::to_string(videoSegmentDuration)},
                           {"keyframeIntervalDuration",
                            keyframeIntervalDuration ? fmt::format("{}", *keyframeIntervalDuration) : "nil"}};
    });
    const auto observe = [this](const std::shared_ptr<platform::AVAssetWriter>& writer, const char* message) {
        std::weak_ptr<platform::AVAssetWriter> weakWriter = writer;
        errorObservations_.push_back(
            writer->observe({"error"}, [weakWriter, message, logger = logger_, onAbort = onAbort_](const std::string&) {
                auto writer = weakWriter.lock();
                if (!writer || !writer->error()) return;
                logger.error(message, [&] { return LogMetadata{{"error", errorText(writer->error())}}; });
                if (onAbort) onAbort(AbortSignal::interrupted(writer->error()));
            }));
    };
    observe(outputAssetWriters_->audioAssetWriter(), "Audio AVAssetWriter reported an error, aborting.");
    observe(outputAssetWriters_->videoAssetWriter(), "Video AVAssetWriter reported an error, aborting.");

    auto videoInput = platform::AVAssetWriterInput::make(AVMediaType::video, videoSettings_);
    videoInput->setExpectsMediaDataInRealTime(true);
    if (!outputAssetWriters_->videoAssetWriter()->canAdd(videoInput))
        throw OVError(OVError::Code::assetWriterCreationFailed, std::string("Can't add video input to asset writer."));
    outputAssetWriters_->videoAssetWriter()->add(videoInput);
    std::shared_ptr<platform::AVAssetWriterInput> audioInput;
    if (captureAudio) {
        audioInput = platform::AVAssetWriterInput::make(AVMediaType::audio, audioSettings_);
        audioInput->setExpectsMediaDataInRealTime(true);
        if (!outputAssetWriters_->audioAssetWriter()->canAdd(audioInput))
            throw OVError(OVError::Code::assetWriterCreationFailed, std::string("Can't add audio input to asset writer."));
        outputAssetWriters_->audioAssetWriter()->add(audioInput);
    }
    logger_.info("AVAssetWriter ready.");

    // Stream configuration.
    logger_.info("Configuring SCStream.");
    configuration_ = platform::SCStreamConfiguration();
    configuration_.minimumFrameInterval = minimumFrameInterval;
    configuration_.showsCursor = showsCursor;
    configuration_.capturesAudio = captureAudio;
    configuration_.queueDepth = 6;
    if (cropRect) configuration_.sourceRect = *cropRect;
    configuration_.width = videoSize_.width;
    configuration_.height = videoSize_.height;
    configuration_.scalesToFit = true;
    configuration_.captureResolution = platform::SCCaptureResolutionType::best;
    configuration_.pixelFormat = capturePixelFormat(mode);
    configuration_.colorSpaceName = captureColorSpaceName(mode);

    VideoRecordingCoordinator::Settings settings;
    settings.outputAssetWriters = outputAssetWriters_;
    settings.videoInput = videoInput;
    settings.audioInput = audioInput;
    settings.recordingTimeline = recordingTimeline_;
    settings.useTimeline = useTimeline_;
    settings.logger = logger_;
    settings.label = "ScreenRecorder";
    settings.originalTimeKey = "pts";
    settings.stopErrorHandler = [logger = logger_, output = outputDescription_, onAbort = onAbort_](std::exception_ptr error) {
        const bool low = isVolumeLowOnDiskSpace(output, logger);
        if (onAbort) onAbort(AbortSignal::create(error, low, logger));
    };
    coordinator_ = StreamCoordinator::make(std::move(settings), contentRect);
    if (recordingRectTimeline) coordinator_->recordingRectTimeline = std::move(recordingRectTimeline);

    logger_.info("Creating SCStream");
    const auto mainFilter = createFilter_();
    if (createAudioFilter_) configuration_.capturesAudio = false;
    logger_.info("Configured main SCStream.", [&] {
        return LogMetadata{{"filter", mainFilter.description()}, {"configuration", configuration_.description()}};
    });
    stream_ = SCStream::make(mainFilter, configuration_, coordinator_);
    try {
        stream_->addStreamOutput(coordinator_, SCStreamOutputType::screen, screenSampleBufferQueue_);
        if (configuration_.capturesAudio)
            stream_->addStreamOutput(coordinator_, SCStreamOutputType::audio, audioSampleBufferQueue_);
    } catch (...) {
        const auto error = std::current_exception();
        logger_.error("Failed to add stream outputs.", [&] { return LogMetadata{{"error", errorText(error)}}; });
        throw;
    }
    logger_.info("Configured SCStream.");

    if (createAudioFilter_ && captureAudio) {
        logger_.info("Creating audio SCStream");
        platform::SCStreamConfiguration audioConfiguration;
        audioConfiguration.capturesAudio = true;
        audioConfiguration.sampleRate = configuration_.sampleRate;
        audioConfiguration.channelCount = configuration_.channelCount;
        const auto audioFilterValue = createAudioFilter_();
        try {
            audioStream_ = SCStream::make(audioFilterValue, audioConfiguration, coordinator_);
            audioStream_->addStreamOutput(coordinator_, SCStreamOutputType::audio, audioSampleBufferQueue_);
        } catch (...) {
            logger_.error("Failed to add audio stream output.",
                          [&] { return LogMetadata{{"filter", audioFilterValue.description()}}; });
            throw;
        }
        logger_.info("Configured separate audio SCStream.");
    }
    logger_.info("Initialized.");
}

ScreenRecorder::~ScreenRecorder() {
    if (coordinator_) coordinator_->frameRepeater.cancel();
    for (auto* s : {&stream_, &audioStream_})
        if (*s) try {
                (*s)->stopCapture();
            } catch (...) {
            }
}

std::shared_ptr<RecordingRectTimeline> ScreenRecorder::recordingRectTimeline() const {
    return coordinator_->recordingRectTimeline;
}
uint64_t ScreenRecorder::droppedVideoFrames() const { return coordinator_->droppedVideoFrames(); }
uint64_t ScreenRecorder::appendedVideoFrames() const { return coordinator_->appendedVideoFrames(); }

std::vector<OVBundleInfo::FileAsset> ScreenRecorder::fileAssets() const {
    std::vector<OVBundleInfo::FileAsset> assets;
    for (const auto& url : outputAssetWriters_->expectedFileURLs()) {
        OVBundleInfo::FileAsset asset;
        asset.type = OVBundleInfo::FileAssetType::screen;
        asset.filename = url.filename().string();
        asset.recordingSize = OVBundleInfo::Size{recordingSize_.width, recordingSize_.height};
        asset.recordingScale = double(videoDimensions_.width) / recordingSize_.width;
        asset.videoDimensions = OVBundleInfo::Size{double(videoDimensions_.width), double(videoDimensions_.height)};
        assets.push_back(asset);
    }
    return assets;
}

// ---- Lifecycle.

std::vector<OVBundleInfo::FileAsset> ScreenRecorder::prepare() {
    logger_.info("Preparing.");
    try {
        stream_->startCapture();
    } catch (...) {
        const auto error = std::current_exception();
        logger_.error("Failed to start capture.", [&] { return LogMetadata{{"error", errorText(error)}}; });
        throw;
    }
    if (audioStream_) {
        try {
            audioStream_->startCapture();
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("Failed to start audio capture.", [&] { return LogMetadata{{"error", errorText(error)}}; });
            throw;
        }
    }
    try {
        coordinator_->videoPrepareAdaptor.waitForItem(
            prepareTimeout, OVError(OVError::Code::noVideoFramesReceived,
                                    std::string("No video samples received from screen recording."),
                                    std::string("No video from screen recording. If this problem persists, try "
                                                "rebooting your computer.")));
        if (coordinator_->hasAudio()) {
            const OVError noAudio(OVError::Code::noAudioSamplesReceived,
                                  std::string("ScreenRecorder: No audio samples received from system audio."),
                                  std::string("No audio from system audio. If this problem persists, try rebooting "
                                              "your computer."));
            coordinator_->audioPrepareAdaptor.waitForItem(prepareTimeout, noAudio);
            auto coordinator = coordinator_;
            withTimeout(prepareTimeout, noAudio, [coordinator](std::stop_token token) {
                coordinator->audioPrepareAdaptor.waitForStableAudioFormat(formatOf, token);
            });
        }
    } catch (...) {
        const auto error = std::current_exception();
        logger_.error("No samples received from ScreenCaptureKit, timed out.",
                      [&] { return LogMetadata{{"error", errorText(error)}}; });
        throw;
    }
    validateSessionClock(stream_->synchronizationClock(), 0.1, logger_);
    // The files are opened once the source is known to deliver, so that a
    // failed prepare leaves none behind; nothing is written before the
    // timeline opens its first interval.
    outputAssetWriters_->startWriting();
    logger_.info("Prepared.");
    return fileAssets();
}

void ScreenRecorder::updateFilter() {
    logger_.debug("Updating filter");
    stream_->updateContentFilter(createFilter_());
    if (audioStream_) audioStream_->updateContentFilter(createAudioFilter_());
}

void ScreenRecorder::cancel() {
    coordinator_->frameRepeater.cancel();
    const auto stop = [&](const std::shared_ptr<SCStream>& stream, const char* stopped, const char* failed) {
        if (!stream) return;
        try {
            stream->stopCapture();
        } catch (...) {
            const auto error = std::current_exception();
            if (streamErrorCode(error) == platform::SCStreamError::attemptToStopStreamState)
                logger_.debug(stopped);
            else
                logger_.error(failed, [&] { return LogMetadata{{"error", errorText(error)}}; });
        }
    };
    stop(stream_, "ScreenCaptureKit stream has already been stopped.", "Failed to stop ScreenCaptureKit stream.");
    stop(audioStream_, "Audio stream has already been stopped.", "Failed to stop audio stream.");
}

std::vector<OVBundleInfo::FileAsset> ScreenRecorder::finish() {
    logger_.trace("Finishing.");
    cancel();
    // Samples queued before the stop are handled now; after that nothing
    // reaches the retimers, and the repeater they may have restarted stops.
    screenSampleBufferQueue_->sync([] {});
    audioSampleBufferQueue_->sync([] {});
    coordinator_->finished_ = true;
    coordinator_->frameRepeater.cancel();
    if (const auto dropped = stream_->droppedScreenSamples())
        logger_.warning("Screen samples dropped while the recorder was busy.",
                        [&] { return LogMetadata{{"count", std::to_string(dropped)}}; });
    logger_.info("Video frames written.", [&] {
        return LogMetadata{{"appended", std::to_string(coordinator_->appendedVideoFrames())},
                           {"droppedByInput", std::to_string(coordinator_->droppedVideoFrames())}};
    });
    coordinator_->finishRetimers();
    coordinator_->finishWriting();
    return fileAssets();
}

}  // namespace ov
