#include "host/globals.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

#include <fmt/format.h>

#include "host/authorization_status_rpc.h"
#include "host/echo_rpc.h"
#include "host/logger_rpc.h"
#include "host/outgoing_queue.h"
#include "host/recorder_rpc.h"
#include "output/ov_logger.h"

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
    // The preview server is not part of this build yet; hosts get no preview URLs.
    return nullptr;
}

void send(std::string_view bytes) { outgoing().send(bytes, OutgoingQueue::Kind::callback); }

bool flushOutput(std::chrono::milliseconds timeout) { return outgoing().flush(timeout); }

}  // namespace ov::host::Globals
