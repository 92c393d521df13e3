#pragma once
// The two recorders of one microphone. AudioFileRecorder writes an AAC file or
// segmented audio into the bundle; AudioStreamRecorder hands gap-free sample
// buffers to a caller and writes nothing. Both start capture at prepare, hold
// samples in a small ring until the timeline opens, cut them to the recording
// intervals and move them onto the gapless output clock.
#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audio/echo/echo_cancellation_processor.h"
#include "audio/microphone_interruption_monitor.h"
#include "output/av_asset_writer_input_buffer_adaptor.h"
#include "output/output_asset_writers.h"
#include "output/ov_logger.h"
#include "platform/av_capture_output.h"
#include "platform/av_capture_session.h"
#include "platform/dispatch_queue.h"
#include "session/abort_signal.h"
#include "session/output_description.h"
#include "session/recorder.h"
#include "session/schema_items.h"
#include "timing/audio_gap_filler.h"
#include "timing/audio_shifter.h"
#include "timing/prepare_ring_buffer_adapter.h"
#include "timing/recording_timeline_bounded_audio_stream.h"
#include "timing/stable_recording_timeline.h"
#include "output/unbounded_backpressure_buffer.h"

namespace ov {

// How long prepare waits for the microphone's first stable samples.
inline constexpr double microphonePrepareTimeout = 3.0;

// What both recorders do with each captured sample; the last stage differs.
class MicrophoneCoordinator : public platform::AVCaptureAudioDataOutputSampleBufferDelegate,
                              public std::enable_shared_from_this<MicrophoneCoordinator> {
public:
    MicrophoneCoordinator(std::shared_ptr<StableRecordingTimeline> timeline, bool useTimeline, Logger logger,
                          AbortFunction onAbort, const char* startingText, const char* startedText);
    ~MicrophoneCoordinator() override = default;

    void captureOutput(platform::AVCaptureOutput& output, const platform::CMSampleBuffer& sampleBuffer,
                       platform::AVCaptureConnection& connection) override;

    std::shared_ptr<platform::AVCaptureSession> captureSession;
    std::shared_ptr<platform::AVCaptureAudioDataOutput> audioOutput;
    // Every captured sample as it arrives, before retiming (echo cancellation).
    std::function<void(const platform::CMSampleBuffer&)> onMicAudio;
    PrepareRingBufferAdapter<platform::CMSampleBuffer> audioPrepareAdaptor;
    RecordingTimelineBoundedAudioStream audioChopper;
    // Hears of every sample, to notice when they stop.
    std::shared_ptr<MicrophoneInterruptionMonitor> interruptionMonitor;

protected:
    void retimeAndDeliver(platform::AVCaptureOutput& output, const platform::CMSampleBuffer& sampleBuffer,
                          platform::AVCaptureConnection& connection);
    // The stage after retiming: shift and write, or fill gaps and stream.
    virtual void deliver(const platform::CMSampleBuffer& sample) = 0;
    // The first sample of the recording starts the writer's session here.
    virtual void startSession(const platform::CMTime&) {}

    Logger logger_;
    std::shared_ptr<StableRecordingTimeline> timeline_;
    bool useTimeline_;
    AbortFunction onAbort_;
    bool didStart_ = false;
    bool didLogUnknownOutputWarning_ = false;
    const char* startingText_;
    const char* startedText_;
};

class AudioFileRecorder final : public Recorder {
public:
    // Everything short of starting capture; throws OVError as each step fails.
    AudioFileRecorder(std::string id, const OutputDescription& outputDescription, const std::string& microphoneID,
                      bool leftChannelOnly, double audioDelay, EchoCancellation echoCancellation,
                      int audioSegmentDuration, int videoSegmentDuration,
                      std::shared_ptr<StableRecordingTimeline> recordingTimeline, bool useTimeline,
                      const Logger& logger, AbortFunction onAbort);
    ~AudioFileRecorder() override;

    std::string id() const override { return id_; }
    std::vector<OVBundleInfo::FileAsset> prepare() override;
    std::vector<OVBundleInfo::FileAsset> finish() override;

    // The channel count and settings the writer gets (for tests and logs).
    const platform::AVSettingsDictionary& audioSettings() const { return audioSettings_; }

private:
    class Coordinator;
    std::vector<OVBundleInfo::FileAsset> fileAssets() const;

    std::string id_;
    Logger logger_;
    std::shared_ptr<StableRecordingTimeline> recordingTimeline_;
    bool useTimeline_;
    std::string microphoneID_;
    std::shared_ptr<platform::DispatchQueue> sampleBufferQueue_;
    std::shared_ptr<Coordinator> coordinator_;
    std::shared_ptr<OutputAssetWriters> outputAssetWriters_;
    std::shared_ptr<platform::AVAssetWriterInput> audioInput_;
    platform::KeyValueObservation errorObservation_;
    AbortFunction onAbort_;
    platform::AVSettingsDictionary audioSettings_;
    EchoCancellation echoCancellation_ = EchoCancellation::off;
    std::shared_ptr<EchoCancellationProcessor> ecProcessor_;
    // The microphone file the offline pass reads; absent for segmented output.
    std::optional<std::filesystem::path> singleFileURL_;
    std::shared_ptr<MicrophoneInterruptionMonitor> interruptionMonitor_;
};

class AudioStreamRecorder final : public Recorder {
public:
    AudioStreamRecorder(std::string id, const std::string& microphoneID, EchoCancellation echoCancellation,
                        std::shared_ptr<StableRecordingTimeline> recordingTimeline, bool useTimeline,
                        const Logger& logger, SampleBufferCallback callback,
                        std::optional<AudioStreamConfiguration> audioConfiguration, AbortFunction onAbort);
    ~AudioStreamRecorder() override;

    std::string id() const override { return id_; }
    std::vector<OVBundleInfo::FileAsset> prepare() override;
    std::vector<OVBundleInfo::FileAsset> finish() override;

private:
    class Coordinator;
    std::string id_;
    Logger logger_;
    std::string microphoneID_;
    std::shared_ptr<platform::DispatchQueue> sampleBufferQueue_;
    std::shared_ptr<Coordinator> coordinator_;
    std::shared_ptr<MicrophoneInterruptionMonitor> interruptionMonitor_;
};

// The microphone recorders of a schema item.
std::vector<std::shared_ptr<Recorder>> makeMicrophoneRecorders(const MicrophoneFileSchemaItem& item,
                                                               const OutputDescription& output,
                                                               const struct RecorderAssemblyContext& context);
std::vector<std::shared_ptr<Recorder>> makeMicrophoneRecorders(const MicrophoneStreamSchemaItem& item,
                                                               const struct RecorderAssemblyContext& context);

}  // namespace ov
