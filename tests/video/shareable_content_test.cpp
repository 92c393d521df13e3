// The guarded retrieval of shareable content against a scripted synthetic
// service: which request wins, when the service is restarted, what a caller sees.
#include "video/shareable_content.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/synthetic/synthetic_capture_platform.h"
#include "support/log_capture.h"

namespace ov {
namespace {

using platform::CapturePlatform;
using platform::SyntheticCapturePlatform;
using platform::SyntheticContentAnswer;
using platform::SyntheticWorld;
using testing::LogCapture;
using Case = ShareableContentError::Case;

struct Service {
    std::shared_ptr<SyntheticCapturePlatform> platform =
        std::make_shared<SyntheticCapturePlatform>(SyntheticWorld::makeDefault());
    CapturePlatform::ScopedOverride installed{platform};
    Service() { ShareableContent::resetReturnedOnce(); }
    ~Service() {
        // Releases any request still hanging, so no thread outlives the test.
        platform->restartShareableContentService();
        ShareableContent::setTiming({});
        ShareableContent::resetReturnedOnce();
    }
};

SyntheticContentAnswer hang() { return {0, true, std::nullopt}; }
SyntheticContentAnswer after(double seconds) { return {seconds, false, std::nullopt}; }

double since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(ShareableContent, AnAnswerBeforeTheSecondRequestSettlesTheRetrieval) {
    Service service;
    LogCapture log;
    service.platform->scriptShareableContent({after(1.9)});
    auto [content, attempt] = ShareableContent(log.logger).getContentWithRetries(true);
    EXPECT_EQ(attempt, 1);
    EXPECT_EQ(content.displays().size(), 1u);
    // The later requests found the retrieval settled and asked nothing.
    std::this_thread::sleep_for(std::chrono::milliseconds(2300));
    EXPECT_EQ(service.platform->shareableContentRequestCount(), 1);
}

TEST(ShareableContent, AHangingFirstRequestIsOvertakenByTheSecond) {
    Service service;
    LogCapture log;
    service.platform->scriptShareableContent({hang(), after(0.5)});
    const auto start = std::chrono::steady_clock::now();
    auto [content, attempt] = ShareableContent(log.logger).getContentWithRetries(true);
    EXPECT_EQ(attempt, 2);
    EXPECT_NEAR(since(start), 2.5, 0.3);
    ShareableContent once(log.logger);
    once.getContentWithRetries(true);
    EXPECT_THROW(once.getContentWithRetries(true), std::logic_error);
}

TEST(ShareableContent, AServiceThatNeverAnsweredIsRestartedOnceThenTheCallerGetsItsOwnError) {
    Service service;
    ShareableContent::setTiming({0.5, 1.0, 1.025});
    LogCapture log;
    service.platform->scriptShareableContent({hang(), hang(), hang(), hang(), hang(), hang()});
    const auto start = std::chrono::steady_clock::now();
    try {
        ShareableContent::getContentWithRestart(true, Case::timeoutRecordDisplay, log.logger);
        FAIL() << "a hanging service answered";
    } catch (const ShareableContentError& e) {
        EXPECT_EQ(e.kind(), Case::timeoutRecordDisplay);
        EXPECT_EQ(e.domain(), "Orvane.ShareableContentError");
        EXPECT_EQ(e.code(), 2);
        EXPECT_EQ(e.errorDescription().localizedDescription,
                  "Cannot record display. If this error persists, try rebooting your computer.");
    }
    // Two whole sequences with the restart between them.
    EXPECT_GE(since(start), 2.05);
    EXPECT_EQ(service.platform->restartCount(), 1);
    EXPECT_TRUE(log.contains("Timeout retrieving shareable content. Restarting replaykit deamon."));
    EXPECT_TRUE(log.contains("Restarted replaykit deamon. Retrying."));
    EXPECT_TRUE(log.contains("Timeout retrieving shareable content"));
}

TEST(ShareableContent, AfterOneAnswerATimeoutNeverRestartsAndARefusalPassesUnchanged) {
    Service service;
    ShareableContent::setTiming({0.5, 1.0, 1.025});
    LogCapture log;
    ShareableContent::getContentWithRestart(true, Case::timeoutRecordWindow, log.logger);
    EXPECT_TRUE(ShareableContent::returnedOnce());

    service.platform->scriptShareableContent({hang(), hang(), hang()});
    try {
        ShareableContent::getContentWithRestart(true, Case::timeoutRecordWindow, log.logger);
        FAIL();
    } catch (const ShareableContentError& e) {
        EXPECT_EQ(e.kind(), Case::timeoutRecordWindow);
    }
    EXPECT_EQ(service.platform->restartCount(), 0);
    service.platform->restartShareableContentService();

    ShareableContent::resetReturnedOnce();
    const int restarts = service.platform->restartCount();
    service.platform->scriptShareableContent(
        {{0, false, platform::PlatformError("com.apple.ScreenCaptureKit.SCStreamErrorDomain", -3801, "Refused")}});
    try {
        ShareableContent::getContentWithRestart(true, Case::timeoutRecordWindow, log.logger);
        FAIL();
    } catch (const ShareableContentError&) {
        FAIL() << "a refusal became a time-out";
    } catch (const platform::PlatformError& e) {
        EXPECT_EQ(e.code(), -3801);
    }
    EXPECT_EQ(service.platform->restartCount(), restarts);
}

TEST(ShareableContent, ConcurrentCallersTakeTurnsInArrivalOrder) {
    Service service;
    LogCapture log;
    // Later answers take a moment too, so that a caller that was let go
    // records its turn before the next caller's answer can come.
    service.platform->scriptShareableContent({after(0.3), after(0.1), after(0.1)});
    std::mutex mutex;
    std::vector<int> finished;
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back([&, i] {
            ShareableContent::getContentWithRestart(true, Case::timeoutRecordDisplay, log.logger);
            std::lock_guard lock(mutex);
            finished.push_back(i);
        });
        // Each caller is queued before the next one arrives.
        ASSERT_TRUE(testing::eventually([&] {
            return i == 0 ? !ShareableContent::tokenBucket().isFull()
                          : ShareableContent::tokenBucket().waiterCount() == size_t(i);
        }));
    }
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(finished, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(ShareableContent::tokenBucket().isFull());
}

}  // namespace
}  // namespace ov
