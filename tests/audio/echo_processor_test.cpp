// Delay estimation, the audio file helpers, and the echo cancellation
// processor's phases, files and edge cases.
#include <gtest/gtest.h>

#include <random>

#include "audio/echo/echo_cancellation_processor.h"
#include "audio/echo/echo_cancellation_utilities.h"
#include "audio/echo/webrtc_aec3.h"
#include "audio/echo_test_support.h"
#include "platform/av_audio_file.h"
#include "support/log_capture.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"
#include "timing/volatile_recording_timeline.h"

namespace ov {
namespace {

using namespace ov::testing;
using platform::CMTime;
namespace utilities = EchoCancellationUtilities;

std::vector<float> shifted(const std::vector<float>& x, long by) { return utilities::applyDelay(x, by, x.size()); }

// ---- findBulkDelay ----------------------------------------------------------------------------------

TEST(FindBulkDelay, FindsShiftsBothWaysAndIgnoresPolarity) {
    const auto ref = whiteNoise(kRate, 11, -20);
    EXPECT_EQ(utilities::findBulkDelay(ref, ref, kRate), 0);
    EXPECT_EQ(utilities::findBulkDelay(shifted(ref, 100), ref, kRate), 100);
    EXPECT_EQ(utilities::findBulkDelay(shifted(ref, -100), ref, kRate), -100);
    auto inverted = shifted(ref, 321);
    for (auto& s : inverted) s = -s;
    EXPECT_EQ(utilities::findBulkDelay(inverted, ref, kRate), 321);
}

TEST(FindBulkDelay, SearchesExactly200msEitherWay) {
    const auto ref = whiteNoise(2 * kRate, 12, -20);
    EXPECT_EQ(utilities::findBulkDelay(shifted(ref, 9600), ref, kRate), 9600);
    EXPECT_EQ(utilities::findBulkDelay(shifted(ref, -9600), ref, kRate), -9600);
    const int beyond = utilities::findBulkDelay(shifted(ref, 14400), ref, kRate);
    EXPECT_LE(std::abs(beyond), 9600);
    EXPECT_NE(beyond, 14400);
}

TEST(FindBulkDelay, ATieGoesToThePositiveSide) {
    std::vector<float> ref(4800, 0.0f), mic(4800, 0.0f);
    ref[2000] = 1;
    mic[2050] = 0.5f;
    mic[1950] = 0.5f;
    EXPECT_EQ(utilities::findBulkDelay(mic, ref, kRate), 50);
    EXPECT_EQ(utilities::findBulkDelay({}, {}, kRate), 0);
}

TEST(FindBulkDelay, WholeAndBlockwiseAgreeOnNoiseAndSpeech) {
    // Longer than one 2^16-sample block, so the block-wise sum spans several.
    const auto noiseRef = whiteNoise(3 * kRate, 21, -20);
    const auto extra = whiteNoise(noiseRef.size(), 22, -40);
    const auto speechRef = speechLike(6.0, kRate, 23, -20);
    for (long lag : {2400L, -1234L, 9600L}) {
        auto noiseMic = shifted(noiseRef, lag);
        for (size_t i = 0; i < noiseMic.size(); ++i) noiseMic[i] = 0.5f * noiseMic[i] + extra[i];
        EXPECT_EQ(utilities::findBulkDelayWholeFFT(noiseMic, noiseRef, kRate), lag);
        EXPECT_EQ(utilities::findBulkDelayBlockwise(noiseMic, noiseRef, kRate), lag);

        const auto speechMic = shifted(speechRef, lag);
        EXPECT_EQ(utilities::findBulkDelayWholeFFT(speechMic, speechRef, kRate), lag);
        EXPECT_EQ(utilities::findBulkDelayBlockwise(speechMic, speechRef, kRate), lag);
    }
    // Different lengths, the mic shorter than a block.
    const auto ref = whiteNoise(30000, 24, -20);
    auto mic = shifted(ref, 777);
    mic.resize(20000);
    EXPECT_EQ(utilities::findBulkDelayBlockwise(mic, ref, kRate), utilities::findBulkDelayWholeFFT(mic, ref, kRate));
}

TEST(ApplyDelay, MovesAndCutsToTheTargetLength) {
    const std::vector<float> x{1, 2, 3, 4};
    EXPECT_EQ(utilities::applyDelay(x, 2, 5), (std::vector<float>{0, 0, 1, 2, 3}));
    EXPECT_EQ(utilities::applyDelay(x, -1, 5), (std::vector<float>{2, 3, 4, 0, 0}));
    EXPECT_EQ(utilities::applyDelay(x, 9, 3), (std::vector<float>{0, 0, 0}));
    EXPECT_EQ(utilities::applyDelay(x, -4, 3), (std::vector<float>{0, 0, 0}));
}

// ---- files ----------------------------------------------------------------------------------------

TEST(EchoAudioFiles, WritesMonoAACAndReadsItBack) {
    TempDirectory dir;
    const auto speech = speechLike(2.5, kRate, 5, -20);
    utilities::writeMonoAudioFile(speech, dir / "out.m4a", kRate);
    const auto info = probeMedia(dir / "out.m4a");
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["streams"][0]["codec_name"], "aac");
    EXPECT_EQ(info["streams"][0]["channels"], 1);
    EXPECT_EQ(info["streams"][0]["sample_rate"], "48000");
    EXPECT_NEAR(playedDuration(info), 2.5, 0.03);
    const auto back = utilities::readAudioFileAsMono(dir / "out.m4a", kRate);
    EXPECT_NEAR(double(back.size()), 2.5 * kRate, 0.02 * kRate);
    EXPECT_NEAR(rmsDb(back, 0, back.size()), rmsDb(speech, 0, speech.size()), 0.5);
    EXPECT_THROW(utilities::readAudioFileAsMono(dir / "missing.m4a", kRate), std::exception);
}

TEST(EchoAudioFiles, AStereoFileAtTheTargetRateStillGoesThroughTheConverter) {
    TempDirectory dir;
    const auto wav = dir / "stereo.wav";
    ASSERT_EQ(std::system(("ffmpeg -v error -f lavfi -i 'sine=frequency=440:sample_rate=48000:duration=1' "
                           "-af 'pan=stereo|c0=c0|c1=0*c0' -c:a pcm_f32le '" +
                           wav.string() + "'")
                              .c_str()),
              0);
    const auto decoded = platform::readAudioFileAsMonoFloat(wav, kRate);
    EXPECT_TRUE(decoded.converted);
    EXPECT_EQ(decoded.fileChannels, 2);
    ASSERT_NEAR(double(decoded.samples.size()), kRate, 10);
    // The average of a full-scale-1/8 sine and silence: half its level.
    double peak = 0;
    for (float s : decoded.samples) peak = std::max(peak, double(std::fabs(s)));
    EXPECT_NEAR(peak, 0.125 / 2, 0.01);
}

// ---- the processor ----------------------------------------------------------------------------------

struct ProcessorRun {
    TempDirectory dir;
    LogCapture logs;
    std::shared_ptr<VolatileRecordingTimeline> live = std::make_shared<VolatileRecordingTimeline>();
    std::shared_ptr<EchoCancellationProcessor> processor;
    double t0 = 500.0;

