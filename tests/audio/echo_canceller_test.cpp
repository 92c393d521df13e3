// The canceller wrapper's framing and buffering, and what the canceller
// achieves on a known echo path, offline and through the live processor.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "audio/echo/echo_cancellation_processor.h"
#include "audio/echo/echo_cancellation_utilities.h"
#include "audio/echo/webrtc_aec3.h"
#include "audio/echo_test_support.h"
#include "platform/os_log.h"
#include "support/log_capture.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"
#include "timing/volatile_recording_timeline.h"

namespace ov {
namespace {

using namespace ov::testing;
using platform::CMTime;

// The system log's lines while it lives.
class OSLogCapture {
public:
    OSLogCapture() : file_(dir_ / "oslog.txt") {
        fd_ = ::open(file_.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        platform::OSLog::redirectForTesting(fd_);
    }
    ~OSLogCapture() {
        platform::OSLog::redirectForTesting(-1);
        ::close(fd_);
    }
    std::string text() const {
        std::ifstream in(file_);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    size_t count(const std::string& needle) const {
        const auto all = text();
        size_t n = 0;
        for (size_t at = all.find(needle); at != std::string::npos; at = all.find(needle, at + 1)) ++n;
        return n;
    }

private:
    TempDirectory dir_;
    std::filesystem::path file_;
    int fd_ = -1;
};

std::vector<float> ramp(size_t n, float start = 0) {
    std::vector<float> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = std::sin(0.05f * float(i) + start) * 0.1f;
    return v;
}

// ---- the wrapper ----------------------------------------------------------------------------------

TEST(WebRTCAEC3, HalfFramesComeBackWholeFramesAtATime) {
    WebRTCAEC3 aec(kRate, false, false);
    EXPECT_EQ(aec.frameSize(), 480);
    aec.analyzeRender(ramp(960));
    std::vector<size_t> sizes;
    for (int i = 0; i < 6; ++i) sizes.push_back(aec.processCapture(ramp(240)).size());
    EXPECT_EQ(sizes, (std::vector<size_t>{0, 480, 0, 480, 0, 480}));
    EXPECT_EQ(aec.captureFrameCount(), 3);
    EXPECT_EQ(aec.renderFrameCount(), 2);
}

TEST(WebRTCAEC3, CaptureBeforeAnyReferenceKeepsTheNewest500msAndFlushesOnTheFirstRender) {
    OSLogCapture log;
    WebRTCAEC3 aec(kRate, false, false);
    // 700 ms in 10 ms pieces, nothing comes back.
    for (int i = 0; i < 70; ++i) EXPECT_TRUE(aec.processCapture(ramp(480, float(i))).empty());
    aec.processCapture(ramp(100));  // a partial frame on top: 24,100 held, newest 24,000 kept
    EXPECT_EQ(log.count("Capture audio arriving before any reference audio"), 1u);
    EXPECT_GE(log.count("Pending capture buffer exceeded 500ms, dropping oldest"), 1u);
    aec.analyzeRender(ramp(480));
    EXPECT_EQ(log.count("Reference audio started; flushing 24000 buffered capture samples through AEC3"), 1u);
    EXPECT_EQ(aec.captureFrameCount(), 50);
    // The flushed 500 ms come first, then this call's own frame.
    const auto out = aec.processCapture(ramp(480));
    EXPECT_EQ(out.size(), 24000u + 480u);
    EXPECT_EQ(aec.captureFrameCount(), 51);
}

TEST(WebRTCAEC3, CaptureAheadOfReferenceWarnsAtMostEvery100Frames) {
    OSLogCapture log;
    WebRTCAEC3 aec(kRate, false, false);
    aec.analyzeRender(ramp(480 * 100));
    for (int i = 0; i < 105; ++i) aec.processCapture(ramp(480));  // 105 vs 100: not more than 5 ahead
    EXPECT_EQ(log.count("ahead of reference"), 0u);
    aec.processCapture(ramp(480));
    EXPECT_EQ(log.count("Capture is 60ms ahead of reference (106 vs 100 frames)"), 1u);
    for (int i = 0; i < 99; ++i) aec.processCapture(ramp(480));
    EXPECT_EQ(log.count("ahead of reference"), 1u);
    aec.processCapture(ramp(480));
    EXPECT_EQ(log.count("ahead of reference"), 2u);
}

TEST(WebRTCAEC3, OfflineKeepsTheMicLengthAndLeavesTheTailUnprocessed) {
    const auto mic = ramp(48000 + 123);
    // A shorter reference: only its whole frames are processed.
    const auto shortReference = ramp(24000 + 7);
    auto out = WebRTCAEC3::processOffline(mic, shortReference, kRate, false, false);
    ASSERT_EQ(out.size(), mic.size());
    EXPECT_TRUE(std::equal(out.begin() + 24000, out.end(), mic.begin() + 24000));
    // A longer reference: the partial last frame of the mic comes back as it was.
    out = WebRTCAEC3::processOffline(mic, ramp(60000), kRate, false, false);
    ASSERT_EQ(out.size(), mic.size());
    EXPECT_TRUE(std::equal(out.begin() + 48000, out.end(), mic.begin() + 48000));
    EXPECT_FALSE(std::equal(out.begin(), out.begin() + 48000, mic.begin()));
}

TEST(WebRTCAEC3, ProcessesEveryFrameWhichNeedsTheDelayReportedFirst) {
    // The 0.3 engine writes silence for a frame without a reported delay; a
    // frame of loud near-end speech with no reference at all must come through.
    const auto speech = speechLike(1.0, kRate, 3, -20.0);
    const auto out = WebRTCAEC3::processOffline(speech, std::vector<float>(speech.size(), 0.0f), kRate, false, false);
    EXPECT_NEAR(rmsDb(out, kRate / 2, kRate), rmsDb(speech, kRate / 2, kRate), 1.0);
}

TEST(WebRTCAEC3, CreationAndDestructionAreLogged) {
    OSLogCapture log;
    { WebRTCAEC3 aec(16000, true, false); }
    EXPECT_EQ(log.count("Created: sampleRate=16000 enforceSuppression=true useExternalDelay=false"), 1u);
    EXPECT_EQ(log.count("— rendered 0 frames (0ms), captured 0 frames (0ms)"), 1u);
}

// ---- ERLE on a known echo path --------------------------------------------------------------------

class EchoPathERLE : public ::testing::TestWithParam<int> {};

TEST_P(EchoPathERLE, OfflineCancelsAtLeast25dB) {
    const int delayMs = GetParam();
    const auto scene = EchoScene::make(delayMs);
    const long delay = EchoCancellationUtilities::findBulkDelay(scene.mic, scene.far, kRate);
    EXPECT_NEAR(delay, long(scene.delaySamples), 1);
    const long lead = WebRTCAEC3::referenceLeadSamples(kRate);
    const auto aligned = EchoCancellationUtilities::applyDelay(scene.far, delay - lead, scene.mic.size());
    const auto out = WebRTCAEC3::processOffline(scene.mic, aligned, kRate, false, false);
    const double erle = scene.erle(out);
    std::printf("[ measured ] offline D=%d ms: ERLE %.1f dB, near-only %+.2f dB, double-talk near kept %+.1f dB\n",
                delayMs, erle, scene.nearOnlyChangeDb(out), scene.doubleTalkNearKeptDb(out));
    EXPECT_GE(erle, 25.0);
    EXPECT_NEAR(scene.nearOnlyChangeDb(out), 0.0, 1.0);
}

TEST_P(EchoPathERLE, OnlineThroughTheProcessorCancelsAtLeast25dB) {
    const int delayMs = GetParam();
    const auto scene = EchoScene::make(delayMs);
    TempDirectory dir;
    LogCapture logs;
    auto live = std::make_shared<VolatileRecordingTimeline>();
    const double t0 = 1000.0;
    live->start(t0);
    StableRecordingTimeline timeline(live);
    auto processor = EchoCancellationProcessor::make(EchoCancellation::aec3Online, dir / "mic-ec-webrtc.m4a",
                                                     std::nullopt, std::nullopt, timeline, false,
                                                     logs.loggerFor("Test"), nullptr, manualReferenceFactory());
    processor->startTap();
    // 10 ms of each per step, the reference first, on synthetic host times.
    const size_t step = kRate / 100;
    for (size_t at = 0; at + step <= scene.mic.size(); at += step) {
        const CMTime pts = CMTime::makeWithSeconds(t0, 1'000'000'000) + CMTime(int64_t(at), kRate);
        processor->handleTapBuffer(scene.far.data() + at, step, pts);
        processor->feedMicAudio(monoBuffer(scene.mic.data() + at, step, kRate, pts));
    }
    live->stop(t0 + 30.0);
    processor->stopTap();
    processor->finishOnline(CMTime(30, 1));
    const auto estimated = logs.waitFor("Buffered EC bulk delay estimated.");
    ASSERT_TRUE(estimated);
    EXPECT_NEAR(std::stol(estimated->metadata.at("delaySamples")), long(scene.delaySamples), 1);
    EXPECT_TRUE(logs.waitFor("Delay re-estimation confirmed current delay.", std::chrono::milliseconds(0)));

    const auto info = probeMedia(dir / "mic-ec-webrtc.m4a");
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["streams"][0]["codec_name"], "aac");
    EXPECT_EQ(info["streams"][0]["channels"], 1);
    EXPECT_NEAR(playedDuration(info), 30.0, 0.05);
    const auto out = EchoCancellationUtilities::readAudioFileAsMono(dir / "mic-ec-webrtc.m4a", kRate);
    const double erle = scene.erle(out);
    std::printf("[ measured ] online D=%d ms: ERLE %.1f dB, near-only %+.2f dB, double-talk near kept %+.1f dB\n",
                delayMs, erle, scene.nearOnlyChangeDb(out), scene.doubleTalkNearKeptDb(out));
    EXPECT_GE(erle, 25.0);
    EXPECT_NEAR(scene.nearOnlyChangeDb(out), 0.0, 1.0);
}

INSTANTIATE_TEST_SUITE_P(DelaysMs, EchoPathERLE, ::testing::Values(0, 20, 50, 100, 200));

TEST(EchoPathERLEWithTail, ADecaying40msTailStillCancelsAtLeast25dB) {
    const auto scene = EchoScene::make(60, true);
    const long delay = EchoCancellationUtilities::findBulkDelay(scene.mic, scene.far, kRate);
    // The tail's early taps may pull the correlation peak a little off the direct path.
    EXPECT_NEAR(delay, long(scene.delaySamples), kRate / 1000);
    const auto aligned = EchoCancellationUtilities::applyDelay(scene.far, delay - WebRTCAEC3::referenceLeadSamples(kRate),
                                                               scene.mic.size());
    const auto out = WebRTCAEC3::processOffline(scene.mic, aligned, kRate, false, false);
    const double erle = scene.erle(out);
    std::printf("[ measured ] offline D=60 ms with a 40 ms tail: ERLE %.1f dB\n", erle);
    EXPECT_GE(erle, 25.0);
}

}  // namespace
}  // namespace ov
