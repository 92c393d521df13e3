// Screen capture on X11, under a private Xvfb with a full-screen window
// redrawn at 30 Hz:
// - one MIT-SHM grab of 1920×1080 plus the copy into a pooled pixel buffer,
//   beside a plain GetImage of the same picture (the path without MIT-SHM);
// - a 10 s recording of the display through orvane-rpc beside ffmpeg's
//   x11grab with libx264 on the same screen: CPU of the recorder plus the X
//   server's, frames, peak RSS; then the same on an idle screen.
// The ratios are printed at the end. Runs without gating.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/linux/x11/x11_connection.h"
#include "platform/linux/x11/x11_content.h"
#include "platform/linux/x11/x11_image.h"

using namespace ov::platform;
using namespace ov::platform::x11;

namespace {

std::map<std::string, double> results;

pid_t spawn(const std::vector<std::string>& argv, int keepFd = -1, int stdinFd = -1, int stdoutFd = -1) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int null = ::open("/dev/null", O_RDWR);
        ::dup2(stdinFd >= 0 ? stdinFd : null, 0);
        ::dup2(stdoutFd >= 0 ? stdoutFd : null, 1);
        if (const char* log = std::getenv("ORVANE_BENCH_CHILD_LOG")) {
            const int file = ::open(log, O_WRONLY | O_CREAT | O_APPEND, 0644);
            ::dup2(file, 2);
        } else {
            ::dup2(null, 2);
        }
        for (int fd = 3; fd < 1024; ++fd)
            if (fd != keepFd) ::close(fd);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

// CPU seconds of a running process, from /proc.
double processCpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    std::getline(in, stat);
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; fields >> field; ++i)
        if (i == 14 || i == 15) ticks += std::stod(field);
    return ticks / double(::sysconf(_SC_CLK_TCK));
}

struct Xvfb {
    pid_t pid = -1;
    int readEnd = -1;
    std::string display;
    Xvfb() {
        int fds[2];
        if (::pipe(fds) != 0) return;
        pid = spawn({"Xvfb", "-displayfd", std::to_string(fds[1]), "-screen", "0", "1920x1080x24", "-nolisten", "tcp",
                     "-noreset"},
                    fds[1]);
        ::close(fds[1]);
        char buffer[32] = {};
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer - 1);
        readEnd = fds[0];  // kept open: the server writes its number again when it resets
        if (n > 0) display = ":" + std::to_string(std::atoi(buffer));
    }
    ~Xvfb() {
        if (pid > 0) {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
        }
    }
};

Xvfb& server() {
    static Xvfb instance;
    return instance;
}

// A full-screen window redrawn at 30 Hz while `busy` is set.
class Painter {
public:
    explicit Painter(const std::string& display) {
        thread_ = std::thread([this, display] {
            xcb_connection_t* c = xcb_connect(display.c_str(), nullptr);
            const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
            const xcb_window_t window = xcb_generate_id(c);
            const uint32_t values[] = {0x202020, 1};
            xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 1920, 1080, 0,
                              XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                              XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
            xcb_map_window(c, window);
            const xcb_gcontext_t gc = xcb_generate_id(c);
            xcb_create_gc(c, gc, window, 0, nullptr);
            auto next = std::chrono::steady_clock::now();
            for (uint32_t frame = 0; !stop_; ++frame) {
                if (busy_) {
                    // Text-like rows over a light page and a moving block, as a screen shows.
                    uint32_t color = 0xe8e8e8;
                    xcb_change_gc(c, gc, XCB_GC_FOREGROUND, &color);
                    const xcb_rectangle_t all{0, 0, 1920, 1080};
                    xcb_poly_fill_rectangle(c, window, gc, 1, &all);
                    color = 0x303030;
                    xcb_change_gc(c, gc, XCB_GC_FOREGROUND, &color);
                    std::vector<xcb_rectangle_t> rows;
                    for (int16_t y = 40; y < 1040; y += 28) rows.push_back({int16_t(200 + (y * 7) % 50), y, 1200, 10});
                    xcb_poly_fill_rectangle(c, window, gc, uint32_t(rows.size()), rows.data());
                    color = 0xc83232;
                    xcb_change_gc(c, gc, XCB_GC_FOREGROUND, &color);
                    const xcb_rectangle_t block{int16_t((frame * 12) % 1600), 500, 200, 200};
                    xcb_poly_fill_rectangle(c, window, gc, 1, &block);
                    xcb_flush(c);
                }
                next += std::chrono::microseconds(33333);
                std::this_thread::sleep_until(next);
            }
            xcb_disconnect(c);
        });
    }
    ~Painter() {
        stop_ = true;
        thread_.join();
    }
    void setBusy(bool busy) { busy_ = busy; }

private:
    std::atomic<bool> stop_{false}, busy_{true};
    std::thread thread_;
};

