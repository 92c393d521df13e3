// The microphone file recorder with echo cancellation on a synthetic
// microphone, its reference from a stand-in system-audio source that plays a
// tone on its own clock: which files each mode gives, and that they play.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "audio/echo/echo_reference_source.h"
#include "audio/microphone_recorders.h"
#include "foundation/ov_error.h"
#include "platform/cm_clock.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "session/recorder_assembly.h"
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

// 10 ms of a quiet tone every 10 ms, stamped with the host clock.
class ToneReferenceSource final : public EchoReferenceSource {
public:
    ~ToneReferenceSource() override { stopAndDrain(); }
    double sampleRate() const override { return 48000; }
    void start(Handler handler) override {
        running_ = true;
        thread_ = std::thread([this, handler] {
            std::vector<float> buffer(480);
            size_t n = 0;
            auto next = std::chrono::steady_clock::now();
            const auto first = platform::hostTimeNow();
            while (running_) {
                for (auto& s : buffer) s = 0.05f * std::sin(2 * float(M_PI) * 300.0f * float(n++) / 48000.0f);
                handler(buffer.data(), buffer.size(), first + platform::CMTime(int64_t(n - 480), 48000));
                next += std::chrono::milliseconds(10);
                std::this_thread::sleep_until(next);
            }
        });
    }
    void stopAndDrain() override {
        running_ = false;
        if (thread_.joinable()) thread_.join();
    }

private:
    std::atomic<bool> running_{false};
    std::thread thread_;
};

struct InstalledReference {
    InstalledReference() {
        setEchoReferenceSourceFactory([](const Logger&) { return std::make_unique<ToneReferenceSource>(); });
    }
    ~InstalledReference() { setEchoReferenceSourceFactory({}); }
};

SyntheticWorld worldWithMicrophone() {
    SyntheticWorld world;
    auto mic = SyntheticDevice::make(SyntheticDevice::Kind::microphone, "mic");
    mic.audio.channels = 1;
    mic.audio.sampleRate = 48000;
    mic.audio.bufferFrames = 480;
    world.devices.push_back(mic);
    return world;
}

std::vector<std::string> names(const std::vector<OVBundleInfo::FileAsset>& assets) {
    std::vector<std::string> out;
    for (const auto& asset : assets) out.push_back(asset.filename);
    return out;
}

TEST(EchoCancellationWiring, WithoutSystemAudioCaptureTheItemIsRefused) {
    MicrophoneFileSchemaItem item;
    item.id = "m";
    item.microphoneID = "mic";
    item.echoCancellation = EchoCancellation::aec3Both;
    RecorderAssemblyContext context;
    try {
        makeMicrophoneRecorders(item, OutputDescription::singleFile("/tmp/x.m4a"), context);
        FAIL() << "accepted without a reference";
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::configurationNotSupported);
    }
}

TEST(EchoCancellationWiring, BothModesGiveFourPlayableFiles) {
    SyntheticWorld world = worldWithMicrophone();
    auto platform = std::make_shared<SyntheticCapturePlatform>(std::move(world));
    CapturePlatform::ScopedOverride installed(platform);
    InstalledReference reference;
    testing::TempDirectory dir;
    testing::LogCapture logs;
    auto live = std::make_shared<VolatileRecordingTimeline>();
    AudioFileRecorder recorder("m1", OutputDescription::singleFile(dir / "take.m4a"), "mic", false, 0.0,
                               EchoCancellation::aec3Both, 6, 2, std::make_shared<StableRecordingTimeline>(live), true,
                               logs.logger, [](AbortSignal) {});
    const std::vector<std::string> all{"take.m4a", "take-ec-webrtc.m4a", "take-ec-systemaudio.m4a",
                                       "take-ec-webrtc-offline.m4a"};
    EXPECT_EQ(names(recorder.prepare()), all);
    live->start(platform::hostTimeNow().seconds());
    std::this_thread::sleep_for(std::chrono::milliseconds(3600));
    live->stop(platform::hostTimeNow().seconds());
    EXPECT_EQ(names(recorder.finish()), all);
    EXPECT_TRUE(logs.waitFor("Buffered EC catchup complete.", std::chrono::milliseconds(0)));
    EXPECT_TRUE(logs.waitFor("Offline echo cancellation complete.", std::chrono::milliseconds(0)));
    for (const auto& name : all) {
        SCOPED_TRACE(name);
        const auto info = testing::probeMedia(dir / name);
        ASSERT_FALSE(info.is_null());
        EXPECT_EQ(info["streams"][0]["codec_name"], "aac");
        EXPECT_NEAR(testing::playedDuration(info), 3.6, 0.15);
    }
}

TEST(EchoCancellationWiring, OnlineOnlyHasNoSidecarAndSegmentedOutputNamesByItem) {
    auto platform = std::make_shared<SyntheticCapturePlatform>(worldWithMicrophone());
    CapturePlatform::ScopedOverride installed(platform);
    InstalledReference reference;
    testing::TempDirectory dir;
    testing::LogCapture logs;
    auto live = std::make_shared<VolatileRecordingTimeline>();
    AudioFileRecorder recorder("m1", OutputDescription::multipleStreams(dir.path(), "audio", [](const auto&) {}), "mic",
                               false, 0.0, EchoCancellation::aec3Online, 6, 2,
                               std::make_shared<StableRecordingTimeline>(live), true, logs.logger, [](AbortSignal) {});
    const auto prepared = names(recorder.prepare());
    ASSERT_FALSE(prepared.empty());
    EXPECT_EQ(prepared.back(), "microphone-m1-ec-webrtc.m4a");
    live->start(platform::hostTimeNow().seconds());
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    live->stop(platform::hostTimeNow().seconds());
    const auto finished = names(recorder.finish());
    EXPECT_EQ(finished.back(), "microphone-m1-ec-webrtc.m4a");
    EXPECT_FALSE(std::filesystem::exists(dir / "microphone-m1-ec-systemaudio.m4a"));
    const auto info = testing::probeMedia(dir / "microphone-m1-ec-webrtc.m4a");
    ASSERT_FALSE(info.is_null());
    EXPECT_NEAR(testing::playedDuration(info), 1.5, 0.15);
}

}  // namespace
}  // namespace ov
