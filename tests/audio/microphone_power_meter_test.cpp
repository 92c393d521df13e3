// The power meter's scale and levels, and the meter on a real (private) sound server.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <thread>

#include "audio/microphone_power_meter.h"
#include "platform/av_audio_format.h"
#include "platform/capture_platform.h"
#include "platform/dispatch_queue.h"
#include "platform/linux/linux_capture_platform.h"
#include "support/log_capture.h"
#include "support/pulse_daemon.h"

namespace ov {
namespace {

using platform::AVAudioCommonFormat;
using platform::AVAudioFormat;
using platform::AVAudioPCMBuffer;

// A sine whose RMS is `rmsDbfs`, in the format given (all channels alike).
std::shared_ptr<AVAudioPCMBuffer> sine(AVAudioCommonFormat common, int channels, bool interleaved, double rmsDbfs,
                                       size_t frames = 4800) {
    const auto format = AVAudioFormat::make(common, 48000, channels, interleaved);
    auto buffer = AVAudioPCMBuffer::make(*format, static_cast<platform::AVAudioFrameCount>(frames));
    buffer->setFrameLength(static_cast<platform::AVAudioFrameCount>(frames));
    const double amplitude = std::pow(10.0, rmsDbfs / 20) * std::sqrt(2.0);
    const size_t stride = buffer->stride();
    for (int c = 0; c < channels; ++c)
        for (size_t i = 0; i < frames; ++i) {
            const double v = amplitude * std::sin(2 * M_PI * 1000.0 * double(i) / 48000.0);
            const size_t at = interleaved ? i * stride + size_t(c) : i;
            const size_t channel = interleaved ? 0 : size_t(c);
            if (auto f = buffer->floatChannelData()) f[channel][at] = float(v);
            if (auto s = buffer->int16ChannelData()) s[channel][at] = int16_t(std::lround(v * 32767.0));
            if (auto s = buffer->int32ChannelData()) s[channel][at] = int32_t(std::llround(v * 2147483647.0));
        }
    return buffer;
}

TEST(PowerMeterTable, ScaleEndsAndClip) {
    const auto& table = LookupTable::shared();
    EXPECT_EQ(table.table().size(), 300u);
    EXPECT_EQ(table.valueForDecibel(-60.01), 0.0);
    EXPECT_EQ(table.valueForDecibel(-100), 0.0);
    EXPECT_EQ(table.valueForDecibel(0.0), 1.0);
    EXPECT_EQ(table.valueForDecibel(3.0), 1.0);
    EXPECT_NEAR(table.valueForDecibel(-59.99), 0.01064, 0.00001);
    EXPECT_EQ(table.valueForDecibel(-13.65), 1.0);
    EXPECT_LT(table.valueForDecibel(-14.2), 1.0);
    for (size_t i = 1; i < table.table().size(); ++i) EXPECT_LE(table.table()[i], table.table()[i - 1]);
}

TEST(PowerMeterLevels, SineLevelsInEveryDataForm) {
    const auto minus20 = ChannelPowerLevels::fromBuffer(*sine(AVAudioCommonFormat::pcmFormatFloat32, 1, false, -20));
    EXPECT_NEAR(minus20.average, 0.6980, 0.0005);
    EXPECT_NEAR(minus20.peak, 0.8312, 0.0005);
    const auto minus40 = ChannelPowerLevels::fromBuffer(*sine(AVAudioCommonFormat::pcmFormatFloat32, 1, false, -40));
    EXPECT_NEAR(minus40.average, 0.2097, 0.0005);
    EXPECT_NEAR(minus40.peak, 0.2534, 0.0005);
    for (auto common : {AVAudioCommonFormat::pcmFormatInt16, AVAudioCommonFormat::pcmFormatInt32})
        for (bool interleaved : {false, true}) {
            const auto levels = ChannelPowerLevels::fromBuffer(*sine(common, 2, interleaved, -20));
            ASSERT_EQ(levels.channels.size(), 2u);
            EXPECT_NEAR(levels.average, minus20.average, 0.002);
            EXPECT_NEAR(levels.peak, minus20.peak, 0.002);
        }
}

TEST(PowerMeterLevels, SilenceIsZeroAndMakesNoSound) {
    const auto silent = ChannelPowerLevels::fromBuffer(*sine(AVAudioCommonFormat::pcmFormatFloat32, 2, false, -400));
    EXPECT_EQ(silent.average, 0.0);
    EXPECT_EQ(silent.peak, 0.0);
    auto meter = MicrophonePowerMeter::make();
    meter->update(silent);
    platform::DispatchQueue::drainMainForTesting();
    EXPECT_FALSE(meter->value().everMadeAnySound);
    meter->update(ChannelPowerLevels::fromBuffer(*sine(AVAudioCommonFormat::pcmFormatFloat32, 1, false, -40)));
    meter->update(silent);
    platform::DispatchQueue::drainMainForTesting();
    EXPECT_TRUE(meter->value().everMadeAnySound);
    EXPECT_EQ(meter->value().levels.average, 0.0);
}

// The meter on the pipe microphone of a private server.
class PowerMeterOnPulse : public ::testing::Test {
protected:
    void SetUp() override {
        daemon_ = std::make_unique<testing::PulseDaemon>(48000, 1);
        override_.emplace(std::make_shared<platform::LinuxCapturePlatform>());
    }
    void TearDown() override {
        stopFeeding();
        override_.reset();
        daemon_.reset();
    }
    // Writes a -20 dBFS (RMS) 1 kHz tone into the pipe in real time until stopped; the pipe stays open after.
    void feed() {
        fifo_.open(daemon_->fifo(), std::ios::binary);
        feeding_ = true;
        feeder_ = std::thread([this] {
            std::vector<float> chunk(480);
            size_t n = 0;
            auto next = std::chrono::steady_clock::now();
            while (feeding_) {
                if (paused_) {
                    next += std::chrono::milliseconds(10);
                    std::this_thread::sleep_until(next);
                    continue;
                }
                for (auto& s : chunk) s = float(0.1 * std::sqrt(2.0) * std::sin(2 * M_PI * 1000.0 * double(n++) / 48000.0));
                fifo_.write(reinterpret_cast<const char*>(chunk.data()), std::streamsize(chunk.size() * 4));
                fifo_.flush();
                next += std::chrono::milliseconds(10);
                std::this_thread::sleep_until(next);
            }
        });
    }
    void stopFeeding() {
        feeding_ = false;
        if (feeder_.joinable()) feeder_.join();
    }
    // Runs the main queue until the condition holds or the time is up.
    template <class F>
    bool mainUntil(F condition, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            platform::DispatchQueue::drainMainForTesting();
            if (condition()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    std::unique_ptr<testing::PulseDaemon> daemon_;
    std::optional<platform::CapturePlatform::ScopedOverride> override_;
    std::ofstream fifo_;
    std::atomic<bool> feeding_{false};
    // Paused, the pipe stays open and the source delivers nothing.
    std::atomic<bool> paused_{false};
    std::thread feeder_;
};

TEST_F(PowerMeterOnPulse, MetersTheToneAndTellsWhenTheStreamStops) {
    feed();
    testing::LogCapture logs;
    auto meter = MicrophonePowerMeter::make(logs.loggerFor("Meter"));
    meter->setDeviceID(std::string(testing::PulseDaemon::microphone));
    ASSERT_TRUE(meter->hasInput());
    meter->updateRunning(true);
    EXPECT_TRUE(meter->value().audioStreamInterrupted == false);
    ASSERT_TRUE(mainUntil([&] { return std::fabs(meter->value().levels.average - 0.6980) < 0.01; }, std::chrono::seconds(5)));
    EXPECT_NEAR(meter->value().levels.peak, 0.8312, 0.01);
    EXPECT_TRUE(meter->value().everMadeAnySound);
    // While samples flow it stays uninterrupted.
    EXPECT_FALSE(mainUntil([&] { return meter->value().audioStreamInterrupted; }, std::chrono::milliseconds(1200)));
    paused_ = true;
    const auto stopped = std::chrono::steady_clock::now();
    ASSERT_TRUE(mainUntil([&] { return meter->value().audioStreamInterrupted; }, std::chrono::seconds(3)));
    const double after = std::chrono::duration<double>(std::chrono::steady_clock::now() - stopped).count();
    std::printf("[ measured ] interrupted %.2f s after the feed stopped\n", after);
    EXPECT_GE(after, 0.4);
    // Capture stops only once the source delivers again (a blocking read of the sound server).
    paused_ = false;
    meter->updateRunning(false);
}

TEST_F(PowerMeterOnPulse, AnUnknownDeviceLeavesTheMeterWithoutInput) {
    testing::LogCapture logs;
    auto meter = MicrophonePowerMeter::make(logs.loggerFor("Meter"));
    meter->setDeviceID(std::string("nope"));
    EXPECT_TRUE(logs.waitFor("Could not create AVCaptureDevice for deviceID: nope", std::chrono::milliseconds(0)));
    EXPECT_FALSE(meter->hasInput());
    meter->updateRunning(true);
    EXPECT_TRUE(meter->value().audioStreamInterrupted == false);
}

}  // namespace
}  // namespace ov
