#include "video/movie_file_recorder.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "foundation/ov_error.h"
#include "foundation/platform_error.h"
#include "output/master_playlist.h"
#include "platform/av_asset_writer.h"
#include "platform/cm_clock.h"
#include "session/capture_device_support.h"
#include "session/source_diagnostics.h"
#include "timing/audio_gap_filler.h"
#include "timing/audio_shifter.h"
#include "video/video_recording_coordinator.h"

namespace ov {

using platform::AVCaptureDevice;
using platform::AVMediaType;
using platform::CMSampleBuffer;
using platform::CMTime;

namespace {

constexpr double kPrepareTimeout = 3.0;

std::string boolText(bool value) { return value ? "true" : "false"; }
std::string errorText(const std::exception_ptr& e) { return platform::describeError(e).debugDescription; }
std::string seconds(const CMTime& t) { return fmt::format("{}", t.seconds()); }

std::string describeFormats(const std::vector<platform::AVCaptureDeviceFormatRef>& formats) {
    std::string text = "[";
    for (size_t i = 0; i < formats.size(); ++i) text += (i ? ", " : "") + formats[i]->description();
    return text + "]";
}

std::string describeFormat(const platform::AVCaptureDeviceFormatRef& format) {
    return format ? format->description() : "nil";
}

bool isCandidate(platform::FourCharCode subtype) {
    return subtype == platform::kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange ||
           subtype == platform::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
}

}  // namespace

// ---- Format choice.

CaptureDeviceFormatProtocol CaptureDeviceFormatProtocol::of(const platform::AVCaptureDeviceFormat& format) {
    CaptureDeviceFormatProtocol value;
    if (const auto& description = format.formatDescription()) {
        value.mediaSubType = description->mediaSubType();
        value.dimensions = description->dimensions();
        value.frameDuration = description->frameDuration();
    }
    return value;
}

std::optional<size_t> formatMatching(const std::optional<platform::CGSize>& maxVideoDimensions,
                                     const std::vector<CaptureDeviceFormatProtocol>& sortedFormats) {
    if (!maxVideoDimensions) return std::nullopt;
    const auto maxWidth = int32_t(std::trunc(maxVideoDimensions->width));
    const auto maxHeight = int32_t(std::trunc(maxVideoDimensions->height));
    for (size_t i = sortedFormats.size(); i-- > 0;) {
        const auto& d = sortedFormats[i].dimensions;
        if (d.width < maxWidth || d.height < maxHeight) continue;
        for (size_t j = 0; j < sortedFormats.size(); ++j)
            if (sortedFormats[j].dimensions == d) return j;
    }
    return std::nullopt;
}

std::optional<size_t> bestFormat(const std::vector<CaptureDeviceFormatProtocol>& formats,
                                 const std::optional<platform::CGSize>& maxVideoDimensions) {
    std::vector<size_t> order;
    for (size_t i = 0; i < formats.size(); ++i)
        if (isCandidate(formats[i].mediaSubType)) order.push_back(i);
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        const auto& x = formats[a];
        const auto& y = formats[b];
        if (x.dimensions.width != y.dimensions.width) return x.dimensions.width > y.dimensions.width;
        if (x.dimensions.height != y.dimensions.height) return x.dimensions.height > y.dimensions.height;
        return x.frameDuration < y.frameDuration;
    });
    if (order.empty()) return std::nullopt;
    std::vector<CaptureDeviceFormatProtocol> sorted;
    for (size_t i : order) sorted.push_back(formats[i]);
    if (auto match = formatMatching(maxVideoDimensions, sorted)) return order[*match];
    return order.front();
}

