// Permissions: monitors, the requested-once marks, the audio-capture stand-in,
// and Linux's camera check.
#include "sources/ov_authorization.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <set>
#include <thread>

#include "foundation/ov_error.h"
#include "platform/dispatch_queue.h"
#include "platform/linux/linux_permissions.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "sources/user_defaults.h"
#include "support/temp_directory.h"

namespace ov {
namespace {

using platform::AVAuthorizationStatus;
using platform::AVMediaType;
using platform::DispatchQueue;

// Runs the main queue until `condition` holds or two seconds pass.
bool mainQueueUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < deadline) {
        DispatchQueue::drainMainForTesting();
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST(CaptureDeviceAuthorizationMonitor, AnUndeterminedStatusIsPolledUntilItSettlesThenCallsBackOnce) {
    std::atomic<AVAuthorizationStatus> status{AVAuthorizationStatus::notDetermined};
    auto monitor = CaptureDeviceAuthorizationMonitor::make(AVMediaType::video, [&] { return status.load(); });
    int calls = 0;
    auto registration = monitor->registerCallback([&] { ++calls; });
    EXPECT_TRUE(monitor->isPolling());
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    DispatchQueue::drainMainForTesting();
    EXPECT_EQ(calls, 0) << "nothing changed yet";

    status = AVAuthorizationStatus::authorized;
    ASSERT_TRUE(mainQueueUntil([&] { return calls == 1; }));
    EXPECT_FALSE(monitor->isNotDeterminate());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    DispatchQueue::drainMainForTesting();
    EXPECT_EQ(calls, 1) << "a settled status is reported once";
}

TEST(CaptureDeviceAuthorizationMonitor, ASettledStatusNeverPollsYetSiblingUpdatesArrive) {
    auto monitor = CaptureDeviceAuthorizationMonitor::make(AVMediaType::audio, [] { return AVAuthorizationStatus::denied; });
    int calls = 0;
    auto registration = monitor->registerCallback([&] { ++calls; });
    EXPECT_FALSE(monitor->isPolling());
    monitor->triggerSiblingUpdate();
    EXPECT_EQ(calls, 1);
}

TEST(CaptureDeviceAuthorizationMonitor, CancellingTheLastCallbackEndsThePolling) {
    auto monitor =
        CaptureDeviceAuthorizationMonitor::make(AVMediaType::video, [] { return AVAuthorizationStatus::notDetermined; });
    auto first = monitor->registerCallback([] {});
    auto second = monitor->registerCallback([] {});
    first.cancel();
    DispatchQueue::drainMainForTesting();
    EXPECT_TRUE(monitor->isPolling()) << "one callback is left";
    second.cancel();
    ASSERT_TRUE(mainQueueUntil([&] { return !monitor->isPolling(); }));
}

class RequestedOnceTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* key : {OVAuthorizationStatus::requestedScreenCaptureOnceKey,
                                OVAuthorizationStatus::requestedListenEventOnceKey,
                                OVAuthorizationStatus::requestedAccessibilityOnceKey})
            UserDefaults::standard().removeObject(key);
        OVAuthorizationStatus::setSettingsOpener([this](SettingsPane pane) { opened.push_back(pane); });
    }
    void TearDown() override { OVAuthorizationStatus::setSettingsOpener(nullptr); }

    platform::CapturePlatform::ScopedOverride installed{
        std::make_shared<platform::SyntheticCapturePlatform>(platform::SyntheticWorld::makeDefault())};
    std::vector<SettingsPane> opened;
};

TEST_F(RequestedOnceTest, TheFirstRequestOnlyAsksAndTheSecondOpensTheSettings) {
    OVAuthorizationStatus::requestInputMonitoring(true);
    EXPECT_TRUE(opened.empty());
    EXPECT_TRUE(UserDefaults::standard().boolForKey(OVAuthorizationStatus::requestedListenEventOnceKey));
    OVAuthorizationStatus::requestInputMonitoring(true);
    EXPECT_EQ(opened, (std::vector<SettingsPane>{SettingsPane::listenEvent}));
}

TEST_F(RequestedOnceTest, ScreenAndSystemAudioThroughTheScreenShareOneMark) {
    OVAuthorizationStatus::requestScreenRecording(true);
    EXPECT_TRUE(opened.empty());
    OVAuthorizationStatus::requestSystemAudioRecording(true, SystemAudioBackend::screenCaptureKit);
    EXPECT_EQ(opened, (std::vector<SettingsPane>{SettingsPane::screenCapture}));
}

TEST_F(RequestedOnceTest, WithoutOpeningSettingsTheMarkIsNeverTouched) {
    OVAuthorizationStatus::requestAccessibilityControl(false);
    OVAuthorizationStatus::requestAccessibilityControl(false);
    EXPECT_TRUE(opened.empty());
    EXPECT_FALSE(UserDefaults::standard().object(OVAuthorizationStatus::requestedAccessibilityOnceKey));
}

TEST(TCCSPI, RawValuesAboveTwoReadUndeterminedAndAMissingFunctionFails) {
    TCCSPI::setFunctionsForTesting([](const std::string&) { return 7; }, nullptr);
    EXPECT_EQ(TCCSPI::preflightAccess(TCCSPI::audioCaptureService), TCCSPI::Status::undetermined);
    try {
        TCCSPI::requestAccess(TCCSPI::audioCaptureService);
        ADD_FAILURE() << "no request function";
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::tccUnavailableError);
        EXPECT_EQ(e.debugDescription(), "Failed to load TCC request function.");
    }
    TCCSPI::setFunctionsForTesting(nullptr, nullptr);
    EXPECT_THROW(TCCSPI::preflightAccess(TCCSPI::audioCaptureService), OVError);
    TCCSPI::restoreDefaultFunctions();
}

TEST(LinuxCameraPermission, FollowsWhatTheProcessCanOpen) {
    testing::TempDirectory dev;
    platform::linux_permissions::DeviceAccessCheck check;
    check.deviceDirectory = dev.path();
    check.sandboxed = [] { return false; };
    std::set<std::string> openable;
    check.canOpen = [&](const std::filesystem::path& node) { return openable.count(node.filename().string()) > 0; };

    EXPECT_EQ(platform::linux_permissions::cameraAuthorization(check), AVAuthorizationStatus::authorized)
        << "no camera: nothing to deny";
    for (const char* name : {"video0", "video2", "videodev", "vbi0"}) std::ofstream(dev / name) << "";
    EXPECT_EQ(platform::linux_permissions::cameraAuthorization(check), AVAuthorizationStatus::denied);
    openable.insert("videodev");
    EXPECT_EQ(platform::linux_permissions::cameraAuthorization(check), AVAuthorizationStatus::denied)
        << "only videoN nodes are cameras";
    openable.insert("video2");
    EXPECT_EQ(platform::linux_permissions::cameraAuthorization(check), AVAuthorizationStatus::authorized);
    check.sandboxed = [] { return true; };
    EXPECT_EQ(platform::linux_permissions::cameraAuthorization(check), AVAuthorizationStatus::restricted);
}

}  // namespace
}  // namespace ov
