// The interval-bounded and timeline-bounded retimers: which items of a stream
// reach the output and at which time, across starts, pauses, resumes and stops.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "timing/recording_interval_bounded_retimer.h"
#include "timing/recording_timeline_bounded_retimer.h"

namespace ov::testing {
namespace {

using platform::CMTime;
using IPos = RecordingIntervalBoundedRetimerItemPosition;
using TPos = RecordingTimelineBoundedRetimerItemPosition;
using ErrorKind = RecordingIntervalBoundedRetimerError::Kind;

// Items are named by their capture time in milliseconds.
CMTime ms(int64_t v) { return CMTime(v, 1000); }

struct IntervalOut {
    IPos position;
    int item;
    int64_t timeMs;
    bool operator==(const IntervalOut&) const = default;
};

std::ostream& operator<<(std::ostream& os, const IntervalOut& o) {
    return os << "(" << static_cast<int>(o.position) << ", item " << o.item << ", " << o.timeMs << "ms)";
}

struct IntervalCase {
    std::string name;
    std::vector<int> itemsMs;
    bool finish;
    bool zeroBased;
    std::vector<IntervalOut> expected;
};

class IntervalRetimerCases : public ::testing::TestWithParam<IntervalCase> {};

TEST_P(IntervalRetimerCases, EmitsExactlyTheExpectedItems) {
    const auto& c = GetParam();
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(10);
    live->stop(20);
    RecordingIntervalBoundedRetimer<int> retimer(RecordingInterval(live, 0), 3, c.zeroBased);
    std::vector<IntervalOut> out;
    retimer.handler = [&](IPos p, const int& item, const CMTime& t) {
        out.push_back({p, item, t.convertScale(1000).value});
    };
    for (int t : c.itemsMs) retimer.append(t, ms(t));
    if (c.finish) retimer.finish();
    EXPECT_EQ(out, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Interval10To20, IntervalRetimerCases,
    ::testing::Values(
        IntervalCase{"FrameBeforeStartCarriedToStart", {8000, 9000, 11000}, false, false,
                     {{IPos::first, 9000, 10000}, {IPos::subsequent, 11000, 11000}}},
        IntervalCase{"LateFirstItemMovedBackToStart", {11000, 12000}, false, false,
                     {{IPos::first, 11000, 10000}, {IPos::subsequent, 12000, 12000}}},
        IntervalCase{"ItemExactlyAtStartOnlyOnce", {10000, 12000}, false, false,
                     {{IPos::first, 10000, 10000}, {IPos::subsequent, 12000, 12000}}},
        IntervalCase{"LastFrameHeldToEnd", {11000, 19000, 21000, 22000}, true, false,
                     {{IPos::first, 11000, 10000},
                      {IPos::subsequent, 19000, 19000},
                      {IPos::subsequentRepeat, 19000, 20000}}},
        IntervalCase{"NeverReachedStartFinishCoversInterval", {5000, 6000, 7000, 8000, 9000}, true, false,
                     {{IPos::first, 9000, 10000}, {IPos::subsequentRepeat, 9000, 20000}}},
        IntervalCase{"FinishHoldsLastFrameToEnd", {9000, 15000}, true, false,
                     {{IPos::first, 9000, 10000},
                      {IPos::subsequent, 15000, 15000},
                      {IPos::subsequentRepeat, 15000, 20000}}},
        IntervalCase{"FrameStampedAtEndStandsForEnd", {12000, 20000}, true, false,
                     {{IPos::first, 12000, 10000}, {IPos::subsequentRepeat, 12000, 20000}}},
        IntervalCase{"ZeroBasedTimes", {9000, 11000, 21000}, false, true,
                     {{IPos::first, 9000, 0}, {IPos::subsequent, 11000, 1000}, {IPos::subsequentRepeat, 11000, 10000}}}),
    [](const auto& info) { return info.param.name; });

TEST(IntervalRetimerFailures, EqualTimesAreWrongOrderAndRefused) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(10);
    RecordingIntervalBoundedRetimer<int> retimer(RecordingInterval(live, 0), 3, false);
    int calls = 0;
    retimer.handler = [&](IPos, const int&, const CMTime&) { ++calls; };
    retimer.append(1, ms(11000));
    try {
        retimer.append(2, ms(11000));
        FAIL() << "expected wrongOrder";
    } catch (const RecordingIntervalBoundedRetimerError& e) {
        EXPECT_EQ(e.kind, ErrorKind::wrongOrder);
        EXPECT_EQ(e.previous, ms(11000));
        EXPECT_EQ(e.current, ms(11000));
    }
    EXPECT_EQ(calls, 1);
    ASSERT_TRUE(retimer.lastAppendedItemTime());
    EXPECT_EQ(*retimer.lastAppendedItemTime(), ms(11000));
}

TEST(IntervalRetimerFailures, FinishWithoutItemsAndMissingHandler) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(10);
    live->stop(20);
    RecordingIntervalBoundedRetimer<int> retimer(RecordingInterval(live, 0), 1, false);
    try {
        retimer.finish();
        FAIL();
    } catch (const RecordingIntervalBoundedRetimerError& e) {
        EXPECT_EQ(e.kind, ErrorKind::finishedWithoutFrames);
    }
    try {
        retimer.append(1, ms(12000));
        FAIL();
    } catch (const RecordingIntervalBoundedRetimerError& e) {
        EXPECT_EQ(e.kind, ErrorKind::handlerNotSet);
    }
}

TEST(IntervalRetimerFailures, IntervalShorterThanOneTick) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(10.0001);
    live->stop(10.0002);
    RecordingIntervalBoundedRetimer<int> retimer(RecordingInterval(live, 0), 1, false);
    retimer.handler = [](IPos, const int&, const CMTime&) {};
    // At millisecond resolution both bounds round to 10.000 s.
    EXPECT_THROW(retimer.append(1, ms(10001)), RecordingIntervalBoundedRetimerError);
}

