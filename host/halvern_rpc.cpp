#include "host/halvern_rpc.h"

#include <fmt/format.h>

#include "foundation/platform_error.h"
#include "host/error_payload.h"

namespace ov::host {

using coding::Decoder;
using coding::DecodingError;
using coding::EncodingError;

Json HVRPCError::payload() const {
    Json j = Json::object();
    j["userMessage"] = userMessage_;
    j["debugDescription"] = debugDescription_;
    return j;
}

std::optional<Json> Zombie::perform(const std::string& action, const HVRPCParams&) {
    throw HVRPCError(HVRPCStatusCode::released,
                     "Cannot perform action '" + action + "' on a released " + originalType + ".",
                     "The program is in an incorrect state, cannot perform action.");
}

namespace {

struct MessageHeader {
    int64_t hvrpc = 0;
    std::string id;
    std::optional<int64_t> status;
};

struct InboundRequest {
    int64_t hvrpc = 0;
    std::optional<std::string> id;
    std::string procedure;
    std::optional<std::string> type;
    std::optional<std::string> target;
    std::optional<std::string> action;
};

MessageHeader decodeHeader(const Json& message) {
    Decoder d(message);
    MessageHeader h;
    h.hvrpc = d.decode<int64_t>("hvrpc");
    h.id = d.decode<std::string>("id");
    h.status = d.decodeIfPresent<int64_t>("status");
    return h;
}

InboundRequest decodeRequest(const Json& message) {
    Decoder d(message);
    InboundRequest r;
    r.hvrpc = d.decode<int64_t>("hvrpc");
    r.id = d.decodeIfPresent<std::string>("id");
    r.procedure = d.decode<std::string>("procedure");
    r.type = d.decodeIfPresent<std::string>("type");
    r.target = d.decodeIfPresent<std::string>("target");
    r.action = d.decodeIfPresent<std::string>("action");
    return r;
}

// {"name": "NSError", "errorDomain", "errorCode", "message", "debugDescription"}
std::string describeForLog(const std::exception& error) { return platform::describeError(error).debugDescription; }

}  // namespace

HalvernRPC::HalvernRPC(Senders senders)
    : send_(std::move(senders.response)),
      sendCallback_(senders.callback ? std::move(senders.callback) : send_),
      sendStreamData_(senders.streamData ? std::move(senders.streamData) : sendCallback_) {}

std::shared_ptr<HalvernRPC> HalvernRPC::create(SendFunction send, std::vector<HVRPCTypeRegistration> types) {
    return create(Senders{std::move(send), nullptr, nullptr}, std::move(types));
}

std::shared_ptr<HalvernRPC> HalvernRPC::create(Senders senders, std::vector<HVRPCTypeRegistration> types) {
    std::shared_ptr<HalvernRPC> engine(new HalvernRPC(std::move(senders)));
    for (auto& type : types) engine->registerType(std::move(type));
    return engine;
}

void HalvernRPC::registerType(HVRPCTypeRegistration type) {
    std::weak_ptr<HalvernRPC> weak = weak_from_this();
    registeredTypes_[type.name] = [weak, construct = type.construct](const HVRPCParams& params) {
        auto engine = weak.lock();
        if (!engine) throw HVRPCError(HVRPCStatusCode::internalError, "HVRPC lost reference to self.");
        return construct(engine, params);
    };
    registeredStaticTypes_[type.name] = std::move(type.performType);
}

void HalvernRPC::sendErrorResponse(const std::string& id, int status, const Json& error) {
    Json response = Json::object();
    response["hvrpc"] = 1;
    response["id"] = id;
    response["status"] = status;
    response["error"] = error;
    send_(coding::encodeLine(response));
}

void HalvernRPC::receive(std::string_view data) {
    Json message;
    MessageHeader header;
    try {
        message = coding::parseJSON(data);
        header = decodeHeader(message);
    } catch (const std::exception& e) {
        log_.notice(fmt::format("Error decoding received data: {}", describeForLog(e)));
        return;
    }

    const std::string& id = header.id;
    try {
        if (header.hvrpc != 1)
            throw HVRPCError(HVRPCStatusCode::unsupportedVersion,
                             fmt::format("Unsupported HVRPC version '{}'.", header.hvrpc));
        if (header.status)
            throw HVRPCError(HVRPCStatusCode::notImplemented, "Response handling not yet implemented.");
        decodeRequest(message);  // the request must be readable before it is handled

        std::optional<Json> result;
        bool handled = false;
        try {
            result = handle(message);
            handled = true;
        } catch (const HVRPCError&) {
            throw;
        } catch (const std::exception& e) {
            log_.notice(fmt::format("Error while handling request: {}", describeForLog(e)));
            sendErrorResponse(id, HVRPCStatusCode::operationFailed, errorPayload(e));
        }
        if (!handled) return;

        Json response = Json::object();
        response["hvrpc"] = 1;
        response["status"] = HVRPCStatusCode::success;
        response["id"] = id;
        if (result) response["result"] = std::move(*result);
        send_(coding::encodeLine(response));
        return;
    } catch (const DecodingError& e) {
        log_.notice(fmt::format("Error decoding received data: {}", e.rendering()));
        try {
            sendErrorResponse(id, HVRPCStatusCode::badRequest, HVRPCError(HVRPCStatusCode::badRequest, e.rendering()).payload());
        } catch (...) {}
    } catch (const EncodingError& e) {
        log_.notice(fmt::format("Error encoding response: {}", e.debugDescription()));
        try {
            sendErrorResponse(id, HVRPCStatusCode::internalError,
                              HVRPCError(HVRPCStatusCode::internalError, e.debugDescription()).payload());
        } catch (...) {}
    } catch (const HVRPCError& e) {
        try {
            sendErrorResponse(id, e.status(), e.payload());
        } catch (...) {}
    } catch (const std::exception& e) {
        log_.error(fmt::format("Unexpected error while handling received data: {}", describeForLog(e)));
        try {
            sendErrorResponse(id, HVRPCStatusCode::internalError,
                              HVRPCError(HVRPCStatusCode::internalError, describeForLog(e)).payload());
        } catch (...) {}
    } catch (...) {
        log_.error("Unexpected error while handling received data: non-standard exception");
        try {
            sendErrorResponse(id, HVRPCStatusCode::internalError,
                              HVRPCError(HVRPCStatusCode::internalError, "non-standard exception").payload());
        } catch (...) {}
    }
}

std::optional<Json> HalvernRPC::handle(const Json& message) {
    const InboundRequest request = decodeRequest(message);
    const std::string& procedure = request.procedure;

    if (procedure == "init") {
        if (!request.type || !request.target)
            throw HVRPCError(HVRPCStatusCode::badRequest, "Missing type and/or target for initialization procedure.");
        auto type = registeredTypes_.find(*request.type);
        if (type == registeredTypes_.end())
            throw HVRPCError(HVRPCStatusCode::notFound, "Unknown type '" + *request.type + "'.");
        if (targets_.count(*request.target))
            throw HVRPCError(HVRPCStatusCode::conflict,
                             "Target identifier '" + *request.target + "' is already in use.");
        auto object = type->second(message);
        if (!object)
            throw HVRPCError(HVRPCStatusCode::internalError, "Type '" + *request.type + "' created no object.");
        targets_[*request.target] = std::move(object);
        return std::nullopt;
    }

    if (procedure == "perform") {
        if (request.target && request.action) {
            auto target = targets_.find(*request.target);
            if (target == targets_.end())
                throw HVRPCError(HVRPCStatusCode::notFound, "Target '" + *request.target + "' not found.");
            // Hold the object for the call: a callback may not release it under us.
            auto object = target->second;
            return object->perform(*request.action, message);
        }
        if (request.type && request.action) {
            auto type = registeredStaticTypes_.find(*request.type);
            if (type == registeredStaticTypes_.end())
                throw HVRPCError(HVRPCStatusCode::notFound, "Type '" + *request.type + "' not found.");
            return type->second(*request.action, message);
        }
        if (request.action)
            throw HVRPCError(HVRPCStatusCode::notImplemented, "Perform closure procedure not implemented.");
        throw HVRPCError(HVRPCStatusCode::badRequest, "Invalid perform procedure request.");
    }

    if (procedure == "release" || procedure == "manual-release") {
        if (!request.target) throw HVRPCError(HVRPCStatusCode::badRequest, "Missing target for release procedure.");
        auto found = targets_.find(*request.target);
        if (found == targets_.end())
            throw HVRPCError(HVRPCStatusCode::notFound, "Target '" + *request.target + "' not found.");
        // A recording is finished (files, description, log) before its object goes.
        found->second->prepareForRelease();
        auto node = targets_.extract(found);
        if (procedure == "manual-release")
            targets_[*request.target] = std::make_shared<Zombie>(*request.target, node.mapped()->rpcTypeName());
        // The object, and the work it owns, ends here with its last reference.
        return std::nullopt;
    }

    throw HVRPCError(HVRPCStatusCode::notFound, "Unknown procedure '" + procedure + "'.");
}

void HalvernRPC::perform(const std::string& target, const Json& params) { sendCallback(target, params, sendCallback_); }

void HalvernRPC::performStreamData(const std::string& target, const Json& params) {
    sendCallback(target, params, sendStreamData_);
}

void HalvernRPC::sendCallback(const std::string& target, const Json& params, const SendFunction& send) {
    Json request = Json::object();
    request["hvrpc"] = 1;
    request["procedure"] = "perform";
    request["target"] = target;
    request["params"] = params;
    try {
        send(coding::encodeLine(request));
    } catch (const std::exception& e) {
        log_.error(fmt::format("Error encoding callback for target {}: {}", target, describeForLog(e)));
    }
}

}  // namespace ov::host
