#include "host/authorization_status_rpc.h"

#include "sources/ov_authorization.h"

namespace ov::host {

namespace {

[[noreturn]] void unknownAction(const std::string& action) {
    throw HVRPCError(HVRPCStatusCode::notFound, "Unknown action '" + action + "'.");
}

// The backend of the two system-audio actions. Params that don't decode are
// no failure: the default applies. The per-application backend needs a sound
// server that offers per-application streams (what the hosts know as the
// Core Audio backend and its OS version); asked for without one, the action
// fails with the text hosts already match on.
SystemAudioBackend backendOf(const HVRPCParams& params) {
    std::optional<std::string> raw;
    if (params.is_object()) {
        const auto it = params.find("params");
        if (it != params.end() && it->is_object()) {
            const auto backend = it->find("backend");
            if (backend != it->end() && backend->is_string()) raw = backend->get<std::string>();
        }
    }
    const bool supported = OVAuthorization::perApplicationBackendSupported();
    if (!raw || *raw == "default") return supported ? SystemAudioBackend::coreAudio : SystemAudioBackend::screenCaptureKit;
    if (*raw == "screenCaptureKit") return SystemAudioBackend::screenCaptureKit;
    if (*raw == "coreAudio" || *raw == "_beta_coreAudio") {
        if (!supported)
            throw HVRPCError(HVRPCStatusCode::operationFailed, "Core Audio backend requires macOS 14.2 or later");
        return *raw == "coreAudio" ? SystemAudioBackend::coreAudio : SystemAudioBackend::_beta_coreAudio;
    }
    // An unknown name decodes as no params at all: the default applies.
    return supported ? SystemAudioBackend::coreAudio : SystemAudioBackend::screenCaptureKit;
}

}  // namespace

std::shared_ptr<AuthorizationStatusRPC> AuthorizationStatusRPC::create(const std::shared_ptr<HalvernRPC>&,
                                                                       const HVRPCParams&) {
    return std::make_shared<AuthorizationStatusRPC>();
}

std::optional<Json> AuthorizationStatusRPC::perform(const std::string& action, const HVRPCParams&) {
    unknownAction(action);
}

std::optional<Json> AuthorizationStatusRPC::performType(const std::string& action, const HVRPCParams& params) {
    if (action == "getCameraAuthorizationStatus") return Json(OVAuthorization::statusText(OVAuthorization::camera()));
    if (action == "getMicrophoneAuthorizationStatus")
        return Json(OVAuthorization::statusText(OVAuthorization::microphone()));
    if (action == "getScreenRecordingAccess") return Json(OVAuthorization::screenRecording());
    if (action == "getSystemAudioRecordingAccess") return Json(OVAuthorization::systemAudioRecording(backendOf(params)));
    if (action == "getInputMonitoringAccess") return Json(OVAuthorization::inputMonitoring());
    if (action == "getAccessibilityControlAccess") return Json(OVAuthorization::accessibilityControl());
    if (action == "requestCameraAccess") return Json(OVAuthorization::requestCameraAccess());
    if (action == "requestMicrophoneAccess") return Json(OVAuthorization::requestMicrophoneAccess());
    if (action == "requestScreenRecordingAccess") {
        OVAuthorization::requestScreenRecording();
        return std::nullopt;
    }
    if (action == "requestSystemAudioRecordingAccess")
        return Json(OVAuthorization::requestSystemAudioRecording(backendOf(params)));
    if (action == "requestInputMonitoringAccess") {
        OVAuthorization::requestInputMonitoring();
        return std::nullopt;
    }
    if (action == "requestAccessibilityControlAccess") {
        OVAuthorization::requestAccessibilityControl();
        return std::nullopt;
    }
    unknownAction(action);
}

}  // namespace ov::host
