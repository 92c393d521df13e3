// The cost of one request's round trip through the real orvane-rpc over pipes:
// what every host call pays before any work is done.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace {

struct Rpc {
    pid_t pid = -1;
    int in = -1, out = -1;
    std::string buffer;

    Rpc() {
        int a[2], b[2];
        if (pipe(a) != 0 || pipe(b) != 0) std::abort();
        pid = fork();
        if (pid == 0) {
            dup2(a[0], 0);
            dup2(b[1], 1);
            close(a[1]);
            close(b[0]);
            setenv("ORVANE_PLATFORM", "synthetic", 1);
            setenv("ORVANE_OS_LOG", "off", 1);
            execl(ORVANE_RPC_PATH, ORVANE_RPC_PATH, nullptr);
            _exit(127);
        }
        close(a[0]);
        close(b[1]);
        in = a[1];
        out = b[0];
    }
    ~Rpc() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        close(in);
        close(out);
    }
    void send(const std::string& line) {
        if (write(in, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
    }
    std::string readLine() {
        for (;;) {
            auto nl = buffer.find('\n');
            if (nl != std::string::npos) {
                std::string line = buffer.substr(0, nl);
                buffer.erase(0, nl + 1);
                return line;
            }
            char chunk[4096];
            ssize_t n = read(out, chunk, sizeof chunk);
            if (n <= 0) std::abort();
            buffer.append(chunk, static_cast<size_t>(n));
        }
    }
};

const std::string kPing = R"({"hvrpc":1,"id":"b","procedure":"perform","type":"Echo","action":"ping"})" "\n";

void BM_PingRoundTrip(benchmark::State& state) {
    Rpc rpc;
    std::vector<double> micros;
    micros.reserve(1 << 20);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        rpc.send(kPing);
        benchmark::DoNotOptimize(rpc.readLine());
        micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(micros.begin(), micros.end());
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
    state.counters["requests_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PingRoundTrip)->UseRealTime()->MinTime(2.0);

// Many requests in flight: the reader's throughput when the host pipelines.
void BM_PipelinedPings(benchmark::State& state) {
    Rpc rpc;
    const int batch = 256;
    std::string lines;
    for (int i = 0; i < batch; ++i) lines += kPing;
    for (auto _ : state) {
        rpc.send(lines);
        for (int i = 0; i < batch; ++i) benchmark::DoNotOptimize(rpc.readLine());
    }
    state.counters["requests_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations() * batch), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PipelinedPings)->UseRealTime()->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
