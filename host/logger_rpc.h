#pragma once
// "Logger": routes the library's log lines to the host and sets their levels.
// Stateless, all actions type-level; an instance answers every action with 404.
//
//   "setLogHandler" {"logHandlerInstance": id}   every later line reaches the host
//       as {"hvrpc":1,"procedure":"perform","target":id,"params":{"formattedMessage":…}};
//       it replaces the system-log handler, and a second call replaces the first.
//   "setLogLevel" {"logLevel"?, "category"?}      the global threshold (info when
//       absent), or one category's own (cleared when the level is absent).

#include <optional>
#include <string>

#include "host/halvern_rpc.h"

namespace ov::host {

struct SetLogHandlerParams {
    std::string logHandlerInstance;
};

struct SetLogLevelParams {
    std::optional<std::string> logLevel;
    std::optional<std::string> category;
};

class LoggerRPC final : public HVRPCObject {
public:
    static constexpr const char* typeName = "Logger";

    static std::shared_ptr<LoggerRPC> create(const std::shared_ptr<HalvernRPC>& engine, const HVRPCParams& params);
    static std::optional<Json> performType(const std::string& action, const HVRPCParams& params);

    std::string rpcTypeName() const override { return typeName; }
    std::optional<Json> perform(const std::string& action, const HVRPCParams& params) override;
};

}  // namespace ov::host

namespace ov::coding {
template <>
struct Decodable<host::SetLogHandlerParams> {
    static host::SetLogHandlerParams decode(const Decoder& d);
};
template <>
struct Decodable<host::SetLogLevelParams> {
    static host::SetLogLevelParams decode(const Decoder& d);
};
}  // namespace ov::coding