Painter& painter() {
    static Painter instance(server().display);
    return instance;
}

void grabBenchmark(benchmark::State& state, bool sharedMemory, const char* key) {
    painter().setBusy(true);
    auto connection = X11Connection::open(server().display, 5);
    X11ImageGrabber grabber(connection, sharedMemory);
    PixelBufferPool pool;
    std::vector<double> times;
    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        const uint8_t* pixels = grabber.grab(connection->root(), 0, 0, 1920, 1080, deadlineIn(5));
        auto picture = pool.take(1920, 1080);
        if (!pixels || !picture) {
            state.SkipWithError("grab failed");
            break;
        }
        copyOpaque(pixels, 1920 * 4, 1920, 1080, *picture);
        benchmark::DoNotOptimize(picture->baseAddress());
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
    }
    if (times.empty()) return;
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2];
    state.counters["median_ms"] = median;
    state.counters["p95_ms"] = times[times.size() * 95 / 100];
    state.counters["shm"] = grabber.usesSharedMemory() ? 1 : 0;
    results[key] = median;
}

void BM_X11_ShmGrabCopy_1080p(benchmark::State& state) { grabBenchmark(state, true, "shm_median_ms"); }
BENCHMARK(BM_X11_ShmGrabCopy_1080p)->Iterations(300)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_X11_PlainGetImageCopy_1080p(benchmark::State& state) { grabBenchmark(state, false, "plain_median_ms"); }
BENCHMARK(BM_X11_PlainGetImageCopy_1080p)->Iterations(300)->Unit(benchmark::kMillisecond)->UseRealTime();

struct RunResult {
    double cpu = 0, serverCpu = 0, maxRssMiB = 0;
    int frames = -1;
    std::string error;
};

int countFrames(const std::filesystem::path& file) {
    FILE* pipe = ::popen(("ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets "
                          "-of csv=p=0 '" + file.string() + "' 2>/dev/null").c_str(), "r");
    if (!pipe) return -1;
    char buffer[64] = {};
    const bool ok = std::fgets(buffer, sizeof buffer, pipe) != nullptr;
    ::pclose(pipe);
    return ok ? std::atoi(buffer) : -1;
}

RunResult waitAndMeasure(pid_t pid, double serverBefore) {
    RunResult result;
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    result.cpu = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                 double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    result.maxRssMiB = double(usage.ru_maxrss) / 1024;
    result.serverCpu = processCpuSeconds(server().pid) - serverBefore;
    return result;
}

RunResult runFfmpeg(const std::filesystem::path& out) {
    std::filesystem::remove(out);
    const double serverBefore = processCpuSeconds(server().pid);
    const pid_t pid = spawn({"ffmpeg", "-v", "error", "-y", "-f", "x11grab", "-draw_mouse", "0", "-framerate", "30",
                             "-video_size", "1920x1080", "-i", server().display, "-t", "10", "-c:v", "libx264", "-preset",
                             "veryfast", "-tune", "zerolatency", "-pix_fmt", "yuv420p", out.string()});
    auto result = waitAndMeasure(pid, serverBefore);
    result.frames = countFrames(out);
    return result;
}

// One line out, one line back.
struct Pipes {
    FILE* in = nullptr;
    FILE* out = nullptr;
    nlohmann::json call(const nlohmann::json& message) {
        std::fprintf(in, "%s\n", message.dump().c_str());
        std::fflush(in);
        char line[1 << 16];
        if (!std::fgets(line, sizeof line, out)) return {};
        return nlohmann::json::parse(line, nullptr, false);
    }
};

