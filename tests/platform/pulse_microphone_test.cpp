// The linux backend's microphones against a private sound server: what is
// listed, and what a capture delivers.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <mutex>
#include <thread>
#include <unistd.h>

#include "platform/cm_clock.h"
#include "platform/linux/linux_capture_platform.h"
#include "support/pulse_daemon.h"

namespace ov::platform {
namespace {

using testing::PulseDaemon;

bool listed(const std::vector<AVCaptureDeviceRef>& devices, const std::string& id) {
    for (const auto& d : devices)
        if (d->uniqueID() == id) return true;
    return false;
}

TEST(PulseMicrophones, TheServersSourcesAreListedWithoutMonitors) {
    PulseDaemon daemon;
    LinuxCapturePlatform platform;
    auto devices = platform.devices();
    ASSERT_TRUE(listed(devices, PulseDaemon::microphone));
    EXPECT_FALSE(listed(devices, "testsink.monitor"));
    auto mic = platform.device(PulseDaemon::microphone);
    ASSERT_TRUE(mic);
    EXPECT_EQ(mic->localizedName(), PulseDaemon::microphoneDescription);
    EXPECT_TRUE(mic->hasMediaType(AVMediaType::audio));
    EXPECT_FALSE(platform.device("no-such-source"));

    // A source that appears is listed; one that goes is no longer listed and
    // its device object says it is gone.
    ASSERT_EQ(daemon.pactl("load-module module-null-sink sink_name=second"), 0);
    ASSERT_EQ(daemon.pactl("load-module module-remap-source master=second.monitor source_name=remapped"), 0);
    EXPECT_TRUE(listed(platform.devices(), "remapped"));
    auto remapped = platform.device("remapped");
    ASSERT_TRUE(remapped);
    ASSERT_EQ(daemon.pactl("unload-module module-remap-source"), 0);
    EXPECT_FALSE(listed(platform.devices(), "remapped"));
    EXPECT_FALSE(remapped->isConnected());
}

TEST(PulseMicrophones, WithoutAServerNothingIsListedAndNothingHangs) {
    ::setenv("PULSE_SERVER", "unix:/nonexistent/orvane-pulse", 1);
    LinuxCapturePlatform platform;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(platform.devices().empty());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    ::unsetenv("PULSE_SERVER");
}

TEST(PulseMicrophones, ACaptureDeliversTheToneOnTheHostClockInExactSteps) {
    PulseDaemon daemon;
    LinuxCapturePlatform platform;
    auto mic = platform.device(PulseDaemon::microphone);
    ASSERT_TRUE(mic);

    // Feed a 440 Hz tone in real time.
    std::atomic<bool> feeding{true};
    std::thread feeder([&] {
        const int fd = ::open(daemon.fifo().c_str(), O_WRONLY);
        // Never block: a source the server stopped reading must not hold the test forever.
        ::fcntl(fd, F_SETFL, O_NONBLOCK);
        std::vector<float> chunk(size_t(daemon.rate() / 100));
        int64_t n = 0;
        const auto begin = std::chrono::steady_clock::now();
        for (int64_t k = 0; feeding; ++k) {
            for (auto& s : chunk) s = float(0.5 * std::sin(2 * M_PI * 440 * double(n++) / daemon.rate()));
            if (::write(fd, chunk.data(), chunk.size() * sizeof(float)) < 0 && errno != EAGAIN) break;
            std::this_thread::sleep_until(begin + std::chrono::milliseconds(10 * (k + 1)));
        }
        ::close(fd);
    });

    std::mutex mutex;
    std::vector<CMSampleBuffer> buffers;
    std::vector<double> arrivals;
    CaptureProducerRequest request;
    request.mediaType = AVMediaType::audio;
    CaptureProducerSink sink;
    sink.output = [&](const CMSampleBuffer& b) {
        std::lock_guard lock(mutex);
        buffers.push_back(b);
        arrivals.push_back(hostTimeNow().seconds());
    };
    auto producer = mic->startProducing(request, sink);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    producer->stop();
    feeding = false;
    feeder.join();

    std::lock_guard lock(mutex);
    ASSERT_GE(buffers.size(), 20u);
    int64_t frames = 0, crossings = 0;
    float previous = 0;
    for (size_t i = 0; i < buffers.size(); ++i) {
        const auto& b = buffers[i];
        if (i > 0) {
            const auto& p = buffers[i - 1];
            EXPECT_EQ(b.presentationTimeStamp(), p.presentationTimeStamp() + CMTime(p.numSamples(), daemon.rate()))
                << "buffer " << i;
        }
        // A buffer's start lies before its arrival, by about its length and the latency.
        EXPECT_LT(b.presentationTimeStamp().seconds(), arrivals[i]);
        auto pcm = b.audioPCMBuffer();
        ASSERT_TRUE(pcm);
        frames += pcm->frameLength();
        for (uint32_t s = 0; s < pcm->frameLength(); ++s) {
            const float v = pcm->floatChannelData()[0][s];
            if ((previous < 0) != (v < 0)) ++crossings;
            previous = v;
        }
    }
    // Fragments of about 20 ms.
    EXPECT_NEAR(double(buffers[0].numSamples()) / daemon.rate(), 0.02, 0.005);
    EXPECT_NEAR(buffers.back().presentationTimeStamp().seconds() - arrivals.back(), -0.02, 0.1);
    // 440 Hz: 880 zero crossings per second.
    EXPECT_NEAR(double(crossings) / (double(frames) / daemon.rate()), 880, 40);
}

}  // namespace
}  // namespace ov::platform
