// orvane-rpc: the headless capture helper that a desktop host drives over
// standard input and output, one JSON message per line.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>

#include "host/globals.h"
#include "sources/capture_device_discovery.h"
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

// Reads lines until the end of input, each handled to its response before the
// next is read.
void readerTask() {
    std::string line;
    while (std::getline(std::cin, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) continue;
        ov::host::Globals::hvRpc().receive(ov::coding::repairUTF8(line));
    }
    // End of input: no further request can arrive; the process runs on.
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
    std::ios::sync_with_stdio(false);

    (void)ov::host::Globals::livePreviewServer();

    // Errors name the real state of a missing camera or microphone.
    ov::installCaptureDeviceSourceLookup();
    std::thread(readerTask).detach();
    ov::platform::DispatchQueue::runMain();
}
