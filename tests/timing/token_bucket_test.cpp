#include "timing/token_bucket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace ov {
namespace {

using namespace std::chrono_literals;

template <class Pred>
bool eventually(Pred pred, std::chrono::milliseconds limit = 5000ms) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (pred()) return true;
        std::this_thread::sleep_for(1ms);
    }
    return pred();
}

TEST(TokenBucket, HandsTheTokenToWaitersInArrivalOrder) {
    auto engine = OVLogger::create(false);
    TokenBucket bucket(Logger("TokenBucket", std::nullopt, {}, engine));
    std::mutex mutex;
    std::vector<int> order;

    bucket.enter();  // the first caller goes on at once
    EXPECT_FALSE(bucket.isFull());

    std::vector<std::thread> waiters;
    for (int i = 1; i <= 3; ++i) {
        waiters.emplace_back([&, i] {
            bucket.enter();
            std::lock_guard lock(mutex);
            order.push_back(i);
        });
        // Let each one arrive before the next, so arrival order is known.
        ASSERT_TRUE(eventually([&] { return bucket.waiterCount() == static_cast<size_t>(i); }));
    }

    for (int released = 1; released <= 3; ++released) {
        bucket.exit();
        ASSERT_TRUE(eventually([&] {
            std::lock_guard lock(mutex);
            return order.size() == static_cast<size_t>(released);
        }));
        // The token went straight to the waiter: the bucket never filled up in between.
        EXPECT_FALSE(bucket.isFull());
    }
    for (auto& t : waiters) t.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

    bucket.exit();
    EXPECT_TRUE(bucket.isFull());
    // And the token can be taken again without waiting.
    bucket.enter();
    EXPECT_FALSE(bucket.isFull());
}

TEST(TokenBucket, ExitOnAFullBucketIsLoggedAndChangesNothing) {
    auto engine = OVLogger::create(false);
    TokenBucket bucket(Logger("TokenBucket", std::nullopt, {}, engine));
    bucket.exit();
    EXPECT_TRUE(bucket.isFull());
    auto lines = engine->ringBuffer().elements();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, OVLogLevel::critical);
    EXPECT_EQ(lines[0].message, "TokenBucket in invalid state during exit.");
    EXPECT_EQ(lines[0].category, "TokenBucket");

    // Still exactly one token: a second enter waits.
    bucket.enter();
    std::atomic<bool> entered{false};
    std::thread second([&] {
        bucket.enter();
        entered = true;
    });
    ASSERT_TRUE(eventually([&] { return bucket.waiterCount() == 1; }));
    EXPECT_FALSE(entered.load());
    bucket.exit();
    second.join();
    EXPECT_TRUE(entered.load());
}

}  // namespace
}  // namespace ov
