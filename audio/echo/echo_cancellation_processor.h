#pragma once
// EchoCancellationProcessor takes the echo of the machine's own output out of
// a microphone recording, while recording ("online") and from the finished
// files after it ("offline").
//
// The delay between what the machine plays and what the microphone hears is
// unknown and can be hundreds of milliseconds. So the processor first buffers
// 3 s of both streams, estimates the bulk delay by cross-correlation, runs
// what it has through the canceller (catch-up), and then streams with a FIFO
// in front of the stream that must wait; 5 s of later material confirm or
// correct the delay once. Every alignment subtracts the engine's reference
// lead (see EchoCancelEngine), so the reference reaches the canceller that
// much before its echo.
//
// Threads: feedMicAudio on the recorder's sample queue, handleTapBuffer on
// the reference source's thread; aecLock_ guards the shared state.
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audio/echo/echo_reference_source.h"
#include "audio/echo/webrtc_aec3.h"
#include "output/av_asset_writer_input_buffer_adaptor.h"
#include "output/ov_logger.h"
#include "platform/av_asset_writer.h"
#include "platform/av_audio_file.h"
#include "platform/cm_sample_buffer.h"
#include "platform/key_value_observing.h"
#include "session/abort_signal.h"
#include "session/ov_bundle_info.h"
#include "session/schema_items.h"
#include "timing/recording_timeline_bounded_audio_stream.h"
#include "timing/stable_recording_timeline.h"

namespace ov {

enum class ECPhase { buffering, streaming };

class EchoCancellationProcessor : public std::enable_shared_from_this<EchoCancellationProcessor> {
public:
    // Opens the writers of the URLs given; throws OVError or the writers' errors.
    // `referenceSourceFactory` makes the tap at startTap (empty: the installed one).
    static std::shared_ptr<EchoCancellationProcessor> make(
        EchoCancellation mode, std::optional<std::filesystem::path> onlineOutputURL,
        std::optional<std::filesystem::path> referenceOutputURL, std::optional<std::filesystem::path> offlineOutputURL,
        const StableRecordingTimeline& timeline, bool residualGating, const Logger& logger, AbortFunction onAbort,
        EchoReferenceSourceFactory referenceSourceFactory = {});
    ~EchoCancellationProcessor();

    // Starts the reference; throws when there is none or it fails.
    void startTap();
    // One microphone buffer as captured (any PCM format, host-clock time).
    void feedMicAudio(const platform::CMSampleBuffer& sample);
    // One reference buffer; the reference source's handler.
    void handleTapBuffer(const float* samples, size_t count, const platform::CMTime& pts);
    void stopTap();
    // Flushes and closes the online file and the reference sidecar.
    void finishOnline(const platform::CMTime& endTime);
    // The offline file from the finished microphone file and the sidecar.
    void runOfflinePass(const std::filesystem::path& micURL);

    std::vector<OVBundleInfo::FileAsset> expectedFileAssets() const;
    std::vector<OVBundleInfo::FileAsset> completedFileAssets() const;

    // For tests and logs.
    ECPhase phase() const;
    long bulkDelay() const;
    bool needsDelayReestimation() const;
    // Canceller instances made so far (catch-up, a fresh one after re-estimation).
    int cancellerGeneration() const;
    double outputSampleRate() const { return outputSampleRate_; }

private:
    struct Output {
        std::shared_ptr<platform::AVAssetWriter> writer;
        std::shared_ptr<platform::AVAssetWriterInput> input;
        std::shared_ptr<AVAssetWriterInputBufferAdaptor> adaptor;
        std::unique_ptr<RecordingTimelineBoundedAudioStream> chopper;
        platform::KeyValueObservation errorObservation;
        bool didStartSession = false;
        std::filesystem::path url;
    };

    EchoCancellationProcessor(EchoCancellation mode, const Logger& logger, AbortFunction onAbort,
                              EchoReferenceSourceFactory factory);
    void openOutput(Output& output, const std::filesystem::path& url, const StableRecordingTimeline& timeline,
                    const char* cantAdd, const char* reportedError, const char* cantStart);
    void finishOutput(Output& output, const platform::CMTime& endTime, const char* flushed, const char* retrying,
                      const char* noSamples, const char* finalized);

    // Under aecLock_.
    void checkCatchup();
    void performCatchup();
    void feedDelayedReference(const std::vector<float>& samples);
    void checkAndPerformDelayReestimation();
    void resetAlignment(long delay);
    long alignDelay() const { return bulkDelay_ - lead_; }

    std::vector<float> applyGainGate(std::vector<float> samples, float refPower);
    std::optional<platform::CMSampleBuffer> makeSampleBuffer(const std::vector<float>& samples,
                                                             const platform::CMTime& pts) const;
    void appendToChopper(Output& output, const platform::CMSampleBuffer& sample, const char* failure);
    void writeCatchupOutput(const std::vector<float>& output);
    void writeOnlineOutput(const std::vector<float>& samples);
    void writeReferenceSamples(const std::vector<float>& samples, const platform::CMTime& pts);

    EchoCancellation mode_;
    Logger logger_;
    AbortFunction onAbort_;
    EchoReferenceSourceFactory referenceSourceFactory_;
    std::unique_ptr<EchoReferenceSource> tap_;

    mutable std::mutex aecLock_;
    std::unique_ptr<WebRTCAEC3> aec3_;
    int cancellerGeneration_ = 0;
    ECPhase ecPhase_ = ECPhase::streaming;
    std::vector<float> micAccumulator_;
    std::vector<float> refAccumulator_;
    long bulkDelay_ = 0;
    // The engine's lead in samples, subtracted from every alignment.
    long lead_ = 0;
    std::vector<float> refDelayFIFO_;
    std::vector<float> micDelayFIFO_;
    long bufferDurationSamples_ = 0;
    bool needsDelayReestimation_ = false;
    std::vector<float> reestRefBuffer_;
    std::vector<float> reestMicBuffer_;
    bool residualGatingEnabled_ = false;
    float refPowerSmooth_ = 0;
    double lastRefPowerUpdate_ = 0;
    float gateGain_ = 1.0f;
    std::unique_ptr<platform::AVAudioConverter> sampleRateConverter_;
    bool didSetupSampleRateConversion_ = false;
    double outputSampleRate_ = 48000.0;
    std::optional<platform::CMTime> bufferingFirstMicPTS_;
    // The online file's clock: its first sample's host time and the samples
    // written since, so that output runs on a sample count, not on the times
    // of the microphone buffers that happened to release it.
    std::optional<platform::CMTime> onlineAnchor_;
    int64_t onlineSamplesWritten_ = 0;

    Output online_;
    Output reference_;
    bool hasOnline_ = false;
    bool hasReference_ = false;
    std::optional<std::filesystem::path> offlineOutputURL_;
    bool offlinePassCompleted_ = false;
};

// The three files of a microphone file item with echo cancellation: for a
// single file "name.m4a" beside it "name-ec-webrtc.m4a", "name-ec-systemaudio.m4a",
// "name-ec-webrtc-offline.m4a"; for segmented output "microphone-<id>-ec-…" in
// its folder. Absent where the mode makes none.
struct EchoCancellationURLs {
    std::optional<std::filesystem::path> online;
    std::optional<std::filesystem::path> reference;
    std::optional<std::filesystem::path> offline;
};
EchoCancellationURLs echoCancellationURLs(EchoCancellation mode, const std::filesystem::path& directory,
                                          const std::optional<std::string>& singleFileName, const std::string& id);

}  // namespace ov
