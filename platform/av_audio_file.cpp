#include "platform/av_audio_file.h"

#include <fmt/format.h>

#include <cmath>

#include "foundation/platform_error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace ov::platform {

namespace {

constexpr const char* domain = "Orvane.AVAudioFile";

[[noreturn]] void fail(const std::string& what, int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    throw PlatformError(domain, code, fmt::format("{}: {}", what, text));
}

void check(int code, const std::string& what) {
    if (code < 0) fail(what, code);
}

SwrContext* makeResampler(const AVChannelLayout& inLayout, AVSampleFormat inFormat, int inRate, int outRate) {
    SwrContext* swr = nullptr;
    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    AVChannelLayout input = inLayout;
    check(swr_alloc_set_opts2(&swr, &mono, AV_SAMPLE_FMT_FLT, outRate, &input, inFormat, inRate, 0, nullptr),
          "Can't create audio converter");
    // Averaging, not the downmix matrix's -3 dB per channel: a stereo copy of a
    // mono signal must come back as it was.
    if (inLayout.nb_channels > 1) {
        std::vector<double> matrix(static_cast<size_t>(inLayout.nb_channels), 1.0 / inLayout.nb_channels);
        swr_set_matrix(swr, matrix.data(), 1);
    }
    if (const int code = swr_init(swr); code < 0) {
        swr_free(&swr);
        fail("Can't create audio converter", code);
    }
    return swr;
}

}  // namespace

