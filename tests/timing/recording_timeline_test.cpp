// The recording timeline: intervals through starts, pauses and stops, the
// output clock that retimers derive from it, and its log texts.

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <memory>
#include <thread>

#include "timing/recording_interval.h"
#include "timing/stable_recording_timeline.h"
#include "timing/volatile_recording_timeline.h"

namespace ov::testing {
namespace {

using platform::CMTime;
constexpr double kInf = std::numeric_limits<double>::infinity();
using Entry = VolatileRecordingTimeline::Entry;

std::shared_ptr<VolatileRecordingTimeline> twoIntervals() {
    // [1000→1010] [1020→1030]
    auto t = std::make_shared<VolatileRecordingTimeline>();
    t->start(1000);
    t->pause(1010);
    t->start(1020);
    t->stop(1030);
    return t;
}

TEST(RecordingTimelineLifecycle, NewTimelineWaitsForeverUntilStarted) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    StableRecordingTimeline stable(live);
    ASSERT_EQ(stable.recordingIntervals.size(), 1u);
    EXPECT_EQ(stable.recordingIntervals[0].recordFrom, kInf);
    EXPECT_EQ(stable.recordingIntervals[0].recordUntil, kInf);
    EXPECT_FALSE(stable.isStopped);
    EXPECT_EQ(stable.duration(), kInf);
    // Every item is before the waiting entry: nothing converts.
    EXPECT_FALSE(stable.convert(1e9));
    EXPECT_EQ(stable.relevantInterval(CMTime(5, 1)).index, 0u);
}

TEST(RecordingTimelineLifecycle, PausesSplitTheTimelineIntoIntervals) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    StableRecordingTimeline stable(live);

    live->start(1000);
    EXPECT_EQ(live->interval(0), (Entry{1000, kInf}));
    live->pause(1010);
    EXPECT_EQ(live->state().timeline, (std::vector<Entry>{{1000, 1010}, {kInf, kInf}}));
    live->start(1020);
    live->stop(1030);

    // The snapshot sees nothing until it is updated.
    EXPECT_EQ(stable.recordingIntervals.size(), 1u);
    EXPECT_EQ(stable.duration(), kInf);
    stable.update();
    ASSERT_EQ(stable.recordingIntervals.size(), 2u);
    EXPECT_TRUE(stable.isStopped);
    EXPECT_DOUBLE_EQ(stable.duration(), 20);
    EXPECT_EQ(stable.recordingIntervals[1].index, 1u);
    EXPECT_EQ(stable.recordingIntervals[1].recordFrom, 1020);
    EXPECT_EQ(stable.recordingIntervals[1].recordUntil, 1030);
}

TEST(RecordingTimelineLifecycle, StopWhilePausedLeavesTheWaitingEntry) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(1000);
    live->pause(1010);
    live->stop(1050);
    StableRecordingTimeline stable(live);
    ASSERT_EQ(stable.recordingIntervals.size(), 2u);
    EXPECT_EQ(stable.recordingIntervals[1].recordFrom, kInf);
    EXPECT_EQ(stable.recordingIntervals[1].recordUntil, kInf);
    EXPECT_DOUBLE_EQ(stable.duration(), 10) << "the stop adds no time while paused";
    // The waiting entry is never reached by the offset.
    EXPECT_DOUBLE_EQ(stable.offset(1e12), 1000);
    EXPECT_DOUBLE_EQ(stable.offset(CMTime(2'000'000'000'000, 1'000'000'000)).seconds(), 1000);
    EXPECT_FALSE(stable.convert(1060));
    EXPECT_FALSE(stable.convert(1010));
    EXPECT_DOUBLE_EQ(stable.convert(1009.5)->seconds, 9.5);
}

TEST(RecordingTimelineLifecycle, StopWithoutStartRecordsNothing) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->stop(1000);
    StableRecordingTimeline stable(live);
    ASSERT_EQ(stable.recordingIntervals.size(), 1u);
    EXPECT_EQ(stable.recordingIntervals[0].recordFrom, kInf);
    EXPECT_TRUE(stable.isStopped);
    EXPECT_EQ(stable.duration(), 0);
    EXPECT_FALSE(stable.convert(1000));
    EXPECT_EQ(live->debugDescription(), "VolatileRecordingTimeline(stopped, intervals: [∞→∞])");
}

TEST(RecordingTimelineQueries, ConvertMapsCaptureTimesOntoTheOutputClock) {
    StableRecordingTimeline stable(twoIntervals());
    EXPECT_DOUBLE_EQ(stable.offset(1005), 1000);
    EXPECT_DOUBLE_EQ(stable.offset(1015), 1000) << "the second interval has not begun";
    EXPECT_DOUBLE_EQ(stable.offset(1025), 1010);

    auto first = stable.convert(1000);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->interval.index, 0u);
    EXPECT_DOUBLE_EQ(first->seconds, 0);

    auto second = stable.convert(1025);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->interval.index, 1u);
    EXPECT_DOUBLE_EQ(second->seconds, 15);

    auto atResume = stable.convert(1020);
    ASSERT_TRUE(atResume);
    EXPECT_EQ(atResume->interval.index, 1u);
    EXPECT_DOUBLE_EQ(atResume->seconds, 10) << "the pause takes no output time";

    EXPECT_FALSE(stable.convert(1015)) << "in the pause";
    EXPECT_FALSE(stable.convert(1010)) << "an interval's end is not in it";
    EXPECT_FALSE(stable.convert(999.999)) << "before the start";
    EXPECT_FALSE(stable.convert(1030)) << "at the stop";
}

