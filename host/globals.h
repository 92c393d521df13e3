#pragma once
// Process-wide objects, each created once on first use, whichever thread comes first.

#include <chrono>
#include <memory>
#include <string_view>

#include "host/halvern_rpc.h"

namespace ov::host {

class LivePreviewServer;

namespace Globals {

// The engine with every registered type; created on the first line received.
HalvernRPC& hvRpc();

// The loopback camera preview server; empty while none could be started.
std::shared_ptr<LivePreviewServer> livePreviewServer();

// The only way to standard output: queues the message (a newline is added)
// for the writer thread, which writes each line whole and in order. Callbacks
// go through here and never wait for the host; responses wait until written;
// streamed audio may be dropped, oldest first, when more than
// ORVANE_STREAM_QUEUE_LIMIT_BYTES of it (default below) waits for a host that
// does not read.
void send(std::string_view bytes);
inline constexpr size_t defaultStreamDataLimitBytes = 8u << 20;

// Waits until everything queued is written; false on time-out.
bool flushOutput(std::chrono::milliseconds timeout);

// The types of the engine, in registration order.
std::vector<HVRPCTypeRegistration> registeredTypes();

}  // namespace Globals
}  // namespace ov::host
