#include "foundation/ov_error.h"

#include <algorithm>

namespace ov {

namespace {

struct CodeEntry {
    OVError::Code code;
    std::string_view name;
};

#define OV_CODE(name) CodeEntry{OVError::Code::name, #name}
constexpr CodeEntry kCodeTable[] = {
    OV_CODE(invalidConfiguration),
    OV_CODE(microphonePermissionRequired),
    OV_CODE(cameraPermissionRequired),
    OV_CODE(screenRecordingPermissionRequired),
    OV_CODE(systemAudioPermissionRequired),
    OV_CODE(microphoneUnavailable),
    OV_CODE(cameraUnavailable),
    OV_CODE(displayUnavailable),
    OV_CODE(windowUnavailable),
    OV_CODE(systemAudioUnavailable),
    OV_CODE(appleDeviceUnavailable),
    OV_CODE(inputRecordingUnavailable),
    OV_CODE(noVideoFramesReceived),
    OV_CODE(noAudioSamplesReceived),
    OV_CODE(screenCaptureStoppedLowDiskSpace),
    OV_CODE(screenCaptureStoppedWithError),
    OV_CODE(screenCaptureStoppedWithoutError),
    OV_CODE(internalError),
    OV_CODE(uncaughtError),
    OV_CODE(internalConductorError),
    OV_CODE(configurationFailed),
    OV_CODE(configurationNotSupported),
    OV_CODE(audioFormatError),
    OV_CODE(videoFormatError),
    OV_CODE(audioFormatConfigurationFailed),
    OV_CODE(videoFormatConfigurationFailed),
    OV_CODE(mediaFormatInitializationFailed),
    OV_CODE(mediaFormatConfigurationFailed),
    OV_CODE(audioDeviceInitializationFailed),
    OV_CODE(audioDeviceConfigurationFailed),
    OV_CODE(assetWriterFailed),
    OV_CODE(tccUnavailableError),
    OV_CODE(audioProcessingFailed),
    OV_CODE(audioBufferProcessingFailed),
    OV_CODE(audioBufferCreationFailed),
    OV_CODE(inputEventProcessingFailed),
    OV_CODE(assetWriterCreationFailed),
    OV_CODE(fileOperationFailed),
    OV_CODE(windowOperationFailed),
};
#undef OV_CODE

}  // namespace

OVError::OVError(Code code, std::optional<std::string> debugDescription, std::optional<std::string> localizedDescription,
                 UserInfo userInfo, std::optional<std::string> userMessage)
    : code_(code),
      debugDescription_(std::move(debugDescription)),
      localizedDescription_(std::move(localizedDescription)),
      userInfo_(std::move(userInfo)),
      userMessage_(std::move(userMessage)) {
    what_ = this->debugDescription();
}

const std::vector<OVError::Code>& OVError::allCodes() {
    static const std::vector<Code> codes = [] {
        std::vector<Code> out;
        for (const auto& entry : kCodeTable) out.push_back(entry.code);
        return out;
    }();
    return codes;
}

std::string_view OVError::codeName(Code code) {
    for (const auto& entry : kCodeTable)
        if (entry.code == code) return entry.name;
    return "unknown";
}

std::optional<OVError::Code> OVError::codeNamed(std::string_view name) {
    for (const auto& entry : kCodeTable)
        if (entry.name == name) return entry.code;
    return std::nullopt;
}

std::string OVError::localizedDescription() const {
    if (localizedDescription_) return *localizedDescription_;
    std::string text = "Unexpected error: " + std::string(codeName(code_)) + ".";
    if (debugDescription_) text += "\n" + *debugDescription_ + ".";
    return text;
}

std::string OVError::debugDescription() const {
    if (debugDescription_) return *debugDescription_;
    return "OVError(code: " + std::string(codeName(code_)) + ")";
}

std::vector<std::pair<std::string, std::string>> OVError::userInfo() const {
    std::vector<std::pair<std::string, std::string>> info;
    const auto set = [&info](const std::string& key, const std::string& value) {
        auto it = std::find_if(info.begin(), info.end(), [&](const auto& entry) { return entry.first == key; });
        if (it != info.end())
            it->second = value;
        else
            info.emplace_back(key, value);
    };
    if (localizedDescription_) set(localizedDescriptionKey, *localizedDescription_);
    if (debugDescription_) set(debugDescriptionUserInfoKey, *debugDescription_);
    set(debugDescriptionKey, std::string(codeName(code_)));
    for (const auto& [key, value] : userInfo_) set(key, value);
    return info;
}

coding::Json OVError::toJson() const {
    coding::Json j = coding::Json::object();
    j["code"] = codeNumber(code_);
    if (debugDescription_) j["_debugDescription"] = *debugDescription_;
    if (localizedDescription_) j["_localizedDescription"] = *localizedDescription_;
    j["_userInfo"] = coding::Json::object();
    for (const auto& [key, value] : userInfo_) j["_userInfo"][key] = value;
    if (userMessage_) j["userMessage"] = *userMessage_;
    return j;
}

platform::ErrorDescription OVError::errorDescription() const {
    return {domain, codeNumber(code_), localizedDescription(), debugDescription()};
}

}  // namespace ov
