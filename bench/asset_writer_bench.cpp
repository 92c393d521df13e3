// 1080p30 screen-like BGRA frames through the writer (H.264, the recorders'
// preset), beside the ffmpeg command line encoding the same raw frames with the
// same encoder and preset. Counters: frames per second of wall time, and CPU
// seconds spent per second of recording (below 1 on the machine's cores means
// real time; lower leaves room for capture).
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/av_asset_writer.h"
#include "platform/cv_pixel_buffer.h"

using namespace ov::platform;

namespace {

constexpr int kWidth = 1920, kHeight = 1080, kFrames = 90, kDistinct = 10;

// A desktop-like picture: flat areas, text-like stripes, one moving block.
std::shared_ptr<CVPixelBuffer> screenFrame(int index) {
    auto image = CVPixelBuffer::make(kWidth, kHeight, kCVPixelFormatType_32BGRA);
    for (int y = 0; y < kHeight; ++y) {
        uint8_t* row = image->baseAddress() + size_t(y) * image->bytesPerRow();
        for (int x = 0; x < kWidth; ++x) {
            const bool text = (y / 14) % 3 == 0 && (x / 7 + y / 14) % 5 != 0 && x > 200 && x < 1400;
            const bool block = x >= 400 + index * 20 && x < 600 + index * 20 && y >= 500 && y < 700;
            const uint8_t v = block ? 40 : text ? 30 : 235;
            row[x * 4 + 0] = v;
            row[x * 4 + 1] = v;
            row[x * 4 + 2] = block ? 200 : v;
            row[x * 4 + 3] = 255;
        }
    }
    return image;
}

double cpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void BM_WriterH264_1080p30(benchmark::State& state) {
    std::vector<std::shared_ptr<CVPixelBuffer>> frames;
    for (int i = 0; i < kDistinct; ++i) frames.push_back(screenFrame(i));
    const auto path = std::filesystem::temp_directory_path() / "orvane-bench-writer.mov";
    double wall = 0, cpu = 0;
    for (auto _ : state) {
        std::filesystem::remove(path);
        const double cpuBefore = cpuSeconds(RUSAGE_SELF);
        const auto begin = std::chrono::steady_clock::now();
        auto writer = AVAssetWriter::make(path.string(), AVFileType::mov);
        auto input = AVAssetWriterInput::make(AVMediaType::video, {{AVVideoCodecKey, AVVideoCodecTypeH264},
                                                                    {AVVideoWidthKey, kWidth},
                                                                    {AVVideoHeightKey, kHeight}});
        writer->add(input);
        writer->startWriting();
        writer->startSession(kCMTimeZero);
        for (int f = 0; f < kFrames; ++f)
            input->append(CMSampleBuffer::makeForImageBuffer(
                frames[size_t(f % kDistinct)], CMSampleTimingInfo{CMTime(1, 30), CMTime(f, 30), kCMTimeInvalid}));
        writer->endSession(CMTime(kFrames, 30));
        writer->safe_finishWriting();
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        cpu += cpuSeconds(RUSAGE_SELF) - cpuBefore;
    }
    const double recorded = double(kFrames) / 30 * double(state.iterations());
    state.counters["fps"] = double(kFrames) * double(state.iterations()) / wall;
    state.counters["cpu_s_per_recorded_s"] = cpu / recorded;
    std::filesystem::remove(path);
}
BENCHMARK(BM_WriterH264_1080p30)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

void BM_FfmpegCliH264_1080p30(benchmark::State& state) {
    const auto raw = std::filesystem::temp_directory_path() / "orvane-bench-frames.bgra";
    const auto out = std::filesystem::temp_directory_path() / "orvane-bench-ffmpeg.mov";
    {
        std::ofstream file(raw, std::ios::binary);
        for (int i = 0; i < kDistinct; ++i) {
            auto image = screenFrame(i);
            for (int y = 0; y < kHeight; ++y)
                file.write(reinterpret_cast<const char*>(image->baseAddress() + size_t(y) * image->bytesPerRow()),
                           kWidth * 4);
        }
    }
    const std::string command = "ffmpeg -v error -y -f rawvideo -pix_fmt bgra -s 1920x1080 -r 30 -stream_loop " +
                                std::to_string(kFrames / kDistinct - 1) + " -i '" + raw.string() +
                                "' -c:v libx264 -preset veryfast -tune zerolatency -bf 0 -pix_fmt yuv420p '" +
                                out.string() + "'";
    double wall = 0, cpu = 0;
    for (auto _ : state) {
        const double cpuBefore = cpuSeconds(RUSAGE_CHILDREN);
        const auto begin = std::chrono::steady_clock::now();
        if (std::system(command.c_str()) != 0) state.SkipWithError("ffmpeg failed");
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        cpu += cpuSeconds(RUSAGE_CHILDREN) - cpuBefore;
    }
    const double recorded = double(kFrames) / 30 * double(state.iterations());
    state.counters["fps"] = double(kFrames) * double(state.iterations()) / wall;
    state.counters["cpu_s_per_recorded_s"] = cpu / recorded;
    std::filesystem::remove(raw);
    std::filesystem::remove(out);
}
BENCHMARK(BM_FfmpegCliH264_1080p30)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