    explicit ProcessorRun(EchoCancellation mode) {
        live->start(t0);
        const auto urls = echoCancellationURLs(mode, dir.path(), std::string("mic.m4a"), "m");
        processor = EchoCancellationProcessor::make(mode, urls.online, urls.reference, urls.offline,
                                                    StableRecordingTimeline(live), true, logs.loggerFor("Test"),
                                                    nullptr, manualReferenceFactory());
        processor->startTap();
    }
    CMTime at(size_t sample, int rate = kRate) const {
        return CMTime::makeWithSeconds(t0, 1'000'000'000) + CMTime(int64_t(sample), rate);
    }
    // Feeds both streams in 10 ms steps from `from` to `to` (samples of the tap's rate).
    void feed(const std::vector<float>& ref, const std::vector<float>& mic, size_t from, size_t to) {
        const size_t step = kRate / 100;
        for (size_t i = from; i + step <= to; i += step) {
            processor->handleTapBuffer(ref.data() + i, step, at(i));
            processor->feedMicAudio(monoBuffer(mic.data() + i, step, kRate, at(i)));
        }
    }
    void finish(double seconds) {
        live->stop(t0 + seconds);
        processor->stopTap();
        processor->finishOnline(CMTime::makeWithSeconds(seconds, 1'000'000'000));
    }
    std::vector<std::string> completed() const {
        std::vector<std::string> names;
        for (const auto& asset : processor->completedFileAssets()) names.push_back(asset.filename);
        return names;
    }
};

TEST(EchoCancellationProcessor, FileNamesFollowTheModeAndTheOutput) {
    const auto both = echoCancellationURLs(EchoCancellation::aec3Both, "/b", std::string("take.m4a"), "x");
    EXPECT_EQ(both.online->string(), "/b/take-ec-webrtc.m4a");
    EXPECT_EQ(both.reference->string(), "/b/take-ec-systemaudio.m4a");
    EXPECT_EQ(both.offline->string(), "/b/take-ec-webrtc-offline.m4a");
    const auto online = echoCancellationURLs(EchoCancellation::aec3Online, "/b", std::nullopt, "x");
    EXPECT_EQ(online.online->string(), "/b/microphone-x-ec-webrtc.m4a");
    EXPECT_FALSE(online.reference);
    EXPECT_FALSE(online.offline);
    const auto offline = echoCancellationURLs(EchoCancellation::aec3Offline, "/b", std::nullopt, "x");
    EXPECT_FALSE(offline.online);
    EXPECT_EQ(offline.reference->string(), "/b/microphone-x-ec-systemaudio.m4a");
}

TEST(EchoCancellationProcessor, ARecordingShorterThanTheBufferStillGivesAnOnlineFile) {
    ProcessorRun run(EchoCancellation::aec3Online);
    const auto scene = EchoScene::make(30, false, 7, 3);
    run.feed(scene.far, scene.mic, 0, 2 * kRate);
    EXPECT_EQ(run.processor->phase(), ECPhase::buffering);
    run.finish(2.0);
    EXPECT_TRUE(run.logs.waitFor("Forced buffered EC catchup on finish.", std::chrono::milliseconds(0)));
    EXPECT_EQ(run.processor->phase(), ECPhase::streaming);
    const auto info = probeMedia(run.dir / "mic-ec-webrtc.m4a");
    ASSERT_FALSE(info.is_null());
    EXPECT_NEAR(playedDuration(info), 2.0, 0.05);
    EXPECT_EQ(run.completed(), (std::vector<std::string>{"mic-ec-webrtc.m4a"}));
}

TEST(EchoCancellationProcessor, ASilentSystemStreamsAfter3sAndAbandonsReestimationAt15s) {
    ProcessorRun run(EchoCancellation::aec3Online);
    const auto speech = speechLike(19.0, kRate, 9, -26);
    const std::vector<float> silence(speech.size(), 0.0f);
    run.feed(silence, speech, 0, 3 * kRate + kRate / 50);
    // The tap delivers silence when nothing plays: catch-up at 3 s, not 6.
    EXPECT_EQ(run.processor->phase(), ECPhase::streaming);
    EXPECT_TRUE(run.logs.waitFor("No reference audio, using standard AEC3 without delay estimation.",
                                 std::chrono::milliseconds(0)));
    EXPECT_TRUE(run.processor->needsDelayReestimation());
    run.feed(silence, speech, 3 * kRate + kRate / 50, 17 * kRate);
    EXPECT_TRUE(run.processor->needsDelayReestimation());
    run.feed(silence, speech, 17 * kRate, 19 * kRate);
    EXPECT_FALSE(run.processor->needsDelayReestimation());
    EXPECT_TRUE(run.logs.waitFor("Delay re-estimation abandoned, no reference content after 15 seconds.",
                                 std::chrono::milliseconds(0)));
    run.finish(19.0);
    const auto out = utilities::readAudioFileAsMono(run.dir / "mic-ec-webrtc.m4a", kRate);
    // Near-end speech alone comes through.
    EXPECT_NEAR(rmsDb(out, 5 * kRate, 18 * kRate), rmsDb(speech, 5 * kRate, 18 * kRate), 1.5);
}

// The echo path moves after the first 3 s; how far decides whether the adapted canceller stays.
void runWithMovingEcho(double firstMs, double laterMs, int expectedGenerations) {
    ProcessorRun run(EchoCancellation::aec3Online);
    const auto far = speechLike(10.0, kRate, 31, -20);
    const auto first = shifted(far, std::lround(firstMs * kRate / 1000));
    const auto later = shifted(far, std::lround(laterMs * kRate / 1000));
    std::vector<float> mic(far.size());
    for (size_t i = 0; i < mic.size(); ++i) mic[i] = 0.5f * (i < 3 * kRate ? first[i] : later[i]);
    run.feed(far, mic, 0, mic.size());
    EXPECT_EQ(run.processor->bulkDelay(), std::lround(laterMs * kRate / 1000));
    EXPECT_EQ(run.processor->cancellerGeneration(), expectedGenerations);
    EXPECT_FALSE(run.processor->needsDelayReestimation());
    run.finish(10.0);
}

TEST(EchoCancellationProcessor, AReestimateWithin10msKeepsTheAdaptedCanceller) {
    runWithMovingEcho(40, 45, 1);
}

TEST(EchoCancellationProcessor, AReestimateBeyond10msStartsAFreshCanceller) {
    runWithMovingEcho(40, 90, 2);
}

TEST(EchoCancellationProcessor, OfflineModeWritesTheSidecarButNoOnlineFile) {
    ProcessorRun run(EchoCancellation::aec3Offline);
    const auto scene = EchoScene::make(20, false, 7, 5);
    run.feed(scene.far, scene.mic, 0, 4 * kRate);
    EXPECT_EQ(run.processor->phase(), ECPhase::streaming);
    EXPECT_EQ(run.processor->cancellerGeneration(), 0);
    run.finish(4.0);
    EXPECT_FALSE(std::filesystem::exists(run.dir / "mic-ec-webrtc.m4a"));
    const auto info = probeMedia(run.dir / "mic-ec-systemaudio.m4a");
    ASSERT_FALSE(info.is_null());
    EXPECT_NEAR(playedDuration(info), 4.0, 0.05);
    std::vector<std::string> expected;
    for (const auto& asset : run.processor->expectedFileAssets()) expected.push_back(asset.filename);
    EXPECT_EQ(expected, (std::vector<std::string>{"mic-ec-systemaudio.m4a", "mic-ec-webrtc-offline.m4a"}));
    EXPECT_EQ(run.completed(), (std::vector<std::string>{"mic-ec-systemaudio.m4a"}));
}

TEST(EchoCancellationProcessor, A44kHzMicrophoneIsResampledAndKeepsItsTiming) {
    ProcessorRun run(EchoCancellation::aec3Online);
    const int micRate = 44100;
    const auto far = speechLike(6.0, kRate, 41, -20);
    const auto near = speechLike(6.0, micRate, 42, -26);
    const size_t step = kRate / 100, micStep = micRate / 100;
    for (size_t k = 0; (k + 1) * step <= far.size(); ++k) {
        run.processor->handleTapBuffer(far.data() + k * step, step, run.at(k * step));
        if ((k + 1) * micStep <= near.size())
            run.processor->feedMicAudio(monoBuffer(near.data() + k * micStep, micStep, micRate, run.at(k * micStep, micRate)));
    }
    run.finish(6.0);
    EXPECT_TRUE(run.logs.waitFor("Mic and system audio sample rates differ, setting up resampler.",
                                 std::chrono::milliseconds(0)));
    const auto info = probeMedia(run.dir / "mic-ec-webrtc.m4a");
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["streams"][0]["sample_rate"], "48000");
    // The online file covers the recording; its speech sits where the microphone had it.
    EXPECT_NEAR(playedDuration(info), 6.0, 0.05);
    const auto out = utilities::readAudioFileAsMono(run.dir / "mic-ec-webrtc.m4a", kRate);
    auto resampled = platform::AVAudioConverter::make(micRate, kRate)->convert(near.data(), near.size());
    const long lag = utilities::findBulkDelay(std::vector<float>(out.begin() + kRate, out.begin() + 5 * kRate),
                                              std::vector<float>(resampled.begin() + kRate, resampled.begin() + 5 * kRate),
                                              kRate);
    // Within the resampler's and the canceller's latency of a frame or two.
    EXPECT_LE(std::labs(lag), 2 * kRate / 100) << lag;
}

TEST(EchoCancellationProcessor, OfflinePassFromFilesAndAFailedPassLeavesTheOtherFiles) {
    const auto scene = EchoScene::make(80, false, 7, 12);
    {
        ProcessorRun run(EchoCancellation::aec3Both);
        run.feed(scene.far, scene.mic, 0, 12 * kRate);
        run.finish(12.0);
        // What the microphone recorder would have written.
        const std::vector<float> mic(scene.mic.begin(), scene.mic.begin() + 12 * kRate);
        utilities::writeMonoAudioFile(mic, run.dir / "mic.m4a", kRate);
        run.processor->runOfflinePass(run.dir / "mic.m4a");
        EXPECT_EQ(run.completed(), (std::vector<std::string>{"mic-ec-webrtc.m4a", "mic-ec-systemaudio.m4a",
                                                             "mic-ec-webrtc-offline.m4a"}));
        const auto estimated = run.logs.waitFor("Offline EC bulk delay estimated.", std::chrono::milliseconds(0));
        ASSERT_TRUE(estimated);
        EXPECT_NEAR(std::stol(estimated->metadata.at("delaySamples")), long(scene.delaySamples), 1);
        const auto info = probeMedia(run.dir / "mic-ec-webrtc-offline.m4a");
        ASSERT_FALSE(info.is_null());
        EXPECT_EQ(info["streams"][0]["codec_name"], "aac");
        EXPECT_NEAR(playedDuration(info), 12.0, 0.05);
        const auto out = utilities::readAudioFileAsMono(run.dir / "mic-ec-webrtc-offline.m4a", kRate);
        auto padded = out;
        padded.resize(scene.mic.size(), 0.0f);
        // Far-only windows from 4 to 12 s; the AAC round trip costs nothing measurable.
        double micEnergy = 0, outEnergy = 0;
        for (size_t w = 4 * kRate; w + kRate / 10 <= 12 * kRate; w += kRate / 10) {
            if (rmsDb(scene.echo, w, w + kRate / 10) < -50) continue;
            micEnergy += energy(scene.mic, w, w + kRate / 10);
            outEnergy += energy(padded, w, w + kRate / 10);
        }
        const double erle = 10 * std::log10(micEnergy / outEnergy);
        std::printf("[ measured ] offline pass through AAC files, D=80 ms: ERLE %.1f dB\n", erle);
        EXPECT_GE(erle, 20.0);
    }
    {
        ProcessorRun run(EchoCancellation::aec3Both);
        run.feed(scene.far, scene.mic, 0, 4 * kRate);
        run.finish(4.0);
        EXPECT_THROW(run.processor->runOfflinePass(run.dir / "no-such-mic.m4a"), std::exception);
        EXPECT_EQ(run.completed(), (std::vector<std::string>{"mic-ec-webrtc.m4a", "mic-ec-systemaudio.m4a"}));
        EXPECT_FALSE(probeMedia(run.dir / "mic-ec-webrtc.m4a").is_null());
        EXPECT_FALSE(probeMedia(run.dir / "mic-ec-systemaudio.m4a").is_null());
    }
}

}  // namespace
}  // namespace ov
