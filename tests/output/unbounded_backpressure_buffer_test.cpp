#include "output/unbounded_backpressure_buffer.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace ov {
namespace {

using Buffer = UnboundedBackpressureBuffer<int>;

struct Consumer {
    bool ready = false;
    bool failNext = false;
    std::vector<int> received;
    Buffer::HandlerResult operator()(int item) {
        if (failNext) {
            failNext = false;
            throw std::runtime_error("writer failed");
        }
        if (!ready) return Buffer::HandlerResult::notReadyForItem;
        received.push_back(item);
        return Buffer::HandlerResult::handledItem;
    }
};

TEST(UnboundedBackpressureBuffer, HoldsItemsUntilTheConsumerIsReadyThenDeliversInOrder) {
    Consumer consumer;
    Buffer buffer("Test.Backpressure", [&](const int& v) { return consumer(v); });

    EXPECT_EQ(buffer.append(1), 1u);
    consumer.ready = true;
    EXPECT_EQ(buffer.append(2), 0u);
    EXPECT_EQ(consumer.received, (std::vector<int>{1, 2}));

    // A refusal part-way keeps the refused item first and everything behind it.
    consumer.ready = false;
    for (int v = 3; v <= 1000; ++v) buffer.append(v);
    EXPECT_EQ(buffer.count(), 998u);
    consumer.ready = true;
    EXPECT_EQ(buffer.partialFlush(), 0u);
    ASSERT_EQ(consumer.received.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(consumer.received[i], i + 1);
}

TEST(UnboundedBackpressureBuffer, ConsumerThatStopsMidPassLeavesTheRestQueued) {
    std::vector<int> received;
    int budget = 2;
    Buffer buffer("Test.Budget", [&](const int& v) {
        if (budget == 0) return Buffer::HandlerResult::notReadyForItem;
        --budget;
        received.push_back(v);
        return Buffer::HandlerResult::handledItem;
    });
    budget = 0;
    for (int v : {1, 2, 3, 4}) buffer.append(v);
    budget = 2;
    EXPECT_EQ(buffer.partialFlush(), 2u);
    EXPECT_EQ(received, (std::vector<int>{1, 2}));
    buffer.clear();
    EXPECT_EQ(buffer.count(), 0u);
    budget = 10;
    EXPECT_EQ(buffer.append(9), 0u);
    EXPECT_EQ(received, (std::vector<int>{1, 2, 9}));
}

TEST(UnboundedBackpressureBuffer, HandlerFailureKeepsTheItemForTheNextPass) {
    Consumer consumer;
    consumer.ready = true;
    Buffer buffer("Test.Failure", [&](const int& v) { return consumer(v); });
    consumer.failNext = true;
    EXPECT_THROW(buffer.append(1), std::runtime_error);
    EXPECT_EQ(buffer.count(), 1u);
    EXPECT_EQ(buffer.append(2), 0u);
    EXPECT_EQ(consumer.received, (std::vector<int>{1, 2}));
}

}  // namespace
}  // namespace ov
