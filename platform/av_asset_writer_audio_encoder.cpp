#include "platform/av_asset_writer_audio_encoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

#include "platform/av_asset_writer.h"
#include "platform/av_audio_pcm_buffer.h"

namespace ov::platform::writer {
namespace {

AVSampleFormat sampleFormatOf(const AVAudioFormat& format) {
    const bool planar = !format.isInterleaved() && format.channelCount() > 1;
    switch (format.commonFormat()) {
        case AVAudioCommonFormat::pcmFormatFloat32: return planar ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_FLT;
        case AVAudioCommonFormat::pcmFormatFloat64: return planar ? AV_SAMPLE_FMT_DBLP : AV_SAMPLE_FMT_DBL;
        case AVAudioCommonFormat::pcmFormatInt16: return planar ? AV_SAMPLE_FMT_S16P : AV_SAMPLE_FMT_S16;
        case AVAudioCommonFormat::pcmFormatInt32: return planar ? AV_SAMPLE_FMT_S32P : AV_SAMPLE_FMT_S32;
        default: return AV_SAMPLE_FMT_NONE;
    }
}

}  // namespace

AudioEncoder::AudioEncoder(const AVSettingsDictionary& settings, bool globalHeader) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec) fail("No AAC encoder");
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    auto* enc = encoder_ = avcodec_alloc_context3(codec);
    if (!packet_ || !frame_ || !enc) fail("Can't allocate the audio encoder");
    enc->sample_rate = setting<int>(settings, AVSampleRateKey, 48000);
    const int channels = std::max(1, setting<int>(settings, AVNumberOfChannelsKey, 1));
    av_channel_layout_default(&enc->ch_layout, channels);
    enc->sample_fmt = AV_SAMPLE_FMT_FLTP;
    enc->bit_rate = setting<int64_t>(settings, AVEncoderBitRateKey, 64000 * std::min(channels, 2));
    enc->time_base = AVRational{1, enc->sample_rate};
    enc->profile = FF_PROFILE_AAC_LOW;
    if (globalHeader) enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    check(avcodec_open2(enc, codec, nullptr), "Can't open the AAC encoder");
    fifo_ = av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, channels, enc->frame_size * 4);
    if (!fifo_) fail("Can't allocate the audio queue");
}

AudioEncoder::~AudioEncoder() {
    avcodec_free_context(&encoder_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    swr_free(&resampler_);
    if (fifo_) av_audio_fifo_free(fifo_);
}

int AudioEncoder::sampleRate() const { return encoder_->sample_rate; }

void AudioEncoder::encode(const AVAudioPCMBuffer& pcm, int64_t at, int64_t endSamples, const PacketSink& sink) {
    if (pcm.frameLength() == 0) return;
    convertInto(pcm, at, endSamples);
    encodeQueued(false, sink);
}

void AudioEncoder::convertInto(const AVAudioPCMBuffer& pcm, int64_t at, int64_t endSamples) {
    auto* enc = encoder_;
    const auto& format = pcm.format();
    const AVSampleFormat inputFormat = sampleFormatOf(format);
    if (inputFormat == AV_SAMPLE_FMT_NONE) fail("Unsupported audio sample format");
    const int inputRate = int(std::lround(format.sampleRate()));
    const int inputChannels = int(format.channelCount());
    if (!resampler_ || inputRate_ != inputRate || inputChannels_ != inputChannels || inputFormat_ != inputFormat) {
        swr_free(&resampler_);
        AVChannelLayout inLayout;
        av_channel_layout_default(&inLayout, inputChannels);
        // More input channels than output ones are mixed down by the resampler.
        check(swr_alloc_set_opts2(&resampler_, &enc->ch_layout, AV_SAMPLE_FMT_FLTP, enc->sample_rate, &inLayout,
                                  inputFormat, inputRate, 0, nullptr),
              "Can't convert the audio");
        check(swr_init(resampler_), "Can't convert the audio");
        inputRate_ = inputRate;
        inputChannels_ = inputChannels;
        inputFormat_ = inputFormat;
    }
    const int64_t inputFrames = pcm.frameLength();
    const uint8_t* inputs[AV_NUM_DATA_POINTERS] = {};
    for (uint32_t b = 0; b < format.bufferCount() && b < AV_NUM_DATA_POINTERS; ++b) inputs[b] = pcm.bufferData(b);
    const int capacity = swr_get_out_samples(resampler_, int(inputFrames)) + 16;
    AVFrame* converted = av_frame_alloc();
    if (!converted) fail("Can't allocate audio");
    struct Free {
        AVFrame* f;
        ~Free() { av_frame_free(&f); }
    } freeConverted{converted};
    converted->format = AV_SAMPLE_FMT_FLTP;
    converted->nb_samples = capacity;
    av_channel_layout_copy(&converted->ch_layout, &enc->ch_layout);
    check(av_frame_get_buffer(converted, 0), "Can't allocate audio");
    const int produced = swr_convert(resampler_, converted->data, capacity, inputs, int(inputFrames));
    check(produced, "Can't convert the audio");
    int skip = 0;
    if (!started_) {
        // Audio that starts after the session starts is preceded by
        // silence, and audio before it is cut: both tracks start together.
        started_ = true;
        if (at > 0) writeSilence(at);
        if (at < 0) skip = int(std::min<int64_t>(-at, produced));
    }
    int count = produced - skip;
    if (samplesQueued_ + count > endSamples) count = int(std::max<int64_t>(0, endSamples - samplesQueued_));
    if (count <= 0) return;
    void* planes[AV_NUM_DATA_POINTERS] = {};
    for (int c = 0; c < enc->ch_layout.nb_channels; ++c) planes[c] = converted->data[c] + size_t(skip) * sizeof(float);
    av_audio_fifo_write(fifo_, planes, count);
    samplesQueued_ += count;
}

void AudioEncoder::writeSilence(int64_t samples) {
    const int channels = encoder_->ch_layout.nb_channels;
    std::vector<float> zeros(size_t(std::min<int64_t>(samples, 48000)), 0.0f);
    std::vector<void*> planes(size_t(channels), zeros.data());
    while (samples > 0) {
        const int n = int(std::min<int64_t>(samples, int64_t(zeros.size())));
        av_audio_fifo_write(fifo_, planes.data(), n);
        samplesQueued_ += n;
        samples -= n;
    }
}

void AudioEncoder::encodeQueued(bool all, const PacketSink& sink) {
    auto* enc = encoder_;
    const int frameSize = enc->frame_size;
    while (av_audio_fifo_size(fifo_) >= frameSize || (all && av_audio_fifo_size(fifo_) > 0)) {
        const int n = std::min(frameSize, av_audio_fifo_size(fifo_));
        AVFrame* frame = frame_;
        av_frame_unref(frame);
        frame->format = AV_SAMPLE_FMT_FLTP;
        frame->nb_samples = n;
        frame->sample_rate = enc->sample_rate;
        av_channel_layout_copy(&frame->ch_layout, &enc->ch_layout);
        check(av_frame_get_buffer(frame, 0), "Can't allocate audio");
        av_audio_fifo_read(fifo_, reinterpret_cast<void**>(frame->data), n);
        frame->pts = samplesEncoded_;
        samplesEncoded_ += n;
        check(avcodec_send_frame(enc, frame), "Can't encode audio");
        receivePackets(enc, packet_, sink);
    }
}

void AudioEncoder::flush(const PacketSink& sink) {
    encodeQueued(true, sink);
    check(avcodec_send_frame(encoder_, nullptr), "Can't flush the encoder");
    receivePackets(encoder_, packet_, sink);
}

}  // namespace ov::platform::writer
