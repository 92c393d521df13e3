#pragma once
// MovieFileRecorder: a `webcam` item, one camera and one microphone into one
// movie (or one segmented pair of streams), kept in sync on the host clock.
//
// Construction does every step short of starting capture and fails with an
// OVError as each step fails; prepare() starts both capture sessions (the
// recording one and the logging one that only reports dropped frames), waits
// for the microphone and the camera, and retries a silent camera once by
// switching Center Stage; finish() stops capture and closes the files.
//
// The camera's format is chosen here unless the item asks to leave it alone:
// the largest 4:2:0 format at least as big as the wanted maximum, fastest
// first (bestFormat / formatMatching, on plain values so the choice is
// testable without a device).
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "output/output_asset_writers.h"
#include "output/ov_logger.h"
#include "platform/av_capture_device.h"
#include "platform/av_capture_output.h"
#include "platform/av_capture_session.h"
#include "platform/cg_geometry.h"
#include "platform/dispatch_queue.h"
#include "session/abort_signal.h"
#include "session/output_description.h"
#include "session/recorder.h"
#include "timing/stable_recording_timeline.h"
#include "video/codec_aligned_video_size.h"
#include "video/record_mode.h"

namespace ov {

// What format choice needs of a camera format.
struct CaptureDeviceFormatProtocol {
    platform::FourCharCode mediaSubType = 0;
    platform::CMVideoDimensions dimensions;
    platform::CMTime frameDuration;

    static CaptureDeviceFormatProtocol of(const platform::AVCaptureDeviceFormat& format);
};

// The 4:2:0 formats ('420v', '420f') sorted wider, then taller, then faster
// first (stable), and of those the one formatMatching picks, or else the
// first: the largest size at the highest rate. An index into `formats`.
std::optional<size_t> bestFormat(const std::vector<CaptureDeviceFormatProtocol>& formats,
                                 const std::optional<platform::CGSize>& maxVideoDimensions);
// The smallest size of `sortedFormats` not smaller than the maximum in either
// direction, and of that size the first (fastest) format. An index into
// `sortedFormats`; none without a maximum or a match.
std::optional<size_t> formatMatching(const std::optional<platform::CGSize>& maxVideoDimensions,
                                     const std::vector<CaptureDeviceFormatProtocol>& sortedFormats);

// The video output settings of a camera recording: the mode's codec, the
// coded size, no colour properties, no frame reordering, and key frame keys
// only with an interval (the count truncated from interval / frame duration).
platform::AVSettingsDictionary webcamVideoSettings(RecordMode mode, VideoDimensions videoSize,
                                                   const platform::CMTime& minFrameDuration,
                                                   const std::optional<double>& keyframeIntervalDuration);

class MovieFileRecorder final : public Recorder {
public:
    MovieFileRecorder(std::string id, const OutputDescription& outputDescription, std::string microphoneID,
                      bool leftChannelOnly, double audioDelay, std::string cameraID,
                      std::optional<platform::CGSize> maxVideoDimensions, bool allowCaptureDevicesConfiguration,
                      RecordMode mode, int audioSegmentDuration, int videoSegmentDuration,
                      std::optional<double> keyframeIntervalDuration,
                      std::shared_ptr<StableRecordingTimeline> recordingTimeline, bool useTimeline,
                      const Logger& logger, AbortFunction onAbort);
    ~MovieFileRecorder() override;

    std::string id() const override { return id_; }
    std::vector<OVBundleInfo::FileAsset> prepare() override;
    std::vector<OVBundleInfo::FileAsset> finish() override;

    // For tests and logs.
    VideoDimensions videoSize() const { return videoSize_; }
    const platform::AVSettingsDictionary& videoSettings() const { return videoSettings_; }
    const platform::AVSettingsDictionary& audioSettings() const { return audioSettings_; }
    uint64_t appendedVideoFrames() const;

    class Coordinator;

private:
    void waitForVideoWithCenterStageRetry();
    std::vector<OVBundleInfo::FileAsset> fileAssets() const;

    std::string id_;
    Logger logger_;
    std::shared_ptr<StableRecordingTimeline> recordingTimeline_;
    bool useTimeline_;
    std::string microphoneID_;
    std::string cameraID_;
    std::shared_ptr<platform::AVCaptureDevice> videoCaptureDevice_;
    VideoDimensions videoSize_;
    std::shared_ptr<platform::DispatchQueue> sampleBufferQueue_;
    std::shared_ptr<Coordinator> coordinator_;
    std::vector<platform::KeyValueObservation> errorObservations_;
    std::vector<platform::KeyValueObservation> observations_;

    std::shared_ptr<OutputAssetWriters> outputAssetWriters_;
    std::shared_ptr<platform::AVAssetWriterInput> audioInput_;
    std::shared_ptr<platform::AVAssetWriterInput> videoInput_;
    platform::AVSettingsDictionary audioSettings_;
    platform::AVSettingsDictionary videoSettings_;
    std::atomic<bool> prepared_{false};
};

}  // namespace ov
