// Side files: how fast events go into a streaming file, and what one commit
// costs as the file grows. Set ORVANE_BENCH_DIR to measure on another file
// system (a reflinking one makes commits nearly independent of size).

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "output/atomic_file_writer.h"
#include "output/streaming_json_writer.h"
#include "output/streaming_log_writer.h"

namespace {

namespace fs = std::filesystem;

class BenchDirectory {
public:
    BenchDirectory() {
        const char* base = std::getenv("ORVANE_BENCH_DIR");
        std::string pattern = ((base ? fs::path(base) : fs::temp_directory_path()) / "orvane-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        path_ = pattern;
    }
    ~BenchDirectory() { fs::remove_all(path_); }
    fs::path operator/(const std::string& name) const { return path_ / name; }

private:
    fs::path path_;
};

ov::Logger quietLogger() { return ov::Logger("Bench", std::nullopt, {}, ov::OVLogger::create(false)); }

// A mouse event of the usual size.
nlohmann::json event(int64_t n) {
    return {{"type", "mouseMoved"}, {"time", {{"seconds", n * 0.004}, {"value", n * 4}, {"timescale", 1000}}},
            {"x", 100 + n % 1000}, {"y", 200 + n % 700}};
}

// Writes alone: the timer never fires during the run.
void BM_StreamingJSONWrite(benchmark::State& state) {
    BenchDirectory dir;
    ov::StreamingJSONWriter writer(dir / "events.json", 3600, quietLogger());
    int64_t n = 0;
    for (auto _ : state) writer.write(event(n++));
    state.SetItemsProcessed(n);
    writer.close();
}
BENCHMARK(BM_StreamingJSONWrite)->UseRealTime();

// Writes with the commit timer running at the usual half second.
void BM_StreamingJSONWriteWithCommits(benchmark::State& state) {
    BenchDirectory dir;
    ov::StreamingJSONWriter writer(dir / "events.json", 0.5, quietLogger());
    int64_t n = 0;
    for (auto _ : state) writer.write(event(n++));
    state.SetItemsProcessed(n);
    writer.close();
}
BENCHMARK(BM_StreamingJSONWriteWithCommits)->MinTime(2.0)->UseRealTime();

void BM_StreamingLogWrite(benchmark::State& state) {
    BenchDirectory dir;
    ov::StreamingLogWriter writer(dir / "orvane.log", 3600, quietLogger());
    ov::OVLogger::LogMessage line{std::chrono::system_clock::now(), ov::OVLogLevel::debug, "ScreenRecorder",
                                  "Appended sample.", {{"time", "CMTime(seconds:1.5 timescale:600 value:900)"}}};
    int64_t n = 0;
    for (auto _ : state) {
        writer.write(line);
        ++n;
    }
    state.SetItemsProcessed(n);
    writer.close();
}
BENCHMARK(BM_StreamingLogWrite)->UseRealTime();

// One commit after a small append, with a hot file of range(0) MiB.
void BM_CommitLargeFile(benchmark::State& state) {
    BenchDirectory dir;
    ov::AtomicFileWriter writer(dir / "large.json");
    const std::string mebibyte(1 << 20, 'x');
    for (int64_t i = 0; i < state.range(0); ++i) writer.fileHandle().write(mebibyte);
    writer.synchronize();
    const std::string delta(100, 'd');
    for (auto _ : state) {
        writer.fileHandle().write(delta);
        writer.synchronize();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0) * (1 << 20));
    writer.close();
}
BENCHMARK(BM_CommitLargeFile)->Arg(0)->Arg(1)->Arg(16)->Arg(64)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