platform::AVSettingsDictionary webcamVideoSettings(RecordMode mode, VideoDimensions videoSize,
                                                   const CMTime& minFrameDuration,
                                                   const std::optional<double>& keyframeIntervalDuration) {
    using namespace platform;
    AVSettingsDictionary settings = AVSettingsDictionary::object();
    settings[AVVideoCodecKey] = videoCodecType(mode);
    settings[AVVideoWidthKey] = videoSize.width;
    settings[AVVideoHeightKey] = videoSize.height;
    // The assistant's defaults: the source's rate, no bit rate (the encoder's
    // constant quality applies).
    AVSettingsDictionary compression = AVSettingsDictionary::object();
    const bool numericDuration = minFrameDuration.isNumeric() && minFrameDuration > kCMTimeZero;
    if (numericDuration) compression[AVVideoExpectedSourceFrameRateKey] = 1.0 / minFrameDuration.seconds();
    settings.erase(AVVideoColorPropertiesKey);
    compression[AVVideoAllowFrameReorderingKey] = false;
    if (keyframeIntervalDuration) {
        compression[AVVideoMaxKeyFrameIntervalDurationKey] = *keyframeIntervalDuration;
        if (numericDuration)
            compression[AVVideoMaxKeyFrameIntervalKey] =
                int64_t(std::trunc(1.0 / minFrameDuration.seconds() * *keyframeIntervalDuration));
    }
    settings[AVVideoCompressionPropertiesKey] = compression;
    return settings;
}

// ---- The per-sample side.

class MovieFileRecorder::Coordinator final : public platform::AVCaptureVideoDataOutputSampleBufferDelegate,
                                             public platform::AVCaptureAudioDataOutputSampleBufferDelegate {
public:
    Coordinator(Logger logger, double audioDelay) : logger_(logger), audioGapFiller(logger), audioShifter(audioDelay) {}

    std::shared_ptr<VideoRecordingCoordinator> core;
    std::shared_ptr<platform::AVCaptureSession> captureSession = platform::AVCaptureSession::make();
    std::shared_ptr<platform::AVCaptureSession> videoLoggingCaptureSession = platform::AVCaptureSession::make();
    std::shared_ptr<platform::AVCaptureVideoDataOutput> videoOutput = platform::AVCaptureVideoDataOutput::make();
    std::shared_ptr<platform::AVCaptureAudioDataOutput> audioOutput = platform::AVCaptureAudioDataOutput::make();
    std::shared_ptr<platform::AVCaptureVideoDataOutput> videoLoggingOutput = platform::AVCaptureVideoDataOutput::make();

    void captureOutput(platform::AVCaptureOutput& output, const CMSampleBuffer& sampleBuffer,
                       platform::AVCaptureConnection&) override {
        if (&output == audioOutput.get()) {
            std::vector<CMSampleBuffer> filled;
            try {
                filled = audioGapFiller.process(sampleBuffer);
            } catch (...) {
                const auto error = std::current_exception();
                logger_.warning("Audio gap detection/correction failed.", [&] {
                    return LogMetadata{{"error", errorText(error)},
                                       {"samplePTS", seconds(sampleBuffer.presentationTimeStamp())},
                                       {"sampleDuration", seconds(sampleBuffer.duration())}};
                });
                filled = {sampleBuffer};
            }
            for (const auto& sample : filled) handleAudio(sample);
        } else if (&output == videoOutput.get()) {
            handleVideo(sampleBuffer);
        } else if (&output == videoLoggingOutput.get()) {
            // Only its drops are of interest.
        } else if (!didLogUnknownOutputWarning_) {
            didLogUnknownOutputWarning_ = true;
            logger_.warning("Got data from unknown output, ignoring.",
                            [&] { return LogMetadata{{"output", output.description()}}; });
        }
    }

    void captureOutputDidDrop(platform::AVCaptureOutput& output, const CMSampleBuffer& sampleBuffer,
                              platform::AVCaptureConnection&) override {
        const auto& attachments = sampleBuffer.attachments();
        auto text = [&](const char* key) -> std::string {
            if (!attachments.contains(key)) return "nil";
            const auto& value = attachments[key];
            return value.is_string() ? value.get<std::string>() : value.dump();
        };
        const std::string name = &output == audioOutput.get()          ? "audio"
                                 : &output == videoOutput.get()        ? "video"
                                 : &output == videoLoggingOutput.get() ? "video-logging"
                                                                       : "unknown:" + output.description();
        logger_.warning("Dropped video sample buffer.", [&] {
            return LogMetadata{{"reason", text(platform::kCMSampleBufferAttachmentKey_DroppedFrameReason)},
                               {"reasonInfo", text(platform::kCMSampleBufferAttachmentKey_DroppedFrameReasonInfo)},
                               {"presentationTimeStamp", seconds(sampleBuffer.presentationTimeStamp())},
                               {"duration", seconds(sampleBuffer.duration())},
                               {"output", name}};
        });
    }

private:
    void handleAudio(const CMSampleBuffer& sample) {
        std::vector<CMSampleBuffer> shifted;
        try {
            shifted = audioShifter.delta == 0 ? std::vector<CMSampleBuffer>{sample} : audioShifter.append(sample);
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("Failed to process audio buffer through shifter",
                          [&] { return LogMetadata{{"error", errorText(error)}}; });
            return;
        }
        const auto clock = captureSession->synchronizationClock();
        for (const auto& item : shifted) core->appendAudioSample(item, clock);
    }

    void handleVideo(const CMSampleBuffer& sample) {
        // The session clock's time on the host clock; without one, the arrival.
        CMTime time;
        if (const auto clock = captureSession->synchronizationClock())
            time = clock->convertTime(sample.presentationTimeStamp(), *platform::CMClock::hostTimeClock());
        else
            time = platform::hostTimeNow();
        core->videoPrepareAdaptor.append(sample);
        core->appendVideoFrame(sample, time);
    }

    Logger logger_;
    AudioGapFiller audioGapFiller;
    AudioShifter audioShifter;
    bool didLogUnknownOutputWarning_ = false;
};

