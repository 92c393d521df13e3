// The linux backend over the protocol: a private sound server's microphone is
// listed and recorded to a file.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

#include "e2e/rpc_fixture.h"
#include "support/media_probe.h"
#include "support/pulse_daemon.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;

TEST(LinuxMicrophoneOverRpc, ListsAndRecordsTheServersMicrophone) {
    PulseDaemon daemon;
    // Never blocks on the pipe once the recording has stopped reading it.
    PipeFeeder feeder(daemon);
    TempDirectory temp;
    {
        auto rpc = startRpc({}, {{"ORVANE_PLATFORM", "linux"}, {"PULSE_SERVER", "unix:" + daemon.socket().string()}});
        auto call = [&](json message) {
            rpc->writeJSON(message);
            return rpc->readJSON().value_or(json());
        };
        auto r = call(request("1", "perform", {{"type", "Recorder"}, {"action", "getMicrophones"}}));
        ASSERT_EQ(r["status"], 200) << r.dump();
        bool found = false;
        for (const auto& mic : r["result"])
            if (mic["id"] == PulseDaemon::microphone) {
                found = true;
                EXPECT_EQ(mic["name"], PulseDaemon::microphoneDescription);
                EXPECT_EQ(mic["availability"], "available");
            }
        EXPECT_TRUE(found) << r.dump();

        const auto bundle = temp / "linux.orvane";
        r = call(request("2", "init",
                         {{"type", "Recorder"},
                          {"target", "rec"},
                          {"params",
                           {{"schema",
                             {{"output_directory", bundle.string()},
                              {"items", json::array({{{"type", "microphone"},
                                                      {"microphone", PulseDaemon::microphone},
                                                      {"filename", "mic.m4a"}}})}}},
                            {"onAbortInstance", "abort"}}}}));
        ASSERT_EQ(r["status"], 200) << r.dump();
        r = call(request("3", "perform", {{"target", "rec"}, {"action", "prepare"}}));
        ASSERT_EQ(r["status"], 200) << r.dump() << rpc->stderrText();
        call(request("4", "perform", {{"target", "rec"}, {"action", "start"}}));
        std::this_thread::sleep_for(std::chrono::seconds(2));
        r = call(request("5", "perform", {{"target", "rec"}, {"action", "stop"}}));
        ASSERT_EQ(r["status"], 200) << r.dump();
        const double timeline = r["result"]["info"]["duration"].get<double>();

        auto info = probeMedia(bundle / "mic.m4a");
        ASSERT_EQ(info["streams"].size(), 1u) << info.dump();
        EXPECT_NEAR(playedDuration(info), timeline, 1024.0 / daemon.rate()) << info.dump();
    }
}

}  // namespace
}  // namespace ov::testing
