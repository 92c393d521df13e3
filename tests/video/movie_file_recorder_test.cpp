// The webcam recorder on plain values and synthetic cameras: the format
// choice, the video settings, the failures of set-up and prepare (with the
// Center Stage retry), and what a recording of a camera and a microphone on
// different clocks holds.
#include "video/movie_file_recorder.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <thread>

#include "foundation/ov_error.h"
#include "platform/av_asset_writer.h"
#include "platform/capture_platform.h"
#include "platform/cm_clock.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "support/log_capture.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"
#include "timing/volatile_recording_timeline.h"

namespace ov {
namespace {

using platform::AVCaptureCenterStageControlMode;
using platform::CapturePlatform;
using platform::CMTime;
using platform::SyntheticCapturePlatform;
using platform::SyntheticDevice;
using platform::SyntheticFault;
using platform::SyntheticVideoFormat;
using platform::SyntheticWorld;
using testing::LogCapture;
using testing::TempDirectory;

constexpr auto k420v = platform::kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;

CaptureDeviceFormatProtocol format(int32_t width, int32_t height, int fps, platform::FourCharCode subtype = k420v) {
    return {subtype, {width, height}, CMTime(1, fps)};
}

TEST(WebcamFormatChoice, TheSmallestFormatNotSmallerThanTheMaximumAtItsFastestRate) {
    const std::vector<CaptureDeviceFormatProtocol> formats = {format(3840, 2160, 30), format(1920, 1080, 30),
                                                              format(1920, 1080, 60), format(1280, 720, 30)};
    EXPECT_EQ(bestFormat(formats, platform::CGSize{1920, 1080}), 2u);
    EXPECT_EQ(bestFormat(formats, platform::CGSize{1000, 1000}), 2u);
    // Nothing is that big: the largest.
    EXPECT_EQ(bestFormat(formats, platform::CGSize{8000, 8000}), 0u);
    // No maximum: the largest size at the highest rate, wherever it is listed.
    const std::vector<CaptureDeviceFormatProtocol> slowFirst = {format(1280, 720, 30), format(3840, 2160, 24),
                                                                format(3840, 2160, 30)};
    EXPECT_EQ(bestFormat(slowFirst, std::nullopt), 2u);
    EXPECT_EQ(bestFormat(slowFirst, platform::CGSize{1280.9, 720.5}), 0u) << "maximum truncated";
    // Only the 4:2:0 formats are candidates.
    const std::vector<CaptureDeviceFormatProtocol> packed = {
        format(1920, 1080, 30, platform::kCVPixelFormatType_422YpCbCr8_yuvs),
        format(1280, 720, 30, OV_FOURCC('2', 'v', 'u', 'y'))};
    EXPECT_EQ(bestFormat(packed, std::nullopt), std::nullopt);
    auto mixed = packed;
    mixed.push_back(format(640, 480, 30, platform::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange));
    EXPECT_EQ(bestFormat(mixed, platform::CGSize{1920, 1080}), 2u);
    EXPECT_EQ(formatMatching(std::nullopt, formats), std::nullopt);
}

TEST(WebcamVideoSettings, KeyFrameKeysOnlyWithAnIntervalAndTheCountTruncated) {
    using namespace platform;
    auto none = webcamVideoSettings(RecordMode::h264SRGB, {1280, 720}, CMTime(1, 30), std::nullopt);
    const auto& c0 = none[AVVideoCompressionPropertiesKey];
    EXPECT_FALSE(c0.contains(AVVideoMaxKeyFrameIntervalKey));
    EXPECT_FALSE(c0.contains(AVVideoMaxKeyFrameIntervalDurationKey));
    EXPECT_EQ(c0[AVVideoAllowFrameReorderingKey], false);
    EXPECT_FALSE(none.contains(AVVideoColorPropertiesKey));
    EXPECT_EQ(none[AVVideoCodecKey], AVVideoCodecTypeH264);
    EXPECT_EQ(none[AVVideoWidthKey], 1280);

    // 29.97 fps for 1.5 s is 44.955 frames: 44.
    auto ntsc = webcamVideoSettings(RecordMode::hevcSRGB, {1920, 1080}, CMTime(1001, 30000), 1.5);
    const auto& c1 = ntsc[AVVideoCompressionPropertiesKey];
    EXPECT_EQ(c1[AVVideoMaxKeyFrameIntervalKey], 44);
    EXPECT_EQ(c1[AVVideoMaxKeyFrameIntervalDurationKey], 1.5);
    EXPECT_EQ(ntsc[AVVideoCodecKey], AVVideoCodecTypeHEVC);

    // Without a numeric frame duration only the duration key is set.
    auto unknown = webcamVideoSettings(RecordMode::h264SRGB, {640, 480}, kCMTimeInvalid, 2.0);
    EXPECT_FALSE(unknown[AVVideoCompressionPropertiesKey].contains(AVVideoMaxKeyFrameIntervalKey));
    EXPECT_EQ(unknown[AVVideoCompressionPropertiesKey][AVVideoMaxKeyFrameIntervalDurationKey], 2.0);
}

// ---- On synthetic devices.

struct World {
    std::shared_ptr<SyntheticCapturePlatform> platform;
    CapturePlatform::ScopedOverride installed;
    explicit World(SyntheticWorld world)
        : platform(std::make_shared<SyntheticCapturePlatform>(std::move(world))), installed(platform) {}
};

SyntheticWorld cameraWorld() {
    SyntheticWorld world;
    auto camera = SyntheticDevice::make(SyntheticDevice::Kind::camera, "cam");
    camera.formats = {SyntheticVideoFormat{1280, 720, 30}, SyntheticVideoFormat{640, 480, 30}};
    world.devices.push_back(camera);
    auto mic = SyntheticDevice::make(SyntheticDevice::Kind::microphone, "mic");
    mic.audio.bufferFrames = 480;
    world.devices.push_back(mic);
    return world;
}

struct Timeline {
    std::shared_ptr<VolatileRecordingTimeline> live = std::make_shared<VolatileRecordingTimeline>();
    std::shared_ptr<StableRecordingTimeline> stable() const { return std::make_shared<StableRecordingTimeline>(live); }
    static double now() { return platform::hostTimeNow().seconds(); }
};

struct Options {
    std::string camera = "cam";
    std::string microphone = "mic";
    bool allowConfiguration = true;
    double audioDelay = 0;
    std::optional<platform::CGSize> maximum;
};

std::unique_ptr<MovieFileRecorder> makeRecorder(const std::filesystem::path& url, const Timeline& timeline,
                                                const Logger& logger, const Options& options = {},
                                                AbortFunction onAbort = [](AbortSignal) {}) {
    return std::make_unique<MovieFileRecorder>("w1", OutputDescription::singleFile(url), options.microphone, false,
                                               options.audioDelay, options.camera, options.maximum,
                                               options.allowConfiguration, RecordMode::h264SRGB, 6, 2, std::nullopt,
                                               timeline.stable(), true, logger, std::move(onAbort));
}

OVError constructionError(const std::filesystem::path& url, const Options& options = {}) {
    Timeline timeline;
    LogCapture log;
    try {
        makeRecorder(url, timeline, log.loggerFor("test"), options);
    } catch (const OVError& error) {
        return error;
    }
    ADD_FAILURE() << "the recorder was made";
    return OVError(OVError::Code::internalError);
}

TEST(MovieFileRecorderTest, PermissionsDecideTheErrorAndItsTexts) {
    TempDirectory dir;
    struct Case {
        bool camera, microphone;
        OVError::Code code;
        std::string debug, user;
    };
    const std::vector<Case> cases = {
        {true, false, OVError::Code::microphonePermissionRequired,
         "To record audio, microphone access is required. See OVAuthorizationStatus.",
         "To record audio, microphone access is required."},
        {false, true, OVError::Code::cameraPermissionRequired,
         "To record video, camera access is required. See OVAuthorizationStatus.",
         "To record video, camera access is required."},
        {false, false, OVError::Code::cameraPermissionRequired,
         "To record video and audio, both camera and microphone access is required. See OVAuthorizationStatus.",
         "To record video and audio, both camera and microphone access is required."},
    };
    for (const auto& c : cases) {
        auto world = cameraWorld();
        if (!c.camera) world.authorization.camera = platform::AVAuthorizationStatus::denied;
        if (!c.microphone) world.authorization.microphone = platform::AVAuthorizationStatus::notDetermined;
        World installed(world);
        const auto error = constructionError(dir / "p.mov");
        EXPECT_EQ(error.code(), c.code);
        EXPECT_EQ(error.debugDescription(), c.debug);
        EXPECT_EQ(error.localizedDescription(), c.user);
    }
}

TEST(MovieFileRecorderTest, UnknownDevicesAreUnavailableAndTheFormatChoiceIsLogged) {
    TempDirectory dir;
    World world(cameraWorld());
    auto noCamera = constructionError(dir / "a.mov", {.camera = "nope"});
    EXPECT_EQ(noCamera.code(), OVError::Code::cameraUnavailable);
    EXPECT_EQ(noCamera.debugDescription(), "Can't find video device: nope");
    auto noMicrophone = constructionError(dir / "b.mov", {.microphone = "nada"});
    EXPECT_EQ(noMicrophone.code(), OVError::Code::microphoneUnavailable);
    EXPECT_EQ(noMicrophone.debugDescription(), "Can't find audio device: nada");

    // A maximum picks the smaller format, and the observation logs the change.
    Timeline timeline;
    LogCapture log;
    auto camera = world.platform->syntheticDevice("cam");
    {
        auto recorder = makeRecorder(dir / "c.mov", timeline, log.loggerFor("test"),
                                     {.maximum = platform::CGSize{640, 480}});
        EXPECT_EQ(camera->activeFormat()->formatDescription()->dimensions().width, 640);
        EXPECT_EQ(recorder->videoSize(), (VideoDimensions{640, 480}));
        EXPECT_TRUE(log.contains("Set activeFormat for AVCaptureDevice."));
        EXPECT_TRUE(log.contains("Active activeFormat of video device changed"));
        EXPECT_FALSE(log.contains("Audio delay configured."));
    }
    // Left alone: the recorded size follows the camera's format.
    {
        LogCapture untouched;
        auto recorder = makeRecorder(dir / "d.mov", timeline, untouched.loggerFor("test"),
                                     {.allowConfiguration = false, .audioDelay = 0.25});
        EXPECT_EQ(camera->activeFormat()->formatDescription()->dimensions().width, 640);
        EXPECT_EQ(recorder->videoSize(), (VideoDimensions{640, 480}));
        EXPECT_TRUE(untouched.contains("Leaving active format for AVCaptureDevice untouched."));
        EXPECT_TRUE(untouched.contains("Audio delay configured."));
    }
}

TEST(MovieFileRecorderTest, ACameraWithoutFourTwoZeroFormatsKeepsItsActiveFormat) {
    TempDirectory dir;
    auto world = cameraWorld();
    world.devices[0].formats = {SyntheticVideoFormat{1920, 1080, 30, platform::kCVPixelFormatType_422YpCbCr8_yuvs},
                                SyntheticVideoFormat{1280, 720, 30, OV_FOURCC('2', 'v', 'u', 'y')}};
    world.devices[0].activeFormat = 1;
    World installed(world);
    Timeline timeline;
    LogCapture log;
    auto recorder = makeRecorder(dir / "e.mov", timeline, log.loggerFor("test"));
    EXPECT_TRUE(log.contains("AVCaptureDevice doesn't provide any formats."));
    EXPECT_EQ(installed.platform->syntheticDevice("cam")->activeFormat()->formatDescription()->dimensions().width, 1280);
    EXPECT_EQ(recorder->videoSize(), (VideoDimensions{1280, 720}));
}

struct PrepareOutcome {
    std::optional<OVError> error;
    double seconds = 0;
};

PrepareOutcome timedPrepare(MovieFileRecorder& recorder) {
    const auto begin = std::chrono::steady_clock::now();
    PrepareOutcome outcome;
    try {
        recorder.prepare();
    } catch (const OVError& error) {
        outcome.error = error;
    }
    outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return outcome;
}

TEST(MovieFileRecorderTest, ASilentCameraFailsAfterThreeSecondsOrSixWithACenterStageRetry) {
    TempDirectory dir;
    auto silent = cameraWorld();
    silent.devices[0].faults = {SyntheticFault::make(SyntheticFault::Kind::neverDelivers)};
    {
        World world(silent);
        Timeline timeline;
        LogCapture log;
        auto recorder = makeRecorder(dir / "f.mov", timeline, log.loggerFor("test"));
        const auto outcome = timedPrepare(*recorder);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->code(), OVError::Code::noVideoFramesReceived);
        EXPECT_EQ(outcome.error->localizedDescription(),
                  "No video from camera, make sure it's powered on and any privacy shutter is open.");
        EXPECT_GE(outcome.seconds, 2.9);
        EXPECT_LT(outcome.seconds, 5.5);
        EXPECT_TRUE(log.contains("No samples received from camera, timed out."));
        EXPECT_EQ(world.platform->syntheticDevice("cam")->runningProducerCount(), 0u) << "a failed prepare stops capture";
    }
    silent.devices[0].formats[0].centerStageSupported = true;
    {
        World world(silent);
        world.platform->setCenterStageControlMode(AVCaptureCenterStageControlMode::app);
        Timeline timeline;
        LogCapture log;
        auto recorder = makeRecorder(dir / "g.mov", timeline, log.loggerFor("test"));
        const auto outcome = timedPrepare(*recorder);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->code(), OVError::Code::noVideoFramesReceived);
        EXPECT_GE(outcome.seconds, 5.9);
        EXPECT_TRUE(log.contains("No samples received from camera, even after Center Stage toggle, timed out."));
    }
}

