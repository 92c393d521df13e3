// The "Logger" type as a host uses it: log lines as callbacks, levels per category.
#include <gtest/gtest.h>

#include "e2e/rpc_fixture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;

class LoggerProcessTest : public RpcProcessTest {
protected:
    json logger(const std::string& id, const std::string& action, const json& params = nullptr) {
        json fields = {{"type", "Logger"}, {"action", action}};
        if (!params.is_null()) fields["params"] = params;
        return call(request(id, "perform", fields));
    }

    // Records an empty schema from init to stop; returns every callback line
    // that arrived for `target` until `window` after the stop's answer.
    std::vector<std::string> recordAndCollect(const std::string& prefix, const std::map<std::string, int>& = {}) {
        const auto bundle = temp / (prefix + ".orvane");
        rpc->writeJSON(request(prefix + "-1", "init",
                               {{"type", "Recorder"},
                                {"target", prefix},
                                {"params", {{"schema", {{"output_directory", bundle.string()}, {"items", json::array()}}},
                                            {"onAbortInstance", "abort"}}}}));
        rpc->writeJSON(request(prefix + "-2", "perform", {{"target", prefix}, {"action", "start"}}));
        rpc->writeJSON(request(prefix + "-3", "perform", {{"target", prefix}, {"action", "stop"}}));
        return rpc->readLinesFor(std::chrono::milliseconds(1500));
    }

    static std::vector<json> callbacksTo(const std::vector<std::string>& lines, const std::string& target) {
        std::vector<json> out;
        for (const auto& line : lines) {
            auto message = json::parse(line);
            if (!message.contains("id") && message.value("target", "") == target) out.push_back(message);
        }
        return out;
    }

    TempDirectory temp;
};

TEST_F(LoggerProcessTest, LinesArriveAsCallbacksAndASecondHandlerTakesOver) {
    auto r = logger("1", "setLogHandler");
    EXPECT_EQ(r["status"], 202) << "params are required: " << r.dump();

    ASSERT_EQ(logger("2", "setLogHandler", {{"logHandlerInstance", "log-a"}})["status"], 200);
    auto lines = recordAndCollect("first");
    const auto first = callbacksTo(lines, "log-a");
    ASSERT_FALSE(first.empty()) << "a recording logs; stderr: " << rpc->stderrText();
    for (const auto& m : first) {
        EXPECT_EQ(m["hvrpc"], 1);
        EXPECT_EQ(m["procedure"], "perform");
        EXPECT_FALSE(m.contains("id"));
        ASSERT_TRUE(m["params"]["formattedMessage"].is_string()) << m.dump();
    }

    ASSERT_EQ(logger("3", "setLogHandler", {{"logHandlerInstance", "log-b"}})["status"], 200);
    lines = recordAndCollect("second");
    EXPECT_FALSE(callbacksTo(lines, "log-b").empty());
    for (const auto& m : callbacksTo(lines, "log-a"))
        EXPECT_EQ(m["params"]["formattedMessage"].get<std::string>().find("second"), std::string::npos)
            << "the replaced handler got a line of the second recording: " << m.dump();
}

TEST_F(LoggerProcessTest, LevelsFollowSetLogLevel) {
    ASSERT_EQ(logger("1", "setLogHandler", {{"logHandlerInstance", "log"}})["status"], 200);
    const auto levelsSeen = [&](const std::string& prefix) {
        std::set<std::string> levels;
        for (const auto& m : callbacksTo(recordAndCollect(prefix), "log")) {
            const std::string text = m["params"]["formattedMessage"];
            for (const char* level : {"trace", "debug", "info", "warning", "error"})
                if (text.find(std::string(" ") + level + " ") != std::string::npos) levels.insert(level);
        }
        return levels;
    };

    ASSERT_EQ(logger("2", "setLogLevel", {{"logLevel", "debug"}})["status"], 200);
    EXPECT_TRUE(levelsSeen("verbose").count("debug"));

    // No level: back to info, so no debug lines.
    ASSERT_EQ(logger("3", "setLogLevel", json::object())["status"], 200);
    EXPECT_FALSE(levelsSeen("quiet").count("debug"));

    // A category of its own silences its info lines; clearing it brings them back.
    const auto conductorLines = [&](const std::string& prefix) {
        int count = 0;
        for (const auto& m : callbacksTo(recordAndCollect(prefix), "log"))
            if (m["params"]["formattedMessage"].get<std::string>().find("[Conductor]") != std::string::npos) ++count;
        return count;
    };
    ASSERT_EQ(logger("4", "setLogLevel", {{"logLevel", "error"}, {"category", "Conductor"}})["status"], 200);
    EXPECT_EQ(conductorLines("muted"), 0);
    ASSERT_EQ(logger("5", "setLogLevel", {{"category", "Conductor"}})["status"], 200);
    EXPECT_GT(conductorLines("unmuted"), 0);

    const auto r = logger("6", "setLogLevel", {{"logLevel", "bogus"}});
    EXPECT_EQ(r["status"], 202) << r.dump();
    EXPECT_EQ(logger("7", "nope")["status"], 404);
    EXPECT_EQ(logger("7", "nope")["error"]["debugDescription"], "Unknown action 'nope'.");
}

}  // namespace
}  // namespace ov::testing
