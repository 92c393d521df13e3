#pragma once
// Process-wide objects, each created once on first use, whichever thread comes first.

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

// The only writer of standard output: the message and a newline in one write.
void send(std::string_view bytes);

// The types of the engine, in registration order.
std::vector<HVRPCTypeRegistration> registeredTypes();

}  // namespace Globals
}  // namespace ov::host
