#include "host/logger_rpc.h"

#include "foundation/platform_error.h"
#include "host/globals.h"
#include "output/ov_logger.h"

namespace ov::coding {

host::SetLogHandlerParams Decodable<host::SetLogHandlerParams>::decode(const Decoder& d) {
    return host::SetLogHandlerParams{d.decode<std::string>("logHandlerInstance")};
}

host::SetLogLevelParams Decodable<host::SetLogLevelParams>::decode(const Decoder& d) {
    return host::SetLogLevelParams{d.decodeIfPresent<std::string>("logLevel"),
                                   d.decodeIfPresent<std::string>("category")};
}

}  // namespace ov::coding

namespace ov::host {

namespace {

OVLogLevel levelNamed(const std::string& raw) {
    if (auto level = logLevelFromRawValue(raw)) return *level;
    throw coding::DecodingError::dataCorrupted(
        {coding::CodingKey::key("params"), coding::CodingKey::key("logLevel")},
        "Cannot initialize OVLogLevel from invalid String value " + raw);
}

[[noreturn]] void unknownAction(const std::string& action) {
    throw HVRPCError(HVRPCStatusCode::notFound, "Unknown action '" + action + "'.");
}

}  // namespace

std::shared_ptr<LoggerRPC> LoggerRPC::create(const std::shared_ptr<HalvernRPC>&, const HVRPCParams&) {
    return std::make_shared<LoggerRPC>();
}

std::optional<Json> LoggerRPC::perform(const std::string& action, const HVRPCParams&) { unknownAction(action); }

std::optional<Json> LoggerRPC::performType(const std::string& action, const HVRPCParams& params) {
    if (action == "setLogHandler") {
        const auto decoded = decodeParams<SetLogHandlerParams>(params);
        const std::string target = decoded.logHandlerInstance;
        // Nonblocking: lines reach the host on the logger's own delivery
        // queue, never on the thread that logged, so a slow host can't hold
        // up capture.
        OVLogger::shared()->setLogHandler(OVLogger::HandlerMode::nonblocking, [target](const OVLogger::LogMessage& m) {
            Json params = Json::object();
            params["formattedMessage"] = m.description();
            Globals::hvRpc().perform(target, params);
        });
        return std::nullopt;
    }
    if (action == "setLogLevel") {
        const auto decoded = decodeParams<SetLogLevelParams>(params);
        if (!decoded.category) {
            OVLogger::shared()->setLogLevel(decoded.logLevel ? levelNamed(*decoded.logLevel) : OVLogLevel::info);
        } else {
            std::optional<OVLogLevel> level;
            if (decoded.logLevel) level = levelNamed(*decoded.logLevel);
            OVLogger::shared()->setLogLevel(level, *decoded.category);
        }
        return std::nullopt;
    }
    unknownAction(action);
}

}  // namespace ov::host
