#include "foundation/ring_buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace ov {
namespace {

using Ints = std::vector<int>;

TEST(RingBuffer, OverwritesOldestAndIteratesOldestFirst) {
    RingBuffer<int> ring(3);
    EXPECT_EQ(ring.last(), std::nullopt);
    EXPECT_TRUE(ring.elements().empty());

    ring.append(1);
    EXPECT_EQ(ring.elements(), Ints{1});
    EXPECT_EQ(ring.last(), 1);

    for (int v : {2, 3, 4}) ring.append(v);
    EXPECT_EQ(ring.elements(), (Ints{2, 3, 4}));
    EXPECT_EQ(ring.last(), 4);
    EXPECT_EQ(ring.count(), 3u);
    EXPECT_TRUE(ring.isFull());

    // Wrapping more than once keeps the order.
    for (int v = 5; v <= 11; ++v) ring.append(v);
    EXPECT_EQ(ring.elements(), (Ints{9, 10, 11}));
    Ints seen;
    ring.forEach([&](int v) { seen.push_back(v); });
    EXPECT_EQ(seen, (Ints{9, 10, 11}));
}

TEST(RingBuffer, ClearStartsOverFromAnyPosition) {
    RingBuffer<int> ring(3);
    for (int v : {1, 2, 3, 4}) ring.append(v);  // current is mid-array
    ring.clear();
    EXPECT_EQ(ring.count(), 0u);
    EXPECT_EQ(ring.last(), std::nullopt);
    ring.append(5);
    EXPECT_EQ(ring.elements(), Ints{5});
    ring.append(6);
    EXPECT_EQ(ring.elements(), (Ints{5, 6}));
    EXPECT_EQ(ring.last(), 6);
}

TEST(RingBuffer, CapacityOneAndCopiesAreIndependent) {
    RingBuffer<std::string> one(1);
    one.append("a");
    one.append("b");
    EXPECT_EQ(one.elements(), std::vector<std::string>{"b"});
    EXPECT_EQ(one.last(), "b");

    RingBuffer<std::string> copy = one;
    one.append("c");
    EXPECT_EQ(copy.elements(), std::vector<std::string>{"b"});
    EXPECT_EQ(one.elements(), std::vector<std::string>{"c"});
}

TEST(RingBuffer, ConcurrentWritersAndReadersSeeWholeConsistentSnapshots) {
    RingBuffer<int> ring(64);
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int t = 0; t < 3; ++t)
        writers.emplace_back([&, t] {
            for (int i = 0; i < 20000; ++i) ring.append(t * 100000 + i);
        });
    std::thread reader([&] {
        while (!stop) {
            auto items = ring.elements();
            ASSERT_LE(items.size(), 64u);
            // Each writer's own values appear in increasing order.
            int lastOf[3] = {-1, -1, -1};
            for (int v : items) {
                int w = v / 100000, i = v % 100000;
                ASSERT_GT(i, lastOf[w]);
                lastOf[w] = i;
            }
        }
    });
    for (auto& w : writers) w.join();
    stop = true;
    reader.join();
    EXPECT_EQ(ring.count(), 64u);
}

TEST(RingBufferDeathTest, CapacityBelowOneIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(RingBuffer<int>(0), "capacity must be at least 1");
}

}  // namespace
}  // namespace ov
