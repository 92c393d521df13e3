#pragma once
// A running orvane-rpc on the synthetic platform, spoken to as a host would.

#include <gtest/gtest.h>

#include <memory>

#include "support/child_process.h"

namespace ov::testing {

inline std::unique_ptr<ChildProcess> startRpc(const std::vector<std::string>& args = {},
                                              std::map<std::string, std::string> env = {}) {
    env.emplace("ORVANE_PLATFORM", "synthetic");
    env.emplace("ORVANE_OS_LOG", "debug");
    env.emplace("ORVANE_OS_LOG_TARGET", "stderr");
    return std::make_unique<ChildProcess>(ORVANE_RPC_PATH, args, env);
}

class RpcProcessTest : public ::testing::Test {
protected:
    void SetUp() override { rpc = startRpc(); }

    // Sends one request and reads one response.
    nlohmann::json call(const nlohmann::json& message) {
        rpc->writeJSON(message);
        auto response = rpc->readJSON();
        if (!response) {
            ADD_FAILURE() << "no response to " << message.dump() << "; stderr: " << rpc->stderrText();
            return nlohmann::json();
        }
        return *response;
    }

    std::unique_ptr<ChildProcess> rpc;
};

}  // namespace ov::testing
