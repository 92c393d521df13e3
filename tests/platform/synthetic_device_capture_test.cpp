// Cameras, microphones and phones of the synthetic backend, seen through
// capture sessions as the recorders use them.

#include <cmath>
#include <future>
#include <numbers>
#include <thread>

#include <gtest/gtest.h>

#include "platform/av_capture_session.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "platform/synthetic/synthetic_pattern.h"
#include "platform/capture_collector.h"

namespace ov::platform {
namespace {

using namespace std::chrono_literals;
using testing::CaptureCollector;

constexpr uint64_t kSecond = 1'000'000'000;

SyntheticDevice fastCamera(std::string id = "cam") {
    auto camera = SyntheticDevice::make(SyntheticDevice::Kind::camera, std::move(id));
    camera.formats = {{64, 36, 240, kCVPixelFormatType_32BGRA, false},
                      {128, 72, 100, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, true}};
    return camera;
}

SyntheticDevice fastMicrophone(std::string id = "mic") {
    auto microphone = SyntheticDevice::make(SyntheticDevice::Kind::microphone, std::move(id));
    microphone.audio = {48000, 1, 100, {1000, 0.5}};
    return microphone;
}

// One device in a session with one output of each kind it has, all
// delivering to one collector.
struct Capture {
    std::shared_ptr<SyntheticCapturePlatform> platform;
    CapturePlatform::ScopedOverride installed;
    std::shared_ptr<DispatchQueue> queue = std::make_shared<DispatchQueue>("Test.SampleBufferQueue");
    std::shared_ptr<CaptureCollector> collector = std::make_shared<CaptureCollector>();
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::make();
    std::shared_ptr<AVCaptureVideoDataOutput> videoOutput = AVCaptureVideoDataOutput::make();
    std::shared_ptr<AVCaptureAudioDataOutput> audioOutput = AVCaptureAudioDataOutput::make();
    std::mutex errorsMutex;
    std::vector<std::exception_ptr> runtimeErrors;

    explicit Capture(SyntheticWorld world, const std::string& deviceID)
        : platform(std::make_shared<SyntheticCapturePlatform>(std::move(world))), installed(platform) {
        auto device = AVCaptureDevice::device(deviceID);
        if (!device) throw std::runtime_error("no device " + deviceID);
        session->addInput(AVCaptureDeviceInput::make(device));
        videoOutput->setAlwaysDiscardsLateVideoFrames(false);
        videoOutput->setSampleBufferDelegate(collector, queue);
        audioOutput->setSampleBufferDelegate(collector, queue);
        if (session->canAddOutput(videoOutput)) session->addOutput(videoOutput);
        if (session->canAddOutput(audioOutput)) session->addOutput(audioOutput);
        session->setRuntimeErrorHandler([this](std::exception_ptr error) {
            std::lock_guard lock(errorsMutex);
            runtimeErrors.push_back(error);
        });
    }
    ~Capture() {
        session->stopRunning();
        queue->sync([] {});
    }

