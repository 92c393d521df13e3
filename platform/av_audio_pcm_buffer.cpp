#include "platform/av_audio_pcm_buffer.h"

#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace ov::platform {

namespace {

// A buffer larger than this is a mistake of its maker, not audio.
constexpr uint64_t kMaxBytes = uint64_t{1} << 32;

// Each channel's buffer starts on a cache line of its own.
constexpr size_t kBufferAlignment = 64;

size_t alignUp(size_t n) { return (n + kBufferAlignment - 1) / kBufferAlignment * kBufferAlignment; }

}  // namespace

std::shared_ptr<AVAudioPCMBuffer> AVAudioPCMBuffer::make(const AVAudioFormat& format, AVAudioFrameCount frameCapacity) {
    if (frameCapacity == 0 || format.bytesPerFrame() == 0) return nullptr;
    const uint64_t bytes = uint64_t{frameCapacity} * format.bytesPerFrame() * format.bufferCount();
    if (bytes > kMaxBytes) return nullptr;
    try {
        return std::shared_ptr<AVAudioPCMBuffer>(new AVAudioPCMBuffer(format, frameCapacity));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

AVAudioPCMBuffer::AVAudioPCMBuffer(const AVAudioFormat& format, AVAudioFrameCount capacity)
    : format_(format), frameCapacity_(capacity) {
    const size_t count = format_.bufferCount();
    const size_t bufferBytes = alignUp(size_t{capacity} * format_.bytesPerFrame());
    // Zero-filled: a new buffer is silence for every signed and float format.
    storage_.reset(new uint8_t[bufferBytes * count + kBufferAlignment]());
    auto base = reinterpret_cast<uintptr_t>(storage_.get());
    auto aligned = reinterpret_cast<uint8_t*>((base + kBufferAlignment - 1) / kBufferAlignment * kBufferAlignment);
    for (size_t i = 0; i < count; ++i) {
        uint8_t* data = aligned + i * bufferBytes;
        buffers_.push_back(data);
        switch (format_.commonFormat()) {
            case AVAudioCommonFormat::pcmFormatFloat32: floatChannels_.push_back(reinterpret_cast<float*>(data)); break;
            case AVAudioCommonFormat::pcmFormatInt16: int16Channels_.push_back(reinterpret_cast<int16_t*>(data)); break;
            case AVAudioCommonFormat::pcmFormatInt32: int32Channels_.push_back(reinterpret_cast<int32_t*>(data)); break;
            default: break;
        }
    }

    listStorage_.reset(new std::byte[AudioBufferListSize(count)]());
    AudioBufferList* l = list();
    l->mNumberBuffers = static_cast<uint32_t>(count);
    for (size_t i = 0; i < count; ++i) {
        l->mBuffers[i].mNumberChannels = format_.isInterleaved() ? format_.channelCount() : 1;
        l->mBuffers[i].mData = buffers_[i];
    }
    updateByteSizes();
}

void AVAudioPCMBuffer::setFrameLength(AVAudioFrameCount frameLength) {
    if (frameLength > frameCapacity_)
        throw std::out_of_range("AVAudioPCMBuffer frameLength " + std::to_string(frameLength) +
                                " exceeds frameCapacity " + std::to_string(frameCapacity_));
    frameLength_ = frameLength;
    updateByteSizes();
}

void AVAudioPCMBuffer::updateByteSizes() {
    AudioBufferList* l = list();
    for (uint32_t i = 0; i < l->mNumberBuffers; ++i) l->mBuffers[i].mDataByteSize = frameLength_ * format_.bytesPerFrame();
}

std::shared_ptr<AVAudioPCMBuffer> AVAudioPCMBuffer::copyFrames(AVAudioFrameCount start, AVAudioFrameCount count) const {
    if (count == 0 || start >= frameLength_ || count > frameLength_ - start) return nullptr;
    auto copy = make(format_, count);
    if (!copy) return nullptr;
    const size_t bpf = format_.bytesPerFrame();
    for (size_t i = 0; i < buffers_.size(); ++i)
        std::memcpy(copy->buffers_[i], buffers_[i] + size_t{start} * bpf, size_t{count} * bpf);
    copy->setFrameLength(count);
    return copy;
}

}  // namespace ov::platform
