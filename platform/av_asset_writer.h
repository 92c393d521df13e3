#pragma once
// AVAssetWriter and AVAssetWriterInput: encoding sample buffers into a movie
// file, or into fragmented MPEG-4 segments handed to a delegate, on FFmpeg.
//
// One writer owns one encoder thread. Inputs queue their samples to it through
// a bounded queue: a full queue is what isReadyForMoreMediaData says, so a slow
// encoder shows as backpressure, never as unbounded memory.
//
// Files are written as fragmented movies (a fragment about every second), so a
// process that is killed mid-recording leaves a file that players open, short
// of its last fragment. Segmented writers cut a fragment at each segment
// interval, on a forced keyframe for video.
//
// Output settings are JSON dictionaries with the platform's keys (below).
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/av_capture_device.h"
#include "platform/av_capture_output.h"
#include "platform/cm_sample_buffer.h"
#include "platform/cm_time.h"

namespace ov::platform {

// ---- Settings keys of writer inputs.
inline constexpr const char* AVVideoCodecKey = "AVVideoCodecKey";  // "avc1" or "hvc1"
inline constexpr const char* AVVideoCodecTypeH264 = "avc1";
inline constexpr const char* AVVideoCodecTypeHEVC = "hvc1";
inline constexpr const char* AVVideoWidthKey = "AVVideoWidthKey";
inline constexpr const char* AVVideoHeightKey = "AVVideoHeightKey";
inline constexpr const char* AVVideoCompressionPropertiesKey = "AVVideoCompressionPropertiesKey";
inline constexpr const char* AVVideoAverageBitRateKey = "AverageBitRate";
inline constexpr const char* AVVideoMaxKeyFrameIntervalDurationKey = "MaxKeyFrameIntervalDuration";
inline constexpr const char* AVVideoAllowFrameReorderingKey = "AllowFrameReordering";
inline constexpr const char* AVVideoExpectedSourceFrameRateKey = "ExpectedFrameRate";
inline constexpr const char* AVVideoColorPropertiesKey = "AVVideoColorPropertiesKey";
inline constexpr const char* AVVideoColorPrimariesKey = "ColorPrimaries";
inline constexpr const char* AVVideoColorPrimaries_ITU_R_709_2 = "ITU_R_709_2";
inline constexpr const char* AVVideoColorPrimaries_P3_D65 = "P3_D65";
inline constexpr const char* AVVideoTransferFunctionKey = "TransferFunction";
inline constexpr const char* AVVideoTransferFunction_ITU_R_709_2 = "ITU_R_709_2";
inline constexpr const char* AVVideoYCbCrMatrixKey = "YCbCrMatrix";
inline constexpr const char* AVVideoYCbCrMatrix_ITU_R_709_2 = "ITU_R_709_2";
// Audio: AVFormatIDKey (kAudioFormatMPEG4AAC), AVSampleRateKey, AVNumberOfChannelsKey
// from av_capture_output.h, and:
inline constexpr const char* AVEncoderBitRateKey = "AVEncoderBitRateKey";
inline constexpr const char* AVChannelLayoutKey = "AVChannelLayoutKey";
inline constexpr uint32_t kAudioFormatMPEG4AAC = OV_FOURCC('a', 'a', 'c', ' ');

enum class AVFileType { quickTimeMovie, mpeg4, appleM4A };
enum class AVContentType { mpeg4Movie };
enum class AVFileTypeProfile { none, mpeg4AppleHLS };
enum class AVAssetSegmentType : int { initialization = 1, separable = 2 };
enum class AVAssetWriterStatus { unknown = 0, writing = 1, completed = 2, failed = 3, cancelled = 4 };

using AVSegmentData = std::vector<uint8_t>;

struct AVAssetSegmentTrackReport {
    AVMediaType mediaType = AVMediaType::video;
    CMTime earliestPresentationTimeStamp;
    CMTime duration;
};

struct AVAssetSegmentReport {
    std::vector<AVAssetSegmentTrackReport> trackReports;
    std::string debugDescription() const;
};

class AVAssetWriter;

class AVAssetWriterDelegate {
public:
    virtual ~AVAssetWriterDelegate() = default;
    // On the writer's encoder thread, one segment at a time, in order.
    virtual void assetWriterDidOutputSegmentData(AVAssetWriter& writer, AVSegmentData segmentData,
                                                 AVAssetSegmentType segmentType,
                                                 const AVAssetSegmentReport* segmentReport) = 0;
};

class AVAssetWriterInput {
public:
    // outputSettings: see the keys above. Throws std::invalid_argument for
    // settings that can't be encoded (unknown codec, missing size).
    AVAssetWriterInput(AVMediaType mediaType, AVSettingsDictionary outputSettings);
    ~AVAssetWriterInput();
    AVAssetWriterInput(const AVAssetWriterInput&) = delete;
    AVAssetWriterInput& operator=(const AVAssetWriterInput&) = delete;

