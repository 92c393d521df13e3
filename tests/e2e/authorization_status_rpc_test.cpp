// The "AuthorizationStatus" type as a host uses it, against scripted permissions.
#include <gtest/gtest.h>

#include <fstream>

#include "e2e/rpc_fixture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;

class AuthorizationProcessTest : public ::testing::Test {
protected:
    void start(const json& authorization, std::map<std::string, std::string> env = {}) {
        const auto world = temp / "world.json";
        std::ofstream(world) << json{{"authorization", authorization}}.dump();
        env["ORVANE_SYNTHETIC_WORLD"] = world.string();
        rpc = startRpc({}, env);
    }
    json perform(const std::string& action, const json& params = nullptr) {
        json fields = {{"type", "AuthorizationStatus"}, {"action", action}};
        if (!params.is_null()) fields["params"] = params;
        rpc->writeJSON(request(std::to_string(++next), "perform", fields));
        auto response = rpc->readJSON();
        return response ? *response : json();
    }

    TempDirectory temp;
    std::unique_ptr<ChildProcess> rpc;
    int next = 0;
};

TEST_F(AuthorizationProcessTest, ReadsAndRequestsFollowTheScriptedPermissions) {
    start({{"camera", "notDetermined"},
           {"microphone", "denied"},
           {"screen", false},
           {"inputMonitoring", false},
           {"accessibility", true},
           {"grantsRequests", false}});
    EXPECT_EQ(perform("getCameraAuthorizationStatus")["result"], "notDetermined");
    EXPECT_EQ(perform("getMicrophoneAuthorizationStatus")["result"], "denied");
    EXPECT_EQ(perform("getScreenRecordingAccess")["result"], false);
    EXPECT_EQ(perform("getInputMonitoringAccess")["result"], false);
    EXPECT_EQ(perform("getAccessibilityControlAccess")["result"], true);

    // A request of an undetermined camera gets the world's answer, and the status settles.
    EXPECT_EQ(perform("requestCameraAccess")["result"], false);
    EXPECT_EQ(perform("getCameraAuthorizationStatus")["result"], "denied");
    EXPECT_EQ(perform("requestMicrophoneAccess")["result"], false);

    for (const char* action :
         {"requestScreenRecordingAccess", "requestInputMonitoringAccess", "requestAccessibilityControlAccess"}) {
        const auto r = perform(action);
        EXPECT_EQ(r["status"], 200) << action << ": " << r.dump();
        EXPECT_FALSE(r.contains("result")) << action;
    }

    auto r = perform("x");
    EXPECT_EQ(r["status"], 404);
    EXPECT_EQ(r["error"]["debugDescription"], "Unknown action 'x'.");
    rpc->writeJSON(request("init", "init", {{"type", "AuthorizationStatus"}, {"target", "auth"}}));
    ASSERT_EQ(rpc->readJSON()->at("status"), 200);
    rpc->writeJSON(request("inst", "perform", {{"target", "auth"}, {"action", "getScreenRecordingAccess"}}));
    r = *rpc->readJSON();
    EXPECT_EQ(r["status"], 404);
    EXPECT_EQ(r["error"]["debugDescription"], "Unknown action 'getScreenRecordingAccess'.");
}

TEST_F(AuthorizationProcessTest, SystemAudioBackendsWithoutASoundServer) {
    start({{"screen", true}}, {{"PULSE_SERVER", "unix:" + (temp / "no-server").string()}});
    EXPECT_EQ(perform("getSystemAudioRecordingAccess")["result"], true) << "no params: the default backend";
    EXPECT_EQ(perform("getSystemAudioRecordingAccess", {{"backend", 7}})["result"], true);
    EXPECT_EQ(perform("getSystemAudioRecordingAccess", {{"backend", "screenCaptureKit"}})["result"], true);
    auto r = perform("getSystemAudioRecordingAccess", {{"backend", "coreAudio"}});
    EXPECT_EQ(r["status"], 202) << r.dump();
    EXPECT_EQ(r["error"]["debugDescription"], "Core Audio backend requires macOS 14.2 or later");
    r = perform("requestSystemAudioRecordingAccess", {{"backend", "_beta_coreAudio"}});
    EXPECT_EQ(r["status"], 202) << r.dump();
}

}  // namespace
}  // namespace ov::testing
