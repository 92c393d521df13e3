#include "host/echo_rpc.h"

namespace ov::host {

std::shared_ptr<EchoRPC> EchoRPC::create(const std::shared_ptr<HalvernRPC>&, const HVRPCParams&) {
    return std::make_shared<EchoRPC>();
}

std::optional<Json> EchoRPC::performType(const std::string& action, const HVRPCParams&) {
    if (action == "ping") return Json("pong");
    if (action == "fail") throw HVRPCError(HVRPCStatusCode::operationFailed, "Here's your requested error. :)");
    throw HVRPCError(HVRPCStatusCode::notFound, "Unknown action '" + action + "'.");
}

}  // namespace ov::host
