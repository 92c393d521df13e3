#pragma once
// "AuthorizationStatus": reads and requests the permissions. Stateless, all
// actions type-level; an instance answers every action with 404.

#include <optional>
#include <string>

#include "host/halvern_rpc.h"

namespace ov::host {

class AuthorizationStatusRPC final : public HVRPCObject {
public:
    static constexpr const char* typeName = "AuthorizationStatus";

    static std::shared_ptr<AuthorizationStatusRPC> create(const std::shared_ptr<HalvernRPC>& engine,
                                                          const HVRPCParams& params);
    static std::optional<Json> performType(const std::string& action, const HVRPCParams& params);

    std::string rpcTypeName() const override { return typeName; }
    std::optional<Json> perform(const std::string& action, const HVRPCParams& params) override;
};

}  // namespace ov::host
