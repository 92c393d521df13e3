// The host time clock and conversions between clocks.

#include <gtest/gtest.h>

#include <ctime>

#include "platform/cm_clock.h"

namespace ov::testing {
namespace {

using namespace ov::platform;

uint64_t monotonicNow() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1'000'000'000u + uint64_t(ts.tv_nsec);
}

TEST(HostTimeClock, IsMonotonicNanoseconds) {
    uint64_t before = monotonicNow();
    CMTime now = CMClock::hostTimeClock()->time();
    uint64_t after = monotonicNow();
    EXPECT_EQ(now.timescale, kHostTimeTimescale);
    EXPECT_GE(uint64_t(now.value), before);
    EXPECT_LE(uint64_t(now.value), after);

    CMTime previous = hostTimeNow();
    for (int i = 0; i < 1000; ++i) {
        CMTime next = hostTimeNow();
        ASSERT_GE(next, previous);
        previous = next;
    }
}

TEST(HostTimeClock, NanosecondsConvertBothWays) {
    EXPECT_EQ(hostTimeFromNanoseconds(1'500'000'000), CMTime(3, 2));
    EXPECT_EQ(nanosecondsFromHostTime(CMTime(3, 2)), 1'500'000'000u);
    EXPECT_EQ(nanosecondsFromHostTime(CMTime(1, 3)), 333'333'333u);
    EXPECT_EQ(nanosecondsFromHostTime(CMTime(2, 3)), 666'666'667u);
    EXPECT_EQ(nanosecondsFromHostTime(kCMTimeInvalid), 0u);
    EXPECT_EQ(nanosecondsFromHostTime(CMTime(-5, 1)), 0u);
    EXPECT_EQ(nanosecondsFromHostTime(kCMTimePositiveInfinity), UINT64_MAX);
    EXPECT_TRUE(hostTimeFromNanoseconds(UINT64_MAX).isPositiveInfinity());

    EXPECT_DOUBLE_EQ(AVAudioTime::seconds(2'250'000'000), 2.25);
    EXPECT_EQ(AVAudioTime::hostTime(2.25), 2'250'000'000u);
    EXPECT_EQ(AVAudioTime::hostTime(-1), 0u);
}

TEST(HostTimeClock, ConvertTimeGoesThroughHostTime) {
    auto host = CMClock::hostTimeClock();
    CMOffsetClock device(CMTime(-100, 1));  // a device whose epoch is 100 s after host zero
    CMOffsetClock other(CMTime(5, 2));

    CMTime onDevice(1000, 1);
    EXPECT_EQ(device.convertTime(onDevice, *host), CMTime(1100, 1));
    EXPECT_EQ(host->convertTime(CMTime(1100, 1), device), onDevice);
    EXPECT_EQ(device.convertTime(onDevice, other), CMTime(2205, 2));
    EXPECT_EQ(other.convertTime(device.convertTime(onDevice, other), device), onDevice);
    EXPECT_TRUE(device.convertTime(kCMTimeInvalid, *host).isInvalid());

    // A device clock reads host time shifted by its offset.
    CMTime deviceNow = device.time();
    CMTime hostNow = host->time();
    EXPECT_LE(device.convertTime(deviceNow, *host), hostNow);
    EXPECT_LT((hostNow - device.convertTime(deviceNow, *host)).seconds(), 1.0);
}

}  // namespace
}  // namespace ov::testing
