#pragma once
// "Echo": the diagnostic type. Stateless; answers "ping" with "pong" and fails
// on request, so a host can check the channel and its error path.

#include "host/halvern_rpc.h"

namespace ov::host {

class EchoRPC final : public HVRPCObject {
public:
    static constexpr const char* typeName = "Echo";

    static std::shared_ptr<EchoRPC> create(const std::shared_ptr<HalvernRPC>& engine, const HVRPCParams& params);
    static std::optional<Json> performType(const std::string& action, const HVRPCParams& params);

    std::string rpcTypeName() const override { return typeName; }
    std::optional<Json> perform(const std::string& action, const HVRPCParams& params) override {
        return performType(action, params);
    }
};

}  // namespace ov::host
