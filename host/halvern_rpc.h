#pragma once
// The HVRPC engine: decodes one inbound line, dispatches it to a registered type
// or a live object, and turns every outcome into exactly one response. It also
// sends callback requests to identifiers that the host named.

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/json_coding.h"
#include "platform/os_log.h"

namespace ov::host {

using coding::Json;

// Status codes of responses.
struct HVRPCStatusCode {
    static constexpr int success = 200;
    static constexpr int operationFailed = 202;
    static constexpr int badRequest = 400;
    static constexpr int notFound = 404;
    static constexpr int released = 405;
    static constexpr int conflict = 409;
    static constexpr int internalError = 500;
    static constexpr int notImplemented = 501;
    static constexpr int unsupportedVersion = 505;
};

// A failure of the protocol layer itself: a status and a payload.
class HVRPCError : public std::exception {
public:
    static constexpr const char* defaultUserMessage = "Failed to communicate with external process.";

    HVRPCError(int status, std::string debugDescription, std::string userMessage = defaultUserMessage)
        : status_(status), userMessage_(std::move(userMessage)), debugDescription_(std::move(debugDescription)) {}

    int status() const { return status_; }
    const std::string& userMessage() const { return userMessage_; }
    const std::string& debugDescription() const { return debugDescription_; }
    const char* what() const noexcept override { return debugDescription_.c_str(); }

    // {"userMessage": ..., "debugDescription": ...}
    Json payload() const;

private:
    int status_;
    std::string userMessage_;
    std::string debugDescription_;
};

// An error that is its own response payload ("the thrown error itself, when it
// can encode itself as JSON").
class HVRPCEncodableError {
public:
    virtual ~HVRPCEncodableError() = default;
    virtual Json encodeAsPayload() const = 0;
};

// The inbound line as the types see it: the whole parsed message.
using HVRPCParams = Json;

// A live object created by "init".
class HVRPCObject {
public:
    virtual ~HVRPCObject() = default;
    // The registered type name of the object ("Echo", "Recorder", ...).
    virtual std::string rpcTypeName() const = 0;
    // An instance action; no value means the response has no "result".
    virtual std::optional<Json> perform(const std::string& action, const HVRPCParams& params) = 0;
    // Called by "release" and "manual-release" before the object is dropped,
    // on the reader's thread; the response waits for it. Never throws.
    virtual void prepareForRelease() {}
};

class HalvernRPC;

// What a type contributes to the engine.
struct HVRPCTypeRegistration {
    std::string name;
    std::function<std::shared_ptr<HVRPCObject>(const std::shared_ptr<HalvernRPC>& engine, const HVRPCParams& params)>
        construct;
    std::function<std::optional<Json>(const std::string& action, const HVRPCParams& params)> performType;
};

// Reads the request's "params" as T: missing "params" is a key-not-found error.
template <class T>
T decodeParams(const HVRPCParams& params) {
    return coding::Decoder(params).decode<T>("params");
}

// The object that "manual-release" leaves under a released identifier.
class Zombie final : public HVRPCObject {
public:
    Zombie(std::string originalTarget, std::string originalType)
        : originalTarget(std::move(originalTarget)), originalType(std::move(originalType)) {}
    std::string rpcTypeName() const override { return "Zombie"; }
    std::optional<Json> perform(const std::string& action, const HVRPCParams& params) override;

    const std::string originalTarget;
    const std::string originalType;
};

class HalvernRPC : public std::enable_shared_from_this<HalvernRPC> {
public:
    // Writes one encoded message (without newline) to the host.
    using SendFunction = std::function<void(std::string_view bytes)>;

    // Where each kind of message goes: responses, callbacks, and streamed
    // media callbacks (which a slow host may lose; the others it never may).
    struct Senders {
        SendFunction response;
        SendFunction callback;
        SendFunction streamData;
    };

    // Builds the engine and registers the types in the given order.
    static std::shared_ptr<HalvernRPC> create(SendFunction send, std::vector<HVRPCTypeRegistration> types);
    static std::shared_ptr<HalvernRPC> create(Senders senders, std::vector<HVRPCTypeRegistration> types);

    // Handles one inbound line to its end, response included. Never throws.
    void receive(std::string_view data);

    // Sends a callback request to a host identifier; returns at once.
    void perform(const std::string& target, const Json& params);
    // The same for streamed media, which may be dropped when the host lags.
    void performStreamData(const std::string& target, const Json& params);


    // For tests and diagnostics.
    bool hasTarget(const std::string& target) const { return targets_.count(target) != 0; }
    size_t targetCount() const { return targets_.size(); }

private:
    explicit HalvernRPC(Senders senders);
    void registerType(HVRPCTypeRegistration type);
    std::optional<Json> handle(const Json& message);
    void sendErrorResponse(const std::string& id, int status, const Json& error);
    void sendCallback(const std::string& target, const Json& params, const SendFunction& send);

    platform::OSLog log_{platform::OSLog::defaultSubsystem, "orvane_rpc/HalvernRPC"};
    SendFunction send_;
    SendFunction sendCallback_;
    SendFunction sendStreamData_;
    std::map<std::string, std::function<std::shared_ptr<HVRPCObject>(const HVRPCParams&)>> registeredTypes_;
    std::map<std::string, decltype(HVRPCTypeRegistration::performType)> registeredStaticTypes_;
    // Touched only by receive(), which the reader calls one line at a time.
    std::map<std::string, std::shared_ptr<HVRPCObject>> targets_;
};

// Builds a registration for a type T with:
//   static constexpr const char* typeName;
//   static std::shared_ptr<T> create(const std::shared_ptr<HalvernRPC>&, const HVRPCParams&);
//   static std::optional<Json> performType(const std::string& action, const HVRPCParams&);
template <class T>
HVRPCTypeRegistration makeRegistration() {
    return HVRPCTypeRegistration{
        T::typeName,
        [](const std::shared_ptr<HalvernRPC>& engine, const HVRPCParams& params) -> std::shared_ptr<HVRPCObject> {
            return T::create(engine, params);
        },
        [](const std::string& action, const HVRPCParams& params) { return T::performType(action, params); }};
}

}  // namespace ov::host
