// What the screen recorder costs: a synthetic 1080p30 display through
// ScreenRecorder into one file for 10 s, beside the bare writer encoding 1080p30
// screen-like frames with the same encoder (the writer bench's case, repeated
// here so that both run on the same machine in the same run). Counters: CPU
// seconds per recorded second, frames the writer input dropped, screen samples
// the stream dropped, peak RSS; the writer case prints the ratio of the two costs.
// The recorder's figure includes drawing the synthetic pictures (about 3 ms a
// frame, see synthetic_capture_bench.cpp), which a real backend doesn't pay.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/av_asset_writer.h"
#include "platform/capture_platform.h"
#include "platform/cv_pixel_buffer.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "session/recorder_assembly.h"
#include "timing/stable_recording_timeline.h"
#include "timing/volatile_recording_timeline.h"
#include "video/screen_recorder.h"

using namespace ov;
using namespace ov::platform;

namespace {

constexpr int kWidth = 1920, kHeight = 1080, kFrames = 90, kDistinct = 10;
constexpr double kRecordSeconds = 10;
double recorderCpuPerSecond = 0;

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double peakRSSMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024;
}

void BM_ScreenRecorder_1080p30(benchmark::State& state) {
    SyntheticWorld world;
    world.displays.push_back(SyntheticDisplay{});
    auto platform = std::make_shared<SyntheticCapturePlatform>(world);
    CapturePlatform::ScopedOverride installed(platform);
    const auto dir = std::filesystem::temp_directory_path() / "orvane-bench-screen";
    double cpu = 0, recorded = 0;
    uint64_t dropped = 0, streamDropped = 0, frames = 0;
    for (auto _ : state) {
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        auto live = std::make_shared<VolatileRecordingTimeline>();
        RecorderAssemblyContext context;
        context.bundleURL = dir;
        context.recordingTimeline = std::make_shared<StableRecordingTimeline>(live);
        context.logger = Logger("Bench", std::nullopt, {}, OVLogger::create(false));
        context.onAbort = [&state](AbortSignal) { state.SkipWithError("the recording aborted"); };
        DisplaySchemaItem item;
        item.id = "bench";
        item.displayID = 1;
        item.outputOptions = ScreenRecordingOutputOptions::singleFile("screen.mov", OVVideoCodec::h264);
        auto recorders = makeScreenRecorders(item, context);
        auto recorder = std::dynamic_pointer_cast<ScreenRecorder>(recorders.at(0));
        recorder->prepare();
        const double before = cpuSeconds();
        const double from = hostTimeNow().seconds();
        live->start(from);
        std::this_thread::sleep_for(std::chrono::duration<double>(kRecordSeconds));
        const double until = hostTimeNow().seconds();
        live->stop(until);
        recorder->finish();
        cpu += cpuSeconds() - before;
        recorded += until - from;
        dropped += recorder->droppedVideoFrames();
        frames += recorder->appendedVideoFrames();
        streamDropped += recorder->stream()->droppedScreenSamples();
    }
    std::filesystem::remove_all(dir);
    recorderCpuPerSecond = cpu / recorded;
    state.counters["cpu_s_per_recorded_s"] = recorderCpuPerSecond;
    state.counters["frames_written"] = double(frames);
    state.counters["frames_dropped_by_input"] = double(dropped);
    state.counters["samples_dropped_by_stream"] = double(streamDropped);
    state.counters["peak_rss_mb"] = peakRSSMegabytes();
}
BENCHMARK(BM_ScreenRecorder_1080p30)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

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

void BM_WriterH264_1080p30(benchmark::State& state) {
    std::vector<std::shared_ptr<CVPixelBuffer>> frames;
    for (int i = 0; i < kDistinct; ++i) frames.push_back(screenFrame(i));
    const auto path = std::filesystem::temp_directory_path() / "orvane-bench-screen-writer.mov";
    double cpu = 0;
    for (auto _ : state) {
        std::filesystem::remove(path);
        const double before = cpuSeconds();
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
        cpu += cpuSeconds() - before;
    }
    const double writerCpuPerSecond = cpu / (double(kFrames) / 30 * double(state.iterations()));
    state.counters["cpu_s_per_recorded_s"] = writerCpuPerSecond;
    if (recorderCpuPerSecond > 0) state.counters["recorder_over_writer"] = recorderCpuPerSecond / writerCpuPerSecond;
    std::filesystem::remove(path);
}
BENCHMARK(BM_WriterH264_1080p30)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