// ---- Construction.

MovieFileRecorder::MovieFileRecorder(std::string id, const OutputDescription& outputDescription,
                                     std::string microphoneID, bool leftChannelOnly, double audioDelay,
                                     std::string cameraID, std::optional<platform::CGSize> maxVideoDimensions,
                                     bool allowCaptureDevicesConfiguration, RecordMode mode, int audioSegmentDuration,
                                     int videoSegmentDuration, std::optional<double> keyframeIntervalDuration,
                                     std::shared_ptr<StableRecordingTimeline> recordingTimeline, bool useTimeline,
                                     const Logger& logger, AbortFunction onAbort)
    : id_(std::move(id)),
      logger_(logger.with("MovieFileRecorder", id_)),
      recordingTimeline_(std::move(recordingTimeline)),
      useTimeline_(useTimeline),
      microphoneID_(std::move(microphoneID)),
      cameraID_(std::move(cameraID)),
      sampleBufferQueue_(std::make_shared<platform::DispatchQueue>("MovieFileRecorder.SampleBufferQueue")) {
    // 1–2. Usage descriptions and entitlements have no counterpart here.
    logger_.info("Initializing.");

    // 3. Permissions.
    const bool audioGranted =
        AVCaptureDevice::authorizationStatus(AVMediaType::audio) == platform::AVAuthorizationStatus::authorized;
    const bool videoGranted =
        AVCaptureDevice::authorizationStatus(AVMediaType::video) == platform::AVAuthorizationStatus::authorized;
    if (audioGranted && videoGranted) {
        logger_.info("Necessary permissions are granted.");
    } else {
        auto permissions = [&] {
            return LogMetadata{
                {"audioPermission", platform::toString(AVCaptureDevice::authorizationStatus(AVMediaType::audio))},
                {"videoPermission", platform::toString(AVCaptureDevice::authorizationStatus(AVMediaType::video))}};
        };
        if (!videoGranted && !audioGranted) {
            logger_.error("Missing required video and audio recording permissions. See OVAuthorizationStatus.",
                          permissions);
            throw OVError(OVError::Code::cameraPermissionRequired,
                          std::string("To record video and audio, both camera and microphone access is required. See "
                                      "OVAuthorizationStatus."),
                          std::string("To record video and audio, both camera and microphone access is required."));
        }
        if (!audioGranted) {
            logger_.error("Missing required audio recording permissions. See OVAuthorizationStatus.", permissions);
            throw OVError(OVError::Code::microphonePermissionRequired,
                          std::string("To record audio, microphone access is required. See OVAuthorizationStatus."),
                          std::string("To record audio, microphone access is required."));
        }
        logger_.error("Missing required video recording permissions. See OVAuthorizationStatus.", permissions);
        throw OVError(OVError::Code::cameraPermissionRequired,
                      std::string("To record video, camera access is required. See OVAuthorizationStatus."),
                      std::string("To record video, camera access is required."));
    }

    // 4. Devices: the microphone, then the camera.
    logger_.info("Initializing AVCaptureDevices.",
                 [&] { return LogMetadata{{"microphoneID", microphoneID_}, {"cameraID", cameraID_}}; });
    auto describe = [](const AVCaptureDevice& device) {
        return LogMetadata{{"uniqueID", device.uniqueID()},
                           {"modelID", device.modelID()},
                           {"localizedName", device.localizedName()},
                           {"isConnected", boolText(device.isConnected())},
                           {"isSuspended", boolText(device.isSuspended())},
                           {"isInUseByAnotherApplication", boolText(device.isInUseByAnotherApplication())}};
    };
    auto audioDevice = AVCaptureDevice::device(microphoneID_);
    if (!audioDevice) {
        logger_.error("Failed to initialize AVCaptureDevice, got nil.");
        throwMicrophoneNoAVCaptureDevice(microphoneID_, logger_);
        throw OVError(OVError::Code::microphoneUnavailable, "Can't find audio device: " + microphoneID_);
    }
    logger_.info("Initialized audio AVCaptureDevice.", [&] { return describe(*audioDevice); });
    logUSBDeviceTopology(*audioDevice, logger_);
    videoCaptureDevice_ = AVCaptureDevice::device(cameraID_);
    if (!videoCaptureDevice_) {
        logger_.error("Failed to initialize AVCaptureDevice, got nil.");
        throwCameraNoAVCaptureDevice(cameraID_, logger_);
        throw OVError(OVError::Code::cameraUnavailable, "Can't find video device: " + cameraID_);
    }
    auto& camera = *videoCaptureDevice_;
    logger_.info("Initialized video AVCaptureDevice.", [&] { return describe(camera); });
    logUSBDeviceTopology(camera, logger_);

    // 5. Who changes the camera's configuration while we record.
    logger_.info("Registering observations for AVCaptureDevice.",
                 [&] { return LogMetadata{{"uniqueID", camera.uniqueID()}}; });
    std::weak_ptr<AVCaptureDevice> weakCamera = videoCaptureDevice_;
    observations_.push_back(camera.observe(
        {"activeFormat", "activeVideoMinFrameDuration", "activeVideoMaxFrameDuration"},
        [weakCamera, logger = logger_](const std::string& key) {
            if (auto device = weakCamera.lock()) logDeviceActiveConfiguration(*device, key, logger);
        }));

    // 6. Format.
    if (!allowCaptureDevicesConfiguration) {
        logger_.info("Leaving active format for AVCaptureDevice untouched.",
                     [&] { return LogMetadata{{"activeFormat", describeFormat(camera.activeFormat())}}; });
    } else {
        logger_.info("Selecting format for AVCaptureDevice.", [&] {
            return LogMetadata{{"activeFormat", describeFormat(camera.activeFormat())},
                               {"formats", describeFormats(camera.formats())}};
        });
        std::vector<CaptureDeviceFormatProtocol> values;
        for (const auto& format : camera.formats()) values.push_back(CaptureDeviceFormatProtocol::of(*format));
        const auto chosen = bestFormat(values, maxVideoDimensions);
        if (!chosen) {
            logger_.error("AVCaptureDevice doesn't provide any formats.",
                          [&] { return LogMetadata{{"formats", describeFormats(camera.formats())}}; });
        } else {
            const auto& format = camera.formats()[*chosen];
            logger_.info("Setting activeFormat for AVCaptureDevice.", [&] {
                return LogMetadata{{"activeFormat", describeFormat(camera.activeFormat())},
                                   {"format", describeFormat(format)}};
            });
            camera.lockForConfiguration();
            camera.setActiveFormat(format);
            camera.unlockForConfiguration();
            logger_.info("Set activeFormat for AVCaptureDevice.");
        }
    }

    // 7. Settings from the assistant's stand-in.
    logger_.info("Resolving settings using AVOutputSettingsAssistant.");
    const auto activeFormat = camera.activeFormat();
    if (!activeFormat || !activeFormat->formatDescription())
        throw OVError(OVError::Code::videoFormatError, std::string("AVOutputSettingsAssistant didn't provide any videoSettings."));
    CMTime minFrameDuration = camera.activeVideoMinFrameDuration();
    if (!minFrameDuration.isNumeric()) {
        logger_.warning("Non numeric activeVideoMinFrameDuration, will not set sourceVideoMinFrameDuration.");
        minFrameDuration = platform::kCMTimeInvalid;
    }

    // 8. Audio settings and the channel rules.
    audioSettings_ = aacOutputSettings(*audioDevice);
    const int channels = applyAudioChannelRules(audioSettings_, leftChannelOnly, *audioDevice, logger_);

    // 9. Video settings.
    logger_.info("Configuring video output settings.");
    const auto dimensions = activeFormat->formatDescription()->dimensions();
    const VideoDimensions maximum =
        maxVideoDimensions ? VideoDimensions{int32_t(std::trunc(maxVideoDimensions->width)),
                                             int32_t(std::trunc(maxVideoDimensions->height))}
                           : codecLimit(mode);
    videoSize_ = codecAlignedVideoSize(platform::CGSize{double(dimensions.width), double(dimensions.height)}, 1.0, maximum);
    videoSettings_ = webcamVideoSettings(mode, videoSize_, minFrameDuration, keyframeIntervalDuration);

    // 10. Writers.
    MasterPlaylist playlist;
    playlist.audioChannelsCount = channels;
    playlist.audioTrackName = "Microphone";
    playlist.audioCodecName = "mp4a.40.2";
    playlist.videoTrackName = "Camera";
    playlist.videoCodecName = playlistVideoCodecName(mode);
    playlist.videoResolution = MasterPlaylist::Resolution{videoSettings_[platform::AVVideoWidthKey].get<int32_t>(),
                                                          videoSettings_[platform::AVVideoHeightKey].get<int32_t>()};
    outputAssetWriters_ = makeOutputAssetWriters(outputDescription, playlist, audioSegmentDuration,
                                                 videoSegmentDuration, logger_, [&] {
        return LogMetadata{{"audioSegmentDuration", std::to_string(audioSegmentDuration)},
                           {"videoSegmentDuration", std::to_string(videoSegmentDuration)},
                           {"keyframeIntervalDuration",
                            keyframeIntervalDuration ? fmt::format("{}", *keyframeIntervalDuration) : "nil"}};
    });

    // 11. A writer error ends the recording, once.
    auto aborted = std::make_shared<std::atomic<bool>>(false);
    auto abortOnce = [aborted, onAbort](std::exception_ptr error) {
        if (!aborted->exchange(true) && onAbort) onAbort(AbortSignal::interrupted(error));
    };
    auto observeErrors = [&](const std::shared_ptr<platform::AVAssetWriter>& writer, const char* text) {
        std::weak_ptr<platform::AVAssetWriter> weakWriter = writer;
        errorObservations_.push_back(
            writer->observe({"error"}, [weakWriter, logger = logger_, abortOnce, text](const std::string&) {
                auto writer = weakWriter.lock();
                if (!writer || !writer->error()) return;
                logger.error(text, [&] { return LogMetadata{{"error", errorText(writer->error())}}; });
                abortOnce(writer->error());
            }));
    };
    auto audioWriter = outputAssetWriters_->audioAssetWriter();
    auto videoWriter = outputAssetWriters_->videoAssetWriter();
    observeErrors(audioWriter, "Audio AVAssetWriter reported an error, aborting.");
    if (videoWriter != audioWriter) observeErrors(videoWriter, "Video AVAssetWriter reported an error, aborting.");

    // 12. Inputs.
    audioInput_ = platform::AVAssetWriterInput::make(AVMediaType::audio, audioSettings_);
    audioInput_->setExpectsMediaDataInRealTime(true);
    videoInput_ = platform::AVAssetWriterInput::make(AVMediaType::video, videoSettings_);
    videoInput_->setExpectsMediaDataInRealTime(true);
    if (!videoWriter->canAdd(videoInput_))
        throw OVError(OVError::Code::assetWriterCreationFailed, std::string("Can't add video input to asset writer."));
    videoWriter->add(videoInput_);
    if (!audioWriter->canAdd(audioInput_))
        throw OVError(OVError::Code::assetWriterCreationFailed, std::string("Can't add audio input to asset writer."));
    audioWriter->add(audioInput_);
    logger_.info("AVAssetWriter ready.");

    // 13. The coordinator and the delegates.
    coordinator_ = std::make_shared<Coordinator>(logger_, audioDelay);
    VideoRecordingCoordinator::Settings settings;
    settings.outputAssetWriters = outputAssetWriters_;
    settings.videoInput = videoInput_;
    settings.audioInput = audioInput_;
    settings.recordingTimeline = recordingTimeline_;
    settings.useTimeline = useTimeline_;
    settings.logger = logger_;
    settings.stopErrorHandler = abortOnce;
    settings.label = "MovieFileRecorder";
    settings.originalTimeKey = "originalPresentationTime";
    coordinator_->core = VideoRecordingCoordinator::make(std::move(settings));
    coordinator_->videoOutput->setSampleBufferDelegate(coordinator_, sampleBufferQueue_);
    coordinator_->audioOutput->setSampleBufferDelegate(coordinator_, sampleBufferQueue_);
    coordinator_->videoLoggingOutput->setSampleBufferDelegate(
        coordinator_, std::make_shared<platform::DispatchQueue>("MovieFileRecorder.VideoLoggingQueue"));

    // 14. The recording session.
    auto fail = [&](const char* log, const char* text) {
        logger_.error(log);
        throw OVError(OVError::Code::configurationFailed, std::string(text));
    };
    logger_.info("Configuring AVCaptureSession.");
    auto& session = *coordinator_->captureSession;
    auto audioInput = platform::AVCaptureDeviceInput::make(audioDevice);
    auto videoInput = platform::AVCaptureDeviceInput::make(videoCaptureDevice_);
    if (!session.canAddInput(audioInput)) fail("Failed to add audioInput to session.", "Can't add audioInput to session");
    if (!session.canAddInput(videoInput)) fail("Failed to add videoInput to session.", "Can't add videoInput to session");
    session.addInput(audioInput);
    session.addInput(videoInput);
    if (!session.canAddOutput(coordinator_->audioOutput))
        fail("Failed to add audioOutput to session.", "Can't add audioOutput to session");
    if (!session.canAddOutput(coordinator_->videoOutput))
        fail("Failed to add videoOutput to session.", "Can't add videoOutput to session");
    session.addOutput(coordinator_->audioOutput);
    session.addOutput(coordinator_->videoOutput);
    auto audioConnection = coordinator_->audioOutput->connection(AVMediaType::audio);
    if (!audioConnection || !audioConnection->isEnabled())
        fail("Can't find enabled audio connection.", "Can't find enabled audio connection.");
    auto videoConnection = coordinator_->videoOutput->connection(AVMediaType::video);
    if (!videoConnection || !videoConnection->isEnabled())
        fail("Can't find enabled video connection.", "Can't find enabled video connection.");
    auto describeSession = [](const platform::AVCaptureSession& s) {
        std::string inputs, outputs, connections;
        for (const auto& i : s.inputs()) inputs += (inputs.empty() ? "" : ", ") + i->description();
        for (const auto& o : s.outputs()) outputs += (outputs.empty() ? "" : ", ") + o->description();
        for (const auto& c : s.connections()) connections += (connections.empty() ? "" : ", ") + c->description();
        return LogMetadata{{"inputs", "[" + inputs + "]"}, {"outputs", "[" + outputs + "]"},
                           {"connections", "[" + connections + "]"}};
    };
    logger_.info("Configured AVCaptureSession", [&] { return describeSession(session); });

    // 15. The logging session: a second input on the camera, whose drops are logged.
    logger_.info("Configuring video logging AVCaptureSession.");
    auto& loggingSession = *coordinator_->videoLoggingCaptureSession;
    auto loggingInput = platform::AVCaptureDeviceInput::make(videoCaptureDevice_);
    if (!loggingSession.canAddInput(loggingInput))
        fail("Failed to add videoLoggingInput to logging session.", "Can't add videoLoggingInput to logging session");
    loggingSession.addInput(loggingInput);
    if (!loggingSession.canAddOutput(coordinator_->videoLoggingOutput))
        fail("Failed to add videoLoggingOutput to logging session.", "Can't add videoLoggingOutput to logging session");
    loggingSession.addOutput(coordinator_->videoLoggingOutput);
    auto loggingConnection = coordinator_->videoLoggingOutput->connection(AVMediaType::video);
    if (!loggingConnection || !loggingConnection->isEnabled())
        fail("Can't find enabled video logging connection.", "Can't find enabled video logging connection.");
    logger_.info("Configured video logging AVCaptureSession", [&] { return describeSession(loggingSession); });

    // 16.
    if (audioDelay != 0)
        logger_.info("Audio delay configured.", [&] { return LogMetadata{{"audioDelay", fmt::format("{}", audioDelay)}}; });
}

