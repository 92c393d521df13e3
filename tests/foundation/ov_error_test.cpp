#include "foundation/ov_error.h"

#include <gtest/gtest.h>

#include <set>

#include "host/error_payload.h"
#include "host/halvern_rpc.h"
#include "session/grouped_errors.h"
#include "session/ov_recorder_types.h"

namespace ov {
namespace {

using Code = OVError::Code;
using nlohmann::json;
using coding::Json;  // ordered: these checks include the key order

// The table as the host knows it: names and numbers, with the gaps between blocks.
const std::vector<std::pair<std::string, int>> kTable = {
    {"invalidConfiguration", -1002},
    {"microphonePermissionRequired", -1101},
    {"cameraPermissionRequired", -1102},
    {"screenRecordingPermissionRequired", -1103},
    {"systemAudioPermissionRequired", -1104},
    {"microphoneUnavailable", -1201},
    {"cameraUnavailable", -1202},
    {"displayUnavailable", -1203},
    {"windowUnavailable", -1204},
    {"systemAudioUnavailable", -1205},
    {"appleDeviceUnavailable", -1206},
    {"inputRecordingUnavailable", -1207},
    {"noVideoFramesReceived", -1301},
    {"noAudioSamplesReceived", -1302},
    {"screenCaptureStoppedLowDiskSpace", -1303},
    {"screenCaptureStoppedWithError", -1304},
    {"screenCaptureStoppedWithoutError", -1305},
    {"internalError", -1600},
    {"uncaughtError", -1601},
    {"internalConductorError", -1602},
    {"configurationFailed", -1603},
    {"configurationNotSupported", -1604},
    {"audioFormatError", -1605},
    {"videoFormatError", -1606},
    {"audioFormatConfigurationFailed", -1607},
    {"videoFormatConfigurationFailed", -1608},
    {"mediaFormatInitializationFailed", -1609},
    {"mediaFormatConfigurationFailed", -1610},
    {"audioDeviceInitializationFailed", -1611},
    {"audioDeviceConfigurationFailed", -1612},
    {"assetWriterFailed", -1613},
    {"tccUnavailableError", -1614},
    {"audioProcessingFailed", -1701},
    {"audioBufferProcessingFailed", -1702},
    {"audioBufferCreationFailed", -1703},
    {"inputEventProcessingFailed", -1704},
    {"assetWriterCreationFailed", -1705},
    {"fileOperationFailed", -1706},
    {"windowOperationFailed", -1707},
};

TEST(OVErrorCode, EveryNameAndNumberRoundTripsIntoThePayload) {
    ASSERT_EQ(OVError::allCodes().size(), kTable.size());
    for (const auto& [name, number] : kTable) {
        SCOPED_TRACE(name);
        const auto code = OVError::codeNamed(name);
        ASSERT_TRUE(code.has_value());
        EXPECT_EQ(OVError::codeNumber(*code), number);
        EXPECT_EQ(OVError::codeName(*code), name);

        const json payload = host::errorPayload(OVError(*code, "why", "what"));
        EXPECT_EQ(payload, json({{"name", "OrvaneError"},
                                 {"code", name},
                                 {"codeNumber", number},
                                 {"message", "what"},
                                 {"debugDescription", "why"}}));
        // And through the platform form: the number is the platform code.
        EXPECT_EQ(OVError(*code).errorDescription().code, number);
        EXPECT_EQ(OVError(*code).errorDescription().domain, "Orvane.OVError");
    }
    EXPECT_EQ(OVError::codeNamed("noSuchCode"), std::nullopt);
}

TEST(OVErrorCode, PayloadKeysComeInTheHostsOrder) {
    const std::string line = coding::encodeLine(host::errorPayload(OVError(Code::assetWriterFailed, "d", "l")));
    EXPECT_EQ(line,
              R"({"name":"OrvaneError","code":"assetWriterFailed","codeNumber":-1613,"message":"l","debugDescription":"d"})");
}

TEST(OVErrorTexts, FallBackToTheCodeName) {
    const OVError bare(Code::internalError);
    EXPECT_EQ(bare.localizedDescription(), "Unexpected error: internalError.");
    EXPECT_EQ(bare.debugDescription(), "OVError(code: internalError)");

    const OVError debugOnly(Code::internalError, "Writer lost its input");
    EXPECT_EQ(debugOnly.localizedDescription(), "Unexpected error: internalError.\nWriter lost its input.");
    EXPECT_EQ(debugOnly.debugDescription(), "Writer lost its input");
    EXPECT_STREQ(debugOnly.what(), "Writer lost its input");

    const OVError both(Code::internalError, "debug", "For people.");
    EXPECT_EQ(both.localizedDescription(), "For people.");
    const auto d = platform::describeError(both);
    EXPECT_EQ(d.localizedDescription, "For people.");
    EXPECT_EQ(d.debugDescription, "debug");
}

TEST(OVErrorTexts, UserInfoPutsTheTextsFirstAndLetsOwnValuesReplaceThem) {
    const OVError error(Code::displayUnavailable, "dbg", "loc", {{"NSDebugDescription", "mine"}, {"extra", "1"}});
    using Entry = std::pair<std::string, std::string>;
    EXPECT_EQ(error.userInfo(), (std::vector<Entry>{{"NSLocalizedDescription", "loc"},
                                                    {"OVDebugDescription", "dbg"},
                                                    {"NSDebugDescription", "mine"},
                                                    {"extra", "1"}}));
    EXPECT_EQ(OVError(Code::displayUnavailable).userInfo(),
              (std::vector<Entry>{{"NSDebugDescription", "displayUnavailable"}}));
}

TEST(OVErrorTexts, EncodesItsFieldsLeavingOutAbsentTexts) {
    EXPECT_EQ(OVError(Code::uncaughtError).toJson(), Json({{"code", -1601}, {"_userInfo", Json::object()}}));
    EXPECT_EQ(OVError(Code::uncaughtError, "d", "l", {{"k", "v"}}, "u").toJson(),
              Json({{"code", -1601},
                    {"_debugDescription", "d"},
                    {"_localizedDescription", "l"},
                    {"_userInfo", {{"k", "v"}}},
                    {"userMessage", "u"}}));
}

TEST(ErrorPayload, OVErrorsByCodeOtherErrorsInTheirPlatformForm) {
    const auto ov = host::errorPayload(std::make_exception_ptr(OVError(Code::screenCaptureStoppedWithError, "d", "l")));
    EXPECT_EQ(ov["name"], "OrvaneError");
    EXPECT_EQ(ov["code"], "screenCaptureStoppedWithError");
    EXPECT_FALSE(ov.contains("errorDomain"));
    EXPECT_FALSE(ov.contains("errorCode"));

    const auto posix = host::errorPayload(std::make_exception_ptr(platform::PlatformError::posix(28, "write")));
    EXPECT_EQ(posix, Json({{"name", "NSError"},
                           {"errorDomain", "NSPOSIXErrorDomain"},
                           {"errorCode", 28},
                           {"message", "No space left on device"},
                           {"debugDescription", "write: No space left on device"}}));

    // A group is not an OVError, even when it holds only OVErrors.
    GroupedErrors group({std::make_exception_ptr(OVError(Code::assetWriterFailed, "a", "First.")),
                         std::make_exception_ptr(OVError(Code::fileOperationFailed, "b", "Second."))});
    const auto grouped = host::errorPayload(std::make_exception_ptr(group));
    EXPECT_EQ(grouped["name"], "NSError");
    EXPECT_EQ(grouped["errorDomain"], "Orvane.GroupedErrors");
    EXPECT_EQ(grouped["message"], "First. and 1 other errors.");
    EXPECT_EQ(grouped["debugDescription"], "2 errors:\n  a\n  b");
    EXPECT_FALSE(grouped.contains("code"));
    EXPECT_FALSE(grouped.contains("codeNumber"));
}

// ---- groups, partial results and abort reasons -----------------------------------------------

std::exception_ptr ovError(std::string debug, std::optional<std::string> localized,
                           std::optional<std::string> userMessage = std::nullopt) {
    return std::make_exception_ptr(OVError(Code::internalError, std::move(debug), std::move(localized), {},
                                           std::move(userMessage)));
}

TEST(GroupedErrorsTexts, NoneOneAndSeveral) {
    EXPECT_EQ(GroupedErrors().localizedDescription(), "No error.");
    EXPECT_EQ(GroupedErrors().debugDescription(), "0 errors:");

    const GroupedErrors one({ovError("d1", "Camera gone.")});
    EXPECT_EQ(one.localizedDescription(), "Camera gone.");
    EXPECT_EQ(one.debugDescription(), "1 errors:\n  d1");

    const GroupedErrors three({ovError("d1", "Camera gone."), ovError("d2", "Disk full."),
                               std::make_exception_ptr(std::runtime_error("plain"))});
    EXPECT_EQ(three.localizedDescription(), "Camera gone. and 2 other errors.");
    EXPECT_EQ(three.debugDescription(), "3 errors:\n  d1\n  d2\n  plain");
    EXPECT_EQ(platform::describeError(three).localizedDescription, "Camera gone. and 2 other errors.");
}

TEST(GroupedErrorsTexts, TheFirstErrorsUserMessageWinsOverItsLocalizedText) {
    const GroupedErrors group({ovError("d1", "Technical.", "Plug the camera back in."), ovError("d2", "x")});
    EXPECT_EQ(group.localizedDescription(), "Plug the camera back in. and 1 other errors.");
    // A user message of a later error doesn't speak for the group.
    const GroupedErrors later({ovError("d1", "First."), ovError("d2", "x", "Later message.")});
    EXPECT_EQ(later.localizedDescription(), "First. and 1 other errors.");
    // Without a localized text the code's generic text speaks, with the debug text on its own line.
    EXPECT_EQ(GroupedErrors({ovError("dbg", std::nullopt)}).localizedDescription(),
              "Unexpected error: internalError.\ndbg.");
}

TEST(PartialResultErrorTexts, AreThoseOfItsGroup) {
    OVRecorderPartialResultError error({"/tmp/b.orvane", nullptr},
                                       GroupedErrors({ovError("d1", "One."), ovError("d2", "Two.")}));
    EXPECT_EQ(error.localizedDescription(), "One. and 1 other errors.");
    EXPECT_EQ(error.debugDescription(), "2 errors:\n  d1\n  d2");
    const auto d = platform::describeError(error);
    EXPECT_EQ(d.localizedDescription, "One. and 1 other errors.");
    EXPECT_EQ(d.debugDescription, "2 errors:\n  d1\n  d2");
}

TEST(AbortReasonTexts, UserStoppedInterruptedAndFailed) {
    const OVRecorderResult result{"/tmp/b", nullptr};
    using Reason = OVRecorderAbortReason;
    EXPECT_EQ(Reason::userStopped(result).logErrorDescription(), "userStopped");

    // An OVError contributes its text for people and its debug text.
    const auto interrupted = Reason::interrupted(result, ovError("Stream stopped", "Recording stopped."));
    EXPECT_EQ(interrupted.logErrorDescription(), "interrupted: Recording stopped. Stream stopped");
    EXPECT_EQ(interrupted.debugDescription(), interrupted.logErrorDescription());

    // Anything else only its debug text: here one group of several errors.
    const auto failed = Reason::failed(
        result, std::make_exception_ptr(GroupedErrors({ovError("d1", "One."), ovError("d2", "Two.")})));
    EXPECT_EQ(failed.logErrorDescription(), "failed: 2 errors:\n  d1\n  d2");

    const auto single = Reason::failed(result, std::make_exception_ptr(GroupedErrors({ovError("d1", "One.")})));
    EXPECT_EQ(single.logErrorDescription(), "failed: 1 errors:\n  d1");
    EXPECT_EQ(single.kind(), Reason::Kind::failed);
    EXPECT_EQ(single.result().bundleURL, "/tmp/b");
}

// ---- through the protocol engine ---------------------------------------------------------------

TEST(OVErrorOnTheWire, AFailingActionAnswers202WithTheOrvaneErrorPayload) {
    std::vector<std::string> sent;
    host::HVRPCTypeRegistration failing{
        "Failing",
        [](const std::shared_ptr<host::HalvernRPC>&, const host::HVRPCParams&) -> std::shared_ptr<host::HVRPCObject> {
            return nullptr;
        },
        [](const std::string& action, const host::HVRPCParams&) -> std::optional<coding::Json> {
            if (action == "ovError") throw OVError(Code::displayUnavailable, "OVDisplay gone", "Can't record display.");
            throw GroupedErrors({ovError("d1", "One."), ovError("d2", "Two.")});
        }};
    auto engine = host::HalvernRPC::create([&](std::string_view line) { sent.emplace_back(line); }, {failing});

    engine->receive(R"({"hvrpc":1,"id":"1","procedure":"perform","type":"Failing","action":"ovError"})");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(json::parse(sent[0]),
              json::parse(R"({"hvrpc":1,"id":"1","status":202,"error":{"name":"OrvaneError","code":"displayUnavailable",
                  "codeNumber":-1203,"message":"Can't record display.","debugDescription":"OVDisplay gone"}})"));

    engine->receive(R"({"hvrpc":1,"id":"2","procedure":"perform","type":"Failing","action":"group"})");
    ASSERT_EQ(sent.size(), 2u);
    const auto group = json::parse(sent[1]);
    EXPECT_EQ(group["status"], 202);
    EXPECT_EQ(group["error"]["name"], "NSError");
    EXPECT_EQ(group["error"]["message"], "One. and 1 other errors.");
}

}  // namespace
}  // namespace ov
