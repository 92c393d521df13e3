#include "timing/prepare_ring_buffer_adapter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

namespace ov {
namespace {

using namespace std::chrono_literals;

// A stand-in for an audio sample: a format (absent when the sample has none) and a value.
struct Sample {
    std::optional<int> format;
    int value = 0;
};
const auto formatOf = [](const Sample& s) { return s.format; };

template <class Pred>
bool eventually(Pred pred) {
    for (int i = 0; i < 5000; ++i) {
        if (pred()) return true;
        std::this_thread::sleep_for(1ms);
    }
    return pred();
}

struct AdapterTest : ::testing::Test {
    std::shared_ptr<OVLogger> engine = OVLogger::create(false);
    Logger logger{"PrepareRingBufferAdapter", std::nullopt, {}, engine};
};

TEST_F(AdapterTest, ItemWaiterOnARingWithItemsGetsTheNewestAtOnce) {
    PrepareRingBufferAdapter<int> adapter(RingBuffer<int>(3), logger);
    for (int v : {1, 2, 3, 4}) adapter.append(v);
    EXPECT_EQ(adapter.waitForItem(5.0), 4);
    EXPECT_EQ(adapter.waitItem(), 4);
    EXPECT_EQ(adapter.buffer().elements(), (std::vector<int>{2, 3, 4}));
}

TEST_F(AdapterTest, ItemWaiterIsResumedByTheNextAppendAndTimesOutOtherwise) {
    PrepareRingBufferAdapter<int> adapter(RingBuffer<int>(3), logger);
    auto waiting = std::async(std::launch::async, [&] { return adapter.waitForItem(30.0); });
    ASSERT_TRUE(eventually([&] { return adapter.waiterCount() == 1; }));
    adapter.append(9);
    EXPECT_EQ(waiting.get(), 9);
    EXPECT_EQ(adapter.waiterCount(), 0u);

    adapter.clear();
    struct NoAudio : std::runtime_error {
        NoAudio() : std::runtime_error("no audio") {}
    };
    EXPECT_THROW(adapter.waitForItem(0.05, NoAudio{}), NoAudio);
    // The abandoned waiter was cancelled and removed, so nothing leaks.
    ASSERT_TRUE(eventually([&] { return adapter.waiterCount() == 0; }));
}

TEST_F(AdapterTest, CancelledWaiterGetsACancellationFailure) {
    PrepareRingBufferAdapter<int> adapter(RingBuffer<int>(2), logger);
    std::stop_source stop;
    auto item = std::async(std::launch::async, [&] { return adapter.waitItem(stop.get_token()); });
    auto full = std::async(std::launch::async, [&] { return adapter.waitForFullBuffer(stop.get_token()); });
    ASSERT_TRUE(eventually([&] { return adapter.waiterCount() == 2; }));
    stop.request_stop();
    EXPECT_THROW(item.get(), CancellationError);
    EXPECT_THROW(full.get(), CancellationError);
    EXPECT_EQ(adapter.waiterCount(), 0u);
    // A token stopped before the wait cancels at once.
    EXPECT_THROW(adapter.waitItem(stop.get_token()), CancellationError);
}

TEST_F(AdapterTest, FullBufferWaiterGetsAllItemsOldestFirstAndClearKeepsWaiters) {
    PrepareRingBufferAdapter<int> adapter(RingBuffer<int>(3), logger);
    adapter.append(1);
    auto full = std::async(std::launch::async, [&] { return adapter.waitForFullBuffer(); });
    ASSERT_TRUE(eventually([&] { return adapter.waiterCount() == 1; }));
    adapter.clear();
    adapter.append(2);
    adapter.append(3);
    EXPECT_EQ(full.wait_for(20ms), std::future_status::timeout);
    adapter.append(4);
    EXPECT_EQ(full.get(), (std::vector<int>{2, 3, 4}));
    // Already full: at once.
    adapter.append(5);
    EXPECT_EQ(adapter.waitForFullBuffer(), (std::vector<int>{3, 4, 5}));
}

TEST_F(AdapterTest, MixedFormatsClearTheRingAndWaitForItToFillAgain) {
    PrepareRingBufferAdapter<Sample> adapter(RingBuffer<Sample>(3), logger);
    for (int f : {1, 2, 2}) adapter.append({f, 0});
    EXPECT_FALSE(adapter.isFullOfAllSameFormat(formatOf));

    auto stable = std::async(std::launch::async, [&] { adapter.waitForStableAudioFormat(formatOf); });
    // It clears the mixed ring and waits for three fresh samples.
    ASSERT_TRUE(eventually([&] { return adapter.buffer().count() == 0 && adapter.waiterCount() == 1; }));
    for (int i = 0; i < 3; ++i) adapter.append({2, i});
    stable.get();
    EXPECT_TRUE(adapter.isFullOfAllSameFormat(formatOf));

    bool logged = false;
    for (auto& line : engine->ringBuffer().elements())
        logged |= line.message ==
                  "Audio Stream Format Description of items in buffer are not all same, clearing and retrying.";
    EXPECT_TRUE(logged);
}

TEST_F(AdapterTest, FormatThatStaysMixedOrIsMissingFails) {
    PrepareRingBufferAdapter<Sample> adapter(RingBuffer<Sample>(2), logger);
    adapter.append({1, 0});
    adapter.append({2, 0});
    auto stable = std::async(std::launch::async, [&] { adapter.waitForStableAudioFormat(formatOf); });
    ASSERT_TRUE(eventually([&] { return adapter.waiterCount() == 1; }));
    adapter.append({3, 0});
    adapter.append({1, 0});
    try {
        stable.get();
        FAIL() << "expected a format failure";
    } catch (const AudioFormatCheckError& e) {
        EXPECT_EQ(e.code(), AudioFormatCheckError::Code::audioFormatError);
        EXPECT_STREQ(e.what(), "Audio Stream Format Description of items in buffer are not all same");
    }

    using Adapter = PrepareRingBufferAdapter<Sample>;
    auto check = [&](std::vector<Sample> items) -> std::string {
        try {
            Adapter::allSameFormat(items, formatOf);
        } catch (const AudioFormatCheckError& e) {
            EXPECT_EQ(e.code(), AudioFormatCheckError::Code::audioBufferProcessingFailed);
            return e.what();
        }
        return "";
    };
    EXPECT_EQ(check({}), "Audio buffer is missing first item");
    EXPECT_EQ(check({{std::nullopt, 0}, {1, 0}}), "Audio sample buffer missing Audio Stream Basic Description");
    EXPECT_EQ(check({{1, 0}, {std::nullopt, 0}}), "Some sample buffer missing Audio Stream Basic Description");
    // Not full: never "all same".
    PrepareRingBufferAdapter<Sample> partial(RingBuffer<Sample>(3), logger);
    partial.append({1, 0});
    EXPECT_FALSE(partial.isFullOfAllSameFormat(formatOf));
}

TEST_F(AdapterTest, AbandonedWaitOutlivesTheAdapterSafely) {
    for (int i = 0; i < 20; ++i) {
        auto adapter = std::make_unique<PrepareRingBufferAdapter<int>>(RingBuffer<int>(2), logger);
        EXPECT_THROW(adapter->waitForItem(0.001), TimeoutError);
        adapter.reset();  // the cancelled body may still be unwinding on its own thread
    }
}

}  // namespace
}  // namespace ov