    AVMediaType mediaType() const { return mediaType_; }
    const AVSettingsDictionary& outputSettings() const { return outputSettings_; }
    bool expectsMediaDataInRealTime() const { return expectsMediaDataInRealTime_; }
    void setExpectsMediaDataInRealTime(bool value) { expectsMediaDataInRealTime_ = value; }

    // False while the writer's queue holds as many of this input's samples as
    // it takes, and after the input finished or the writer failed.
    bool isReadyForMoreMediaData() const;
    // Queues the sample; false when the writer isn't writing or failed (its
    // error says why), or when the input isn't ready.
    bool append(const CMSampleBuffer& sampleBuffer);
    void markAsFinished();

private:
    friend class AVAssetWriter;
    friend struct AVAssetWriterCore;

public:
    // The encoder's state of this input; lives in the writer.
    struct Track;

private:

    AVMediaType mediaType_;
    AVSettingsDictionary outputSettings_;
    bool expectsMediaDataInRealTime_ = false;
    std::weak_ptr<struct AVAssetWriterCore> core_;
    int index_ = -1;
    std::atomic<bool> finished_{false};
};

class AVAssetWriter : public std::enable_shared_from_this<AVAssetWriter> {
public:
    static constexpr const char* errorDomain = "Orvane.AVAssetWriter";
    // Queued samples per input before it says it isn't ready.
    static constexpr size_t videoQueueLimit = 8;
    static constexpr size_t audioQueueLimit = 64;

    // A file writer. The file is created at startWriting; an existing file
    // makes startWriting fail.
    AVAssetWriter(std::filesystem::path url, AVFileType fileType);
    // A segment writer: no file; segments go to the delegate.
    explicit AVAssetWriter(AVContentType contentType);
    ~AVAssetWriter();
    AVAssetWriter(const AVAssetWriter&) = delete;
    AVAssetWriter& operator=(const AVAssetWriter&) = delete;

    const std::filesystem::path& outputURL() const { return outputURL_; }
    AVFileType outputFileType() const { return fileType_; }

    AVFileTypeProfile outputFileTypeProfile() const { return profile_; }
    void setOutputFileTypeProfile(AVFileTypeProfile profile) { profile_ = profile; }
    CMTime preferredOutputSegmentInterval() const { return segmentInterval_; }
    void setPreferredOutputSegmentInterval(CMTime interval) { segmentInterval_ = interval; }
    CMTime initialSegmentStartTime() const { return initialSegmentStartTime_; }
    void setInitialSegmentStartTime(CMTime time) { initialSegmentStartTime_ = time; }
    void setDelegate(std::shared_ptr<AVAssetWriterDelegate> delegate);

    bool canAdd(const std::shared_ptr<AVAssetWriterInput>& input) const;
    // Throws std::logic_error when canAdd is false.
    void add(const std::shared_ptr<AVAssetWriterInput>& input);
    const std::vector<std::shared_ptr<AVAssetWriterInput>>& inputs() const { return inputs_; }

    // Opens the encoders and the file or segment stream. False with error() set
    // on failure. Throws std::logic_error when called twice.
    bool startWriting();
    // Samples before this time are not written; times are written relative to it.
    void startSession(CMTime sourceTime);
    // Samples from this time on are not written; the last ones are cut to it.
    void endSession(CMTime sourceTime);
    // Flushes the encoders and closes the file, then calls the handler on the
    // encoder thread. Throws std::logic_error when not writing.
    void finishWriting(std::function<void()> completionHandler);
    void cancelWriting();

    AVAssetWriterStatus status() const;
    // Null until the writer fails.
    std::exception_ptr error() const;
    // Called once, on the encoder thread, when error() becomes non-null.
    void observeError(std::function<void(std::exception_ptr)> observer);

    // The forms that turn the platform's raised exceptions into errors: a
    // std::logic_error becomes a PlatformError named after it.
    bool safe_startWriting();
    void safe_endSession(CMTime sourceTime);
    // Blocks until the writer finished; throws its error if it failed.
    void safe_finishWriting();

private:
    std::filesystem::path outputURL_;
    AVFileType fileType_ = AVFileType::mpeg4;
    bool segmented_ = false;
    AVFileTypeProfile profile_ = AVFileTypeProfile::none;
    CMTime segmentInterval_ = CMTime(6, 1);
    CMTime initialSegmentStartTime_ = CMTime(0, 1);
    std::vector<std::shared_ptr<AVAssetWriterInput>> inputs_;
    std::shared_ptr<struct AVAssetWriterCore> core_;
};

}  // namespace ov::platform
