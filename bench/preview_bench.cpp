// The preview's JPEG work and an MJPEG camera's decoding, beside FFmpeg doing
// the same on the same pictures in the same run.
//
// Encode: a camera-like picture (the synthetic pattern with noise) at 720p and
// 1080p in each pixel format a camera or screen delivers, through our
// TurboJPEG path (quality 80, 4:2:0, video range expanded), and through
// libswscale + libavcodec's MJPEG encoder at a comparable quality. Decode: a
// 4:2:2 camera JPEG to 4:2:0 bi-planar, against libavcodec's MJPEG decoder.
// Counters: milliseconds per picture for each, and ours / FFmpeg.
#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}
#include <turbojpeg.h>

#include <chrono>
#include <random>

#include "platform/jpeg_codec.h"
#include "platform/synthetic/synthetic_pattern.h"

namespace {

using namespace ov::platform;

// The pattern with sensor-like noise: smooth pictures flatter JPEG.
std::shared_ptr<CVPixelBuffer> picture(int width, int height, OSType format) {
    auto nv12 = CVPixelBuffer::make(width, height, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);
    SyntheticPattern::draw(*nv12, 42);
    std::mt19937 random(7);
    std::uniform_int_distribution<int> noise(-6, 6);
    for (size_t plane = 0; plane < 2; ++plane)
        for (size_t row = 0; row < nv12->heightOfPlane(plane); ++row) {
            uint8_t* p = nv12->baseAddressOfPlane(plane) + row * nv12->bytesPerRowOfPlane(plane);
            for (size_t x = 0; x < nv12->widthOfPlane(plane) * (plane ? 2 : 1); ++x)
                p[x] = uint8_t(std::clamp(int(p[x]) + noise(random), 16, 235));
        }
    if (format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange) return nv12;
    auto out = CVPixelBuffer::make(width, height, format);
    for (int row = 0; row < height; ++row) {
        const uint8_t* y = nv12->baseAddressOfPlane(0) + row * nv12->bytesPerRowOfPlane(0);
        const uint8_t* uv = nv12->baseAddressOfPlane(1) + (row / 2) * nv12->bytesPerRowOfPlane(1);
        uint8_t* dst = out->baseAddress() + row * out->bytesPerRow();
        for (int x = 0; x < width; ++x) {
            const int Y = y[x], U = uv[(x / 2) * 2], V = uv[(x / 2) * 2 + 1];
            if (format == kCVPixelFormatType_422YpCbCr8_yuvs) {
                dst[2 * x] = uint8_t(Y);
                dst[2 * x + 1] = uint8_t(x % 2 ? V : U);
            } else {  // BGRA, BT.601 video range
                const double c = 1.164 * (Y - 16), d = U - 128, e = V - 128;
                dst[4 * x + 0] = uint8_t(std::clamp(c + 2.018 * d, 0.0, 255.0));
                dst[4 * x + 1] = uint8_t(std::clamp(c - 0.391 * d - 0.813 * e, 0.0, 255.0));
                dst[4 * x + 2] = uint8_t(std::clamp(c + 1.596 * e, 0.0, 255.0));
                dst[4 * x + 3] = 255;
            }
        }
    }
    return out;
}

AVPixelFormat avFormat(OSType format) {
    switch (format) {
        case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange: return AV_PIX_FMT_NV12;
        case kCVPixelFormatType_422YpCbCr8_yuvs: return AV_PIX_FMT_YUYV422;
        default: return AV_PIX_FMT_BGRA;
    }
}

// libswscale to full-range 4:2:0, then libavcodec's MJPEG encoder.
class FFmpegJPEG {
public:
    FFmpegJPEG(int width, int height, OSType format) {
        const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
        context_ = avcodec_alloc_context3(codec);
        context_->width = width;
        context_->height = height;
        context_->pix_fmt = AV_PIX_FMT_YUVJ420P;
        context_->time_base = {1, 30};
        context_->flags |= AV_CODEC_FLAG_QSCALE;
        avcodec_open2(context_, codec, nullptr);
        frame_ = av_frame_alloc();
        frame_->width = width;
        frame_->height = height;
        frame_->format = AV_PIX_FMT_YUVJ420P;
        frame_->quality = FF_QP2LAMBDA * 4;  // about TurboJPEG's quality 80
        av_frame_get_buffer(frame_, 64);
        scaler_ = sws_getContext(width, height, avFormat(format), width, height, AV_PIX_FMT_YUVJ420P, SWS_POINT,
                                 nullptr, nullptr, nullptr);
        packet_ = av_packet_alloc();
    }
    ~FFmpegJPEG() {
        sws_freeContext(scaler_);
        av_packet_free(&packet_);
        av_frame_free(&frame_);
        avcodec_free_context(&context_);
    }
    size_t encode(const CVPixelBuffer& picture) {
        const uint8_t* planes[2] = {picture.baseAddressOfPlane(0),
                                    picture.isPlanar() ? picture.baseAddressOfPlane(1) : nullptr};
        const int strides[2] = {int(picture.bytesPerRowOfPlane(0)), picture.isPlanar() ? int(picture.bytesPerRowOfPlane(1)) : 0};
        sws_scale(scaler_, planes, strides, 0, int(picture.height()), frame_->data, frame_->linesize);
        frame_->pts = pts_++;
        avcodec_send_frame(context_, frame_);
        size_t size = 0;
        while (avcodec_receive_packet(context_, packet_) == 0) {
            size += size_t(packet_->size);
            av_packet_unref(packet_);
        }
        return size;
    }

private:
    AVCodecContext* context_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    SwsContext* scaler_ = nullptr;
    int64_t pts_ = 0;
};

template <class F>
double millisecondsPer(int count, F&& body) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i) body();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count() / count;
}

