// The cost of a log call: filtered out (one shared-lock read, nothing built)
// and emitted into the ring of recent lines, the only handler here.

#include <benchmark/benchmark.h>

#include "output/ov_logger.h"

namespace {

ov::Logger makeLogger(const std::shared_ptr<ov::OVLogger>& engine) {
    return ov::Logger("ScreenRecorder", "r1", {}, engine).with("StreamCoordinator", "s1");
}

void BM_FilteredLine(benchmark::State& state) {
    auto engine = ov::OVLogger::create(false);
    auto logger = makeLogger(engine);
    int64_t frame = 0;
    for (auto _ : state) {
        logger.trace([&] { return fmt::format("Frame {} appended.", frame); },
                     [&] { return ov::LogMetadata{{"frame", std::to_string(frame)}}; });
        benchmark::DoNotOptimize(++frame);
    }
}
BENCHMARK(BM_FilteredLine);

void BM_FilteredLineWithCategoryThresholds(benchmark::State& state) {
    auto engine = ov::OVLogger::create(false);
    for (const char* category : {"Conductor", "InputRecorder", "AudioGapFiller", "StreamCoordinator"})
        engine->setLogLevel(ov::OVLogLevel::info, category);
    auto logger = makeLogger(engine);
    for (auto _ : state) logger.debug("Frame appended.");
}
BENCHMARK(BM_FilteredLineWithCategoryThresholds);

void BM_EmittedLineIntoRing(benchmark::State& state) {
    auto engine = ov::OVLogger::create(false);
    auto logger = makeLogger(engine);
    int64_t frame = 0;
    for (auto _ : state) {
        logger.debug("Frame appended.", [&] { return ov::LogMetadata{{"frame", std::to_string(frame)}}; });
        ++frame;
    }
}
BENCHMARK(BM_EmittedLineIntoRing);

void BM_EmittedLineIntoRingFromThreads(benchmark::State& state) {
    // One engine for all threads, made before any of them starts.
    static const auto engine = ov::OVLogger::create(false);
    auto logger = makeLogger(engine);
    for (auto _ : state) logger.debug("Frame appended.");
}
BENCHMARK(BM_EmittedLineIntoRingFromThreads)->Threads(2);

}  // namespace

BENCHMARK_MAIN();
