// BGRA → limited-range 4:2:0 with the BT.709 matrix of one 1920×1080 frame, the
// writer's conversion of every screen frame: libswscale (the writer's former
// path) beside libyuv (its path now), through the writer's own converter.
// After the Google Benchmark table, one line gives both in ms per frame (wall
// and thread CPU time) and the ratio swscale / libyuv.
#include <benchmark/benchmark.h>

extern "C" {
#include <libavutil/frame.h>
}

#include <time.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "platform/av_asset_writer_pixel_conversion.h"
#include "platform/cv_pixel_buffer.h"

using namespace ov::platform;
using writer::PixelConversionPath;

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

// Desktop-like: flat panels, text-like stripes, a colour gradient.
std::shared_ptr<CVPixelBuffer> frame() {
    auto image = CVPixelBuffer::make(kWidth, kHeight, kCVPixelFormatType_32BGRA);
    for (int y = 0; y < kHeight; ++y) {
        uint8_t* row = image->baseAddress() + size_t(y) * image->bytesPerRow();
        for (int x = 0; x < kWidth; ++x) {
            const bool text = (y / 14) % 3 == 0 && (x / 7 + y / 14) % 5 != 0 && x > 200 && x < 1400;
            const bool gradient = y > 700;
            row[x * 4 + 0] = gradient ? uint8_t(x * 255 / kWidth) : text ? 30 : 235;
            row[x * 4 + 1] = gradient ? uint8_t(y * 255 / kHeight) : text ? 30 : 235;
            row[x * 4 + 2] = gradient ? uint8_t(255 - x * 255 / kWidth) : text ? 30 : 240;
            row[x * 4 + 3] = 255;
        }
    }
    return image;
}

double threadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

struct PerFrame {
    double wallMs = 0, cpuMs = 0;
};
std::map<std::string, PerFrame> results;

void convert(benchmark::State& state, PixelConversionPath path, const char* name) {
    const auto image = frame();
    AVFrame* out = av_frame_alloc();
    out->format = AV_PIX_FMT_YUV420P;
    out->width = kWidth;
    out->height = kHeight;
    av_frame_get_buffer(out, 0);
    writer::PixelConverter converter(path);
    converter.convert(*image, *out);  // set-up outside the timing
    const double cpu0 = threadCpuSeconds();
    const auto wall0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        if (converter.convert(*image, *out) != path) state.SkipWithError("the converter took another path");
        benchmark::DoNotOptimize(out->data[0][0]);
    }
    const double n = double(state.iterations());
    results[name] = {std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - wall0).count() / n,
                     (threadCpuSeconds() - cpu0) * 1000 / n};
    av_frame_free(&out);
}

void BM_BGRAToI420BT709_swscale(benchmark::State& state) { convert(state, PixelConversionPath::swscale, "swscale"); }
void BM_BGRAToI420BT709_libyuv(benchmark::State& state) { convert(state, PixelConversionPath::libyuv, "libyuv"); }

BENCHMARK(BM_BGRAToI420BT709_swscale)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_BGRAToI420BT709_libyuv)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (results.count("swscale") && results.count("libyuv")) {
        const auto& s = results["swscale"];
        const auto& y = results["libyuv"];
        std::printf("1920x1080 BGRA -> I420 BT.709: swscale %.2f ms/frame (cpu %.2f), libyuv %.2f ms/frame (cpu %.2f), "
                    "swscale/libyuv %.1fx (cpu %.1fx)\n",
                    s.wallMs, s.cpuMs, y.wallMs, y.cpuMs, s.wallMs / y.wallMs, s.cpuMs / y.cpuMs);
    }
    return 0;
}
