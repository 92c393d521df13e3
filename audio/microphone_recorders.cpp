#include "audio/microphone_recorders.h"

#include <fmt/format.h>

#include <cmath>
#include <tuple>

#include "session/capture_device_support.h"
#include "output/master_playlist.h"
#include "platform/av_asset_writer.h"
#include "platform/av_capture_device.h"
#include "platform/cm_clock.h"
#include "foundation/platform_error.h"
#include "foundation/ov_error.h"
#include "session/recorder_assembly.h"
#include "session/source_diagnostics.h"
#include "timing/with_timeout.h"

namespace ov {

using platform::AVCaptureDevice;
using platform::AVMediaType;
using platform::CMSampleBuffer;
using platform::CMTime;

namespace {

constexpr size_t prepareRingCapacity = 5;
constexpr size_t chopperCapacity = 3;

std::string boolText(bool value) { return value ? "true" : "false"; }
std::string errorText(const std::exception_ptr& e) { return platform::describeError(e).debugDescription; }

// The format of a sample, for the prepare ring's stable-format wait.
// Rate, format id and flags, bytes per frame, channels: what makes two formats the same.
std::optional<std::tuple<double, uint32_t, uint32_t, uint32_t, uint32_t>> formatOf(const CMSampleBuffer& sample) {
    const auto& description = sample.formatDescription();
    if (!description || !description->audioStreamBasicDescription()) return std::nullopt;
    const auto& a = *description->audioStreamBasicDescription();
    return std::make_tuple(a.mSampleRate, a.mFormatID, a.mFormatFlags, a.mBytesPerFrame, a.mChannelsPerFrame);
}

}  // namespace

// ---- the shared coordinator ---------------------------------------------------------------------

MicrophoneCoordinator::MicrophoneCoordinator(std::shared_ptr<StableRecordingTimeline> timeline, bool useTimeline,
                                             Logger logger, AbortFunction onAbort, const char* startingText,
                                             const char* startedText)
    : audioPrepareAdaptor(RingBuffer<CMSampleBuffer>(prepareRingCapacity), logger),
      audioChopper(*timeline, chopperCapacity, logger),
      logger_(std::move(logger)),
      timeline_(std::move(timeline)),
      useTimeline_(useTimeline),
      onAbort_(std::move(onAbort)),
      startingText_(startingText),
      startedText_(startedText) {
    audioChopper.handler = [this](RecordingIntervalBoundedAudioStreamItemPosition, const CMSampleBuffer& sample) {
        if (!didStart_) {
            didStart_ = true;
            startSession(sample.presentationTimeStamp());
        }
        deliver(sample);
    };
}

void MicrophoneCoordinator::captureOutput(platform::AVCaptureOutput& output, const CMSampleBuffer& sampleBuffer,
                                          platform::AVCaptureConnection& connection) {
    retimeAndDeliver(output, sampleBuffer, connection);
    // Echo cancellation sees the microphone as it arrives, before retiming.
    if (onMicAudio) onMicAudio(sampleBuffer);
}

void MicrophoneCoordinator::retimeAndDeliver(platform::AVCaptureOutput& output, const CMSampleBuffer& sampleBuffer,
                                             platform::AVCaptureConnection&) {
    const double arrival = platform::hostTimeNow().seconds();
    if (interruptionMonitor) interruptionMonitor->noteSample();
    if (useTimeline_) {
        audioPrepareAdaptor.append(sampleBuffer);
        CMSampleBuffer sample = sampleBuffer;
        try {
            // Device clocks are brought to the host clock that the timeline counts in.
            if (auto clock = captureSession ? captureSession->synchronizationClock() : nullptr) {
                const CMTime host = clock->convertTime(sampleBuffer.presentationTimeStamp(),
                                                       *platform::CMClock::hostTimeClock());
                if (host != sampleBuffer.presentationTimeStamp()) sample = sampleBuffer.withTime(host);
            }
            audioChopper.append(sample);
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("Failed to append audio frame, aborting.", [&] {
                return LogMetadata{{"error", errorText(error)},
                                   {"pts", fmt::format("{}", sampleBuffer.presentationTimeStamp().seconds())}};
            });
            if (onAbort_) onAbort_(AbortSignal::interrupted(error));
        }
        return;
    }

    // Without a timeline only the first interval counts.
    timeline_->update();
    if (timeline_->recordingIntervals.empty()) return;
    const auto& interval = timeline_->recordingIntervals.front();
    if (!(interval.recordFrom <= arrival && arrival < interval.recordUntil)) {
        audioPrepareAdaptor.append(sampleBuffer);
        return;
    }
    if (!didStart_) {
        logger_.info(startingText_, [&] {
            return LogMetadata{{"hostTimeClockTimestamp", fmt::format("{}", arrival)},
                               {"recordFrom", fmt::format("{}", interval.recordFrom)}};
        });
        didStart_ = true;
        const int32_t scale = sampleBuffer.presentationTimeStamp().timescale;
        startSession(CMTime::makeWithSeconds(interval.recordFrom, scale > 0 ? scale : 1'000'000'000));
        for (const auto& held : audioPrepareAdaptor.buffer().elements()) deliver(held);
        audioPrepareAdaptor.clear();
        logger_.info(startedText_);
    }
    if (&output == audioOutput.get()) {
        deliver(sampleBuffer);
    } else if (!didLogUnknownOutputWarning_) {
        didLogUnknownOutputWarning_ = true;
        logger_.info("Got data from unknown output, ignoring.");
    }
}

// ---- set-up shared by both recorders ---------------------------------------------------------------

namespace {

// Steps shared by both constructors: permission, device, session. Returns the device.
std::shared_ptr<AVCaptureDevice> lookUpMicrophone(const std::string& microphoneID, const Logger& logger) {
    if (AVCaptureDevice::authorizationStatus(AVMediaType::audio) == platform::AVAuthorizationStatus::authorized) {
        logger.info("Necessary permissions are granted.");
    } else {
        logger.error("Missing required permission for audio recordings. See OVAuthorizationStatus.");
        throw OVError(OVError::Code::microphonePermissionRequired,
                      std::string("To record audio, microphone access is required. See OVAuthorizationStatus."),
                      std::string("To record audio, microphone access is required."));
    }
    logger.info("Initializing AVCaptureDevice.", [&] { return LogMetadata{{"microphoneID", microphoneID}}; });
    auto device = AVCaptureDevice::device(microphoneID);
    if (!device) {
        logger.error("Failed to initialize AVCaptureDevice, got nil.");
        throwMicrophoneNoAVCaptureDevice(microphoneID, logger);
        throw OVError(OVError::Code::microphoneUnavailable, "Can't find audio device: " + microphoneID);
    }
    logger.info("Initialized AVCaptureDevice.", [&] {
        return LogMetadata{{"uniqueID", device->uniqueID()},
                           {"modelID", device->modelID()},
                           {"localizedName", device->localizedName()},
                           {"isConnected", boolText(device->isConnected())},
                           {"isSuspended", boolText(device->isSuspended())},
                           {"isInUseByAnotherApplication", boolText(device->isInUseByAnotherApplication())}};
    });
    logUSBDeviceTopology(*device, logger);
    return device;
}

void configureSession(MicrophoneCoordinator& coordinator, const std::shared_ptr<AVCaptureDevice>& device,
                      const Logger& logger) {
    logger.info("Configuring AVCaptureSession.");
    auto session = coordinator.captureSession;
    auto input = platform::AVCaptureDeviceInput::make(device);
    if (!session->canAddInput(input)) {
        logger.info("Failed to add audioInput to session.");
        throw OVError(OVError::Code::configurationFailed, std::string("Can't add audioInput to session."));
    }
    session->addInput(input);
    if (!session->canAddOutput(coordinator.audioOutput)) {
        logger.info("Failed to add audioOutput to session.");
        throw OVError(OVError::Code::configurationFailed, std::string("Can't add audioOutput to session."));
    }
    session->addOutput(coordinator.audioOutput);
    auto connection = coordinator.audioOutput->connection(AVMediaType::audio);
    if (!connection || !connection->isEnabled()) {
        logger.info("Can't find enabled audio connection.");
        throw OVError(OVError::Code::configurationFailed, std::string("Can't find enabled audio connection."));
    }
    logger.info("Configured AVCaptureSession", [&] {
        return LogMetadata{{"inputs", std::to_string(session->inputs().size())},
                           {"outputs", std::to_string(session->outputs().size())},
                           {"connections", std::to_string(session->connections().size())}};
    });
}

// The monitor of a running microphone, told of the session's runtime errors
// (which the session posts on its own notification queue).
std::shared_ptr<MicrophoneInterruptionMonitor> monitorMicrophone(MicrophoneCoordinator& coordinator,
                                                                 const AVCaptureDevice& device, const Logger& logger,
                                                                 AbortFunction onAbort) {
    auto monitor = std::make_shared<MicrophoneInterruptionMonitor>(device.uniqueID(), device.localizedName(), logger,
                                                                   std::move(onAbort));
    coordinator.interruptionMonitor = monitor;
    std::weak_ptr<MicrophoneInterruptionMonitor> weak = monitor;
    coordinator.captureSession->setRuntimeErrorHandler([weak](std::exception_ptr error) {
        if (auto monitor = weak.lock()) monitor->runtimeError(error);
    });
    return monitor;
}

// Waits for the microphone's first stable samples; a silent device fails with
// the sharpest diagnosis there is.
void waitForAudioSampleBuffers(MicrophoneCoordinator& coordinator, const std::string& microphoneID,
                               const Logger& logger) {
    const OVError timeoutError(OVError::Code::noAudioSamplesReceived,
                               std::string("No audio samples received from microphone."),
                               std::string("No audio from microphone, make sure it's unmuted and powered on."));
    try {
        withTimeout(microphonePrepareTimeout, timeoutError, [&coordinator](std::stop_token token) {
            coordinator.audioPrepareAdaptor.waitForStableAudioFormat(formatOf, token);
        });
    } catch (const AudioFormatCheckError& e) {
        throw OVError(e.code() == AudioFormatCheckError::Code::audioFormatError ? OVError::Code::audioFormatError
                                                                                : OVError::Code::audioBufferProcessingFailed,
                      std::string(e.what()));
    } catch (...) {
        const auto error = std::current_exception();
        throwMicrophoneNoSampleBuffers(microphoneID, logger);
        logger.error("No samples received from microphone, timed out.",
                     [&] { return LogMetadata{{"error", errorText(error)}}; });
        throw;
    }
    auto ring = coordinator.audioPrepareAdaptor.buffer();
    validateSessionClock(coordinator.captureSession->synchronizationClock(), 0.1, ring.last(), logger);
}

// Drains the sample queue: no delegate call is in progress after this.
void onQueue(platform::DispatchQueue& queue, const std::function<void()>& body) { queue.sync(body); }

}  // namespace

// ---- AudioFileRecorder --------------------------------------------------------------------------

class AudioFileRecorder::Coordinator final : public MicrophoneCoordinator {
public:
    Coordinator(std::shared_ptr<StableRecordingTimeline> timeline, bool useTimeline, Logger logger,
                AbortFunction onAbort, double audioDelay)
        : MicrophoneCoordinator(std::move(timeline), useTimeline, std::move(logger), std::move(onAbort),
                                "Got first sample after recording interval start, starting recording.",
                                "Got first sample after recording interval start, started recording."),
          audioShifter(audioDelay) {}

    std::shared_ptr<AVAssetWriterInputBufferAdaptor> audioWriterInputAdaptor;
    std::shared_ptr<platform::AVAssetWriter> audioAssetWriter;
    AudioShifter audioShifter;

protected:
    void startSession(const CMTime& time) override {
        if (audioAssetWriter) audioAssetWriter->startSession(time);
    }
    void deliver(const CMSampleBuffer& sample) override {
        try {
            for (auto& shifted : audioShifter.append(sample)) audioWriterInputAdaptor->append(shifted);
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("Failed to process audio buffer through shifter",
                          [&] { return LogMetadata{{"error", errorText(error)}}; });
        }
    }
};


AudioFileRecorder::AudioFileRecorder(std::string id, const OutputDescription& outputDescription,
                                     const std::string& microphoneID, bool leftChannelOnly, double audioDelay,
                                     EchoCancellation echoCancellation, int audioSegmentDuration,
                                     int videoSegmentDuration, std::shared_ptr<StableRecordingTimeline> recordingTimeline,
                                     bool useTimeline, const Logger& logger, AbortFunction onAbort)
    : id_(std::move(id)),
      logger_(logger.with("AudioFileRecorder", id_)),
      recordingTimeline_(std::move(recordingTimeline)),
      useTimeline_(useTimeline),
      microphoneID_(microphoneID),
      sampleBufferQueue_(std::make_shared<platform::DispatchQueue>("AudioFileRecorder.SampleBufferQueue")),
      onAbort_(std::move(onAbort)) {
    echoCancellation_ = echoCancellation;
    coordinator_ = std::make_shared<Coordinator>(recordingTimeline_, useTimeline_, logger_, onAbort_, audioDelay);
    coordinator_->captureSession = platform::AVCaptureSession::make();
    coordinator_->audioOutput = platform::AVCaptureAudioDataOutput::make();

    auto device = lookUpMicrophone(microphoneID, logger_);

    logger_.info("Resolving settings using AVOutputSettingsAssistant.");
    audioSettings_ = aacOutputSettings(*device);
    const int channels = applyAudioChannelRules(audioSettings_, leftChannelOnly, *device, logger_);

    MasterPlaylist playlist;
    playlist.audioChannelsCount = channels;
    playlist.audioTrackName = "Microphone";
    playlist.audioCodecName = "mp4a.40.2";
    outputAssetWriters_ = makeOutputAssetWriters(outputDescription, playlist, audioSegmentDuration,
                                                 videoSegmentDuration, logger_);
    auto writer = outputAssetWriters_->audioAssetWriter();
    coordinator_->audioAssetWriter = writer;
    std::weak_ptr<platform::AVAssetWriter> weakWriter = writer;
    errorObservation_ = writer->observe({"error"}, [weakWriter, logger = logger_, onAbort = onAbort_](const std::string&) {
        auto writer = weakWriter.lock();
        if (!writer || !writer->error()) return;
        logger.info("AVAssetWriter reported an error, aborting.",
                    [&] { return LogMetadata{{"error", errorText(writer->error())}}; });
        if (onAbort) onAbort(AbortSignal::interrupted(writer->error()));
    });

    audioInput_ = platform::AVAssetWriterInput::make(AVMediaType::audio, audioSettings_);
    audioInput_->setExpectsMediaDataInRealTime(true);
    coordinator_->audioWriterInputAdaptor = std::make_shared<AVAssetWriterInputBufferAdaptor>(audioInput_, logger_);
    coordinator_->audioOutput->setSampleBufferDelegate(coordinator_, sampleBufferQueue_);
    if (!writer->canAdd(audioInput_))
        throw OVError(OVError::Code::assetWriterCreationFailed, std::string("Can't add audio input to asset writer."));
    writer->add(audioInput_);
    logger_.info("AVAssetWriter ready.");

    configureSession(*coordinator_, device, logger_);
    interruptionMonitor_ = monitorMicrophone(*coordinator_, *device, logger_, onAbort_);
    if (audioDelay != 0)
        logger_.info("Audio delay configured.", [&] { return LogMetadata{{"audioDelay", fmt::format("{}", audioDelay)}}; });

    if (echoCancellation != EchoCancellation::off) {
        EchoCancellationURLs urls;
        if (const auto* single = outputDescription.asSingleFile()) {
            singleFileURL_ = single->url;
            urls = echoCancellationURLs(echoCancellation, single->url.parent_path(), single->url.filename().string(), id_);
        } else {
            urls = echoCancellationURLs(echoCancellation, outputDescription.asMultipleStreams()->directoryURL,
                                        std::nullopt, id_);
        }
        ecProcessor_ = EchoCancellationProcessor::make(echoCancellation, urls.online, urls.reference, urls.offline,
                                                       *recordingTimeline_, true, logger_, onAbort_);
        std::weak_ptr<EchoCancellationProcessor> weak = ecProcessor_;
        coordinator_->onMicAudio = [weak](const CMSampleBuffer& sample) {
            if (auto processor = weak.lock()) processor->feedMicAudio(sample);
        };
    }
}

AudioFileRecorder::~AudioFileRecorder() {
    if (interruptionMonitor_) interruptionMonitor_->disarm();
    if (coordinator_ && coordinator_->captureSession && coordinator_->captureSession->isRunning())
        coordinator_->captureSession->stopRunning();
}

std::vector<OVBundleInfo::FileAsset> AudioFileRecorder::fileAssets() const {
    std::vector<OVBundleInfo::FileAsset> assets;
    for (const auto& url : outputAssetWriters_->expectedFileURLs()) {
        OVBundleInfo::FileAsset asset;
        asset.type = OVBundleInfo::FileAssetType::audio;
        asset.filename = url.filename().string();
        assets.push_back(asset);
    }
    return assets;
}

std::vector<OVBundleInfo::FileAsset> AudioFileRecorder::prepare() {
    logger_.info("Preparing.");
    coordinator_->captureSession->startRunning();
    waitForAudioSampleBuffers(*coordinator_, microphoneID_, logger_);
    interruptionMonitor_->arm();
    // The file is opened once the microphone is known to deliver, so that a
    // failed prepare leaves no empty file in the bundle. Nothing is written
    // before the timeline opens its first interval.
    outputAssetWriters_->startWriting();
    logger_.info("Prepared.");
    auto assets = fileAssets();
    if (ecProcessor_) {
        ecProcessor_->startTap();
        for (auto& asset : ecProcessor_->expectedFileAssets()) assets.push_back(asset);
    }
    return assets;
}

std::vector<OVBundleInfo::FileAsset> AudioFileRecorder::finish() {
    struct Finished {
        const Logger& logger;
        std::shared_ptr<EchoCancellationProcessor>& processor;
        ~Finished() {
            logger.info("Finished.");
            processor.reset();
        }
    } finished{logger_, ecProcessor_};
    // Our own stop is no fault.
    interruptionMonitor_->disarm();
    if (ecProcessor_) ecProcessor_->stopTap();
    coordinator_->captureSession->stopRunning();
    std::exception_ptr chopperError;
    onQueue(*sampleBufferQueue_, [&] {
        try {
            coordinator_->audioChopper.finish();
        } catch (...) {
            chopperError = std::current_exception();
        }
    });
    if (chopperError)
        logger_.error("Failed to finish audio chopper.", [&] { return LogMetadata{{"error", errorText(chopperError)}}; });

    auto writer = outputAssetWriters_->audioAssetWriter();
    drainBackpressureBuffer(
        coordinator_->audioWriterInputAdaptor->unboundedBackpressureBuffer(),
        [&] {
            if (auto e = writer->error()) std::rethrow_exception(e);
        },
        logger_);

    recordingTimeline_->update();
    std::optional<double> endTime;
    if (useTimeline_)
        endTime = recordingTimeline_->duration();
    else if (!recordingTimeline_->recordingIntervals.empty())
        endTime = recordingTimeline_->recordingIntervals.front().recordUntil;
    if (endTime && std::isfinite(*endTime) && coordinator_->audioShifter.firstTime())
        writer->safe_endSession(CMTime::makeWithSeconds(*endTime, 1'000'000'000));

    audioInput_->markAsFinished();
    outputAssetWriters_->finishWriting();
    auto assets = fileAssets();
    if (ecProcessor_) {
        ecProcessor_->finishOnline(endTime && std::isfinite(*endTime) ? CMTime::makeWithSeconds(*endTime, 1'000'000'000)
                                                                      : CMTime());
        if (echoCancellation_ == EchoCancellation::aec3Offline || echoCancellation_ == EchoCancellation::aec3Both) {
            try {
                if (!singleFileURL_)
                    throw OVError(OVError::Code::configurationNotSupported,
                                  std::string("The offline pass needs a single microphone file, not segments."));
                ecProcessor_->runOfflinePass(*singleFileURL_);
            } catch (...) {
                const auto error = std::current_exception();
                logger_.error("Offline echo cancellation failed.", [&] { return LogMetadata{{"error", errorText(error)}}; });
            }
        }
        for (auto& asset : ecProcessor_->completedFileAssets()) assets.push_back(asset);
    }
    return assets;
}

// ---- AudioStreamRecorder ------------------------------------------------------------------------

class AudioStreamRecorder::Coordinator final : public MicrophoneCoordinator {
public:
    Coordinator(std::shared_ptr<StableRecordingTimeline> timeline, bool useTimeline, Logger logger,
                AbortFunction onAbort, SampleBufferCallback callback)
        : MicrophoneCoordinator(std::move(timeline), useTimeline, logger, std::move(onAbort),
                                "Got first sample after recording interval start, starting streaming.",
                                "Got first sample after recording interval start, started streaming."),
          gapFiller(logger),
          backpressureBuffer("UnboundedBufferBackpressureHandler",
                             [callback = std::move(callback)](const CMSampleBuffer& sample) {
                                 return callback && !callback(sample)
                                            ? UnboundedBackpressureBuffer<CMSampleBuffer>::HandlerResult::notReadyForItem
                                            : UnboundedBackpressureBuffer<CMSampleBuffer>::HandlerResult::handledItem;
                             }) {}

    AudioGapFiller gapFiller;
    UnboundedBackpressureBuffer<CMSampleBuffer> backpressureBuffer;

protected:
    void deliver(const CMSampleBuffer& sample) override {
        std::vector<CMSampleBuffer> filled;
        try {
            filled = gapFiller.process(sample);
        } catch (...) {
            const auto error = std::current_exception();
            logger_.info("Audio gap detection/correction failed.", [&] {
                return LogMetadata{{"error", errorText(error)},
                                   {"pts", fmt::format("{}", sample.presentationTimeStamp().seconds())},
                                   {"duration", fmt::format("{}", sample.duration().seconds())}};
            });
            filled = {sample};
        }
        for (auto& item : filled) backpressureBuffer.append(item);
    }
};

AudioStreamRecorder::AudioStreamRecorder(std::string id, const std::string& microphoneID,
                                         EchoCancellation /*echoCancellation: the item carries it, nothing reads it*/,
                                         std::shared_ptr<StableRecordingTimeline> recordingTimeline, bool useTimeline,
                                         const Logger& logger, SampleBufferCallback callback,
                                         std::optional<AudioStreamConfiguration> audioConfiguration,
                                         AbortFunction onAbort)
    : id_(std::move(id)),
      logger_(logger.with("AudioStreamRecorder", id_)),
      microphoneID_(microphoneID),
      sampleBufferQueue_(std::make_shared<platform::DispatchQueue>("AudioStreamRecorderSampleBufferQueue")) {
    coordinator_ = std::make_shared<Coordinator>(std::move(recordingTimeline), useTimeline, logger_, onAbort,
                                                 std::move(callback));
    coordinator_->captureSession = platform::AVCaptureSession::make();
    coordinator_->audioOutput = platform::AVCaptureAudioDataOutput::make();
    if (audioConfiguration) {
        coordinator_->audioOutput->setAudioSettings({{platform::AVFormatIDKey, platform::kAudioFormatLinearPCM},
                                                     {platform::AVLinearPCMBitDepthKey, audioConfiguration->bitDepth},
                                                     {platform::AVLinearPCMIsFloatKey, audioConfiguration->isFloat},
                                                     {platform::AVLinearPCMIsNonInterleaved,
                                                      !audioConfiguration->isInterleaved}});
        logger_.info("Applied audio stream configuration", [&] {
            return LogMetadata{{"bitDepth", std::to_string(audioConfiguration->bitDepth)},
                               {"isFloat", boolText(audioConfiguration->isFloat)},
                               {"isInterleaved", boolText(audioConfiguration->isInterleaved)}};
        });
    }
    auto device = lookUpMicrophone(microphoneID, logger_);
    coordinator_->audioOutput->setSampleBufferDelegate(coordinator_, sampleBufferQueue_);
    configureSession(*coordinator_, device, logger_);
    interruptionMonitor_ = monitorMicrophone(*coordinator_, *device, logger_, std::move(onAbort));
}

AudioStreamRecorder::~AudioStreamRecorder() {
    if (interruptionMonitor_) interruptionMonitor_->disarm();
    if (coordinator_ && coordinator_->captureSession && coordinator_->captureSession->isRunning())
        coordinator_->captureSession->stopRunning();
}

std::vector<OVBundleInfo::FileAsset> AudioStreamRecorder::prepare() {
    logger_.info("Preparing.");
    coordinator_->captureSession->startRunning();
    waitForAudioSampleBuffers(*coordinator_, microphoneID_, logger_);
    interruptionMonitor_->arm();
    logger_.info("Prepared.");
    return {};
}

std::vector<OVBundleInfo::FileAsset> AudioStreamRecorder::finish() {
    interruptionMonitor_->disarm();
    coordinator_->captureSession->stopRunning();
    onQueue(*sampleBufferQueue_, [&] {
        try {
            coordinator_->audioChopper.finish();
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("Failed to finish audio chopper.", [&] { return LogMetadata{{"error", errorText(error)}}; });
        }
    });
    drainBackpressureBuffer(coordinator_->backpressureBuffer, nullptr, logger_);
    logger_.info("Finished.");
    return {};
}

// ---- assembly -----------------------------------------------------------------------------------

namespace {

// Echo cancellation needs the machine's output as its reference: a build or
// a machine without system audio capture refuses the item rather than record
// without it.
void requireEchoReference(EchoCancellation mode) {
    if (mode == EchoCancellation::off || echoReferenceSourceFactory()) return;
    throw OVError(OVError::Code::configurationNotSupported,
                  std::string("Echo cancellation requires system audio capture, which this build lacks."),
                  std::string("Echo cancellation requires capturing the system's audio output."));
}

}  // namespace

std::vector<std::shared_ptr<Recorder>> makeMicrophoneRecorders(const MicrophoneFileSchemaItem& item,
                                                               const OutputDescription& output,
                                                               const RecorderAssemblyContext& context) {
    requireEchoReference(item.echoCancellation);
    return {std::make_shared<AudioFileRecorder>(
        item.id, output, item.microphoneID, item.leftChannelOnly, item.audioDelay, item.echoCancellation,
        context.audioSegmentDuration, context.videoSegmentDuration,
        std::make_shared<StableRecordingTimeline>(*context.recordingTimeline), context.useTimeline, context.logger,
        context.onAbort)};
}

std::vector<std::shared_ptr<Recorder>> makeMicrophoneRecorders(const MicrophoneStreamSchemaItem& item,
                                                               const RecorderAssemblyContext& context) {
    requireEchoReference(item.echoCancellation);
    return {std::make_shared<AudioStreamRecorder>(
        item.id, item.microphoneID, item.echoCancellation,
        std::make_shared<StableRecordingTimeline>(*context.recordingTimeline), context.useTimeline, context.logger,
        item.callback, item.audioConfiguration, context.onAbort)};
}

}  // namespace ov
