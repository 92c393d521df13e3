// The small stream fixers: gap filling, audio shifting, event retiming and
// frame repeating.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "timing/audio_gap_filler.h"
#include "timing/audio_sample_cutting.h"
#include "timing/audio_shifter.h"
#include "timing/frame_repeater.h"
#include "timing/recording_timeline_bounded_event_retimer.h"

namespace ov::testing {
namespace {

using platform::AVAudioFormat;
using platform::AVAudioPCMBuffer;
using platform::CMSampleBuffer;
using platform::CMTime;

// A 1000 Hz mono buffer of `frames` frames counting up from `firstValue` at `startMs`.
CMSampleBuffer fixerBuffer(int64_t startMs, uint32_t frames, float firstValue = 1) {
    auto pcm = AVAudioPCMBuffer::make(*AVAudioFormat::standard(1000, 1), frames);
    for (uint32_t i = 0; i < frames; ++i) pcm->floatChannelData()[0][i] = firstValue + static_cast<float>(i);
    pcm->setFrameLength(frames);
    return CMSampleBuffer::makeAudio(*pcm, CMTime(startMs, 1000));
}

struct Span {
    int64_t startMs;
    int64_t frames;
    bool silent;
    bool operator==(const Span&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Span& s) {
    return os << "[" << s.startMs << " x" << s.frames << (s.silent ? " silent]" : "]");
}
Span span(const CMSampleBuffer& s) {
    return {s.presentationTimeStamp().convertScale(1000).value, s.numSamples(),
            s.audioPCMBuffer()->floatChannelData()[0][0] == 0};
}

TEST(AudioGapFiller, FillsGapsExactlyAndRefusesOverlaps) {
    LogCapture logs;
    AudioGapFiller filler(logs.loggerFor("Test"));
    std::vector<Span> out;
    auto run = [&](const CMSampleBuffer& b) {
        for (const auto& s : filler.process(b)) out.push_back(span(s));
    };
    run(fixerBuffer(0, 1000));
    run(fixerBuffer(1000, 1000));
    run(fixerBuffer(2500, 1000));
    EXPECT_EQ(out, (std::vector<Span>{{0, 1000, false}, {1000, 1000, false}, {2000, 500, true}, {2500, 1000, false}}));
    try {
        filler.process(fixerBuffer(3400, 1000));
        FAIL();
    } catch (const AudioGapFillerError& e) {
        EXPECT_EQ(e.kind, AudioGapFillerError::Kind::negativeGap);
    }
    // The overlap left the expectation alone.
    out.clear();
    run(fixerBuffer(3500, 100));
    EXPECT_EQ(out, (std::vector<Span>{{3500, 100, false}}));
}

TEST(AudioGapFiller, InvalidTimeIsPassedAndLeavesTheExpectation) {
    LogCapture logs;
    AudioGapFiller filler(logs.loggerFor("Test"));
    filler.process(fixerBuffer(0, 1000));
    auto invalid = fixerBuffer(0, 10).copyWithNewTiming({{CMTime(1, 1000), platform::kCMTimeInvalid, {}}});
    EXPECT_EQ(filler.process(invalid).size(), 1u);
    auto out = filler.process(fixerBuffer(1200, 10));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(span(out[0]), (Span{1000, 200, true}));
}

TEST(AudioShifter, DelayPrependsSilenceAndMovesEveryBuffer) {
    AudioShifter shifter(0.5);
    auto first = shifter.append(fixerBuffer(10000, 300));
    ASSERT_EQ(first.size(), 2u);
    EXPECT_EQ(span(first[0]), (Span{10000, 500, true}));
    EXPECT_EQ(span(first[1]), (Span{10500, 300, false}));
    auto second = shifter.append(fixerBuffer(10300, 300));
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(span(second[0]), (Span{10800, 300, false}));
}

TEST(AudioShifter, AdvanceCutsTheFirstDeltaAway) {
    AudioShifter shifter(-0.5);
    EXPECT_TRUE(shifter.append(fixerBuffer(10000, 300)).empty());
    auto second = shifter.append(fixerBuffer(10300, 300, 301));
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(span(second[0]), (Span{10000, 100, false}));
    EXPECT_EQ(second[0].audioPCMBuffer()->floatChannelData()[0][0], 501);
    auto third = shifter.append(fixerBuffer(10600, 300));
    EXPECT_EQ(span(third[0]), (Span{10100, 300, false}));
    AudioShifter none(0);
    auto same = fixerBuffer(5, 5);
    EXPECT_TRUE(none.append(same)[0].isSameBuffer(same));
}

// The gap filler and the shifter together keep a jittered stream exact: the
// output is contiguous to the frame.
TEST(AudioShifter, ShiftedAndFilledStreamIsContiguous) {
    LogCapture logs;
    AudioGapFiller filler(logs.loggerFor("Test"));
    AudioShifter shifter(0.123);
    int64_t next = -1;
    int64_t total = 0;
    int64_t t = 10000;
    for (int i = 0; i < 200; ++i) {
        uint32_t n = 10 + (i * 7) % 13;
        for (const auto& f : filler.process(fixerBuffer(t, n)))
            for (const auto& s : shifter.append(f)) {
                int64_t start = s.presentationTimeStamp().convertScale(1000).value;
                if (next >= 0) {
                    ASSERT_EQ(start, next);
                }
                next = start + s.numSamples();
                total += s.numSamples();
            }
        t += n + (i % 17 == 0 ? 5 : 0);
    }
    EXPECT_EQ(total, t - 10000 + 123);
}

TEST(EventRetimer, KeepsEventsInIntervalsWithDiscontinuationsBetween) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(100);
    live->pause(110);
    live->start(120);
    live->stop(130);
    LogCapture logs;
    RecordingTimelineBoundedEventRetimer<std::string> retimer(StableRecordingTimeline(live), logs.loggerFor("Test"));
    using R = RecordingTimelineBoundedEventRetimer<std::string>;
    auto a = retimer.retime("a", 105);
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(std::get<R::Retimed>(a[0]).seconds, 5);
    EXPECT_TRUE(retimer.retime("pause", 115).empty());
    EXPECT_EQ(*retimer.lastIntervalIndex(), 0u);
    auto b = retimer.retime("b", 125);
    ASSERT_EQ(b.size(), 2u);
    EXPECT_EQ(std::get<R::Discontinuation>(b[0]).seconds, 10);
    EXPECT_EQ(std::get<R::Retimed>(b[1]).item, "b");
    EXPECT_EQ(std::get<R::Retimed>(b[1]).seconds, 15);
    EXPECT_TRUE(retimer.retime("after", 131).empty());
    EXPECT_TRUE(retimer.retime("before", 99).empty());

