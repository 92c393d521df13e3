#pragma once
// OVError: the one error value of the library. A code from a fixed table, a
// text for logs, a text for people and extra values. It describes itself as a
// platform error (domain "Orvane.OVError", the code's number); the protocol
// layer turns it into the payload that names the code for the host.

#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/json_coding.h"
#include "foundation/platform_error.h"

namespace ov {

class OVError : public std::exception, public platform::DescribableError {
public:
    // Numbers come in blocks by kind of failure; the gaps are part of the table.
    enum class Code : int {
        invalidConfiguration = -1002,

        microphonePermissionRequired = -1101,
        cameraPermissionRequired = -1102,
        screenRecordingPermissionRequired = -1103,
        systemAudioPermissionRequired = -1104,

        microphoneUnavailable = -1201,
        cameraUnavailable = -1202,
        displayUnavailable = -1203,
        windowUnavailable = -1204,
        systemAudioUnavailable = -1205,
        appleDeviceUnavailable = -1206,
        inputRecordingUnavailable = -1207,

        noVideoFramesReceived = -1301,
        noAudioSamplesReceived = -1302,
        screenCaptureStoppedLowDiskSpace = -1303,
        screenCaptureStoppedWithError = -1304,
        screenCaptureStoppedWithoutError = -1305,

        internalError = -1600,
        uncaughtError = -1601,
        internalConductorError = -1602,
        configurationFailed = -1603,
        configurationNotSupported = -1604,
        audioFormatError = -1605,
        videoFormatError = -1606,
        audioFormatConfigurationFailed = -1607,
        videoFormatConfigurationFailed = -1608,
        mediaFormatInitializationFailed = -1609,
        mediaFormatConfigurationFailed = -1610,
        audioDeviceInitializationFailed = -1611,
        audioDeviceConfigurationFailed = -1612,
        assetWriterFailed = -1613,
        tccUnavailableError = -1614,

        audioProcessingFailed = -1701,
        audioBufferProcessingFailed = -1702,
        audioBufferCreationFailed = -1703,
        inputEventProcessingFailed = -1704,
        assetWriterCreationFailed = -1705,
        fileOperationFailed = -1706,
        windowOperationFailed = -1707,
    };

    static constexpr const char* domain = "Orvane.OVError";
    // "OVDebugDescription" carries the raising site's debug text in the user info.
    static constexpr const char* debugDescriptionUserInfoKey = "OVDebugDescription";
    // The platform's own user-info keys for the two texts.
    static constexpr const char* localizedDescriptionKey = "NSLocalizedDescription";
    static constexpr const char* debugDescriptionKey = "NSDebugDescription";

    using UserInfo = std::map<std::string, std::string>;

    explicit OVError(Code code, std::optional<std::string> debugDescription = std::nullopt,
                     std::optional<std::string> localizedDescription = std::nullopt, UserInfo userInfo = {},
                     std::optional<std::string> userMessage = std::nullopt);

    // The table, in the order of its numbers.
    static const std::vector<Code>& allCodes();
    // The code's name, its text form ("errorGroup").
    static std::string_view codeName(Code code);
    static std::optional<Code> codeNamed(std::string_view name);
    static int codeNumber(Code code) { return static_cast<int>(code); }

    Code code() const { return code_; }
    const std::optional<std::string>& _debugDescription() const { return debugDescription_; }
    const std::optional<std::string>& _localizedDescription() const { return localizedDescription_; }
    const UserInfo& _userInfo() const { return userInfo_; }
    // A text meant for the end user; it wins over the localized description in a group.
    const std::optional<std::string>& userMessage() const { return userMessage_; }

    // The text for people: the raising site's, or "Unexpected error: <code>." with
    // the debug text on a second line when there is one.
    std::string localizedDescription() const;
    // The raising site's debug text, or "OVError(code: <code>)".
    std::string debugDescription() const;
    // The platform error's user info: the two texts under the platform's keys,
    // the code name as debug description, then the raising site's own values,
    // which replace any key they repeat.
    std::vector<std::pair<std::string, std::string>> userInfo() const;

    // {"code": number, "_debugDescription", "_localizedDescription", "_userInfo", "userMessage"}
    coding::Json toJson() const;

    const char* what() const noexcept override { return what_.c_str(); }
    platform::ErrorDescription errorDescription() const override;

private:
    Code code_;
    std::optional<std::string> debugDescription_;
    std::optional<std::string> localizedDescription_;
    UserInfo userInfo_;
    std::optional<std::string> userMessage_;
    std::string what_;
};


}  // namespace ov
