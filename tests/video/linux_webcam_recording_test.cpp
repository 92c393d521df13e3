// The webcam recorder on the linux backend: a V4L2 camera (the fake node,
// sending MJPEG as UVC cameras do) with a microphone of the tests' private
// sound server, recorded into a movie that ffprobe and ffmpeg read.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "platform/capture_platform.h"
#include "platform/cm_clock.h"
#include "platform/jpeg_codec.h"
#include "platform/linux/linux_capture_platform.h"
#include "platform/linux/pulse/pulse_device_provider.h"
#include "platform/linux/v4l2/v4l2_device_provider.h"
#include "platform/synthetic/synthetic_pattern.h"
#include "support/fake_v4l2_device.h"
#include "support/log_capture.h"
#include "support/media_probe.h"
#include "support/pulse_daemon.h"
#include "support/temp_directory.h"
#include "timing/volatile_recording_timeline.h"
#include "video/movie_file_recorder.h"

namespace ov {
namespace {

using namespace std::chrono_literals;

TEST(LinuxWebcamRecording, AV4L2CameraAndAPulseMicrophoneMakeAPlayableMovie) {
    testing::PulseDaemon daemon;
    testing::TempDirectory temp;
    auto io = std::make_shared<testing::FakeV4L2Io>(temp / "dev");
    testing::FakeV4L2Device camera;
    camera.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480, {{1, 30}}}}}};
    camera.generator = [](uint64_t sequence, uint32_t, uint32_t width, uint32_t height) {
        auto picture = platform::CVPixelBuffer::make(width, height, platform::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
        platform::SyntheticPattern::draw(*picture, sequence);
        platform::JPEGEncoder encoder(90);
        testing::FakeV4L2Frame frame;
        std::vector<uint8_t> jpeg;
        encoder.encode(*picture, jpeg);
        frame.bytes = testing::stripHuffmanTables(jpeg);
        return frame;
    };
    io->addDevice("video0", camera);
    auto v4l2 = std::make_shared<platform::V4L2DeviceProvider>(io, temp / "dev", temp / "sys");
    auto pulse = std::make_shared<platform::PulseDeviceProvider>();
    auto linux = std::make_shared<platform::LinuxCapturePlatform>(
        std::vector<std::shared_ptr<platform::CaptureDeviceProvider>>{pulse, v4l2}, nullptr);
    platform::CapturePlatform::ScopedOverride installed(linux);
    const auto cameras = v4l2->devices();
    ASSERT_EQ(cameras.size(), 1u);

    // The microphone hears a tone in real time.
    std::atomic<bool> feeding{true};
    std::thread feeder([&] {
        const int fd = ::open(daemon.fifo().c_str(), O_WRONLY);
        std::vector<float> chunk(size_t(daemon.rate() / 100));
        int64_t n = 0;
        const auto begin = std::chrono::steady_clock::now();
        for (int64_t k = 0; feeding; ++k) {
            for (auto& s : chunk) s = float(0.3 * std::sin(2 * M_PI * 440 * double(n++) / daemon.rate()));
            if (::write(fd, chunk.data(), chunk.size() * sizeof(float)) < 0) break;
            std::this_thread::sleep_until(begin + std::chrono::milliseconds(10 * (k + 1)));
        }
        ::close(fd);
    });

    auto live = std::make_shared<VolatileRecordingTimeline>();
    testing::LogCapture log;
    {
        MovieFileRecorder recorder("w", OutputDescription::singleFile(temp / "linux.mov"), testing::PulseDaemon::microphone,
                                   false, 0, cameras[0]->uniqueID(), std::nullopt, true, RecordMode::h264SRGB, 6, 2,
                                   std::nullopt, std::make_shared<StableRecordingTimeline>(live), true,
                                   log.loggerFor("test"), [](AbortSignal) {});
        recorder.prepare();
        EXPECT_TRUE(log.contains("AVCaptureSession has a synchronization clock available."));
        live->start(platform::hostTimeNow().seconds());
        std::this_thread::sleep_for(2s);
        live->stop(platform::hostTimeNow().seconds());
        recorder.finish();
    }
    feeding = false;
    feeder.join();
    EXPECT_EQ(io->openDescriptors(), 0) << "the camera's node is closed after the recording";

    auto info = testing::probeMedia(temp / "linux.mov");
    ASSERT_EQ(info["streams"].size(), 2u) << info.dump();
    bool sawVideo = false;
    for (const auto& stream : info["streams"]) {
        if (stream["codec_type"] != "video") continue;
        sawVideo = true;
        EXPECT_EQ(stream["width"], 640);
        EXPECT_EQ(stream["height"], 480);
        EXPECT_GE(std::stoi(stream["nb_read_packets"].get<std::string>()), 45);
    }
    EXPECT_TRUE(sawVideo);
    EXPECT_NEAR(testing::playedDuration(info), StableRecordingTimeline(live).duration(), 0.15) << info.dump();
    // The first frame is held from the recording's start, so frame times aren't
    // a constant rate: the reader must keep them as they are.
    EXPECT_EQ(testing::commandOutput("ffmpeg -v error -i '" + (temp / "linux.mov").string() +
                                     "' -fps_mode passthrough -enc_time_base -1 -f null - 2>&1"),
              "");
}

}  // namespace
}  // namespace ov