MovieFileRecorder::~MovieFileRecorder() {
    if (!coordinator_) return;
    if (coordinator_->captureSession->isRunning()) coordinator_->captureSession->stopRunning();
    if (coordinator_->videoLoggingCaptureSession->isRunning()) coordinator_->videoLoggingCaptureSession->stopRunning();
}

uint64_t MovieFileRecorder::appendedVideoFrames() const {
    return coordinator_ && coordinator_->core ? coordinator_->core->appendedVideoFrames() : 0;
}

std::vector<OVBundleInfo::FileAsset> MovieFileRecorder::fileAssets() const {
    std::vector<OVBundleInfo::FileAsset> assets;
    for (const auto& url : outputAssetWriters_->expectedFileURLs()) {
        OVBundleInfo::FileAsset asset;
        asset.type = OVBundleInfo::FileAssetType::webcam;
        asset.filename = url.filename().string();
        asset.videoDimensions = OVBundleInfo::Size{double(videoSize_.width), double(videoSize_.height)};
        assets.push_back(asset);
    }
    return assets;
}

// ---- prepare.

void MovieFileRecorder::waitForVideoWithCenterStageRetry() {
    const OVError timeout(OVError::Code::noVideoFramesReceived, std::string("No video samples received from camera."),
                          std::string("No video from camera, make sure it's powered on and any privacy shutter is open."));
    auto wait = [&] { coordinator_->core->videoPrepareAdaptor.waitForItem(kPrepareTimeout, timeout); };
    auto& camera = *videoCaptureDevice_;
    std::exception_ptr error;
    try {
        wait();
        return;
    } catch (...) {
        error = std::current_exception();
    }
    auto giveUp = [&](const char* text) {
        logger_.error(text, [&] { return LogMetadata{{"error", errorText(error)}}; });
        throwCameraNoSampleBuffers(cameraID_, logger_);
        std::rethrow_exception(error);
    };
    const auto format = camera.activeFormat();
    if (!format || !format->isCenterStageSupported() || camera.isCenterStageActive())
        giveUp("No samples received from camera, timed out.");
    logger_.warning("No samples received from camera, trying to toggle Center Stage.", [&] {
        return LogMetadata{{"uniqueID", camera.uniqueID()},
                           {"modelID", camera.modelID()},
                           {"localizedName", camera.localizedName()}};
    });
    const auto mode = AVCaptureDevice::centerStageControlMode();
    if (mode == platform::AVCaptureCenterStageControlMode::user)
        giveUp("Unable to toggle Center Stage, control mode is set to user.");
    AVCaptureDevice::setCenterStageControlMode(platform::AVCaptureCenterStageControlMode::cooperative);
    AVCaptureDevice::setCenterStageEnabled(!AVCaptureDevice::isCenterStageEnabled());
    AVCaptureDevice::setCenterStageEnabled(!AVCaptureDevice::isCenterStageEnabled());
    AVCaptureDevice::setCenterStageControlMode(mode);
    logger_.debug("Did toggle Center Stage on camera, checking for video frames again.");
    try {
        wait();
    } catch (...) {
        error = std::current_exception();
        giveUp("No samples received from camera, even after Center Stage toggle, timed out.");
    }
    logger_.debug("Frames availabe after toggle Center Stage on camera.");
}

