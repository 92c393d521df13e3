// orvane-rpc: the headless capture helper that a desktop host drives over
// standard input and output, one JSON message per line.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "host/globals.h"
#include "host/recorder_rpc.h"
#include "output/ov_logger.h"
#include "sources/discovery_source_lookup.h"
#include "platform/dispatch_queue.h"

namespace {

bool debuggerAttached() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("TracerPid:", 0) == 0) return std::stol(line.substr(10)) != 0;
    }
    return false;
}

// How long recordings go on after the host has closed standard input.
std::chrono::milliseconds hostGoneGracePeriod() {
    if (const char* text = std::getenv("ORVANE_HOST_GONE_GRACE_SECONDS")) {
        char* end = nullptr;
        const double seconds = std::strtod(text, &end);
        if (end != text && *end == '\0' && seconds >= 0 && seconds < 1e7)
            return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
    }
    return std::chrono::seconds(10);
}

// Reads lines until the end of input, each handled to its response before the
// next is read.
void readerTask() {
    std::string line;
    while (std::getline(std::cin, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) continue;
        ov::host::Globals::hvRpc().receive(ov::coding::repairUTF8(line));
    }
    // End of input: no further request can arrive and the process runs on, but
    // a host that has gone for good can never stop its recordings: after a
    // grace period (a host restarting its pipe, a debugger) they are stopped
    // as "stop" would, so that their files and descriptions are whole.
    const auto grace = hostGoneGracePeriod();
    ov::Logger logger("Main");
    logger.info([&] { return fmt::format("End of input; recordings stop in {} ms.", grace.count()); });
    std::this_thread::sleep_for(grace);
    const size_t count = ov::host::RecorderRPC::stopAllRecordings("the host closed standard input");
    logger.info([&] { return fmt::format("Stopped the recordings of {} recorder objects after end of input.", count); });
}

// SIGTERM and SIGINT end the process the way a host would: every recording is
// stopped (files finished, descriptions written), the output is flushed, and
// the process exits with 0. A second signal while that runs exits at once.
// The handler only writes the signal's number to a pipe (any thread may take
// the signal); the signal thread does the work.
int signalPipe[2] = {-1, -1};

void onTerminatingSignal(int signal) {
    const unsigned char byte = static_cast<unsigned char>(signal);
    const int saved = errno;
    (void)!::write(signalPipe[1], &byte, 1);
    errno = saved;
}

void signalTask() {
    bool stopping = false;
    for (;;) {
        unsigned char byte = 0;
        const ssize_t n = ::read(signalPipe[0], &byte, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        const int signal = byte;
        if (stopping) _exit(128 + signal);
        stopping = true;
        std::thread([signal] {
            ov::Logger logger("Main");
            logger.info([&] { return fmt::format("Received signal {}, stopping every recording.", signal); });
            ov::host::RecorderRPC::stopAllRecordings(signal == SIGTERM ? "SIGTERM" : "SIGINT");
            logger.info("Recordings stopped, exiting.");
            (void)ov::host::Globals::flushOutput(std::chrono::seconds(2));
            // No static destructors: recording threads may still be winding down.
            _exit(0);
        }).detach();
    }
}

void installSignalHandlers() {
    if (::pipe2(signalPipe, O_CLOEXEC) != 0) return;  // then the default action stays
    struct sigaction action {};
    action.sa_handler = onTerminatingSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    std::thread(signalTask).detach();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Internal tool for Electron version of Orvane. More info: https://orvane.dev", "orvane-rpc"};
    bool waitForDebugger = false;
    app.add_flag("--wait-for-debugger", waitForDebugger);
    app.set_version_flag("--version", ORVANE_VERSION, "Show the version.");
    app.set_help_flag("-h,--help", "Show help information.");
    CLI11_PARSE(app, argc, argv);

    if (waitForDebugger) {
        while (!debuggerAttached()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }

    // A host that goes away must not kill a recording through a write to a closed pipe.
    signal(SIGPIPE, SIG_IGN);
    installSignalHandlers();
    std::ios::sync_with_stdio(false);

    (void)ov::host::Globals::livePreviewServer();

    // Errors name the real state of a missing source. The discoveries start
    // on the main queue, beside the reader, so that they know the displays
    // and windows before any goes, without holding up the first request.
    ov::installDiscoverySourceLookup();
    ov::platform::DispatchQueue::main().async([] { ov::startDiscoveries(); });
    std::thread(readerTask).detach();
    ov::platform::DispatchQueue::runMain();
}
