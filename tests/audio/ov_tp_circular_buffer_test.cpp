// The mirrored ring that hands audio from a real-time thread to a reader.
#include "audio/interop/ov_tp_circular_buffer.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define OV_COUNT_ALLOCATIONS 1
extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void* __libc_memalign(size_t, size_t);
namespace {
// Counts allocations made by the thread that sets the flag.
thread_local bool countAllocations = false;
std::atomic<int> allocationsWhileCounting{0};
void noteAllocation() {
    if (countAllocations) allocationsWhileCounting.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace
extern "C" void* malloc(size_t size) {
    noteAllocation();
    return __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) {
    noteAllocation();
    return __libc_calloc(count, size);
}
extern "C" void* realloc(void* pointer, size_t size) {
    noteAllocation();
    return __libc_realloc(pointer, size);
}
extern "C" void* memalign(size_t alignment, size_t size) {
    noteAllocation();
    return __libc_memalign(alignment, size);
}
#endif

namespace ov {
namespace {

// A buffer list of `channels` float buffers of `frames` frames, each sample
// set from `seed`, kept alive with its storage.
struct TestList {
    std::vector<std::vector<float>> data;
    std::vector<unsigned char> storage;
    AudioStreamBasicDescription format{};

    TestList(uint32_t channels, uint32_t frames, float seed) {
        data.assign(channels, std::vector<float>(frames));
        for (uint32_t c = 0; c < channels; ++c)
            for (uint32_t f = 0; f < frames; ++f) data[c][f] = seed + static_cast<float>(c * 100000 + f);
        storage.assign(AudioBufferListSize(channels), 0);
        auto* l = list();
        l->mNumberBuffers = channels;
        for (uint32_t c = 0; c < channels; ++c) {
            l->mBuffers[c].mNumberChannels = 1;
            l->mBuffers[c].mDataByteSize = frames * sizeof(float);
            l->mBuffers[c].mData = data[c].data();
        }
        format.mSampleRate = 48000;
        format.mBytesPerFrame = sizeof(float);
        format.mChannelsPerFrame = channels;
    }
    AudioBufferList* list() { return reinterpret_cast<AudioBufferList*>(storage.data()); }
};

class Ring {
public:
    explicit Ring(uint32_t length) { EXPECT_TRUE(OVTPCircularBufferInit(&ring, length)); }
    ~Ring() { EXPECT_EQ(OVTPCircularBufferCleanup(&ring), 0); }
    OVTPCircularBuffer ring{};
};

uint32_t blockSize(uint32_t channels, uint32_t bytes) {
    // Header with one entry per buffer (96 bytes for one), each buffer's data
    // on a 16-byte boundary, the whole rounded up to 16.
    uint32_t position = 72 + 8 + 16 * channels;
    for (uint32_t c = 0; c < channels; ++c) position = (position + 15) / 16 * 16 + bytes;
    return (position + 15) / 16 * 16;
}

TEST(OVTPCircularBuffer, LengthIsWholePagesAndTheSecondHalfMirrorsTheFirst) {
    Ring r(1);
    EXPECT_EQ(r.ring.length, static_cast<uint32_t>(sysconf(_SC_PAGESIZE)));
    EXPECT_TRUE(r.ring.atomic);
    auto* bytes = static_cast<volatile unsigned char*>(r.ring.buffer);
    bytes[r.ring.length + 5] = 0xAB;
    EXPECT_EQ(bytes[5], 0xAB);
    EXPECT_EQ(sizeof(OVTPCircularBuffer), 32u);
}

TEST(OVTPCircularBuffer, ABlockAcrossTheEndIsReadBackWholeAndHeadWraps) {
    Ring r(4096);
    TestList filler(1, 900, 0);  // 3,600 bytes of data: one block of 3,696
    const uint32_t fillerSize = blockSize(1, 3600);
    ASSERT_TRUE(OVTPCircularBufferCopyAudioBufferList(&r.ring, filler.list(), nullptr, 900, &filler.format));
    auto* first = OVTPCircularBufferNextBufferList(&r.ring);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->totalLength, fillerSize);
    OVTPCircularBufferConsume(&r.ring, first->totalLength);
    EXPECT_EQ(r.ring.tail, fillerSize);

    // The next block starts 400 bytes before the end and runs on into the mirror.
    TestList stereo(2, 100, 7);
    AudioTimeStamp stamp{};
    stamp.mHostTime = 123456789;
    stamp.mFlags = ov::platform::kAudioTimeStampHostTimeValid;
    ASSERT_TRUE(OVTPCircularBufferCopyAudioBufferList(&r.ring, stereo.list(), &stamp, 100, &stereo.format));
    const uint32_t size = blockSize(2, 400);
    EXPECT_EQ(r.ring.head, (fillerSize + size) % r.ring.length) << "head wraps into the first half";
    EXPECT_LT(r.ring.head, fillerSize);

    auto* block = OVTPCircularBufferNextBufferList(&r.ring);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->timestamp.mHostTime, 123456789u);
    ASSERT_EQ(block->bufferList.mNumberBuffers, 2u);
    for (uint32_t c = 0; c < 2; ++c) {
        const auto& b = block->bufferList.mBuffers[c];
        EXPECT_EQ(reinterpret_cast<uintptr_t>(b.mData) % 16, 0u);
        ASSERT_EQ(b.mDataByteSize, 400u);
        EXPECT_EQ(std::memcmp(b.mData, stereo.data[c].data(), 400), 0) << "channel " << c;
    }
    // The bytes past the end are the ring's first bytes.
    const auto* end = static_cast<const unsigned char*>(block->bufferList.mBuffers[1].mData) + 399;
    const auto* ringStart = static_cast<const unsigned char*>(r.ring.buffer);
    EXPECT_EQ(*end, ringStart[(end - ringStart) % r.ring.length]);
    OVTPCircularBufferConsume(&r.ring, block->totalLength);
    EXPECT_EQ(OVTPCircularBufferNextBufferList(&r.ring), nullptr);
}

TEST(OVTPCircularBuffer, ABlockOfExactlyTheFreeSpaceFillsTheRingAndTheNextIsRefused) {
    Ring r(4096);
    // One block of exactly 4,096 bytes: 96 header + 4,000 data.
    TestList list(1, 1000, 0);
    ASSERT_EQ(blockSize(1, 4000), 4096u);
    ASSERT_TRUE(OVTPCircularBufferCopyAudioBufferList(&r.ring, list.list(), nullptr, 1000, &list.format));
    EXPECT_EQ(r.ring.fillCount.load(), static_cast<int32_t>(r.ring.length));
    EXPECT_EQ(r.ring.head, 0u);
    TestList small(1, 1, 0);
    EXPECT_FALSE(OVTPCircularBufferCopyAudioBufferList(&r.ring, small.list(), nullptr, 1, &small.format));
    EXPECT_EQ(r.ring.fillCount.load(), static_cast<int32_t>(r.ring.length)) << "a refused block changes nothing";
}

TEST(OVTPCircularBuffer, EmptyInputWritesNothing) {
    Ring r(4096);
    TestList list(1, 10, 0);
    list.list()->mBuffers[0].mDataByteSize = 0;
    EXPECT_TRUE(OVTPCircularBufferCopyAudioBufferList(&r.ring, list.list(), nullptr, UINT32_MAX, &list.format));
    EXPECT_TRUE(OVTPCircularBufferCopyAudioBufferList(&r.ring, list.list(), nullptr, 0, &list.format));
    EXPECT_EQ(r.ring.fillCount.load(), 0);
    EXPECT_EQ(r.ring.head, 0u);
}

TEST(OVTPCircularBufferDeathTest, MoreFramesThanTheFirstBufferHoldsIsAFault) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Ring r(4096);
            TestList list(1, 10, 0);
            OVTPCircularBufferCopyAudioBufferList(&r.ring, list.list(), nullptr, 11, &list.format);
        },
        "byteCount <= inBufferList->mBuffers\\[0\\].mDataByteSize");
}

