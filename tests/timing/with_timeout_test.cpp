#include "timing/with_timeout.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace ov {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct BodyFailure : std::runtime_error {
    BodyFailure() : std::runtime_error("body failed") {}
};
struct CustomTimeout : std::runtime_error {
    CustomTimeout() : std::runtime_error("custom timeout") {}
};

TEST(WithTimeout, BodyThatEndsFirstReturnsItsValueWithoutWaitingForTheDeadline) {
    const auto start = Clock::now();
    int value = withTimeout(30.0, [] { return 42; });
    EXPECT_EQ(value, 42);
    EXPECT_LT(Clock::now() - start, 10s);

    // Move-only results and void bodies.
    auto ptr = withTimeout(30.0, [] { return std::make_unique<int>(7); });
    EXPECT_EQ(*ptr, 7);
    std::atomic<bool> ran{false};
    withTimeout(30.0, [&ran] { ran = true; });
    EXPECT_TRUE(ran.load());
}

TEST(WithTimeout, BodyFailureIsReturnedNotATimeout) {
    EXPECT_THROW(withTimeout(30.0, []() -> int { throw BodyFailure(); }), BodyFailure);
    EXPECT_THROW(withTimeout(30.0, CustomTimeout{}, []() -> int { throw BodyFailure(); }), BodyFailure);
}

TEST(WithTimeout, DeadlineWinsWithoutWaitingForTheCancelledBody) {
    // The body only ends when released, long after the deadline; the state it
    // touches is owned by the body, so it may finish after the call returned.
    struct Shared {
        std::atomic<bool> sawStop{false};
        std::atomic<bool> release{false};
        std::atomic<bool> finished{false};
    };
    auto shared = std::make_shared<Shared>();
    // Should the call wait for the body after all, this lets it end, and the
    // check below fails instead of the test hanging.
    std::thread watchdog([shared] {
        const auto end = Clock::now() + 3s;
        while (!shared->release && Clock::now() < end) std::this_thread::sleep_for(1ms);
        shared->release = true;
    });
    const auto start = Clock::now();
    EXPECT_THROW(withTimeout(0.05,
                             [shared](std::stop_token token) {
                                 while (!shared->release) std::this_thread::sleep_for(1ms);
                                 shared->sawStop = token.stop_requested();
                                 shared->finished = true;
                                 return 1;
                             }),
                 TimeoutError);
    EXPECT_FALSE(shared->finished.load());
    EXPECT_GE(Clock::now() - start, 50ms);
    shared->release = true;
    watchdog.join();
    while (!shared->finished) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(shared->sawStop.load());
}

TEST(WithTimeout, CustomErrorAndZeroTimeout) {
    auto shared = std::make_shared<std::atomic<bool>>(false);
    auto body = [shared](std::stop_token token) {
        while (!token.stop_requested() && !*shared) std::this_thread::sleep_for(1ms);
    };
    EXPECT_THROW(withTimeout(0.02, CustomTimeout{}, body), CustomTimeout);
    EXPECT_THROW(withTimeout(0.0, std::make_exception_ptr(CustomTimeout{}), body), CustomTimeout);
    EXPECT_THROW(withTimeout(-1.0, body), TimeoutError);
}

TEST(WithTimeout, OuterCancellationReachesTheBodyAndItsOutcomeIsReturned) {
    std::stop_source outer;
    std::thread canceller([&] {
        std::this_thread::sleep_for(20ms);
        outer.request_stop();
    });
    const auto start = Clock::now();
    EXPECT_THROW(withTimeout(
                     30.0,
                     [](std::stop_token token) -> int {
                         while (!token.stop_requested()) std::this_thread::sleep_for(1ms);
                         throw CancellationError();
                     },
                     outer.get_token()),
                 CancellationError);
    EXPECT_LT(Clock::now() - start, 10s);
    canceller.join();
}

}  // namespace
}  // namespace ov
