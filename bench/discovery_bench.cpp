// Window discovery on X11, under a private Xvfb holding 50 mapped windows:
// - one window poll pass (the pipelined read of every window with its title,
//   type, state and owner) beside `xwininfo -root -tree`, a standard tool
//   walking the same windows (its time includes starting the process);
// - the CPU a subscribed window and application discovery costs on a quiet
//   desktop over 5 s (this process and the X server together), as a share
//   of one core.
// Runs without gating; the numbers are printed at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/capture_platform.h"
#include "platform/linux/linux_capture_platform.h"
#include "platform/linux/x11/x11_screen_provider.h"
#include "sources/application_discovery.h"
#include "sources/cg_interop.h"
#include "sources/window_discovery.h"

using namespace ov;
using namespace ov::platform;

namespace {

std::map<std::string, double> results;

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

double selfCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Desktop {
    pid_t server = -1;
    std::string display;
    xcb_connection_t* windows = nullptr;

    Desktop() {
        int fds[2];
        if (::pipe(fds) != 0) throw std::runtime_error("pipe");
        server = ::fork();
        if (server == 0) {
            const int null = ::open("/dev/null", O_RDWR);
            ::dup2(null, 0), ::dup2(null, 1), ::dup2(null, 2);
            for (int fd = 3; fd < 1024; ++fd)
                if (fd != fds[1]) ::close(fd);
            const std::string fd = std::to_string(fds[1]);
            ::execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1920x1080x24", "-nolisten", "tcp",
                     "-noreset", nullptr);
            ::_exit(127);
        }
        ::close(fds[1]);
        // The server writes its number and a newline once it accepts clients.
        std::string text;
        char buffer[32];
        while (text.find('\n') == std::string::npos) {
            const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
            if (n <= 0) break;
            text.append(buffer, size_t(n));
        }
        ::close(fds[0]);
        if (text.find('\n') == std::string::npos) throw std::runtime_error("Xvfb did not start");
        display = ":" + std::to_string(std::stoi(text));
        ::setenv("DISPLAY", display.c_str(), 1);
        windows = xcb_connect(display.c_str(), nullptr);
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(windows)).data;
        for (int i = 0; i < 50; ++i) {
            const xcb_window_t w = xcb_generate_id(windows);
            const uint32_t values[] = {screen->white_pixel};
            xcb_create_window(windows, XCB_COPY_FROM_PARENT, w, screen->root, int16_t(20 * (i % 10)), int16_t(20 * (i / 10)),
                              300, 200, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_BACK_PIXEL, values);
            const std::string title = "Bench window " + std::to_string(i);
            xcb_change_property(windows, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                                uint32_t(title.size()), title.data());
            xcb_map_window(windows, w);
        }
        std::free(xcb_get_input_focus_reply(windows, xcb_get_input_focus(windows), nullptr));
    }
    ~Desktop() {
        xcb_disconnect(windows);
        ::kill(server, SIGTERM);
        ::waitpid(server, nullptr, 0);
    }
};

Desktop* desktop = nullptr;

void BM_WindowPollPass(benchmark::State& state) {
    size_t count = 0;
    for (auto _ : state) {
        auto windows = CGInterop::Window::getWindows(CGWindowListOption::all);
        count = windows.size();
        benchmark::DoNotOptimize(windows);
    }
    state.counters["windows"] = double(count);
}
BENCHMARK(BM_WindowPollPass)->Unit(benchmark::kMillisecond)->MinTime(1.0);

void BM_XwininfoTree(benchmark::State& state) {
    const std::string command = "DISPLAY=" + desktop->display + " xwininfo -root -tree >/dev/null 2>&1";
    for (auto _ : state) benchmark::DoNotOptimize(std::system(command.c_str()));
}
BENCHMARK(BM_XwininfoTree)->Unit(benchmark::kMillisecond)->MinTime(1.0);

class Reporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) results[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
};

void subscribedCost() {
    auto windows = WindowDiscovery::make();
    auto applications = ApplicationDiscovery::make();
    auto windowStream = windows->updates();
    auto applicationStream = applications->updates();
    const double selfBefore = selfCpuSeconds(), serverBefore = processCpuSeconds(desktop->server);
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double self = selfCpuSeconds() - selfBefore, server = processCpuSeconds(desktop->server) - serverBefore;
    std::printf("subscribed discovery, quiet desktop of 50 windows, %.1f s: engine %.3f CPU-s, X server %.3f CPU-s = "
                "%.2f %% of one core\n",
                wall, self, server, 100.0 * (self + server) / wall);
}

}  // namespace

int main(int argc, char** argv) {
    Desktop d;
    desktop = &d;
    auto platform = std::make_shared<LinuxCapturePlatform>(std::vector<std::shared_ptr<CaptureDeviceProvider>>{},
                                                           std::make_shared<x11::X11ScreenProvider>(d.display));
    CapturePlatform::ScopedOverride installed(platform);
    benchmark::Initialize(&argc, argv);
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double pass = results["BM_WindowPollPass/min_time:1.000"], peer = results["BM_XwininfoTree/min_time:1.000"];
    if (pass > 0 && peer > 0)
        std::printf("one window poll pass %.3f ms, xwininfo -root -tree %.3f ms: %.1fx\n", pass, peer, peer / pass);
    subscribedCost();
    benchmark::Shutdown();
}