    std::vector<std::exception_ptr> errors() {
        std::lock_guard lock(errorsMutex);
        return runtimeErrors;
    }
    bool waitForRuntimeError(std::chrono::milliseconds timeout = 5s) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (!errors().empty()) return true;
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }
};

SyntheticWorld worldWith(std::vector<SyntheticDevice> devices) {
    SyntheticWorld world;
    world.devices = std::move(devices);
    return world;
}

uint64_t nanoseconds(const CMTime& time) { return nanosecondsFromHostTime(time); }

ErrorDescription describe(const std::exception_ptr& error) { return describeError(error); }

TEST(SyntheticDeviceCapture, FramesCarryTheirNumberAndExactTimes) {
    Capture capture(worldWith({fastCamera()}), "cam");
    const uint64_t before = hostTimeNanosecondsNow();
    capture.session->startRunning();
    ASSERT_TRUE(capture.collector->waitForSamples(120));
    capture.session->stopRunning();
    const auto frames = capture.collector->samples();

    // The session's clock runs at offset 0, so times are host times.
    ASSERT_NE(capture.session->synchronizationClock(), nullptr);
    const uint64_t first = nanoseconds(frames[0].presentationTimeStamp());
    EXPECT_GE(first, before);
    EXPECT_LE(first, hostTimeNanosecondsNow());
    for (size_t i = 0; i < frames.size(); ++i) {
        const auto& frame = frames[i];
        ASSERT_TRUE(frame.imageBuffer());
        EXPECT_EQ(frame.imageBuffer()->width(), 64u);
        EXPECT_EQ(frame.imageBuffer()->height(), 36u);
        EXPECT_EQ(frame.imageBuffer()->pixelFormatType(), kCVPixelFormatType_32BGRA);
        EXPECT_EQ(frame.duration(), CMTime(1, 240));
        // Every frame arrives, in order, and its picture says which it is.
        ASSERT_EQ(SyntheticPattern::readFrameCounter(*frame.imageBuffer()), i) << "frame " << i;
        // Frame i is at S + i/240 s, rounded to the nanosecond once: no drift.
        const auto expected = first + static_cast<uint64_t>(std::llround(i * 1e9 / 240.0));
        ASSERT_EQ(nanoseconds(frame.presentationTimeStamp()), expected) << "frame " << i;
    }
    EXPECT_TRUE(capture.errors().empty());
}

TEST(SyntheticDeviceCapture, AudioBuffersAreTimedBySampleCountAndJoinWithoutSeams) {
    Capture capture(worldWith({fastMicrophone()}), "mic");
    capture.session->startRunning();
    ASSERT_TRUE(capture.collector->waitForSamples(400));
    capture.session->stopRunning();
    const auto buffers = capture.collector->samples();

    const uint64_t first = nanoseconds(buffers[0].presentationTimeStamp());
    int64_t sampleIndex = 0;
    for (size_t k = 0; k < buffers.size(); ++k) {
        const auto pcm = buffers[k].audioPCMBuffer();
        ASSERT_EQ(pcm->frameLength(), 100u);
        ASSERT_EQ(pcm->format().sampleRate(), 48000);
        ASSERT_EQ(pcm->format().channelCount(), 1u);
        ASSERT_NE(pcm->floatChannelData(), nullptr);
        // Buffer k starts at sample 100·k: S + 100·k / 48000 s, from the count.
        const auto expected = first + static_cast<uint64_t>(std::llround(k * 100 * 1e9 / 48000.0));
        ASSERT_EQ(nanoseconds(buffers[k].presentationTimeStamp()), expected) << "buffer " << k;
        // 1 kHz at 48 kHz repeats every 48 samples; level 0.5.
        for (AVAudioFrameCount j = 0; j < pcm->frameLength(); ++j, ++sampleIndex) {
            const double expectedSample = 0.5 * std::sin(2 * std::numbers::pi * static_cast<double>(sampleIndex % 48) / 48);
            ASSERT_NEAR(pcm->floatChannelData()[0][j], expectedSample, 1e-6) << "sample " << sampleIndex;
        }
    }
}

TEST(SyntheticDeviceCapture, AudioSettingsChooseTheDeliveredFormat) {
    Capture capture(worldWith({fastMicrophone()}), "mic");
    capture.audioOutput->setAudioSettings({{AVFormatIDKey, kAudioFormatLinearPCM},
                                           {AVLinearPCMBitDepthKey, 16},
                                           {AVLinearPCMIsFloatKey, false},
                                           {AVLinearPCMIsNonInterleaved, false},
                                           {AVNumberOfChannelsKey, 2}});
    capture.session->startRunning();
    ASSERT_TRUE(capture.collector->waitForSamples(3));
    capture.session->stopRunning();
    const auto pcm = capture.collector->samples()[1].audioPCMBuffer();
    EXPECT_EQ(pcm->format().commonFormat(), AVAudioCommonFormat::pcmFormatInt16);
    EXPECT_TRUE(pcm->format().isInterleaved());
    ASSERT_EQ(pcm->format().channelCount(), 2u);
    // Buffer 1 begins with sample 100; both channels carry the tone.
    for (int j = 0; j < 10; ++j) {
        const auto expected =
            std::lround(0.5 * std::sin(2 * std::numbers::pi * ((100 + j) % 48) / 48.0) * 32767.0);
        EXPECT_NEAR(pcm->int16ChannelData()[0][2 * j], expected, 1);
        EXPECT_EQ(pcm->int16ChannelData()[0][2 * j], pcm->int16ChannelData()[0][2 * j + 1]);
    }

    EXPECT_THROW(capture.audioOutput->setAudioSettings({{AVLinearPCMBitDepthKey, 24}}), std::invalid_argument);
    EXPECT_THROW(capture.audioOutput->setAudioSettings({{AVFormatIDKey, OV_FOURCC('a', 'a', 'c', ' ')}}),
                 std::invalid_argument);
}

TEST(SyntheticDeviceCapture, SynchronizationClockOffsetsSampleTimes) {
    auto offsetCamera = fastCamera();
    offsetCamera.clockOffset = 100.0;
    {
        Capture capture(worldWith({offsetCamera}), "cam");
        const uint64_t before = hostTimeNanosecondsNow();
        capture.session->startRunning();
        ASSERT_TRUE(capture.collector->waitForSamples(2));
        const auto clock = capture.session->synchronizationClock();
        ASSERT_NE(clock, nullptr);
        const CMTime pts = capture.collector->samples()[0].presentationTimeStamp();
        // On the device clock the time is 100 s ahead; brought to host time it
        // is when the frame was taken.
        const uint64_t host = nanoseconds(clock->hostTime(pts));
        EXPECT_GE(host, before);
        EXPECT_LE(host, hostTimeNanosecondsNow());
        EXPECT_EQ(nanoseconds(pts) - host, 100 * kSecond);
    }
    auto noClockCamera = fastCamera();
    noClockCamera.clockOffset.reset();
    Capture capture(worldWith({noClockCamera}), "cam");
    EXPECT_EQ(capture.session->synchronizationClock(), nullptr);
    const uint64_t before = hostTimeNanosecondsNow();
    capture.session->startRunning();
    ASSERT_TRUE(capture.collector->waitForSamples(1));
    const uint64_t pts = nanoseconds(capture.collector->samples()[0].presentationTimeStamp());
    EXPECT_GE(pts, before);
    EXPECT_LE(pts, hostTimeNanosecondsNow());
}

TEST(SyntheticDeviceCapture, ScriptedFaultsShowAsTheRecordersSeeThem) {
    {
        auto silent = fastMicrophone();
        silent.faults = {SyntheticFault::make(SyntheticFault::Kind::neverDelivers)};
        Capture capture(worldWith({silent}), "mic");
        capture.session->startRunning();
        EXPECT_FALSE(capture.collector->waitForSamples(1, 300ms)) << "a dead microphone delivers nothing";
        EXPECT_TRUE(capture.errors().empty()) << "and says nothing";
        EXPECT_TRUE(capture.session->isRunning());
    }
    {
        auto quitting = fastMicrophone();
        quitting.audio.bufferFrames = 480;  // 10 ms buffers
        quitting.faults = {SyntheticFault::make(SyntheticFault::Kind::stopsDelivering, 0.1)};
        Capture capture(worldWith({quitting}), "mic");
        capture.session->startRunning();
        ASSERT_TRUE(capture.collector->waitForSamples(10));
        std::this_thread::sleep_for(150ms);
        // Buffers starting at 0, 10, ... 90 ms; none from 100 ms on.
        EXPECT_EQ(capture.collector->samples().size(), 10u);
        EXPECT_TRUE(capture.errors().empty());
    }
    {
        auto failing = fastMicrophone();
        auto fault = SyntheticFault::make(SyntheticFault::Kind::stopsWithError, 0.05);
        fault.domain = "Test.Domain";
        fault.code = 42;
        fault.message = "It broke.";
        failing.faults = {fault};
        Capture capture(worldWith({failing}), "mic");
        capture.session->startRunning();
        ASSERT_TRUE(capture.waitForRuntimeError());
        const auto error = describe(capture.errors().at(0));
        EXPECT_EQ(error.domain, "Test.Domain");
        EXPECT_EQ(error.code, 42);
        EXPECT_EQ(error.localizedDescription, "It broke.");
        EXPECT_FALSE(capture.collector->samples().empty()) << "samples flowed until the fault";
    }
    {
        auto failing = fastCamera();
        failing.faults = {SyntheticFault::make(SyntheticFault::Kind::stopsWithError, 0.0)};
        Capture capture(worldWith({failing}), "cam");
        capture.session->startRunning();
        ASSERT_TRUE(capture.waitForRuntimeError());
        EXPECT_EQ(describe(capture.errors().at(0)).domain, "AVFoundationErrorDomain");
    }
}

TEST(SyntheticDeviceCapture, ADeviceThatDisappearsLeavesEveryList) {
    auto leaving = fastMicrophone();
    leaving.faults = {SyntheticFault::make(SyntheticFault::Kind::disappears, 0.05)};
    Capture capture(worldWith({leaving, fastCamera()}), "mic");
    AVCaptureDeviceDiscoverySession discovery({AVCaptureDeviceTypeMicrophone}, AVMediaType::audio);
    ASSERT_EQ(discovery.devices().size(), 1u);
    std::atomic<int> listChanges{0};
    auto observation = discovery.observe([&](const std::string& key) {
        EXPECT_EQ(key, "devices");
        ++listChanges;
    });
    auto device = AVCaptureDevice::device("mic");
    std::atomic<int> connectedChanges{0};
    auto deviceObservation = device->observe({"isConnected"}, [&](const std::string&) { ++connectedChanges; });

    capture.session->startRunning();
    ASSERT_TRUE(capture.waitForRuntimeError());
    EXPECT_FALSE(device->isConnected());
    EXPECT_EQ(connectedChanges.load(), 1);
    EXPECT_GE(listChanges.load(), 1);
    EXPECT_TRUE(discovery.devices().empty());
    EXPECT_EQ(AVCaptureDevice::device("mic"), nullptr);
    EXPECT_EQ(AVCaptureDevice::defaultDevice(AVMediaType::audio), nullptr);
    EXPECT_NE(AVCaptureDevice::device("cam"), nullptr) << "the other device stays";
    EXPECT_THROW(AVCaptureDeviceInput::make(device), PlatformError);
    EXPECT_THROW(device->lockForConfiguration(), PlatformError);

    // It can come back, as the same object.
    capture.platform->setDeviceConnected("mic", true);
    EXPECT_EQ(AVCaptureDevice::device("mic"), device);
}

TEST(SyntheticDeviceCapture, ACameraThatWaitsForCenterStageWakesWhenItIsToggled) {
    auto sleepy = fastCamera();
    sleepy.faults = {SyntheticFault::make(SyntheticFault::Kind::silentUntilCenterStageToggle)};
    Capture capture(worldWith({sleepy}), "cam");
    capture.session->startRunning();
    EXPECT_FALSE(capture.collector->waitForSamples(1, 100ms));
    // Toggled and set back at once, as a recorder does to wake such a camera.
    const bool enabled = AVCaptureDevice::isCenterStageEnabled();
    AVCaptureDevice::setCenterStageControlMode(AVCaptureCenterStageControlMode::cooperative);
    AVCaptureDevice::setCenterStageEnabled(!enabled);
    AVCaptureDevice::setCenterStageEnabled(enabled);
    EXPECT_EQ(AVCaptureDevice::isCenterStageEnabled(), enabled);
    EXPECT_EQ(AVCaptureDevice::centerStageControlMode(), AVCaptureCenterStageControlMode::cooperative);
    EXPECT_TRUE(capture.collector->waitForSamples(3));
}

TEST(SyntheticDeviceCapture, DisconnectingOrSuspendingARunningDevice) {
    Capture capture(worldWith({fastCamera()}), "cam");
    capture.session->startRunning();
    ASSERT_TRUE(capture.collector->waitForSamples(5));

    // A suspended camera (a closed lid) goes silent; frames taken meanwhile are lost.
    capture.platform->setDeviceSuspended("cam", true);
    std::this_thread::sleep_for(20ms);
    const size_t beforeResume = capture.collector->samples().size();
    std::this_thread::sleep_for(50ms);
    EXPECT_LE(capture.collector->samples().size(), beforeResume + 1);
    capture.platform->setDeviceSuspended("cam", false);
    ASSERT_TRUE(capture.collector->waitForSamples(beforeResume + 5));
    const auto frames = capture.collector->samples();
    const auto last = SyntheticPattern::readFrameCounter(*frames.back().imageBuffer());
    ASSERT_TRUE(last);
    EXPECT_GT(*last, frames.size()) << "the counter went on while suspended";

    capture.platform->setDeviceConnected("cam", false);
    ASSERT_TRUE(capture.waitForRuntimeError());
    EXPECT_EQ(describe(capture.errors().at(0)).domain, "AVFoundationErrorDomain");
}

TEST(SyntheticDeviceCapture, ARuntimeErrorHandlerMayStopItsSession) {
    auto failing = fastMicrophone();
    failing.faults = {SyntheticFault::make(SyntheticFault::Kind::stopsWithError, 0.01)};
    Capture capture(worldWith({failing, fastCamera()}), "mic");
    std::promise<void> stopped;
    auto session = capture.session;
    capture.session->setRuntimeErrorHandler([&stopped, session](std::exception_ptr) {
        session->stopRunning();
        stopped.set_value();
    });
    capture.session->startRunning();
    auto done = stopped.get_future();
    ASSERT_EQ(done.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(capture.session->isRunning());
    capture.session->setRuntimeErrorHandler(nullptr);
}

TEST(SyntheticDeviceCapture, DiscoveryHearsOfSuspension) {
    Capture capture(worldWith({fastCamera(), fastMicrophone()}), "cam");
    AVCaptureDeviceDiscoverySession cameras({AVCaptureDeviceTypeExternal}, AVMediaType::video);
    AVCaptureDeviceDiscoverySession microphones({AVCaptureDeviceTypeMicrophone}, AVMediaType::audio);
    ASSERT_EQ(cameras.devices().size(), 1u);
    ASSERT_EQ(microphones.devices().size(), 1u);
    AVCaptureDeviceDiscoverySession none({AVCaptureDeviceTypeDeskViewCamera}, AVMediaType::video);
    EXPECT_TRUE(none.devices().empty()) << "device types filter";

    std::atomic<int> changes{0};
    auto observation = cameras.observe([&](const std::string&) { ++changes; });
    auto device = cameras.devices()[0];
    std::atomic<int> suspendedChanges{0};
    auto deviceObservation = device->observe({"isSuspended"}, [&](const std::string&) { ++suspendedChanges; });
    capture.platform->setDeviceSuspended("cam", true);
    EXPECT_TRUE(device->isSuspended());
    EXPECT_EQ(changes.load(), 1);
    EXPECT_EQ(suspendedChanges.load(), 1);
    EXPECT_EQ(cameras.devices().size(), 1u) << "a suspended device is still listed";
    capture.platform->setDeviceSuspended("cam", true);
    EXPECT_EQ(changes.load(), 1) << "no change, no notice";
    observation.invalidate();
    capture.platform->setDeviceConnected("cam", false);
    EXPECT_EQ(changes.load(), 1);
    EXPECT_TRUE(cameras.devices().empty());
}

TEST(SyntheticDeviceCapture, LateFramesAreDroppedWhileTheDelegateIsBusy) {
    Capture capture(worldWith({fastCamera()}), "cam");
    capture.videoOutput->setAlwaysDiscardsLateVideoFrames(true);
    capture.session->startRunning();
    ASSERT_TRUE(capture.collector->waitForSamples(1));
    {
        std::lock_guard busy(capture.collector->busy());
        std::this_thread::sleep_for(100ms);
    }
    ASSERT_TRUE(capture.collector->waitForDrops(1));
    const auto dropped = capture.collector->dropped().front();
    EXPECT_EQ(dropped.attachments()[kCMSampleBufferAttachmentKey_DroppedFrameReason],
              kCMSampleBufferDroppedFrameReason_FrameWasLate);
    EXPECT_FALSE(dropped.imageBuffer());
    // Delivery goes on once the delegate is free.
    const size_t count = capture.collector->samples().size();
    EXPECT_TRUE(capture.collector->waitForSamples(count + 3));
}

TEST(SyntheticDeviceCapture, ConfiguringTheActiveFormat) {
    Capture capture(worldWith({fastCamera()}), "cam");
    auto device = AVCaptureDevice::device("cam");
    ASSERT_EQ(device->formats().size(), 2u);
    EXPECT_EQ(device->activeFormat(), device->formats()[0]);
    EXPECT_EQ(device->activeVideoMinFrameDuration(), CMTime(1, 240));
    const auto larger = device->formats()[1];
    EXPECT_TRUE(larger->isCenterStageSupported());
    EXPECT_EQ(larger->formatDescription()->mediaSubType(), kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);

    EXPECT_THROW(device->setActiveFormat(larger), std::logic_error) << "needs the configuration lock";
    std::vector<std::string> changed;
    auto observation = device->observe({"activeFormat", "activeVideoMinFrameDuration"},
                                       [&](const std::string& key) { changed.push_back(key); });
    device->lockForConfiguration();
    device->setActiveFormat(larger);
    device->unlockForConfiguration();
    EXPECT_EQ(changed, (std::vector<std::string>{"activeFormat", "activeVideoMinFrameDuration"}));
    EXPECT_EQ(device->activeVideoMinFrameDuration(), CMTime(1, 100));

    capture.session->startRunning();
    ASSERT_TRUE(capture.collector->waitForSamples(3));
    const auto frames = capture.collector->samples();
    const auto& picture = *frames[2].imageBuffer();
    EXPECT_EQ(picture.width(), 128u);
    EXPECT_EQ(picture.pixelFormatType(), kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);
    EXPECT_EQ(SyntheticPattern::readFrameCounter(picture), 2u);
    EXPECT_EQ(frames[2].presentationTimeStamp() - frames[0].presentationTimeStamp(), CMTime(2, 100));
}

TEST(SyntheticDeviceCapture, SessionsJoinDevicesToOutputs) {
    auto phone = SyntheticDevice::make(SyntheticDevice::Kind::phone, "phone");
    phone.formats = {{64, 128, 120, kCVPixelFormatType_32BGRA, false}};
    SyntheticWorld world = worldWith({phone, fastCamera()});
    Capture capture(world, "phone");

    // A phone's muxed media feeds both outputs.
    ASSERT_EQ(capture.session->connections().size(), 2u);
    ASSERT_NE(capture.videoOutput->connection(AVMediaType::video), nullptr);
    ASSERT_NE(capture.audioOutput->connection(AVMediaType::audio), nullptr);
    EXPECT_TRUE(capture.videoOutput->connection(AVMediaType::video)->isEnabled());
    EXPECT_EQ(AVCaptureDevice::defaultDevice(AVMediaType::video)->uniqueID(), "cam") << "phones aren't cameras";

    auto sameDevice = AVCaptureDeviceInput::make(AVCaptureDevice::device("phone"));
    EXPECT_FALSE(capture.session->canAddInput(sameDevice));
    EXPECT_FALSE(capture.session->canAddOutput(capture.videoOutput));
    // The same device may feed a second session (a logging session does).
    auto second = AVCaptureSession::make();
    EXPECT_TRUE(second->canAddInput(sameDevice));
    EXPECT_FALSE(second->canAddOutput(capture.videoOutput)) << "an output belongs to one session";

    capture.session->startRunning();
    ASSERT_TRUE(capture.collector->waitForSamples(20));
    capture.session->stopRunning();
    size_t pictures = 0, audio = 0;
    for (const auto& sample : capture.collector->samples())
        (sample.imageBuffer() ? pictures : audio) += 1;
    EXPECT_GT(pictures, 0u);
    EXPECT_GT(audio, 0u);

    // Nothing new reaches the delegate once stopRunning has returned.
    capture.queue->sync([] {});
    const size_t count = capture.collector->samples().size();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(capture.collector->samples().size(), count);
}

TEST(SyntheticDeviceCapture, AuthorizationComesFromTheWorld) {
    SyntheticWorld world = worldWith({fastCamera()});
    world.authorization.microphone = AVAuthorizationStatus::denied;
    auto platform = std::make_shared<SyntheticCapturePlatform>(world);
    CapturePlatform::ScopedOverride installed(platform);
    EXPECT_EQ(AVCaptureDevice::authorizationStatus(AVMediaType::video), AVAuthorizationStatus::authorized);
    EXPECT_EQ(AVCaptureDevice::authorizationStatus(AVMediaType::audio), AVAuthorizationStatus::denied);
    std::promise<bool> answer;
    AVCaptureDevice::requestAccess(AVMediaType::audio, [&](bool granted) { answer.set_value(granted); });
    EXPECT_FALSE(answer.get_future().get());
    EXPECT_TRUE(CGPreflightScreenCaptureAccess());

    world.authorization.screen = false;
    CapturePlatform::ScopedOverride refused(std::make_shared<SyntheticCapturePlatform>(world));
    EXPECT_FALSE(CGPreflightScreenCaptureAccess());
    EXPECT_FALSE(CGRequestScreenCaptureAccess());
}

}  // namespace
}  // namespace ov::platform
