#pragma once
// AVAudioPCMBuffer: a mutable block of PCM frames in one AVAudioFormat, with a
// capacity fixed at creation and a length (the frames that hold audio) that
// its user sets. A new buffer is silent.
//
// Typed channel data is offered for the sample type of the format only, as
// one pointer per buffer: per channel when non-interleaved, a single pointer
// to the interleaved frames otherwise (step through it with stride()). The
// other accessors give null, which is how callers tell the sample type.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/av_audio_format.h"
#include "platform/core_audio_types.h"

namespace ov::platform {

class AVAudioPCMBuffer {
public:
    // Null when the capacity is zero or the buffer would not fit in memory.
    static std::shared_ptr<AVAudioPCMBuffer> make(const AVAudioFormat& format, AVAudioFrameCount frameCapacity);

    AVAudioPCMBuffer(const AVAudioPCMBuffer&) = delete;
    AVAudioPCMBuffer& operator=(const AVAudioPCMBuffer&) = delete;

    const AVAudioFormat& format() const { return format_; }
    AVAudioFrameCount frameCapacity() const { return frameCapacity_; }
    AVAudioFrameCount frameLength() const { return frameLength_; }
    // Throws std::out_of_range beyond the capacity.
    void setFrameLength(AVAudioFrameCount frameLength);

    // Samples between one frame's sample and the next in one buffer.
    size_t stride() const { return format_.isInterleaved() ? format_.channelCount() : 1; }

    float* const* floatChannelData() { return orNull(floatChannels_); }
    const float* const* floatChannelData() const { return orNull(floatChannels_); }
    int16_t* const* int16ChannelData() { return orNull(int16Channels_); }
    const int16_t* const* int16ChannelData() const { return orNull(int16Channels_); }
    int32_t* const* int32ChannelData() { return orNull(int32Channels_); }
    const int32_t* const* int32ChannelData() const { return orNull(int32Channels_); }

    // The data as the platform's buffer list; each buffer's byte size covers
    // frameLength frames.
    const AudioBufferList* audioBufferList() const { return list(); }
    AudioBufferList* mutableAudioBufferList() { return list(); }
    // The raw bytes of buffer `index`, the whole capacity.
    uint8_t* bufferData(size_t index) { return buffers_.at(index); }
    const uint8_t* bufferData(size_t index) const { return buffers_.at(index); }

    // A copy holding frames [start, start + count) of this buffer's length, in the
    // same format. Null when the range is empty or outside the length.
    std::shared_ptr<AVAudioPCMBuffer> copyFrames(AVAudioFrameCount start, AVAudioFrameCount count) const;

private:
    AVAudioPCMBuffer(const AVAudioFormat& format, AVAudioFrameCount capacity);

    template <class T>
    static T* const* orNull(const std::vector<T*>& pointers) {
        return pointers.empty() ? nullptr : pointers.data();
    }
    AudioBufferList* list() const { return reinterpret_cast<AudioBufferList*>(listStorage_.get()); }
    void updateByteSizes();

    AVAudioFormat format_;
    AVAudioFrameCount frameCapacity_;
    AVAudioFrameCount frameLength_ = 0;
    std::unique_ptr<uint8_t[]> storage_;
    std::vector<uint8_t*> buffers_;
    // Typed views of buffers_; only the one of the format's sample type is filled.
    std::vector<float*> floatChannels_;
    std::vector<int16_t*> int16Channels_;
    std::vector<int32_t*> int32Channels_;
    std::unique_ptr<std::byte[]> listStorage_;
};

using AVAudioPCMBufferRef = std::shared_ptr<AVAudioPCMBuffer>;

}  // namespace ov::platform