std::vector<OVBundleInfo::FileAsset> MovieFileRecorder::prepare() {
    logger_.info("Preparing.");
    auto& camera = *videoCaptureDevice_;
    camera.lockForConfiguration();
    coordinator_->captureSession->startRunning();
    coordinator_->videoLoggingCaptureSession->startRunning();
    camera.unlockForConfiguration();
    try {
        const auto clock = coordinator_->captureSession->synchronizationClock();
        if (!clock)
            logger_.warning("AVCaptureSession has no synchronization clock, falling back to host time clock polling.");
        else
            logger_.info("AVCaptureSession has a synchronization clock available.",
                         [&] { return LogMetadata{{"synchronizationClock", seconds(clock->time())}}; });

        const OVError audioTimeout(OVError::Code::noAudioSamplesReceived,
                                   std::string("No audio samples received from microphone."),
                                   std::string("No audio from microphone, make sure it's unmuted and powered on."));
        try {
            coordinator_->core->audioPrepareAdaptor.waitForItem(kPrepareTimeout, audioTimeout);
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("No samples received from microphone, timed out.",
                          [&] { return LogMetadata{{"error", errorText(error)}}; });
            throwMicrophoneNoSampleBuffers(microphoneID_, logger_);
            throw;
        }
        waitForVideoWithCenterStageRetry();
        validateSessionClock(clock, 0.1, coordinator_->core->audioPrepareAdaptor.buffer().last(), logger_);
        outputAssetWriters_->startWriting();
    } catch (...) {
        // Nothing keeps the camera on after a failed prepare.
        coordinator_->captureSession->stopRunning();
        coordinator_->videoLoggingCaptureSession->stopRunning();
        throw;
    }
    prepared_ = true;
    logger_.info("Prepared.");
    return fileAssets();
}

// ---- finish.

std::vector<OVBundleInfo::FileAsset> MovieFileRecorder::finish() {
    logger_.info("Finishing.");
    coordinator_->captureSession->stopRunning();
    coordinator_->videoLoggingCaptureSession->stopRunning();
    // What the queue still holds is handled before the retimers finish.
    sampleBufferQueue_->sync([] {});
    coordinator_->core->finishRetimers();
    if (prepared_) coordinator_->core->finishWriting();
    logger_.info("Finished.");
    return fileAssets();
}

}  // namespace ov
