#include "host/error_payload.h"

#include "foundation/ov_error.h"
#include "foundation/platform_error.h"
#include "host/halvern_rpc.h"

namespace ov::host {

namespace {

coding::Json orvaneErrorPayload(const OVError& error) {
    coding::Json j = coding::Json::object();
    j["name"] = "OrvaneError";
    j["code"] = std::string(OVError::codeName(error.code()));
    j["codeNumber"] = OVError::codeNumber(error.code());
    j["message"] = error.localizedDescription();
    j["debugDescription"] = error.debugDescription();
    return j;
}

coding::Json platformErrorPayload(const platform::ErrorDescription& d) {
    coding::Json j = coding::Json::object();
    j["name"] = "NSError";
    j["errorDomain"] = d.domain;
    j["errorCode"] = d.code;
    j["message"] = d.localizedDescription;
    j["debugDescription"] = d.debugDescription;
    return j;
}

}  // namespace

coding::Json errorPayload(const std::exception& error) {
    if (const auto* ovError = dynamic_cast<const OVError*>(&error)) return orvaneErrorPayload(*ovError);
    if (const auto* encodable = dynamic_cast<const HVRPCEncodableError*>(&error)) return encodable->encodeAsPayload();
    return platformErrorPayload(platform::describeError(error));
}

coding::Json errorPayload(const std::exception_ptr& error) {
    if (!error) return platformErrorPayload({"unknown", 1, "An unknown error occurred.", "no error value"});
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return errorPayload(e);
    } catch (...) {
        return platformErrorPayload(platform::describeError(std::current_exception()));
    }
}

}  // namespace ov::host
