// Keeping the machine awake: without a system bus a recording goes on, and
// the token says why nothing is held.
#include "platform/process_activity.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "session/conductor.h"

namespace ov::platform {
namespace {

TEST(ProcessActivity, WithoutASystemBusTheTokenHoldsNothingAndSaysWhy) {
    const char* old = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const std::string saved = old ? old : "";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/orvane-test-bus", 1);
    const auto began = std::chrono::steady_clock::now();
    auto token = ProcessInfo::beginActivity(Conductor::activityOptions, Conductor::activityReason);
    const auto took = std::chrono::steady_clock::now() - began;
    if (old)
        setenv("DBUS_SYSTEM_BUS_ADDRESS", saved.c_str(), 1);
    else
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");

    ASSERT_TRUE(token);
    EXPECT_FALSE(token->isHeld());
    EXPECT_FALSE(token->unavailableReason().empty());
    EXPECT_EQ(token->reason(), "Orvane Recording");
    EXPECT_LT(took, std::chrono::seconds(3)) << "a missing bus must not stall a start";
    ProcessInfo::endActivity(token);  // harmless on an empty token
    ProcessInfo::endActivity(nullptr);
}

TEST(ProcessActivity, TheRecordingOptionsAreDisplayAndSystemSleepAndLatency) {
    EXPECT_EQ(Conductor::activityOptions, uint64_t(NSActivityIdleDisplaySleepDisabled) |
                                              NSActivityIdleSystemSleepDisabled | NSActivityLatencyCritical);
}

}  // namespace
}  // namespace ov::platform
