// What a synthetic picture and a synthetic audio buffer cost to make, so that
// one knows which worlds the backend can deliver in real time on a test
// machine (a 1080p display at 30 fps needs a frame in well under 33 ms).

#include <benchmark/benchmark.h>

#include "platform/cm_sample_buffer.h"
#include "platform/synthetic/synthetic_pattern.h"

namespace {

using namespace ov::platform;

void BM_DrawPattern(benchmark::State& state, OSType format) {
    const auto width = static_cast<size_t>(state.range(0));
    const auto height = static_cast<size_t>(state.range(1));
    uint64_t frame = 0;
    for (auto _ : state) {
        auto picture = CVPixelBuffer::make(width, height, format);
        SyntheticPattern::draw(*picture, frame++);
        benchmark::DoNotOptimize(picture->baseAddress());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_DrawPattern, BGRA, kCVPixelFormatType_32BGRA)
    ->Args({1280, 720})
    ->Args({1920, 1080})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_DrawPattern, NV12, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange)
    ->Args({1280, 720})
    ->Args({1920, 1080})
    ->Unit(benchmark::kMillisecond);

void BM_ToneBuffer(benchmark::State& state) {
    const auto format = *AVAudioFormat::standard(48000, 2);
    const SyntheticTone tone{440, 0.25};
    int64_t first = 0;
    for (auto _ : state) {
        auto pcm = AVAudioPCMBuffer::make(format, 1024);
        pcm->setFrameLength(1024);
        SyntheticPattern::fillTone(*pcm, tone, first);
        first += 1024;
        benchmark::DoNotOptimize(CMSampleBuffer::makeAudio(*pcm, kCMTimeZero));
    }
    state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_ToneBuffer)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