TEST(OVTPCircularBuffer, TwoThreadsHandOverAMillionBlocksInOrderWithoutAllocating) {
    Ring r(64 * 1024);
    constexpr uint32_t blocks = 1'000'000;
    std::atomic<bool> producerDone{false};
    std::atomic<uint32_t> dropped{0};
    std::atomic<bool> droppedWhileRoomy{false};

    std::thread producer([&] {
        std::mt19937 random(42);
        // Every list is made before counting starts: the loop itself must not allocate.
        std::vector<TestList> lists;
        for (uint32_t frames = 1; frames <= 257; frames += 16) lists.emplace_back(2, frames, 0.0f);
#ifdef OV_COUNT_ALLOCATIONS
        countAllocations = true;
#endif
        for (uint32_t n = 0; n < blocks; ++n) {
            TestList& list = lists[random() % lists.size()];
            const uint32_t frames = list.list()->mBuffers[0].mDataByteSize / sizeof(float);
            list.data[0][0] = static_cast<float>(n);  // exact in a float up to 2^24
            list.data[1][frames - 1] = -static_cast<float>(n);
            AudioTimeStamp stamp{};
            stamp.mSampleTime = n;
            const int32_t before = r.ring.fillCount.load();
            if (!OVTPCircularBufferCopyAudioBufferList(&r.ring, list.list(), &stamp, frames, &list.format)) {
                dropped.fetch_add(1);
                if (r.ring.length - static_cast<uint32_t>(before) >= blockSize(2, frames * 4) + 0)
                    droppedWhileRoomy = true;
            }
        }
#ifdef OV_COUNT_ALLOCATIONS
        countAllocations = false;
#endif
        producerDone = true;
    });

    uint32_t received = 0;
    double lastNumber = -1;
    bool inOrder = true, contentsRight = true;
    while (true) {
        auto* block = OVTPCircularBufferNextBufferList(&r.ring);
        if (!block) {
            if (producerDone && !OVTPCircularBufferNextBufferList(&r.ring)) break;
            std::this_thread::yield();
            continue;
        }
        const double number = block->timestamp.mSampleTime;
        const auto& left = block->bufferList.mBuffers[0];
        const auto& right = block->bufferList.mBuffers[1];
        const uint32_t frames = left.mDataByteSize / sizeof(float);
        if (!(number > lastNumber)) inOrder = false;
        if (static_cast<const float*>(left.mData)[0] != static_cast<float>(number) ||
            static_cast<const float*>(right.mData)[frames - 1] != -static_cast<float>(number) ||
            (frames > 2 && static_cast<const float*>(left.mData)[1] != 1.0f))
            contentsRight = false;
        lastNumber = number;
        ++received;
        OVTPCircularBufferConsume(&r.ring, block->totalLength);
    }
    producer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_TRUE(contentsRight);
    EXPECT_EQ(received + dropped.load(), blocks);
    EXPECT_FALSE(droppedWhileRoomy) << "a block was dropped although it fitted";
#ifdef OV_COUNT_ALLOCATIONS
    EXPECT_EQ(allocationsWhileCounting.load(), 0);
#endif
}

}  // namespace
}  // namespace ov
