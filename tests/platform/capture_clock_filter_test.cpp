// The host-clock stamps of a capture stream: arrival jitter smoothed, device
// drift followed slowly, never a jump.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "platform/linux/capture_clock_filter.h"

namespace ov::platform {
namespace {

constexpr double rate = 48000;
constexpr int64_t chunk = 960;  // 20 ms

struct Simulated {
    double maxError = 0;       // |stamp - true capture time|, after the first second
    double maxStepError = 0;   // |stamp step - chunk length at the nominal rate|
    double finalRateError = 0; // relative
    int resyncs = 0;
};

// A device whose clock runs `ppm` fast against the host, whose chunks arrive
// late by a scheduler delay (exponential, mean `jitterMean`, occasional stalls
// of `stall`), for `seconds` of audio.
Simulated simulate(double ppm, double seconds, double jitterMean, double stall, uint32_t seed = 1) {
    std::mt19937_64 random(seed);
    std::exponential_distribution<double> delay(1.0 / jitterMean);
    std::uniform_real_distribution<double> uniform(0, 1);
    CaptureClockFilter filter(rate);
    const double trueRate = rate * (1 + ppm * 1e-6);
    const double start = 5000.0;  // seconds of uptime
    Simulated run;
    double previousStamp = 0;
    const int64_t chunks = int64_t(seconds * rate / chunk);
    for (int64_t k = 0; k < chunks; ++k) {
        const int64_t position = k * chunk;
        const double truth = start + double(position) / trueRate;
        double late = delay(random);
        if (stall > 0 && uniform(random) < 0.001) late += stall;
        const auto s = filter.stamp(position, chunk, int64_t(std::llround((truth + late) * 1e9)));
        const double stamp = s.seconds(rate);
        if (k > 0) run.maxStepError = std::max(run.maxStepError, std::fabs(stamp - previousStamp - chunk / rate));
        if (double(position) / rate > 1.0) run.maxError = std::max(run.maxError, std::fabs(stamp - truth));
        previousStamp = stamp;
    }
    run.finalRateError = filter.estimatedRate() / trueRate - 1;
    run.resyncs = filter.resyncCount();
    return run;
}

TEST(CaptureClockFilter, ADriftingDeviceIsFollowedOverHoursWithoutJumps) {
    // 100 ppm fast, 1 ms mean scheduling delay, a 15 ms stall every 20 s or so,
    // three hours: the nominal frame-count line alone would be 1.08 s off by now.
    const Simulated fast = simulate(100, 3 * 3600, 0.001, 0.015);
    EXPECT_LT(fast.maxError, 0.003);
    EXPECT_LT(fast.maxStepError, 21e-6);  // at most the slew limit per chunk
    EXPECT_LT(std::fabs(fast.finalRateError), 5e-6);
    EXPECT_EQ(fast.resyncs, 0);

    const Simulated slow = simulate(-100, 3 * 3600, 0.001, 0.015, 7);
    EXPECT_LT(slow.maxError, 0.003);
    EXPECT_LT(slow.maxStepError, 21e-6);
    EXPECT_LT(std::fabs(slow.finalRateError), 5e-6);
}

TEST(CaptureClockFilter, ADeviceOnTheHostClockKeepsExactFrameCountStamps) {
    // Jitter alone never leaves the dead band once the loop has settled: the
    // stamps are the frame-count line, exactly.
    CaptureClockFilter filter(rate);
    std::mt19937_64 random(3);
    std::uniform_real_distribution<double> late(0, 0.001);
    CaptureClockFilter::Stamp first{};
    for (int64_t k = 0; k < 60 * 50; ++k) {
        const double truth = 100.0 + double(k * chunk) / rate;
        const auto s = filter.stamp(k * chunk, chunk, int64_t(std::llround((truth + late(random)) * 1e9)));
        if (k == 0) first = s;
        EXPECT_EQ(s.anchorNanos, first.anchorNanos) << "chunk " << k;
        EXPECT_EQ(s.framesSinceAnchor, k * chunk);
    }
}

TEST(CaptureClockFilter, AGapInDeliveryRestartsTheLineAtTheNewTime) {
    CaptureClockFilter filter(rate);
    int64_t position = 0;
    double t = 10.0;
    for (int k = 0; k < 200; ++k, position += chunk, t += chunk / rate) filter.stamp(position, chunk, int64_t(t * 1e9));
    // The source was suspended for two seconds: positions go on, time jumped.
    t += 2.0;
    CaptureClockFilter::Stamp s;
    for (int k = 0; k < 10; ++k, position += chunk, t += chunk / rate) s = filter.stamp(position, chunk, int64_t(t * 1e9));
    EXPECT_EQ(filter.resyncCount(), 1);
    EXPECT_NEAR(s.seconds(rate), t - chunk / rate, 0.001);
}

// Stamps against the true capture times over a run, after the first second.
struct Deviation {
    double earliest = 1, latest = -1;
    void add(double stamp, double truth) {
        earliest = std::min(earliest, stamp - truth);
        latest = std::max(latest, stamp - truth);
    }
};

TEST(CaptureClockFilter, ALoadedMachineDoesNotDragTheStampsLate) {
    // Every chunk late by 15 ms on average, one in a hundred by 100 ms more:
    // the earliest arrivals still say where the audio was captured.
    std::mt19937_64 random(5);
    std::exponential_distribution<double> delay(1 / 0.015);
    std::uniform_real_distribution<double> uniform(0, 1);
    CaptureClockFilter filter(rate);
    filter.seed(0, int64_t(100e9));
    Deviation deviation;
    for (int64_t k = 0; k < 60 * 50; ++k) {
        const double truth = 100 + double(k * chunk) / rate;
        const double late = delay(random) + (uniform(random) < 0.01 ? 0.1 : 0.0);
        deviation.add(filter.stamp(k * chunk, chunk, int64_t(std::llround((truth + late) * 1e9))).seconds(rate), truth);
    }
    EXPECT_GT(deviation.earliest, -0.0005);
    EXPECT_LT(deviation.latest, 0.0005);
}

TEST(CaptureClockFilter, ABacklogCaughtUpAtOnceNeitherRestartsNorMovesTheLine) {
    CaptureClockFilter filter(rate);
    filter.seed(0, int64_t(100e9));
    Deviation deviation;
    int64_t k = 0;
    auto deliver = [&](double observed) {
        const double truth = 100 + double(k * chunk) / rate;
        deviation.add(filter.stamp(k * chunk, chunk, int64_t(std::llround(observed * 1e9))).seconds(rate), truth);
        ++k;
    };
    // An observation is when a chunk's first frame was captured, judged by
    // when the chunk arrived: here 1 ms late.
    while (k < 250) deliver(100 + double(k * chunk) / rate + 0.001);
    // The reader stalled for 0.6 s; the 30 chunks it missed come one after
    // another as it catches up, each judged as if it had just been captured.
    const double caughtUp = 100 + double((k + 29) * chunk) / rate + 0.001;
    for (int i = 0; i < 30; ++i) deliver(caughtUp);
    while (k < 500) deliver(100 + double(k * chunk) / rate + 0.001);
    EXPECT_EQ(filter.resyncCount(), 0);
    EXPECT_GT(deviation.earliest, -0.0005);
    EXPECT_LT(deviation.latest, 0.0005);
}

TEST(CaptureClockFilter, AFirstEstimateThatWasOffIsTakenOutWithoutSwingingPast) {
    std::mt19937_64 random(3);
    std::uniform_real_distribution<double> late(0, 0.001);
    CaptureClockFilter filter(rate);
    filter.seed(0, int64_t(100.003e9));  // 3 ms late
    Deviation deviation, end;
    for (int64_t k = 0; k < 120 * 50; ++k) {
        const double truth = 100 + double(k * chunk) / rate;
        const double stamp = filter.stamp(k * chunk, chunk, int64_t(std::llround((truth + late(random)) * 1e9))).seconds(rate);
        deviation.add(stamp, truth);
        if (k >= 100 * 50) end.add(stamp, truth);
    }
    EXPECT_GT(deviation.earliest, -0.0005);
    EXPECT_LT(end.latest, 0.001);
}

}  // namespace
}  // namespace ov::platform