TEST(IntervalRetimerWaiting, WaitingIntervalBuffersUntilStartSeen) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    RecordingIntervalBoundedRetimer<int> retimer(RecordingInterval(live, 0), 2, false);
    std::vector<IntervalOut> out;
    retimer.handler = [&](IPos p, const int& item, const CMTime& t) {
        out.push_back({p, item, t.convertScale(1000).value});
    };
    retimer.append(1000, ms(1000));
    retimer.append(2000, ms(2000));
    retimer.append(3000, ms(3000));
    EXPECT_TRUE(out.empty());
    live->start(3.5);  // seen at the next flush
    retimer.append(4000, ms(4000));
    EXPECT_EQ(out, (std::vector<IntervalOut>{{IPos::first, 3000, 3500}, {IPos::subsequent, 4000, 4000}}));
}

// Timeline retimer.

struct TimelineOut {
    TPos position;
    int item;
    int64_t timeMs;
    bool operator==(const TimelineOut&) const = default;
};
std::ostream& operator<<(std::ostream& os, const TimelineOut& o) {
    return os << "(" << static_cast<int>(o.position) << ", item " << o.item << ", " << o.timeMs << "ms)";
}

// Timeline [100, 110) [120, 130) driven by the items: the live timeline
// changes when an item's time passes a bound, as it would in a recording.
struct TimelineCase {
    std::string name;
    std::vector<int> itemsMs;
    bool stopDuringPause;  // stop at 110 without a resume
    std::vector<TimelineOut> expected;
};

class TimelineRetimerCases : public ::testing::TestWithParam<TimelineCase> {};