RunResult runOrvane(const std::filesystem::path& bundle) {
    std::filesystem::remove_all(bundle);
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) return {0, 0, 0, -1, "pipe"};
    ::setenv("DISPLAY", server().display.c_str(), 1);
    ::setenv("ORVANE_PLATFORM", "linux", 1);
    const double serverBefore = processCpuSeconds(server().pid);
    const pid_t pid = spawn({ORVANE_RPC_PATH}, -1, toChild[0], fromChild[1]);
    ::close(toChild[0]);
    ::close(fromChild[1]);
    Pipes pipes{::fdopen(toChild[1], "w"), ::fdopen(fromChild[0], "r")};
    const uint32_t display = displayIDForMonitorName("screen");
    using nlohmann::json;
    std::string error;
    auto r = pipes.call({{"hvrpc", 1}, {"id", "1"}, {"type", "Recorder"}, {"target", "rec"}, {"procedure", "init"},
                         {"params",
                          {{"schema",
                            {{"output_directory", bundle.string()},
                             {"items", json::array({{{"type", "display"}, {"display", display}, {"shows_cursor", false},
                                                     {"filename", "screen.mov"}}})}}},
                           {"onAbortInstance", "abort"}}}});
    if (r["status"] == 200) r = pipes.call({{"hvrpc", 1}, {"id", "2"}, {"target", "rec"}, {"procedure", "perform"},
                                            {"action", "prepare"}});
    if (r["status"] == 200) {
        pipes.call({{"hvrpc", 1}, {"id", "3"}, {"target", "rec"}, {"procedure", "perform"}, {"action", "start"}});
        std::this_thread::sleep_for(std::chrono::seconds(10));
        r = pipes.call({{"hvrpc", 1}, {"id", "4"}, {"target", "rec"}, {"procedure", "perform"}, {"action", "stop"}});
    }
    if (r["status"] != 200) error = r.dump();
    std::fclose(pipes.in);
    std::fclose(pipes.out);
    ::kill(pid, SIGTERM);  // it outlives its input by design
    auto result = waitAndMeasure(pid, serverBefore);
    result.error = error;
    result.frames = countFrames(bundle / "screen.mov");
    return result;
}

void report(benchmark::State& state, const RunResult& r, const std::string& key) {
    state.counters["cpu_s"] = r.cpu;
    state.counters["xvfb_cpu_s"] = r.serverCpu;
    state.counters["frames"] = r.frames;
    state.counters["max_rss_mib"] = r.maxRssMiB;
    results[key + "_cpu"] = r.cpu;
    results[key + "_total_cpu"] = r.cpu + r.serverCpu;
    results[key + "_frames"] = r.frames;
    results[key + "_rss"] = r.maxRssMiB;
}

void recordingBenchmark(benchmark::State& state, bool busy, bool orvane) {
    painter().setBusy(busy);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto dir = std::filesystem::temp_directory_path();
    const std::string key = std::string(orvane ? "orvane" : "ffmpeg") + (busy ? "_busy" : "_idle");
    for (auto _ : state) {
        const auto r = orvane ? runOrvane(dir / "orvane-x11-bench.orvane") : runFfmpeg(dir / "orvane-x11-bench-ffmpeg.mp4");
        if (!r.error.empty()) {
            state.SkipWithError(("orvane-rpc could not record the display: " + r.error).c_str());
            break;
        }
        report(state, r, key);
    }
    painter().setBusy(true);
}

void BM_Ffmpeg_X11grab_1080p30_10s(benchmark::State& s) { recordingBenchmark(s, true, false); }
void BM_OrvaneRpc_Display_1080p30_10s(benchmark::State& s) { recordingBenchmark(s, true, true); }
void BM_Ffmpeg_X11grab_Idle_10s(benchmark::State& s) { recordingBenchmark(s, false, false); }
void BM_OrvaneRpc_Display_Idle_10s(benchmark::State& s) { recordingBenchmark(s, false, true); }
BENCHMARK(BM_Ffmpeg_X11grab_1080p30_10s)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_OrvaneRpc_Display_1080p30_10s)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_Ffmpeg_X11grab_Idle_10s)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_OrvaneRpc_Display_Idle_10s)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (server().display.empty()) {
        std::fprintf(stderr, "Xvfb did not start\n");
        return 1;
    }
    painter();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    auto ratio = [](const char* a, const char* b) {
        if (results.count(a) && results.count(b) && results[b] > 0)
            std::printf("%-44s %.3f / %.3f = %.2f\n", (std::string(a) + " / " + b).c_str(), results[a], results[b],
                        results[a] / results[b]);
    };
    ratio("shm_median_ms", "plain_median_ms");
    ratio("orvane_busy_total_cpu", "ffmpeg_busy_total_cpu");
    ratio("orvane_busy_rss", "ffmpeg_busy_rss");
    ratio("orvane_busy_frames", "ffmpeg_busy_frames");
    ratio("orvane_idle_cpu", "ffmpeg_idle_cpu");
    return 0;
}
