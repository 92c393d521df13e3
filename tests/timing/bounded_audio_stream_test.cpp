// Cutting audio to recording intervals: PCM cutting in every sample layout,
// silence, the interval-bounded stream's edges, and a long run across many
// pauses that must come out exact to the sample.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "foundation/ov_error.h"
#include "support/log_capture.h"
#include "timing/audio_sample_cutting.h"
#include "timing/recording_interval_bounded_audio_stream.h"
#include "timing/recording_timeline_bounded_audio_stream.h"

namespace ov::testing {
namespace {

using platform::AVAudioCommonFormat;
using platform::AVAudioFormat;
using platform::AVAudioPCMBuffer;
using platform::CMSampleBuffer;
using platform::CMTime;
using APos = RecordingIntervalBoundedAudioStreamItemPosition;

// A mono float buffer whose samples count up from `firstValue`, so that every
// output sample tells where in the stream it came from.
CMSampleBuffer ramp(int64_t firstValue, uint32_t frames, const CMTime& pts, double rate = 1000) {
    auto format = *AVAudioFormat::standard(rate, 1);
    auto pcm = AVAudioPCMBuffer::make(format, frames);
    for (uint32_t i = 0; i < frames; ++i) pcm->floatChannelData()[0][i] = static_cast<float>(firstValue + i);
    pcm->setFrameLength(frames);
    return CMSampleBuffer::makeAudio(*pcm, pts);
}

float firstValue(const CMSampleBuffer& s) { return s.audioPCMBuffer()->floatChannelData()[0][0]; }

// PCM cutting in every layout the capture paths deliver.
struct LayoutCase {
    AVAudioCommonFormat commonFormat;
    bool interleaved;
};

class PCMCutting : public ::testing::TestWithParam<LayoutCase> {};

template <class T>
void fill(T* const* channels, const AVAudioPCMBuffer& b, uint32_t frames) {
    const uint32_t nch = b.format().channelCount();
    for (uint32_t f = 0; f < frames; ++f)
        for (uint32_t c = 0; c < nch; ++c) {
            T v = static_cast<T>((f % 20000) * 2 + c);
            if (b.format().isInterleaved()) channels[0][f * nch + c] = v;
            else channels[c][f] = v;
        }
}

template <class T>
T at(T* const* channels, const AVAudioPCMBuffer& b, uint32_t frame, uint32_t channel) {
    const uint32_t nch = b.format().channelCount();
    return b.format().isInterleaved() ? channels[0][frame * nch + channel] : channels[channel][frame];
}

TEST_P(PCMCutting, OneSecondAt44100CutFromAQuarterKeepsTheRightFrames) {
    auto format = *AVAudioFormat::make(GetParam().commonFormat, 44100, 2, GetParam().interleaved);
    auto pcm = AVAudioPCMBuffer::make(format, 44100);
    pcm->setFrameLength(44100);
    if (pcm->floatChannelData()) fill(pcm->floatChannelData(), *pcm, 44100);
    if (pcm->int16ChannelData()) fill(pcm->int16ChannelData(), *pcm, 44100);
    if (pcm->int32ChannelData()) fill(pcm->int32ChannelData(), *pcm, 44100);

    auto cut = extractingFrom(pcm, 0.25);
    ASSERT_TRUE(cut);
    EXPECT_EQ(cut->frameLength(), 33075u);
    auto expectSame = [&](auto channels, auto cutChannels) {
        for (uint32_t c = 0; c < 2; ++c) {
            EXPECT_EQ(at(cutChannels, *cut, 0, c), at(channels, *pcm, 11025, c));
            EXPECT_EQ(at(cutChannels, *cut, 33074, c), at(channels, *pcm, 44099, c));
        }
    };
    if (pcm->floatChannelData()) expectSame(pcm->floatChannelData(), cut->floatChannelData());
    if (pcm->int16ChannelData()) expectSame(pcm->int16ChannelData(), cut->int16ChannelData());
    if (pcm->int32ChannelData()) expectSame(pcm->int32ChannelData(), cut->int32ChannelData());

    auto head = extractingUpTo(pcm, 0.25);
    ASSERT_TRUE(head);
    EXPECT_EQ(head->frameLength(), 11025u);
    EXPECT_EQ(extractingFrom(pcm, 0), pcm);
    EXPECT_EQ(extractingFrom(pcm, 1.0), nullptr);
    EXPECT_EQ(extractingUpTo(pcm, 0), nullptr);
}

INSTANTIATE_TEST_SUITE_P(AllLayouts, PCMCutting,
                         ::testing::Values(LayoutCase{AVAudioCommonFormat::pcmFormatFloat32, false},
                                           LayoutCase{AVAudioCommonFormat::pcmFormatFloat32, true},
                                           LayoutCase{AVAudioCommonFormat::pcmFormatInt16, false},
                                           LayoutCase{AVAudioCommonFormat::pcmFormatInt16, true},
                                           LayoutCase{AVAudioCommonFormat::pcmFormatInt32, false},
                                           LayoutCase{AVAudioCommonFormat::pcmFormatInt32, true}));

TEST(PCMCuttingFailures, OtherSampleTypesAreRefused) {
    auto format = *AVAudioFormat::make(AVAudioCommonFormat::pcmFormatFloat64, 48000, 1, false);
    auto pcm = AVAudioPCMBuffer::make(format, 100);
    pcm->setFrameLength(100);
    try {
        extractingFrom(pcm, 0.001);
        FAIL();
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::audioFormatError);
    }
}

TEST(SampleBufferCutting, PartStartsLaterByTheSkippedFrames) {
    auto s = ramp(0, 1000, CMTime(10000, 1000));
    auto part = extracting(s, 0.25, 0.5);
    ASSERT_TRUE(part);
    EXPECT_EQ(part->numSamples(), 500);
    EXPECT_EQ(part->presentationTimeStamp(), CMTime(10250, 1000));
    EXPECT_EQ(firstValue(*part), 250);
    EXPECT_FALSE(extracting(s, 1.0, 0.5));
}

TEST(SilentAudio, FrameCountsAndFailures) {
    auto format = AVAudioFormat::standard(48000, 2)->formatDescription();
    auto silent = silentAudio(format, CMTime(1, 2), CMTime(5, 1));
    EXPECT_EQ(silent.numSamples(), 24000);
    EXPECT_EQ(silent.presentationTimeStamp(), CMTime(5, 1));
    EXPECT_EQ(silent.audioPCMBuffer()->floatChannelData()[1][23999], 0.0f);
    for (CMTime bad : {platform::kCMTimeZero, CMTime(-1, 2)}) {
        try {
            silentAudio(format, bad, CMTime(0, 1));
            FAIL();
        } catch (const OVError& e) {
            EXPECT_EQ(e.code(), OVError::Code::audioFormatError);
        }
    }
    EXPECT_THROW(silentAudio(nullptr, CMTime(1, 2), CMTime(0, 1)), OVError);
}

// The interval stream on [10, 20) at 1000 Hz.
struct Piece {
    APos position;
    int64_t startMs;
    int64_t frames;
    int firstValue;  // -1 for silence
    bool operator==(const Piece&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Piece& p) {
    return os << "(" << static_cast<int>(p.position) << " @" << p.startMs << " x" << p.frames << " v" << p.firstValue
              << ")";
}

struct Buffer {
    int64_t startMs;
    uint32_t frames;
};

struct AudioCase {
    std::string name;
    std::vector<Buffer> buffers;
    std::vector<Piece> expected;
};

class IntervalAudioCases : public ::testing::TestWithParam<AudioCase> {};

TEST_P(IntervalAudioCases, OutputCoversTheIntervalExactly) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(10);
    live->stop(20);
    LogCapture logs;
    RecordingIntervalBoundedAudioStream stream(RecordingInterval(live, 0), 3, logs.loggerFor("Test"));
    std::vector<Piece> out;
    stream.handler = [&](APos p, const CMSampleBuffer& s) {
        float v = firstValue(s);
        out.push_back({p, s.presentationTimeStamp().convertScale(1000).value, s.numSamples(),
                       v == 0 && s.numSamples() > 0 ? -1 : static_cast<int>(v)});
    };
    for (const auto& b : GetParam().buffers) stream.append(ramp(b.startMs, b.frames, CMTime(b.startMs, 1000)));
    stream.finish();
    EXPECT_EQ(out, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Interval10To20, IntervalAudioCases,
    ::testing::Values(
        AudioCase{"StraddlingStartIsCut", {{9500, 1000}, {10500, 1000}}, {{APos::first, 10000, 500, 10000},
                                                                         {APos::subsequent, 10500, 1000, 10500},
                                                                         {APos::subsequent, 11500, 8500, -1}}},
        AudioCase{"LateFirstBufferGetsSilenceBefore", {{10400, 1000}},
                  {{APos::first, 10000, 400, -1}, {APos::subsequent, 10400, 1000, 10400},
                   {APos::subsequent, 11400, 8600, -1}}},
        AudioCase{"StraddlingEndIsCutAndCloses", {{9000, 1000}, {10000, 9500}, {19500, 1000}, {20500, 1000}},
                  {{APos::first, 10000, 9500, 10000}, {APos::subsequent, 19500, 500, 19500}}},
        AudioCase{"EndingExactlyAtStartDoesNotOverlap", {{9000, 1000}, {10000, 1000}},
                  {{APos::first, 10000, 1000, 10000}, {APos::subsequent, 11000, 9000, -1}}},
        AudioCase{"EndingExactlyAtEndLosesNothing", {{9000, 1000}, {10000, 9000}, {19000, 1000}},
                  {{APos::first, 10000, 9000, 10000}, {APos::subsequent, 19000, 1000, 19000}}},
        AudioCase{"OneBufferOverBothEdges", {{9000, 12000}}, {{APos::first, 10000, 10000, 10000}}},
        AudioCase{"NoAudioInTheInterval", {{5000, 1000}, {6000, 1000}}, {{APos::first, 10000, 10000, -1}}},
        AudioCase{"FirstBufferAfterTheInterval", {{25000, 1000}}, {{APos::first, 10000, 10000, -1}}}),
    [](const auto& info) { return info.param.name; });

TEST(IntervalAudioFailures, FinishWithoutBuffersAndWrongOrderOfEmissions) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(10);
    live->stop(20);
    LogCapture logs;
    RecordingIntervalBoundedAudioStream stream(RecordingInterval(live, 0), 3, logs.loggerFor("Test"));
    stream.handler = [](APos, const CMSampleBuffer&) {};
    try {
        stream.finish();
        FAIL();
    } catch (const RecordingIntervalBoundedAudioStreamError& e) {
        EXPECT_EQ(e.kind, RecordingIntervalBoundedAudioStreamError::Kind::finishedWithoutFrames);
    }
}

TEST(IntervalAudioFailures, IntervalShorterThanOneTick) {
    auto live = std::make_shared<VolatileRecordingTimeline>();
    live->start(10.0001);
    live->stop(10.0002);
    LogCapture logs;
    RecordingIntervalBoundedAudioStream stream(RecordingInterval(live, 0), 3, logs.loggerFor("Test"));
    stream.handler = [](APos, const CMSampleBuffer&) {};
    stream.append(ramp(0, 100, CMTime(5000, 1000)));
    try {
        stream.finish();
        FAIL();
    } catch (const RecordingIntervalBoundedAudioStreamError& e) {
        EXPECT_EQ(e.kind, RecordingIntervalBoundedAudioStreamError::Kind::timescaleExceedsSession);
    }
}

// An hour of 48 kHz audio in buffers of 10 to 50 ms whose stamps jitter by up to a
// millisecond, across many pauses and resumes, each taken when the last buffer
// has been delivered (bounds on whole samples): the
// output has exactly duration × rate samples, each following the one before,
// and every captured sample inside an interval appears once.
TEST(TimelineAudioProperty, HoursOfJitteredAudioComeOutExactToTheSample) {
    const int rate = 48000;
    std::mt19937 rng(11);
    auto live = std::make_shared<VolatileRecordingTimeline>();
    LogCapture logs;
    RecordingTimelineBoundedAudioStream stream(StableRecordingTimeline(live), 3, logs.loggerFor("Test"));
    int64_t outFrames = 0;
    int64_t expectedNextStart = 0;
    bool gapOrOverlap = false;
    int firstCount = 0;
    stream.handler = [&](APos p, const CMSampleBuffer& s) {
        if (p == APos::first) ++firstCount;
        CMTime pts = s.presentationTimeStamp();
        if (pts.timescale != rate || pts.value != expectedNextStart) gapOrOverlap = true;
        expectedNextStart = pts.value + s.numSamples();
        outFrames += s.numSamples();
    };

    std::uniform_int_distribution<int> bufferFrames(480, 2400), jitter(-48, 48);
    std::uniform_int_distribution<int64_t> stateFrames(rate / 4, 40LL * rate);
    int64_t position = 1000LL * rate;  // host time in samples
    const int64_t end = position + 3600LL * rate;
    int64_t nextChange = position + rate / 3;
    bool recording = false;
    // Buffers are handed over as a capture callback would: rarely allocated,
    // so the run is dominated by the stream's own work.
    std::vector<CMSampleBuffer> templates;
    for (int n = 480; n <= 2400; ++n) templates.push_back(ramp(0, n, CMTime(0, rate), rate));
    while (position < end) {
        int n = bufferFrames(rng);
        while (position >= nextChange) {
            // The conductor acts now, after the last delivery.
            double at = static_cast<double>(position) / rate;
            if (recording) live->pause(at);
            else live->start(at);
            recording = !recording;
            nextChange += stateFrames(rng);
        }
        stream.append(templates[n - 480].withTime(CMTime(position + jitter(rng), rate)));
        position += n;
    }
    live->stop(static_cast<double>(position + rate / 10) / rate);
    stream.finish();

    StableRecordingTimeline stable(live);
    ASSERT_GT(stable.recordingIntervals.size(), 50u);
    EXPECT_EQ(outFrames, std::llround(stable.duration() * rate));
    EXPECT_FALSE(gapOrOverlap);
    EXPECT_EQ(firstCount, 1);
}

}  // namespace
}  // namespace ov::testing
