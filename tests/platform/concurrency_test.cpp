// DispatchQueue, the main queue and TaskGroup: ordering, errors across threads, shutdown.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>

#include "platform/dispatch_queue.h"
#include "platform/task_group.h"

namespace ov::platform {
namespace {

using namespace std::chrono_literals;

TEST(DispatchQueue, RunsBlocksSeriallyInSubmissionOrder) {
    DispatchQueue queue("test.order");
    std::vector<int> seen;
    std::atomic<int> concurrent{0}, maxConcurrent{0};
    for (int i = 0; i < 1000; ++i) {
        queue.async([&, i] {
            int now = ++concurrent;
            maxConcurrent = std::max(maxConcurrent.load(), now);
            seen.push_back(i);
            --concurrent;
        });
    }
    queue.sync([] {});
    ASSERT_EQ(seen.size(), 1000u);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(seen[i], i);
    EXPECT_EQ(maxConcurrent.load(), 1);
}

TEST(DispatchQueue, TimedBlocksRunByDeadlineAndNotEarly) {
    DispatchQueue queue("test.timed");
    std::mutex m;
    std::vector<std::string> seen;
    const auto start = DispatchQueue::Clock::now();
    std::atomic<int64_t> lateMs{-1};
    queue.asyncAfter(60ms, [&] {
        std::lock_guard l(m);
        seen.push_back("60");
        lateMs = std::chrono::duration_cast<std::chrono::milliseconds>(DispatchQueue::Clock::now() - start).count();
    });
    queue.asyncAfter(20ms, [&] { std::lock_guard l(m); seen.push_back("20"); });
    queue.async([&] { std::lock_guard l(m); seen.push_back("now"); });
    std::this_thread::sleep_for(150ms);
    queue.sync([] {});
    std::lock_guard l(m);
    EXPECT_EQ(seen, (std::vector<std::string>{"now", "20", "60"}));
    EXPECT_GE(lateMs.load(), 60);
}

TEST(DispatchQueue, SyncReturnsValuesAndRethrowsOnTheCaller) {
    DispatchQueue queue("test.sync");
    EXPECT_EQ(queue.sync([] { return 42; }), 42);
    std::thread::id worker;
    queue.sync([&] { worker = std::this_thread::get_id(); });
    EXPECT_NE(worker, std::this_thread::get_id());
    EXPECT_THROW(queue.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
    // The queue survives a throwing block, sync or async.
    queue.async([] { throw std::logic_error("ignored"); });
    EXPECT_EQ(queue.sync([] { return 7; }), 7);
}

TEST(DispatchQueue, SyncFromInsideTheQueueRunsInline) {
    DispatchQueue queue("test.reentrant");
    int value = queue.sync([&] {
        EXPECT_TRUE(queue.isCurrent());
        return queue.sync([] { return 5; }) + 1;
    });
    EXPECT_EQ(value, 6);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(DispatchQueue, DestructionRunsDueBlocksAndDropsFutureOnes) {
    std::atomic<int> ran{0};
    std::atomic<bool> futureRan{false};
    {
        DispatchQueue queue("test.shutdown");
        queue.async([&] { std::this_thread::sleep_for(20ms); ++ran; });
        queue.async([&] { ++ran; });
        queue.asyncAfter(10s, [&] { futureRan = true; });
    }
    EXPECT_EQ(ran.load(), 2);
    EXPECT_FALSE(futureRan.load());
}

TEST(DispatchQueue, LastOwnerMayReleaseTheQueueFromItsOwnBlock) {
    auto queue = std::make_shared<DispatchQueue>("test.self-release");
    std::atomic<bool> done{false};
    auto* raw = queue.get();
    raw->async([q = std::move(queue), &done]() mutable {
        q.reset();  // destroys the queue on its own thread
        done = true;
    });
    for (int i = 0; i < 200 && !done; ++i) std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(done.load());
}

TEST(MainQueue, BlocksRunOnTheDrainingThread) {
    std::thread::id ranOn;
    DispatchQueue::main().async([&] { ranOn = std::this_thread::get_id(); });
    DispatchQueue::drainMainForTesting();
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(TaskGroup, CollectsResultsAndErrorsByPosition) {
    TaskGroup<int> group;
    group.add([] { std::this_thread::sleep_for(30ms); return 1; });
    group.add([]() -> int { throw std::runtime_error("second failed"); });
    group.add([] { return 3; });
    auto results = group.wait();
    ASSERT_EQ(results.size(), 3u);
    EXPECT_EQ(results[0].get(), 1);
    EXPECT_FALSE(results[1].ok());
    EXPECT_THROW(results[1].get(), std::runtime_error);
    EXPECT_EQ(results[2].get(), 3);
}

TEST(TaskGroup, ChildrenRunConcurrently) {
    // Two children that each wait for the other would dead-lock if run one after the other.
    TaskGroup<> group;
    std::atomic<int> arrived{0};
    auto meet = [&] {
        ++arrived;
        for (int i = 0; i < 2000 && arrived < 2; ++i) std::this_thread::sleep_for(1ms);
        if (arrived < 2) throw std::runtime_error("children did not overlap");
    };
    group.add(meet);
    group.add(meet);
    EXPECT_NO_THROW(group.waitThrowing());
}

TEST(TaskGroup, CancelReachesChildrenThroughTheirStopToken) {
    TaskGroup<bool> group;
    group.add([](std::stop_token token) {
        for (int i = 0; i < 5000; ++i) {
            if (token.stop_requested()) return true;
            std::this_thread::sleep_for(1ms);
        }
        return false;
    });
    std::this_thread::sleep_for(10ms);
    group.cancel();
    EXPECT_TRUE(group.waitThrowing().at(0));
}

TEST(TaskGroup, WaitThrowingRethrowsTheFirstErrorByPosition) {
    TaskGroup<int> group;
    group.add([]() -> int {
        std::this_thread::sleep_for(30ms);
        throw std::invalid_argument("first");
    });
    group.add([]() -> int { throw std::out_of_range("second"); });
    EXPECT_THROW(group.waitThrowing(), std::invalid_argument);
}

}  // namespace
}  // namespace ov::platform
