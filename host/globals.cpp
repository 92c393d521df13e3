#include "host/globals.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

#include <fmt/format.h>

#include "foundation/platform_error.h"
#include "host/authorization_status_rpc.h"
#include "host/echo_rpc.h"
#include "host/live_preview_server.h"
#include "host/logger_rpc.h"
#include "host/outgoing_queue.h"
#include "host/recorder_rpc.h"
#include "output/ov_logger.h"
#include "platform/os_log.h"

namespace ov::host::Globals {

namespace {

size_t streamDataLimitBytes() {
    if (const char* text = std::getenv("ORVANE_STREAM_QUEUE_LIMIT_BYTES")) {
        char* end = nullptr;
        const unsigned long long value = std::strtoull(text, &end, 10);
        if (end != text && *end == '\0' && value > 0) return static_cast<size_t>(value);
    }
    return defaultStreamDataLimitBytes;
}

OutgoingQueue& outgoing() {
    // Never destroyed: threads of the recordings may send until the process ends.
    static OutgoingQueue* queue = new OutgoingQueue(
        STDOUT_FILENO, streamDataLimitBytes(), [](uint64_t dropped, bool caughtUp) {
            Logger logger("Globals");
            if (!caughtUp)
                logger.warning("The host is not reading standard output, dropping the oldest streamed audio.");
            else
                logger.warning([&] {
                    return fmt::format("Dropped {} streamed audio callbacks while the host was not reading.", dropped);
                });
        });
    return *queue;
}

}  // namespace

std::vector<HVRPCTypeRegistration> registeredTypes() {
    std::vector<HVRPCTypeRegistration> types;
    types.push_back(makeRegistration<EchoRPC>());
    types.push_back(makeRegistration<AuthorizationStatusRPC>());
    types.push_back(makeRegistration<RecorderRPC>());
    types.push_back(makeRegistration<LoggerRPC>());
    return types;
}

HalvernRPC& hvRpc() {
    static std::shared_ptr<HalvernRPC> engine = HalvernRPC::create(
        HalvernRPC::Senders{[](std::string_view bytes) { outgoing().send(bytes, OutgoingQueue::Kind::response); },
                            &send, [](std::string_view bytes) {
                                outgoing().send(bytes, OutgoingQueue::Kind::streamData);
                            }},
        registeredTypes());
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

void send(std::string_view bytes) { outgoing().send(bytes, OutgoingQueue::Kind::callback); }

bool flushOutput(std::chrono::milliseconds timeout) { return outgoing().flush(timeout); }

}  // namespace ov::host::Globals