TEST(MovieFileRecorderTest, ACameraSilentUntilCenterStageChangesIsWokenAndTheSettingsStay) {
    TempDirectory dir;
    auto world = cameraWorld();
    world.devices[0].formats[0].centerStageSupported = true;
    world.devices[0].faults = {SyntheticFault::make(SyntheticFault::Kind::silentUntilCenterStageToggle)};
    {
        World installed(world);
        installed.platform->setCenterStageControlMode(AVCaptureCenterStageControlMode::app);
        installed.platform->setCenterStageEnabled(true);
        Timeline timeline;
        LogCapture log;
        auto recorder = makeRecorder(dir / "h.mov", timeline, log.loggerFor("test"));
        const auto outcome = timedPrepare(*recorder);
        EXPECT_FALSE(outcome.error) << outcome.error->debugDescription();
        EXPECT_TRUE(log.contains("Frames availabe after toggle Center Stage on camera."));
        EXPECT_EQ(installed.platform->centerStageControlMode(), AVCaptureCenterStageControlMode::app);
        EXPECT_TRUE(installed.platform->isCenterStageEnabled());
        recorder->finish();
    }
    {
        // In the user's hands: no retry, and nothing is touched.
        World installed(world);
        installed.platform->setCenterStageControlMode(AVCaptureCenterStageControlMode::user);
        const auto changes = installed.platform->centerStageChangeCount();
        Timeline timeline;
        LogCapture log;
        auto recorder = makeRecorder(dir / "i.mov", timeline, log.loggerFor("test"));
        const auto outcome = timedPrepare(*recorder);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->code(), OVError::Code::noVideoFramesReceived);
        EXPECT_LT(outcome.seconds, 5.5);
        EXPECT_TRUE(log.contains("Unable to toggle Center Stage, control mode is set to user."));
        EXPECT_EQ(installed.platform->centerStageChangeCount(), changes);
    }
}

