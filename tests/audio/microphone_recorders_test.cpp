// The microphone recorders against synthetic microphones: channel handling,
// the failures of set-up and prepare, and a paused recording's length.
#include "audio/microphone_recorders.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <thread>

#include "platform/capture_platform.h"
#include "platform/cm_clock.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "foundation/ov_error.h"
#include "support/log_capture.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"
#include "timing/volatile_recording_timeline.h"

namespace ov {
namespace {

using platform::CapturePlatform;
using platform::SyntheticCapturePlatform;
using platform::SyntheticDevice;
using platform::SyntheticWorld;
using testing::LogCapture;
using testing::TempDirectory;

struct MicWorld {
    std::shared_ptr<SyntheticCapturePlatform> platform;
    CapturePlatform::ScopedOverride installed;
    explicit MicWorld(SyntheticWorld world)
        : platform(std::make_shared<SyntheticCapturePlatform>(std::move(world))), installed(platform) {}
};

SyntheticWorld worldWithMicrophone(uint32_t channels, double rate = 48000) {
    SyntheticWorld world;
    auto mic = SyntheticDevice::make(SyntheticDevice::Kind::microphone, "mic");
    mic.audio.channels = channels;
    mic.audio.sampleRate = rate;
    mic.audio.bufferFrames = 480;
    world.devices.push_back(mic);
    return world;
}

struct Timeline {
    std::shared_ptr<VolatileRecordingTimeline> live = std::make_shared<VolatileRecordingTimeline>();
    std::shared_ptr<StableRecordingTimeline> stable() const { return std::make_shared<StableRecordingTimeline>(live); }
    static double now() { return platform::hostTimeNow().seconds(); }
};

std::unique_ptr<AudioFileRecorder> fileRecorder(const std::filesystem::path& url, bool leftChannelOnly,
                                                const Timeline& timeline, const Logger& logger,
                                                const std::string& microphone = "mic") {
    return std::make_unique<AudioFileRecorder>("m1", OutputDescription::singleFile(url), microphone, leftChannelOnly,
                                               0.0, EchoCancellation::off, 6, 2, timeline.stable(), true, logger,
                                               [](AbortSignal) {});
}

TEST(AudioFileRecorderTest, ChannelsAreCappedAtTwoAndLeftOnlyGivesMonoWithoutALayout) {
    MicWorld world(worldWithMicrophone(6));
    TempDirectory dir;
    Timeline timeline;
    {
        LogCapture log;
        auto recorder = fileRecorder(dir / "six.m4a", false, timeline, log.logger);
        EXPECT_EQ(recorder->audioSettings()[platform::AVNumberOfChannelsKey], 2);
        auto warning = log.waitFor("Too many audio channels, capping number of channels in output settings.", {});
        ASSERT_TRUE(warning);
        EXPECT_EQ(warning->metadata.at("preferredNumberOfChannels"), "6");
    }
    {
        LogCapture log;
        auto recorder = fileRecorder(dir / "left.m4a", true, timeline, log.logger);
        EXPECT_EQ(recorder->audioSettings()[platform::AVNumberOfChannelsKey], 1);
        EXPECT_FALSE(recorder->audioSettings().contains(platform::AVChannelLayoutKey));
        EXPECT_FALSE(log.contains("Too many audio channels, capping number of channels in output settings."));
    }
}

TEST(AudioFileRecorderTest, SetUpFailsOnAMissingDeviceOrPermission) {
    TempDirectory dir;
    Timeline timeline;
    LogCapture log;
    {
        MicWorld world(worldWithMicrophone(1));
        try {
            fileRecorder(dir / "x.m4a", false, timeline, log.logger, "no-such-mic");
            FAIL();
        } catch (const OVError& e) {
            EXPECT_EQ(e.code(), OVError::Code::microphoneUnavailable);
        }
    }
    {
        auto denied = worldWithMicrophone(1);
        denied.authorization.microphone = platform::AVAuthorizationStatus::denied;
        MicWorld world(denied);
        try {
            fileRecorder(dir / "y.m4a", false, timeline, log.logger);
            FAIL();
        } catch (const OVError& e) {
            EXPECT_EQ(e.code(), OVError::Code::microphonePermissionRequired);
            EXPECT_EQ(e.localizedDescription(), "To record audio, microphone access is required.");
        }
    }
}

TEST(AudioFileRecorderTest, AMicrophoneThatNeverDeliversFailsPrepareWithNoAudioSamples) {
    auto silent = worldWithMicrophone(1);
    silent.devices[0].faults = {platform::SyntheticFault::make(platform::SyntheticFault::Kind::neverDelivers)};
    MicWorld world(silent);
    TempDirectory dir;
    Timeline timeline;
    LogCapture log;
    auto recorder = fileRecorder(dir / "z.m4a", false, timeline, log.logger);
    try {
        recorder->prepare();
        FAIL();
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::noAudioSamplesReceived);
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "z.m4a")) << "a failed prepare leaves no file behind";
}

TEST(AudioFileRecorderTest, APausedRecordingHoldsOnlyTheRecordedIntervals) {
    MicWorld world(worldWithMicrophone(2, 44100));
    TempDirectory dir;
    Timeline timeline;
    LogCapture log;
    auto recorder = fileRecorder(dir / "paused.m4a", false, timeline, log.logger);
    ASSERT_EQ(recorder->prepare().at(0).filename, "paused.m4a");
    timeline.live->start(Timeline::now());
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    timeline.live->pause(Timeline::now());
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    timeline.live->start(Timeline::now());
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    timeline.live->stop(Timeline::now());
    recorder->finish();
    const double recorded = StableRecordingTimeline(timeline.live).duration();

    auto info = testing::probeMedia(dir / "paused.m4a");
    ASSERT_EQ(info["streams"].size(), 1u) << info.dump();
    EXPECT_EQ(info["streams"][0]["channels"], 2);
    EXPECT_EQ(info["streams"][0]["sample_rate"], "44100");
    // The pause's 0.6 s are not in the file.
    EXPECT_NEAR(testing::playedDuration(info), recorded, 1024.0 / 44100) << info.dump();
    EXPECT_NEAR(recorded, 1.5, 0.2);
}

}  // namespace
}  // namespace ov
