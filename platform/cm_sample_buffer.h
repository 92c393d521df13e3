#pragma once
// CMSampleBuffer: timed media samples as they travel from a capture source
// through the retimers into the writers.
//
// A sample buffer is a shared, immutable value: copying a CMSampleBuffer
// copies a reference, and every "change" (new timing) makes a new buffer
// that shares the sample data with the old one. So a buffer can sit in a ring
// on one queue while a writer reads it on another without a lock.
//
// What it holds:
//   - timing entries (duration, presentation and decode time): none, one that
//     applies to every sample (audio: one entry with the duration of a single
//     frame), or one per sample;
//   - the number of samples (audio frames; 1 for a picture);
//   - a format description;
//   - the data: audio as one block per buffer of the format (one interleaved
//     buffer, or one per channel), or a picture as a pixel buffer;
//   - attachments: one dictionary per sample ("NotSync", a screen frame's
//     status) and one for the buffer ("DroppedFrameReason").
//
// Failures are platform errors in the domain "NSOSStatusErrorDomain" with the
// platform's sample buffer error codes.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/av_audio_format.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cm_format_description.h"
#include "platform/cm_time.h"
#include "platform/core_audio_types.h"
#include "platform/cv_pixel_buffer.h"
#include "foundation/platform_error.h"

namespace ov::platform {

using CMItemCount = int64_t;
using OSStatus = int32_t;

inline constexpr OSStatus kCMSampleBufferError_AllocationFailed = -12730;
inline constexpr OSStatus kCMSampleBufferError_RequiredParameterMissing = -12731;
inline constexpr OSStatus kCMSampleBufferError_InvalidEntryCount = -12738;
inline constexpr OSStatus kCMSampleBufferError_InvalidMediaTypeForOperation = -12741;
inline constexpr OSStatus kCMSampleBufferError_InvalidSampleData = -12742;
inline constexpr OSStatus kCMSampleBufferError_InvalidMediaFormat = -12743;

struct CMSampleTimingInfo {
    CMTime duration;
    CMTime presentationTimeStamp;
    CMTime decodeTimeStamp;
    bool operator==(const CMSampleTimingInfo&) const = default;
};

// A JSON object: string keys, property-list values (booleans, numbers, text,
// arrays, nested objects such as a rectangle's {"X","Y","Width","Height"}).
using CMAttachmentDictionary = nlohmann::json;

// Per-sample keys.
inline constexpr const char* kCMSampleAttachmentKey_NotSync = "NotSync";
inline constexpr const char* kCMSampleAttachmentKey_DependsOnOthers = "DependsOnOthers";
inline constexpr const char* kCMSampleAttachmentKey_DisplayImmediately = "DisplayImmediately";
// Buffer keys, on buffers that a capture output reports as dropped.
inline constexpr const char* kCMSampleBufferAttachmentKey_DroppedFrameReason = "DroppedFrameReason";
inline constexpr const char* kCMSampleBufferAttachmentKey_DroppedFrameReasonInfo = "DroppedFrameReasonInfo";
inline constexpr const char* kCMSampleBufferDroppedFrameReason_FrameWasLate = "FrameWasLate";
inline constexpr const char* kCMSampleBufferDroppedFrameReason_OutOfBuffers = "OutOfBuffers";
inline constexpr const char* kCMSampleBufferDroppedFrameReason_Discontinuity = "Discontinuity";

// Immutable bytes shared between sample buffers.
using CMBlockBufferRef = std::shared_ptr<const std::vector<uint8_t>>;

// One buffer of audio data: the channels it holds and its bytes.
struct CMAudioBufferData {
    uint32_t numberChannels = 0;
    CMBlockBufferRef data;
};

// A buffer list that points into a sample buffer's blocks; valid while the
// holder lives. The data must not be written through it.
class AudioBufferListHolder {
public:
    const AudioBufferList* get() const { return reinterpret_cast<const AudioBufferList*>(storage_.get()); }
    const AudioBufferList* operator->() const { return get(); }

private:
    friend class CMSampleBuffer;
    std::unique_ptr<std::byte[]> storage_;
    std::vector<CMBlockBufferRef> keepAlive_;
};

class CMSampleBuffer {
public:
    // Everything a sample buffer is made of.
    struct Contents {
        CMFormatDescriptionRef formatDescription;
        CMItemCount numSamples = 0;
        std::vector<CMSampleTimingInfo> timing;
        std::vector<CMAudioBufferData> audioBuffers;
        std::shared_ptr<const CVPixelBuffer> imageBuffer;
        std::vector<CMAttachmentDictionary> sampleAttachments;
        CMAttachmentDictionary attachments = CMAttachmentDictionary::object();
    };

