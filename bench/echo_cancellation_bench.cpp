// Echo cancellation: the canceller's speed in multiples of real time, the
// delay estimate whole and block-wise (time and peak memory), and the whole
// offline pass on 60 s of files beside ffmpeg decoding and re-encoding the
// same microphone file (the part of the pass that is plain transcoding).
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "../tests/support/speech_signal.h"
#include "audio/echo/echo_cancellation_utilities.h"
#include "audio/echo/webrtc_aec3.h"

namespace {

namespace fs = std::filesystem;
namespace utilities = ov::EchoCancellationUtilities;
constexpr int kRate = 48000;

struct Inputs {
    std::vector<float> far, mic;
    static Inputs make(double seconds, long delay = 2400) {
        Inputs in;
        in.far = ov::testing::speechLike(seconds, kRate, 1, -20);
        in.mic = utilities::applyDelay(in.far, delay, in.far.size());
        const auto near = ov::testing::speechLike(seconds, kRate, 2, -26);
        for (size_t i = 0; i < in.mic.size(); ++i) in.mic[i] = 0.5f * in.mic[i] + (i / kRate % 10 < 3 ? near[i] : 0.0f);
        return in;
    }
};

double peakRssMB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0;
}

void BM_ProcessOffline(benchmark::State& state) {
    const int rate = int(state.range(0));
    auto in = Inputs::make(60.0);
    if (rate != kRate) {
        in.far.resize(in.far.size() * rate / kRate);
        in.mic.resize(in.far.size());
    }
    const double seconds = double(in.mic.size()) / rate;
    for (auto _ : state) benchmark::DoNotOptimize(ov::WebRTCAEC3::processOffline(in.mic, in.far, rate, false, false));
    state.counters["xRealTime"] = benchmark::Counter(seconds * double(state.iterations()), benchmark::Counter::kIsRate);
    state.SetLabel(ov::echoCancelEngineName());
}
BENCHMARK(BM_ProcessOffline)->Arg(48000)->Arg(16000)->Unit(benchmark::kMillisecond)->Iterations(2);

void BM_FindBulkDelay(benchmark::State& state) {
    const double seconds = double(state.range(0));
    const bool blockwise = state.range(1) != 0;
    const auto in = Inputs::make(seconds);
    const double before = peakRssMB();
    long found = 0;
    for (auto _ : state)
        found = blockwise ? utilities::findBulkDelayBlockwise(in.mic, in.far, kRate)
                          : utilities::findBulkDelayWholeFFT(in.mic, in.far, kRate);
    state.counters["lag"] = double(found);
    state.counters["peakRssAddedMB"] = peakRssMB() - before;
    state.SetLabel(blockwise ? "block-wise" : "whole FFT");
}
// Whole-signal FFTs stop at 60 s: at 600 s they need about 1.4 GB.
BENCHMARK(BM_FindBulkDelay)->Args({6, 0})->Args({6, 1})->Args({60, 0})->Args({60, 1})->Args({600, 1})
    ->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_OfflinePassOnFiles(benchmark::State& state) {
    const fs::path dir = fs::temp_directory_path() / ("orvane-ec-bench-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    const auto in = Inputs::make(60.0);
    utilities::writeMonoAudioFile(in.mic, dir / "mic.m4a", kRate);
    utilities::writeMonoAudioFile(in.far, dir / "ref.m4a", kRate);
    double ours = 0, ffmpeg = 0;
    for (auto _ : state) {
        fs::remove(dir / "out.m4a");
        const auto start = std::chrono::steady_clock::now();
        const auto mic = utilities::readAudioFileAsMono(dir / "mic.m4a", kRate);
        const auto ref = utilities::readAudioFileAsMono(dir / "ref.m4a", kRate);
        const long delay = utilities::findBulkDelay(mic, ref, kRate);
        const auto aligned = utilities::applyDelay(ref, delay - ov::WebRTCAEC3::referenceLeadSamples(kRate), mic.size());
        utilities::writeMonoAudioFile(ov::WebRTCAEC3::processOffline(mic, aligned, kRate, false, false), dir / "out.m4a", kRate);
        ours += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

        const auto peerStart = std::chrono::steady_clock::now();
        const int rc = std::system(("ffmpeg -v error -y -threads 1 -i '" + (dir / "mic.m4a").string() +
                                    "' -c:a aac -ac 1 '" + (dir / "peer.m4a").string() + "'").c_str());
        ffmpeg += std::chrono::duration<double>(std::chrono::steady_clock::now() - peerStart).count();
        if (rc != 0) state.SkipWithError("ffmpeg failed");
    }
    const double n = double(state.iterations());
    state.counters["xRealTime"] = 60.0 * n / ours;
    state.counters["ffmpegTranscodeXRealTime"] = 60.0 * n / ffmpeg;
    state.counters["oursOverFfmpeg"] = ours / ffmpeg;
    fs::remove_all(dir);
}
BENCHMARK(BM_OfflinePassOnFiles)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