DecodedMonoAudio readAudioFileAsMonoFloat(const std::filesystem::path& path, double targetSampleRate) {
    struct Resources {
        AVFormatContext* format = nullptr;
        AVCodecContext* codec = nullptr;
        SwrContext* swr = nullptr;
        AVPacket* packet = av_packet_alloc();
        AVFrame* frame = av_frame_alloc();
        ~Resources() {
            av_frame_free(&frame);
            av_packet_free(&packet);
            swr_free(&swr);
            avcodec_free_context(&codec);
            avformat_close_input(&format);
        }
    } r;
    const std::string name = path.filename().string();
    check(avformat_open_input(&r.format, path.c_str(), nullptr, nullptr), "Can't open " + name);
    check(avformat_find_stream_info(r.format, nullptr), "Can't read stream information of " + name);
    const AVCodec* decoder = nullptr;
    const int stream = av_find_best_stream(r.format, AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
    check(stream, "No audio stream in " + name);
    r.codec = avcodec_alloc_context3(decoder);
    if (!r.codec) fail("Can't create decoder for " + name, AVERROR(ENOMEM));
    check(avcodec_parameters_to_context(r.codec, r.format->streams[stream]->codecpar), "Can't set up decoder for " + name);
    check(avcodec_open2(r.codec, decoder, nullptr), "Can't open decoder for " + name);

    DecodedMonoAudio result;
    result.fileSampleRate = r.codec->sample_rate;
    result.fileChannels = r.codec->ch_layout.nb_channels;
    const int outRate = static_cast<int>(std::lround(targetSampleRate));
    const bool direct = r.codec->ch_layout.nb_channels == 1 && r.codec->sample_rate == outRate &&
                        (r.codec->sample_fmt == AV_SAMPLE_FMT_FLT || r.codec->sample_fmt == AV_SAMPLE_FMT_FLTP);
    result.converted = !direct;

    std::vector<float> out;
    auto take = [&](AVFrame* decoded) {
        if (direct) {
            const auto* data = reinterpret_cast<const float*>(decoded->extended_data[0]);
            result.samples.insert(result.samples.end(), data, data + decoded->nb_samples);
            return;
        }
        if (!r.swr)
            r.swr = makeResampler(decoded->ch_layout, static_cast<AVSampleFormat>(decoded->format),
                                  decoded->sample_rate, outRate);
        const int capacity = swr_get_out_samples(r.swr, decoded ? decoded->nb_samples : 0) + 16;
        out.resize(static_cast<size_t>(capacity));
        uint8_t* outData[1] = {reinterpret_cast<uint8_t*>(out.data())};
        const int got = swr_convert(r.swr, outData, capacity,
                                    const_cast<const uint8_t**>(decoded->extended_data), decoded->nb_samples);
        check(got, "Audio conversion failed for " + name);
        result.samples.insert(result.samples.end(), out.begin(), out.begin() + got);
    };
    auto drain = [&] {
        while (true) {
            const int code = avcodec_receive_frame(r.codec, r.frame);
            if (code == AVERROR(EAGAIN) || code == AVERROR_EOF) return;
            check(code, "Can't decode " + name);
            take(r.frame);
            av_frame_unref(r.frame);
        }
    };
    while (true) {
        const int code = av_read_frame(r.format, r.packet);
        if (code == AVERROR_EOF) break;
        check(code, "Can't read " + name);
        if (r.packet->stream_index == stream) {
            const int sent = avcodec_send_packet(r.codec, r.packet);
            av_packet_unref(r.packet);
            if (sent < 0 && sent != AVERROR(EAGAIN)) fail("Can't decode " + name, sent);
            drain();
        } else {
            av_packet_unref(r.packet);
        }
    }
    avcodec_send_packet(r.codec, nullptr);
    drain();
    if (r.swr) {
        const int capacity = swr_get_out_samples(r.swr, 0) + 16;
        out.resize(static_cast<size_t>(capacity));
        uint8_t* outData[1] = {reinterpret_cast<uint8_t*>(out.data())};
        const int got = swr_convert(r.swr, outData, capacity, nullptr, 0);
        check(got, "Audio conversion failed for " + name);
        result.samples.insert(result.samples.end(), out.begin(), out.begin() + got);
    }
    // The encoder's priming lies before time zero and the last packet is padded:
    // keep what plays, from zero for the stream's duration.
    const AVStream* audio = r.format->streams[stream];
    if (audio->start_time != AV_NOPTS_VALUE && audio->start_time < 0) {
        const double priming = -audio->start_time * av_q2d(audio->time_base);
        const auto skip = std::min(result.samples.size(), static_cast<size_t>(std::lround(priming * outRate)));
        result.samples.erase(result.samples.begin(), result.samples.begin() + static_cast<std::ptrdiff_t>(skip));
        if (r.format->duration > 0) {
            const double plays = double(r.format->duration) / AV_TIME_BASE - priming;
            const auto keep = static_cast<size_t>(std::max<long>(0, std::lround(plays * outRate)));
            if (keep < result.samples.size()) result.samples.resize(keep);
        }
    }
    return result;
}

// ---- AVAudioConverter ---------------------------------------------------------------------------

std::unique_ptr<AVAudioConverter> AVAudioConverter::make(double inputRate, double outputRate) {
    if (!(inputRate > 0) || !(outputRate > 0)) return nullptr;
    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    try {
        SwrContext* swr = makeResampler(mono, AV_SAMPLE_FMT_FLT, static_cast<int>(std::lround(inputRate)),
                                        static_cast<int>(std::lround(outputRate)));
        return std::unique_ptr<AVAudioConverter>(new AVAudioConverter(swr, inputRate, outputRate));
    } catch (const PlatformError&) {
        return nullptr;
    }
}

AVAudioConverter::~AVAudioConverter() {
    auto* swr = static_cast<SwrContext*>(context_);
    swr_free(&swr);
}

std::vector<float> AVAudioConverter::convert(const float* samples, size_t count) {
    // Nothing in must never read as the end of the stream.
    if (count == 0 || !samples) return {};
    auto* swr = static_cast<SwrContext*>(context_);
    const int capacity = swr_get_out_samples(swr, static_cast<int>(count)) + 16;
    std::vector<float> out(static_cast<size_t>(capacity));
    uint8_t* outData[1] = {reinterpret_cast<uint8_t*>(out.data())};
    const uint8_t* inData[1] = {reinterpret_cast<const uint8_t*>(samples)};
    const int got = swr_convert(swr, outData, capacity, inData, static_cast<int>(count));
    check(got, "Sample rate conversion failed");
    out.resize(static_cast<size_t>(got));
    return out;
}

std::vector<float> AVAudioConverter::flush() {
    auto* swr = static_cast<SwrContext*>(context_);
    const int capacity = swr_get_out_samples(swr, 0) + 16;
    std::vector<float> out(static_cast<size_t>(capacity));
    uint8_t* outData[1] = {reinterpret_cast<uint8_t*>(out.data())};
    const int got = swr_convert(swr, outData, capacity, nullptr, 0);
    check(got, "Sample rate conversion failed");
    out.resize(static_cast<size_t>(got));
    return out;
}

}  // namespace ov::platform