TEST(RecordingTimelineQueries, CMTimeOffsetComparesBoundsAtTheTimesTimescale) {
    StableRecordingTimeline stable(twoIntervals());
    CMTime t(1025'000'000'000, 1'000'000'000);
    CMTime offset = stable.offset(t);
    EXPECT_EQ(offset.timescale, 1'000'000'000);
    EXPECT_EQ(offset, CMTime(1010, 1));
    EXPECT_EQ(t - offset, CMTime(15, 1));
    // Exactly at the resume the second interval counts.
    EXPECT_EQ(stable.offset(CMTime(1020 * 48000, 48000)), CMTime(1010, 1));
    // One tick before it, it does not.
    EXPECT_EQ(stable.offset(CMTime(1020 * 48000 - 1, 48000)), CMTime(1000, 1));
}

TEST(RecordingTimelineQueries, RelevantIntervalIsTheOneHoldingOrFollowingTheTime) {
    StableRecordingTimeline stable(twoIntervals());
    auto at = [&](double seconds) { return stable.relevantInterval(CMTime::makeWithSeconds(seconds, 600)).index; };
    EXPECT_EQ(at(500), 0u) << "before the start: the first interval";
    EXPECT_EQ(at(1005), 0u);
    EXPECT_EQ(at(1010), 1u) << "the end belongs to what follows";
    EXPECT_EQ(at(1015), 1u) << "in a pause: the interval after it";
    EXPECT_EQ(at(1025), 1u);
    EXPECT_EQ(at(2000), 1u) << "after everything: the last interval";

    // While recording the open interval holds every later time.
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(1000);
    live->pause(1010);
    StableRecordingTimeline paused(live);
    EXPECT_EQ(paused.relevantInterval(CMTime(1e6, 1)).index, 1u) << "the waiting entry after a pause";
}

TEST(RecordingTimelineQueries, IntervalViewsRefreshOnlyWhenAsked) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(1000);
    RecordingInterval interval(live, 0);
    EXPECT_EQ(interval.recordUntil, kInf);
    live->pause(1010);
    EXPECT_EQ(interval.recordUntil, kInf) << "cached until update";
    interval.update();
    EXPECT_EQ(interval.recordUntil, 1010);
    EXPECT_EQ(interval.debugDescription(), "RecordingInterval(0)[1000.000→1010.000, dur:10.000s]");
    RecordingInterval waiting(live, 1);
    EXPECT_EQ(waiting.debugDescription(), "RecordingInterval(1)[∞→∞, dur:nans]");
}

TEST(RecordingTimelineText, DescriptionsUseThreeDecimalsAndInfinity) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(1000.12345);
    EXPECT_EQ(live->debugDescription(), "VolatileRecordingTimeline(active, intervals: [1000.123→∞])");
    StableRecordingTimeline active(live);
    EXPECT_EQ(active.debugDescription(), "StableRecordingTimeline(active, dur:∞s, intervals: [1000.123→∞])");
    StableRecordingTimeline stopped(twoIntervals());
    EXPECT_EQ(stopped.debugDescription(),
              "StableRecordingTimeline(stopped, dur:20.000s, intervals: [1000.000→1010.000] [1020.000→1030.000])");
}

TEST(RecordingTimelineConcurrency, SnapshotsAlwaysSeeAWholeValidList) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    std::atomic<bool> done{false};
    std::atomic<int> broken{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r)
        readers.emplace_back([&] {
            StableRecordingTimeline stable(live);
            while (!done.load()) {
                stable.update();
                const auto& list = stable.recordingIntervals;
                if (list.empty()) ++broken;
                for (size_t i = 0; i + 1 < list.size(); ++i) {
                    const auto& a = list[i];
                    if (!std::isfinite(a.recordFrom) || !std::isfinite(a.recordUntil) ||
                        a.recordFrom > a.recordUntil || a.recordUntil > list[i + 1].recordFrom)
                        ++broken;
                }
                if (!stable.isStopped && std::isfinite(list.back().recordUntil)) ++broken;
            }
        });
    double t = 0;
    for (int i = 0; i < 2000; ++i) {
        live->start(t += 1);
        live->pause(t += 1);
    }
    live->start(t += 1);
    live->stop(t += 1);
    done = true;
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(broken.load(), 0);
    StableRecordingTimeline final(live);
    EXPECT_EQ(final.recordingIntervals.size(), 2001u);
    EXPECT_DOUBLE_EQ(final.duration(), 2001);
}

TEST(RecordingTimelineDeathTest, ReadingBeyondTheListIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto live = std::make_shared<VolatileRecordingTimeline>();
    EXPECT_DEATH(live->interval(3), "VolatileRecordingTimeline index out of bounds: 3");
}

}  // namespace
}  // namespace ov::testing