    // An empty handle; isValid() is false and it holds nothing.
    CMSampleBuffer() = default;

    // Checks the contents: timing entries 0, 1 or numSamples; audio data that
    // fits the format's buffers and covers every sample; a picture of the size
    // and pixel format of its description, as the only sample.
    static CMSampleBuffer create(Contents contents);
    // One picture with one timing entry. Without a description, one is made
    // from the pixel buffer.
    static CMSampleBuffer makeForImageBuffer(std::shared_ptr<const CVPixelBuffer> imageBuffer,
                                             const CMSampleTimingInfo& timing,
                                             CMFormatDescriptionRef formatDescription = nullptr);
    // The frames [0, frameLength) of a PCM buffer, copied, starting at
    // `presentationTimeStamp`; one timing entry of one frame's duration
    // (1 / sample rate). Fails for an empty buffer.
    static CMSampleBuffer makeAudio(const AVAudioPCMBuffer& buffer, const CMTime& presentationTimeStamp);
    // Audio delivered by a device or tap, copied: the frames that the first
    // buffer's byte size covers, at the time stamp's host time.
    static CMSampleBuffer from(const AudioBufferList& bufferList, const AudioTimeStamp& timestamp,
                               const AVAudioFormat& format);

    bool isValid() const { return impl_ != nullptr; }
    CMItemCount numSamples() const;
    // The earliest presentation time of the samples; invalid without timing.
    CMTime presentationTimeStamp() const;
    // The first sample's decode time.
    CMTime decodeTimeStamp() const;
    // The sum of the samples' durations (a shared entry counts once per
    // sample); invalid without timing or with an invalid duration.
    CMTime duration() const;
    const std::vector<CMSampleTimingInfo>& sampleTimingInfos() const;
    const CMFormatDescriptionRef& formatDescription() const;

    // Audio data: empty for pictures.
    const std::vector<CMAudioBufferData>& audioBuffers() const;
    AudioBufferListHolder audioBufferList() const;
    // The picture, or null.
    const std::shared_ptr<const CVPixelBuffer>& imageBuffer() const;

    // One dictionary per sample, or none.
    const std::vector<CMAttachmentDictionary>& sampleAttachments() const;
    // The buffer's own attachments (an object, possibly empty).
    const CMAttachmentDictionary& attachments() const;
    // The per-sample "NotSync" of the first sample; a sample without it is a
    // sync sample.
    bool isSync() const;

    // The same data, attachments and description with new timing entries.
    // Throws like create() for a wrong number of entries.
    CMSampleBuffer copyWithNewTiming(std::vector<CMSampleTimingInfo> timing) const;
    // A copy that starts at `presentationTimeStamp` with the same length:
    // timing (first entry's duration, or the buffer's duration without one;
    // the new time; no decode time).
    CMSampleBuffer withTime(const CMTime& presentationTimeStamp) const;

    // A PCM buffer holding a copy of the audio. Throws for buffers that are not
    // linear PCM audio or whose data does not cover the samples.
    std::shared_ptr<AVAudioPCMBuffer> audioPCMBuffer() const;

    // True when both buffers hold the very same data blocks or picture.
    bool sharesDataWith(const CMSampleBuffer& other) const;

    // Two handles of one buffer.
    bool isSameBuffer(const CMSampleBuffer& other) const { return impl_ == other.impl_; }

private:
    using Impl = Contents;
    explicit CMSampleBuffer(std::shared_ptr<const Impl> impl) : impl_(std::move(impl)) {}
    static void validate(const Contents& contents);

    std::shared_ptr<const Impl> impl_;
};

// An error of the sample buffer functions, as the platform reports it.
PlatformError sampleBufferError(OSStatus status, const std::string& debugDescription);

}  // namespace ov::platform
