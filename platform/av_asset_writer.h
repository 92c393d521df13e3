#pragma once
// AVAssetWriter and AVAssetWriterInput: encode sample buffers and mux them
// into a movie file, or into fragmented MPEG-4 segments handed to a delegate.
//
// Built on FFmpeg: H.264 (libx264) or HEVC (libx265) video, AAC-LC audio, the
// mov/mp4 muxer. Single files are written fragmented as they grow (an empty
// movie header, then a fragment about every second), so a process that dies
// leaves a file that plays up to its last fragment.
//
// Each input owns a bounded queue and an encoder thread. append() only queues:
// a slow encoder shows as isReadyForMoreMediaData() false (a real-time input
// then refuses the sample; an offline one waits for room), never as growing
// memory. Packets of all inputs meet in the writer's muxer, interleaved by time.
//
// Failures after startWriting() show in error() and status() == failed, and
// are told to observers of the key "error" (see observe()).

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/av_capture_device.h"
#include "platform/av_capture_output.h"
#include "platform/cm_sample_buffer.h"
#include "platform/cm_time.h"
#include "platform/key_value_observing.h"

namespace ov::platform {

// ---- Output settings keys (beside the audio keys of av_capture_output.h).
// Audio: AVFormatIDKey = kAudioFormatMPEG4AAC (a four-character code as a
// number), AVSampleRateKey, AVNumberOfChannelsKey, optional AVEncoderBitRateKey.
inline constexpr uint32_t kAudioFormatMPEG4AAC = OV_FOURCC('a', 'a', 'c', ' ');
inline constexpr const char* AVEncoderBitRateKey = "AVEncoderBitRateKey";
inline constexpr const char* AVChannelLayoutKey = "AVChannelLayoutKey";
// Video.
inline constexpr const char* AVVideoCodecKey = "AVVideoCodecKey";
inline constexpr const char* AVVideoCodecTypeH264 = "avc1";
inline constexpr const char* AVVideoCodecTypeHEVC = "hvc1";
inline constexpr const char* AVVideoWidthKey = "AVVideoWidthKey";
inline constexpr const char* AVVideoHeightKey = "AVVideoHeightKey";
inline constexpr const char* AVVideoColorPropertiesKey = "AVVideoColorPropertiesKey";
inline constexpr const char* AVVideoColorPrimariesKey = "ColorPrimaries";
inline constexpr const char* AVVideoTransferFunctionKey = "TransferFunction";
inline constexpr const char* AVVideoYCbCrMatrixKey = "YCbCrMatrix";
inline constexpr const char* AVVideoColorPrimaries_ITU_R_709_2 = "ITU_R_709_2";
inline constexpr const char* AVVideoColorPrimaries_P3_D65 = "P3_D65";
inline constexpr const char* AVVideoTransferFunction_ITU_R_709_2 = "ITU_R_709_2";
inline constexpr const char* kCVImageBufferTransferFunction_sRGB = "IEC_sRGB";
inline constexpr const char* AVVideoYCbCrMatrix_ITU_R_709_2 = "ITU_R_709_2";
inline constexpr const char* AVVideoCompressionPropertiesKey = "AVVideoCompressionPropertiesKey";
inline constexpr const char* AVVideoAverageBitRateKey = "AverageBitRate";
inline constexpr const char* AVVideoProfileLevelKey = "ProfileLevel";
inline constexpr const char* kVTProfileLevel_HEVC_Main_AutoLevel = "HEVC_Main_AutoLevel";
inline constexpr const char* kVTProfileLevel_HEVC_Main10_AutoLevel = "HEVC_Main10_AutoLevel";
inline constexpr const char* AVVideoAllowFrameReorderingKey = "AllowFrameReordering";
// Seconds between key frames, at most.
inline constexpr const char* AVVideoMaxKeyFrameIntervalDurationKey = "MaxKeyFrameIntervalDuration";
// Frames between key frames, at most.
inline constexpr const char* AVVideoMaxKeyFrameIntervalKey = "MaxKeyFrameInterval";
inline constexpr const char* AVVideoExpectedSourceFrameRateKey = "ExpectedFrameRate";

enum class AVFileType { mov, mp4, m4a };
inline constexpr AVFileType AVFileTypeQuickTimeMovie = AVFileType::mov;
inline constexpr AVFileType AVFileTypeMPEG4 = AVFileType::mp4;
inline constexpr AVFileType AVFileTypeAppleM4A = AVFileType::m4a;

// Content types a segment-producing writer can make.
enum class UTType { mpeg4Movie };

enum class AVFileTypeProfile { none, mpeg4AppleHLS };
inline constexpr AVFileTypeProfile AVFileTypeProfileMPEG4AppleHLS = AVFileTypeProfile::mpeg4AppleHLS;

enum class AVAssetWriterStatus { unknown = 0, writing = 1, completed = 2, failed = 3, cancelled = 4 };

enum class AVAssetSegmentType : int { initialization = 1, separable = 2 };

struct AVAssetSegmentTrackReport {
    AVMediaType mediaType = AVMediaType::video;
    // In the source time of the session.
    CMTime earliestPresentationTimeStamp;
    CMTime duration;
};

struct AVAssetSegmentReport {
    AVAssetSegmentType segmentType = AVAssetSegmentType::separable;
    std::vector<AVAssetSegmentTrackReport> trackReports;
    std::string debugDescription() const;
};

class AVAssetWriter;

class AVAssetWriterDelegate {
public:
    virtual ~AVAssetWriterDelegate() = default;
    // One call per finished segment, in order, never two at once for one
    // writer; on a thread of the writer. The report is null for
    // initialization segments. The writer must not be called back from here.
    // An exception thrown here (a segment that could not be stored) fails the
    // writer with that error, as a failed write of a file would.
    virtual void didOutputSegmentData(AVAssetWriter& writer, std::shared_ptr<const std::vector<uint8_t>> segmentData,
                                      AVAssetSegmentType segmentType, const AVAssetSegmentReport* segmentReport) = 0;
};

class AVAssetWriterInput : public std::enable_shared_from_this<AVAssetWriterInput> {
public:
    // Throws std::invalid_argument for settings the writer can't encode
    // (codec other than H.264/HEVC or AAC, missing or odd video dimensions).
    static std::shared_ptr<AVAssetWriterInput> make(AVMediaType mediaType, AVSettingsDictionary outputSettings);
    ~AVAssetWriterInput();