    RecordingTimelineBoundedEventRetimer<std::string> late(StableRecordingTimeline(live), logs.loggerFor("Test"));
    auto first = late.retime("c", 125);
    ASSERT_EQ(first.size(), 1u);  // no discontinuation before a recording's first event
}

TEST(FrameRepeater, IntervalsInWholeMilliseconds) {
    FrameRepeater<int> repeater(0.0333);
    EXPECT_EQ(repeater.sleepInterval.count(), 33);
    EXPECT_EQ(repeater.sleepIntervalTolerance.count(), 3);
    EXPECT_THROW(repeater.append(1, CMTime(1, 1)), FrameRepeaterError);
}

TEST(FrameRepeater, RepeatsTheLastFrameUntilANewOneOrCancel) {
    LogCapture logs;
    FrameRepeater<int> repeater(0.02, logs.loggerFor("Test"));
    std::mutex m;
    std::vector<std::tuple<int, CMTime, bool>> calls;
    repeater.handler = [&](const int& item, const CMTime& t, const std::optional<CMTime>& added) {
        std::lock_guard lock(m);
        calls.emplace_back(item, t, added.has_value());
    };
    repeater.append(1, CMTime(10, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    repeater.cancel();
    std::vector<std::tuple<int, CMTime, bool>> seen;
    {
        std::lock_guard lock(m);
        seen = calls;
    }
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(std::get<1>(seen[0]), CMTime(10, 1));
    EXPECT_FALSE(std::get<2>(seen[0]));
    for (size_t i = 1; i < seen.size(); ++i) {
        EXPECT_EQ(std::get<0>(seen[i]), 1);
        EXPECT_TRUE(std::get<2>(seen[i]));
        EXPECT_GT(std::get<1>(seen[i]), std::get<1>(seen[i - 1]));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    {
        std::lock_guard lock(m);
        EXPECT_EQ(calls.size(), seen.size());  // nothing after cancel
    }
    // A new frame older than the last repeat goes out one tick after it.
    CMTime last = std::get<1>(seen.back());
    repeater.append(2, CMTime(10, 1));
    repeater.cancel();
    std::lock_guard lock(m);
    EXPECT_EQ(std::get<1>(calls.back()), CMTime(last.value + 1, last.timescale));
}

}  // namespace
}  // namespace ov::testing