void BM_PreviewEncode(benchmark::State& state, OSType format) {
    const int height = int(state.range(0));
    const int width = height * 16 / 9;
    auto source = picture(width, height, format);
    JPEGEncoder encoder(80);
    FFmpegJPEG peer(width, height, format);
    std::vector<uint8_t> jpeg;
    double ours = 0, theirs = 0;
    size_t bytes = 0;
    for (auto _ : state) {
        ours += millisecondsPer(10, [&] { encoder.encode(*source, jpeg); });
        bytes = jpeg.size();
        theirs += millisecondsPer(10, [&] { benchmark::DoNotOptimize(peer.encode(*source)); });
    }
    const double n = double(state.iterations());
    state.counters["ours_ms"] = ours / n;
    state.counters["ffmpeg_ms"] = theirs / n;
    state.counters["ratio"] = ours / theirs;
    state.counters["jpeg_KiB"] = double(bytes) / 1024;
}
BENCHMARK_CAPTURE(BM_PreviewEncode, NV12, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange)->Arg(720)->Arg(1080)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PreviewEncode, YUYV, kCVPixelFormatType_422YpCbCr8_yuvs)->Arg(720)->Arg(1080)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PreviewEncode, BGRA, kCVPixelFormatType_32BGRA)->Arg(720)->Arg(1080)->Iterations(3)->Unit(benchmark::kMillisecond);

// A UVC camera's MJPEG frame: 4:2:2, decoded to what the recorder takes.
void BM_MJPEGDecode(benchmark::State& state) {
    const int height = int(state.range(0));
    const int width = height * 16 / 9;
    auto bgra = picture(width, height, kCVPixelFormatType_32BGRA);
    tjhandle handle = tjInitCompress();
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    tjCompress2(handle, bgra->baseAddress(), width, int(bgra->bytesPerRow()), height, TJPF_BGRA, &jpeg, &size, TJSAMP_422,
                85, 0);
    tjDestroy(handle);

    JPEGDecoder decoder;
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
    AVCodecContext* context = avcodec_alloc_context3(codec);
    avcodec_open2(context, codec, nullptr);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    double ours = 0, theirs = 0;
    for (auto _ : state) {
        ours += millisecondsPer(10, [&] { benchmark::DoNotOptimize(decoder.decode(jpeg, size)); });
        theirs += millisecondsPer(10, [&] {
            packet->data = jpeg;
            packet->size = int(size);
            avcodec_send_packet(context, packet);
            while (avcodec_receive_frame(context, frame) == 0) av_frame_unref(frame);
        });
    }
    const double n = double(state.iterations());
    state.counters["ours_ms"] = ours / n;
    state.counters["ffmpeg_ms"] = theirs / n;
    state.counters["ratio"] = ours / theirs;
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&context);
    tjFree(jpeg);
}
BENCHMARK(BM_MJPEGDecode)->Arg(720)->Arg(1080)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
