#pragma once
// A running orvane-rpc on the synthetic platform, spoken to as a host would.

#include <gtest/gtest.h>

#include <memory>
#include <vector>

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

    // Sends one request and reads until its response. Callbacks that come
    // first (log lines once a handler is set, from threads of their own) are
    // kept in `callbacksBeforeResponses`.
    nlohmann::json call(const nlohmann::json& message) {
        rpc->writeJSON(message);
        for (;;) {
            auto response = rpc->readJSON();
            if (!response) {
                ADD_FAILURE() << "no response to " << message.dump() << "; stderr: " << rpc->stderrText();
                return nlohmann::json();
            }
            if (!response->contains("id") && message.contains("id")) {
                callbacksBeforeResponses.push_back(*response);
                continue;
            }
            return *response;
        }
    }

    std::vector<nlohmann::json> callbacksBeforeResponses;
    std::unique_ptr<ChildProcess> rpc;
};

}  // namespace ov::testing
