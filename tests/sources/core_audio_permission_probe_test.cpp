// The system-audio permission probe: its test-tone image, the synthetic
// world's answers, and the answers of a private sound server, which must
// never be given anything audible to play.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "platform/dispatch_queue.h"
#include "platform/linux/linux_capture_platform.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "sources/core_audio_permission_probe.h"
#include "sources/ov_authorization.h"
#include "support/media_probe.h"
#include "support/pulse_daemon.h"

namespace ov {
namespace {

namespace probe = CoreAudioPermissionProbe;

uint32_t le32(const std::vector<uint8_t>& b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 | uint32_t(b[at + 3]) << 24;
}

TEST(CoreAudioPermissionProbe, TheToneImageIsAMono16BitWAV) {
    const auto tone = probe::generateWAVData(8820, 440.0, false);
    ASSERT_EQ(tone.size(), 44u + 8820u * 2);
    EXPECT_EQ(std::string(tone.begin(), tone.begin() + 4), "RIFF");
    EXPECT_EQ(le32(tone, 4), tone.size() - 8);
    EXPECT_EQ(std::string(tone.begin() + 8, tone.begin() + 16), "WAVEfmt ");
    EXPECT_EQ(le32(tone, 24), 44100u);
    EXPECT_EQ(le32(tone, 28), 88200u);
    EXPECT_EQ(le32(tone, 40), 8820u * 2);
    int16_t sample;
    std::memcpy(&sample, tone.data() + 44 + 2 * 25, 2);  // a quarter period of 440 Hz is about 25 samples
    EXPECT_NEAR(sample, 16383 * std::sin(2 * M_PI * 440 * 25 / 44100.0), 1);
    const auto silent = probe::generateWAVData(4410, 440.0, true);
    EXPECT_TRUE(std::all_of(silent.begin() + 44, silent.end(), [](uint8_t b) { return b == 0; }));
    // ffmpeg reads it as what it says it is.
    testing::TempDirectory dir;
    std::ofstream(dir / "tone.wav", std::ios::binary).write(reinterpret_cast<const char*>(tone.data()), std::streamsize(tone.size()));
    const auto info = testing::probeMedia(dir / "tone.wav");
    ASSERT_FALSE(info.is_null());
    EXPECT_EQ(info["streams"][0]["codec_name"], "pcm_s16le");
    EXPECT_EQ(info["streams"][0]["channels"], 1);
}

TEST(CoreAudioPermissionProbe, OnlyAMagnitudeAboveZeroCounts) {
    const float quiet[3] = {0.0f, -0.0f, 0.0f}, faint[2] = {0.0f, -1e-9f};
    EXPECT_FALSE(probe::containsNonZeroSamples(quiet, 3));
    EXPECT_TRUE(probe::containsNonZeroSamples(faint, 2));
    EXPECT_FALSE(probe::containsNonZeroSamples(faint, 0));  // fewer than 4 bytes is silence
}

platform::SyntheticWorld worldWithSystemAudio(int status) {
    auto world = platform::SyntheticWorld::makeDefault();
    world.authorization.systemAudio = status;
    return world;
}

TEST(CoreAudioPermissionProbe, TheSyntheticWorldsAuthorizationDecides) {
    {
        platform::CapturePlatform::ScopedOverride installed(
            std::make_shared<platform::SyntheticCapturePlatform>(worldWithSystemAudio(0)));
        EXPECT_TRUE(probe::probe());
    }
    {
        platform::CapturePlatform::ScopedOverride installed(
            std::make_shared<platform::SyntheticCapturePlatform>(worldWithSystemAudio(1)));
        EXPECT_FALSE(probe::probe());
        EXPECT_FALSE(OVAuthorization::probeSystemAudioRecordingStatus(SystemAudioBackend::coreAudio));
    }
}

// Samples a command's output while the probe runs.
class Sampler {
public:
    explicit Sampler(std::function<void()> sample) : thread_([this, sample] {
        while (!stop_) {
            sample();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }) {}
    ~Sampler() {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class ProbeOnPulse : public ::testing::Test {
protected:
    void SetUp() override {
        daemon_ = std::make_unique<testing::PulseDaemon>();
        installed_.emplace(std::make_shared<platform::LinuxCapturePlatform>());
    }
    void TearDown() override {
        installed_.reset();
        daemon_.reset();
    }
    std::string pactlOutput(const std::string& arguments) const {
        return testing::commandOutput("PULSE_SERVER=unix:" + daemon_->socket().string() + " pactl " + arguments +
                                      " 2>/dev/null");
    }
    std::unique_ptr<testing::PulseDaemon> daemon_;
    std::optional<platform::CapturePlatform::ScopedOverride> installed_;
};

TEST_F(ProbeOnPulse, APlayingSystemAnswersWithoutPlayingAnything) {
    // Another process plays a tone into the sink.
    const std::string server = "PULSE_SERVER=unix:" + daemon_->socket().string();
    testing::TempDirectory dir;
    ASSERT_EQ(std::system(("ffmpeg -v error -f lavfi -i 'sine=frequency=500:sample_rate=48000:duration=20' -f s16le '" +
                           (dir / "tone.raw").string() + "'").c_str()), 0);
    const pid_t player = ::fork();
    if (player == 0) {
        ::execlp("sh", "sh", "-c", (server + " pacat --format=s16le --rate=48000 --channels=1 '" +
                                    (dir / "tone.raw").string() + "'").c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // Wait until the sink plays (a null sink starts when its first stream does).
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (pactlOutput("list short sink-inputs").empty() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));

    std::atomic<bool> ownStreamSeen{false};
    bool answer = false;
    double seconds = 0;
    {
        const std::string self = "application.process.id = \"" + std::to_string(::getpid()) + "\"";
        Sampler sampler([&] {
            if (pactlOutput("list sink-inputs").find(self) != std::string::npos) ownStreamSeen = true;
        });
        const auto started = std::chrono::steady_clock::now();
        answer = probe::probe();
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    }
    ::kill(player, SIGKILL);
    ::waitpid(player, nullptr, 0);
    std::printf("[ measured ] probe with a player running: %s in %.2f s\n", answer ? "true" : "false", seconds);
    EXPECT_TRUE(answer);
    EXPECT_FALSE(ownStreamSeen);
}

TEST_F(ProbeOnPulse, ASilentSystemAnswersThroughTheMutedSelfProbe) {
    // Watch the whole output while the probe runs: nothing audible may reach it.
    std::atomic<bool> heardSomething{false};
    std::atomic<bool> monitoring{true};
    std::thread monitor([&] {
        const auto raw = testing::commandOutput("PULSE_SERVER=unix:" + daemon_->socket().string() +
                                                " timeout 2.5 parec --format=float32le --rate=48000 --channels=1 "
                                                "-d testsink.monitor 2>/dev/null");
        for (size_t i = 0; i + 4 <= raw.size(); i += 4) {
            float v;
            std::memcpy(&v, raw.data() + i, 4);
            if (v != 0.0f) heardSomething = true;
        }
        monitoring = false;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto started = std::chrono::steady_clock::now();
    const bool answer = probe::probe();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    monitor.join();
    std::printf("[ measured ] probe with nothing playing: %s in %.2f s\n", answer ? "true" : "false", seconds);
    EXPECT_TRUE(answer);
    EXPECT_FALSE(heardSomething);
}

TEST_F(ProbeOnPulse, NoServerMeansTheProbeThrowsAndTheStatusIsFalse) {
    daemon_.reset();
    ::setenv("PULSE_SERVER", "unix:/nonexistent/orvane-no-server", 1);
    EXPECT_THROW(probe::probe(), std::exception);
    EXPECT_FALSE(OVAuthorization::probeSystemAudioRecordingStatus(SystemAudioBackend::coreAudio));
    EXPECT_FALSE(OVAuthorization::systemAudioRecording(SystemAudioBackend::coreAudio));
    ::unsetenv("PULSE_SERVER");
}

TEST_F(ProbeOnPulse, TheMonitorTellsWhenTheServerGoesAndComesBack) {
    auto monitor = AudioCapturePermissionMonitor::make(
        [] { return platform::CapturePlatform::shared()->audioCaptureAccessStatus(); });
    std::atomic<int> calls{0};
    auto registration = monitor->registerCallback([&] { ++calls; });
    EXPECT_TRUE(monitor->isPolling());
    auto waitForCalls = [&](int n) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (calls < n && std::chrono::steady_clock::now() < deadline) {
            platform::DispatchQueue::drainMainForTesting();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return calls >= n;
    };
    // Let the monitor read the first status while the server runs.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(calls, 0);
    daemon_.reset();
    ::setenv("PULSE_SERVER", "unix:/nonexistent/orvane-no-server", 1);
    EXPECT_TRUE(waitForCalls(1));
    daemon_ = std::make_unique<testing::PulseDaemon>();
    EXPECT_TRUE(waitForCalls(2));
    registration.cancel();
    EXPECT_FALSE(monitor->isPolling());
}

}  // namespace
}  // namespace ov
