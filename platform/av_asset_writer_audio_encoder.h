#pragma once
// The writer's audio encoder: AAC-LC at the settings' rate and channels, fed
// from any PCM layout through libswresample. Output times count samples from
// the session start, so the track neither drifts nor gaps: a late first buffer
// is preceded by silence, an early one is cut, and nothing passes the end.
// Encoder thread only.

#include <cstdint>

#include "platform/av_asset_writer_support.h"
#include "platform/av_capture_output.h"

extern "C" {
struct AVAudioFifo;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;
}

namespace ov::platform {
class AVAudioPCMBuffer;
}

namespace ov::platform::writer {

class AudioEncoder {
public:
    // Throws the writer's error when the encoder can't be opened.
    AudioEncoder(const AVSettingsDictionary& settings, bool globalHeader);
    ~AudioEncoder();
    AudioEncoder(const AudioEncoder&) = delete;
    AudioEncoder& operator=(const AudioEncoder&) = delete;

    AVCodecContext* context() const { return encoder_; }
    int sampleRate() const;
    // Packet times count samples.
    int timescale() const { return sampleRate(); }

    // `pcm` belongs `at` output samples after the session start; samples from
    // `endSamples` on are dropped.
    void encode(const AVAudioPCMBuffer& pcm, int64_t at, int64_t endSamples, const PacketSink& sink);
    // No more audio: the last partial frame and the encoder's delayed packets.
    void flush(const PacketSink& sink);

private:
    void convertInto(const AVAudioPCMBuffer& pcm, int64_t at, int64_t endSamples);
    void writeSilence(int64_t samples);
    void encodeQueued(bool all, const PacketSink& sink);

    AVCodecContext* encoder_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    SwrContext* resampler_ = nullptr;
    AVAudioFifo* fifo_ = nullptr;
    // What the resampler was made for.
    int inputRate_ = 0, inputChannels_ = 0, inputFormat_ = -1;
    int64_t samplesQueued_ = 0;   // output samples put into the fifo so far
    int64_t samplesEncoded_ = 0;  // output samples handed to the encoder
    bool started_ = false;
};

}  // namespace ov::platform::writer
