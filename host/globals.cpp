#include "host/globals.h"

#include <unistd.h>

#include <mutex>
#include <string>

#include "foundation/platform_error.h"
#include "host/echo_rpc.h"
#include "host/live_preview_server.h"
#include "host/recorder_rpc.h"
#include "platform/os_log.h"

namespace ov::host::Globals {

std::vector<HVRPCTypeRegistration> registeredTypes() {
    std::vector<HVRPCTypeRegistration> types;
    types.push_back(makeRegistration<EchoRPC>());
    types.push_back(makeRegistration<RecorderRPC>());
    return types;
}

HalvernRPC& hvRpc() {
    static std::shared_ptr<HalvernRPC> engine = HalvernRPC::create(&send, registeredTypes());
    return *engine;
}

std::shared_ptr<LivePreviewServer> livePreviewServer() {
    // Made once; without it the process runs on and hosts get no preview URLs.
    static const std::shared_ptr<LivePreviewServer> server = []() -> std::shared_ptr<LivePreviewServer> {
        try {
            return LivePreviewServer::make();
        } catch (const std::exception& error) {
            platform::OSLog(platform::OSLog::defaultSubsystem, "Globals")
                .error("Failed to initialize LivePreviewServer: " + platform::describeError(error).debugDescription);
            return nullptr;
        }
    }();
    return server;
}

void send(std::string_view bytes) {
    std::string buffer;
    buffer.reserve(bytes.size() + 1);
    buffer.append(bytes);
    buffer.push_back('\n');
    // A pipe keeps single writes of up to 64 KiB whole; streamed audio can be
    // larger, so writers take turns for the whole line.
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    const char* p = buffer.data();
    size_t left = buffer.size();
    while (left > 0) {
        const ssize_t n = ::write(STDOUT_FILENO, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // the host is gone; nothing to report to
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace ov::host::Globals
