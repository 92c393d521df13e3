#include "host/globals.h"

#include <unistd.h>

#include <mutex>
#include <string>

#include "host/authorization_status_rpc.h"
#include "host/echo_rpc.h"
#include "host/logger_rpc.h"
#include "host/recorder_rpc.h"

namespace ov::host::Globals {

std::vector<HVRPCTypeRegistration> registeredTypes() {
    std::vector<HVRPCTypeRegistration> types;
    types.push_back(makeRegistration<EchoRPC>());
    types.push_back(makeRegistration<AuthorizationStatusRPC>());
    types.push_back(makeRegistration<RecorderRPC>());
    types.push_back(makeRegistration<LoggerRPC>());
    return types;
}

HalvernRPC& hvRpc() {
    static std::shared_ptr<HalvernRPC> engine = HalvernRPC::create(&send, registeredTypes());
    return *engine;
}

std::shared_ptr<LivePreviewServer> livePreviewServer() {
    // The preview server is not part of this build yet; hosts get no preview URLs.
    return nullptr;
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