TEST_P(TimelineRetimerCases, EmitsExactlyTheExpectedItems) {
    const auto& c = GetParam();
    auto live = std::make_shared<VolatileRecordingTimeline>();
    LogCapture logs;
    RecordingTimelineBoundedRetimer<int> retimer(StableRecordingTimeline(live), 3, logs.loggerFor("Test"));
    std::vector<TimelineOut> out;
    retimer.handler = [&](TPos p, const int& item, const CMTime& t) {
        out.push_back({p, item, t.convertScale(1000).value});
    };
    struct Change {
        int atMs;
        int kind;  // 0 start, 1 pause, 2 stop
    };
    std::vector<Change> changes = c.stopDuringPause
                                      ? std::vector<Change>{{100000, 0}, {110000, 1}, {115000, 2}}
                                      : std::vector<Change>{{100000, 0}, {110000, 1}, {120000, 0}, {130000, 2}};
    size_t next = 0;
    auto apply = [&](const Change& change) {
        double at = change.atMs / 1000.0;
        if (change.kind == 0) live->start(at);
        else if (change.kind == 1) live->pause(at);
        else live->stop(at);
    };
    for (int t : c.itemsMs) {
        while (next < changes.size() && changes[next].atMs <= t) apply(changes[next++]);
        retimer.append(t, ms(t));
    }
    while (next < changes.size()) apply(changes[next++]);
    retimer.finish();
    EXPECT_EQ(out, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    TwoIntervals, TimelineRetimerCases,
    ::testing::Values(
        TimelineCase{"FramesInsideBothIntervals", {99000, 101000, 105000, 125000, 131000}, false,
                     {{TPos::first, 99000, 0},
                      {TPos::subsequent, 101000, 1000},
                      {TPos::subsequent, 105000, 5000},
                      {TPos::firstAfterDiscontinuation, 125000, 15000},
                      {TPos::subsequent, 125000, 20000}}},
        // Static screen across the pause: no doubled frame at the seam.
        TimelineCase{"StaticScreenAcrossPause", {101000, 105000, 125000}, false,
                     {{TPos::first, 101000, 0},
                      {TPos::subsequent, 105000, 5000},
                      {TPos::firstAfterDiscontinuation, 125000, 15000},
                      {TPos::subsequent, 125000, 20000}}},
        // A frame captured during the pause opens the next interval.
        TimelineCase{"FrameDuringPause", {101000, 115000, 125000}, false,
                     {{TPos::first, 101000, 0},
                      {TPos::firstAfterDiscontinuation, 115000, 10000},
                      {TPos::subsequent, 125000, 15000},
                      {TPos::subsequent, 125000, 20000}}},
        // Stop while paused: the held-back repeat ends the output at 10.
        TimelineCase{"StopWhilePaused", {101000, 105000, 112000}, true,
                     {{TPos::first, 101000, 0},
                      {TPos::subsequent, 105000, 5000},
                      {TPos::firstAfterDiscontinuation, 105000, 10000}}}),
    [](const auto& info) { return info.param.name; });

TEST(TimelineRetimerFailures, FinishWithoutItems) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    LogCapture logs;
    RecordingTimelineBoundedRetimer<int> retimer(StableRecordingTimeline(live), 3, logs.loggerFor("Test"));
    retimer.handler = [](TPos, const int&, const CMTime&) {};
    live->start(100);
    live->stop(110);
    try {
        retimer.finish();
        FAIL();
    } catch (const RecordingIntervalBoundedRetimerError& e) {
        EXPECT_EQ(e.kind, ErrorKind::finishedWithoutFrames);
    }
}

TEST(TimelineRetimerFailures, WrongOrderLeavesRetimerUsable) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(100);
    LogCapture logs;
    RecordingTimelineBoundedRetimer<int> retimer(StableRecordingTimeline(live), 3, logs.loggerFor("Test"));
    std::vector<int64_t> times;
    retimer.handler = [&](TPos, const int&, const CMTime& t) { times.push_back(t.convertScale(1000).value); };
    retimer.append(1, ms(101000));
    EXPECT_THROW(retimer.append(2, ms(100500)), RecordingIntervalBoundedRetimerError);
    retimer.append(3, ms(102000));
    EXPECT_EQ(times, (std::vector<int64_t>{0, 2000}));
}

// Video frames at 30 fps with jitter and dropped stretches, across many pauses
// and resumes: the output is strictly increasing and stays inside the output
// duration.
TEST(TimelineRetimerProperty, ManyPausesGiveStrictlyIncreasingTimesInsideTheRecording) {
    std::mt19937 rng(7);
    auto live = std::make_shared<VolatileRecordingTimeline>();
    LogCapture logs;
    RecordingTimelineBoundedRetimer<int> retimer(StableRecordingTimeline(live), 3, logs.loggerFor("Test"));
    std::vector<CMTime> times;
    std::vector<TPos> positions;
    retimer.handler = [&](TPos p, const int&, const CMTime& t) {
        times.push_back(t);
        positions.push_back(p);
    };
    const int64_t timescale = 90000;
    int64_t t = 1000 * timescale;  // host time in ticks
    bool recording = false;
    int64_t nextChange = t + timescale / 2;
    int changes = 0;
    std::uniform_int_distribution<int64_t> jitter(-300, 300), stateLength(timescale / 5, 5 * timescale),
        dropped(0, 40);
    int item = 0;
    while (changes < 200) {
        t += timescale / 30 + jitter(rng);
        if (dropped(rng) == 0) t += timescale;  // a static screen
        while (t >= nextChange) {
            double at = static_cast<double>(nextChange) / timescale;
            if (recording) live->pause(at);
            else live->start(at);
            recording = !recording;
            ++changes;
            nextChange += stateLength(rng);
        }
        retimer.append(item++, CMTime(t, timescale));
    }
    live->stop(static_cast<double>(t + 1) / timescale);
    retimer.finish();
    StableRecordingTimeline stable(live);
    ASSERT_FALSE(times.empty());
    EXPECT_EQ(positions.front(), TPos::first);
    EXPECT_EQ(times.front(), platform::kCMTimeZero);
    for (size_t i = 1; i < times.size(); ++i) ASSERT_LT(times[i - 1], times[i]) << i;
    EXPECT_LE(times.back().seconds(), stable.duration() + 1e-4);
}

}  // namespace
}  // namespace ov::testing