    AVMediaType mediaType() const { return mediaType_; }
    const AVSettingsDictionary& outputSettings() const { return outputSettings_; }

    // Real-time inputs refuse samples while their queue is full; offline
    // inputs make append() wait for room. Set before the writer starts.
    bool expectsMediaDataInRealTime() const { return realTime_; }
    void setExpectsMediaDataInRealTime(bool realTime) { realTime_ = realTime; }

    // True while writing and the encoder queue has room.
    bool isReadyForMoreMediaData() const;
    // Queues a sample for encoding. False when the writer is not writing, the
    // input is finished, the sample is of the wrong kind, or (real time) the
    // queue is full.
    bool append(const CMSampleBuffer& sampleBuffer);
    // No more samples; the encoder drains what is queued.
    void markAsFinished();

    struct Impl;

private:
    friend class AVAssetWriter;
    AVAssetWriterInput(AVMediaType mediaType, AVSettingsDictionary outputSettings);

    AVMediaType mediaType_;
    AVSettingsDictionary outputSettings_;
    bool realTime_ = false;
    std::unique_ptr<Impl> impl_;
};

class AVAssetWriter : public std::enable_shared_from_this<AVAssetWriter> {
public:
    // A writer of one file. Throws a PlatformError when the URL is not a
    // file path or a file already exists there.
    static std::shared_ptr<AVAssetWriter> make(const std::string& url, AVFileType fileType);
    // A writer that hands segments to its delegate and writes no file.
    static std::shared_ptr<AVAssetWriter> make(UTType contentType);
    ~AVAssetWriter();

    // The file's URL ("file:///..."), empty for a segment writer.
    const std::string& outputURL() const { return outputURL_; }
    // The file's path, empty for a segment writer.
    const std::string& outputPath() const { return outputPath_; }
    std::optional<AVFileType> outputFileType() const { return fileType_; }

    // ---- Segment output; set before startWriting().
    AVFileTypeProfile outputFileTypeProfile() const;
    void setOutputFileTypeProfile(AVFileTypeProfile profile);
    CMTime preferredOutputSegmentInterval() const;
    void setPreferredOutputSegmentInterval(const CMTime& interval);
    CMTime initialSegmentStartTime() const;
    void setInitialSegmentStartTime(const CMTime& time);
    std::shared_ptr<AVAssetWriterDelegate> delegate() const;
    // Held weakly.
    void setDelegate(std::weak_ptr<AVAssetWriterDelegate> delegate);

    // ---- Inputs; only before startWriting().
    bool canAdd(const std::shared_ptr<AVAssetWriterInput>& input) const;
    // Throws std::logic_error when canAdd is false.
    void add(std::shared_ptr<AVAssetWriterInput> input);
    std::vector<std::shared_ptr<AVAssetWriterInput>> inputs() const;

    // Opens the encoders and the output. False (with error() set) on failure.
    // Throws std::logic_error when called twice.
    bool startWriting();
    // Source time that becomes time zero of the output; samples before it are
    // dropped (audio trimmed to the sample). Throws std::logic_error unless
    // writing and not yet started.
    void startSession(const CMTime& sourceTime);
    // Samples after this time are dropped (audio trimmed to the sample).
    void endSession(const CMTime& sourceTime);
    // Finishes every input, drains the encoders, completes the output and then
    // calls `completion` on a thread of the writer. status() tells the result.
    void finishWriting(std::function<void()> completion);
    // Stops, leaving what was written so far; status() becomes cancelled.
    void cancelWriting();

    AVAssetWriterStatus status() const;
    // The failure, or null.
    std::exception_ptr error() const;
    // Observes "status" and "error".
    KeyValueObservation observe(std::vector<std::string> keys, std::function<void(const std::string& key)> callback) {
        return observers_.observe(std::move(keys), std::move(callback));
    }

    // ---- Guarded calls: any exception of the call comes out as a
    // PlatformError whose domain is the exception's type name, code 0, and
    // whose texts are its message.
    bool safe_startWriting();
    void safe_endSession(const CMTime& sourceTime);
    // Returns when the completion has run.
    void safe_finishWriting();

    struct Impl;

private:
    friend class AVAssetWriterInput;
    AVAssetWriter() = default;
    void fail(std::exception_ptr error);
    // Points the encoder's core back at this writer and its observers.
    void wireCore();

    std::string outputURL_;
    std::string outputPath_;
    std::optional<AVFileType> fileType_;
    KeyValueObservable observers_;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ov::platform