TEST(MovieFileRecorderTest, AWriterErrorAbortsOnceAsInterrupted) {
    World world(cameraWorld());
    Timeline timeline;
    LogCapture log;
    std::mutex mutex;
    std::vector<AbortSignal> aborts;
    // Files may not grow beyond 32 KiB for now: the writer's first fragment fails (EFBIG).
    TempDirectory dir;
    struct FileSizeLimit {
        rlimit previous{};
        FileSizeLimit() {
            ::signal(SIGXFSZ, SIG_IGN);
            ::getrlimit(RLIMIT_FSIZE, &previous);
            rlimit small = previous;
            small.rlim_cur = 32 * 1024;
            ::setrlimit(RLIMIT_FSIZE, &small);
        }
        ~FileSizeLimit() { ::setrlimit(RLIMIT_FSIZE, &previous); }
    } limit;
    auto recorder = makeRecorder(dir / "full.mov", timeline, log.loggerFor("test"), {}, [&](AbortSignal signal) {
        std::lock_guard lock(mutex);
        aborts.push_back(signal);
    });
    recorder->prepare();
    timeline.live->start(Timeline::now());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < deadline) {
        {
            std::lock_guard lock(mutex);
            if (!aborts.empty()) break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    timeline.live->stop(Timeline::now());
    try {
        recorder->finish();
    } catch (const std::exception&) {
        // The writer's error again; the abort already told it.
    }
    std::lock_guard lock(mutex);
    ASSERT_EQ(aborts.size(), 1u);
    EXPECT_EQ(aborts[0].kind, AbortSignal::Kind::interrupted);
    EXPECT_TRUE(aborts[0].error);
    EXPECT_TRUE(log.contains("Audio AVAssetWriter reported an error, aborting."));
}

TEST(MovieFileRecorderTest, CameraAndMicrophoneOnClocksWithDifferentOffsetsStayInSync) {
    auto world = cameraWorld();
    world.devices[0].clockOffset = 5.0;
    world.devices[1].clockOffset = -3.0;
    World installed(world);
    TempDirectory dir;
    Timeline timeline;
    LogCapture log;
    auto recorder = makeRecorder(dir / "sync.mov", timeline, log.loggerFor("test"));
    const auto assets = recorder->prepare();
    ASSERT_EQ(assets.size(), 1u);
    EXPECT_EQ(assets[0].type, OVBundleInfo::FileAssetType::webcam);
    EXPECT_EQ(assets[0].videoDimensions, (OVBundleInfo::Size{1280, 720}));
    timeline.live->start(Timeline::now());
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    timeline.live->stop(Timeline::now());
    recorder->finish();
    const double recorded = StableRecordingTimeline(timeline.live).duration();

    auto info = testing::probeMedia(dir / "sync.mov");
    ASSERT_EQ(info["streams"].size(), 2u) << info.dump();
    double videoStart = -1, videoDuration = 0, audioEnd = 0;
    for (const auto& stream : info["streams"]) {
        const double start = std::stod(stream["start_time"].get<std::string>());
        const double duration = std::stod(stream["duration"].get<std::string>());
        if (stream["codec_type"] == "video") {
            videoStart = start;
            videoDuration = duration;
            EXPECT_EQ(stream["codec_name"], "h264");
            EXPECT_EQ(stream["width"], 1280);
        } else {
            audioEnd = start + duration;
        }
    }
    // Both start at the recording's start and end at its end, within a frame.
    EXPECT_NEAR(videoStart, 0, 1.0 / 30) << info.dump();
    EXPECT_NEAR(videoStart + videoDuration, recorded, 2.0 / 30) << info.dump();
    EXPECT_NEAR(audioEnd, recorded, 1.0 / 30) << info.dump();
    EXPECT_GT(recorder->appendedVideoFrames(), 35u);
}

}  // namespace
}  // namespace ov
