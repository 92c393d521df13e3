// V4L2 cameras of the linux backend, driven through the fake node at the
// system-call boundary: enumeration and identity, configuration, the stream's
// call sequence, frame handling and faults, and the fan-out to several
// producers.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "platform/av_capture_session.h"
#include "platform/cm_clock.h"
#include "platform/jpeg_codec.h"
#include "platform/linux/v4l2/v4l2_device_provider.h"
#include "platform/synthetic/synthetic_pattern.h"
#include "platform/capture_collector.h"
#include "support/fake_v4l2_device.h"
#include "support/temp_directory.h"

namespace ov::platform {
namespace {

using testing::FakeV4L2Device;
using testing::FakeV4L2Frame;
using testing::FakeV4L2Io;
namespace fs = std::filesystem;

void writeAttribute(const fs::path& path, const std::string& value) {
    fs::create_directories(path.parent_path());
    testing::writeFile(path, value + "\n");
}

// sysfs as udev-less kernels show it: the node's class entry links to the USB
// interface, whose parent is the USB device with its descriptors.
void addUSBSysfs(const fs::path& root, const std::string& node, const std::string& port, int index = 0) {
    const fs::path device = root / "devices" / "usb1" / port;
    writeAttribute(device / "idVendor", "046d");
    writeAttribute(device / "idProduct", "0825");
    writeAttribute(device / "serial", "ABC123");
    writeAttribute(device / "product", "Fake Webcam");
    writeAttribute(device / "manufacturer", "Fakery");
    writeAttribute(device / "removable", "removable");
    fs::create_directories(device / (port + ":1.0"));
    const fs::path entry = root / "class" / "video4linux" / node;
    writeAttribute(entry / "name", "Fake Webcam: Fake Webcam");
    writeAttribute(entry / "index", std::to_string(index));
    fs::create_symlink(device / (port + ":1.0"), entry / "device");
}

FakeV4L2Device webcam() {
    FakeV4L2Device device;
    device.formats = {
        {V4L2_PIX_FMT_MJPEG, {{1920, 1080, {{1, 30}}}, {1280, 720, {{1, 30}, {1, 60}}}}},
        {V4L2_PIX_FMT_YUYV, {{640, 480, {{1, 15}, {1, 30}}}}},
        {V4L2_PIX_FMT_NV12, {{1280, 720, {{1, 30}}}}},
    };
    return device;
}

std::vector<uint8_t> yuyvFrame(uint32_t width, uint32_t height, uint8_t luma) {
    std::vector<uint8_t> bytes(size_t(width) * height * 2);
    for (size_t i = 0; i < bytes.size(); i += 2) {
        bytes[i] = luma;
        bytes[i + 1] = 128;
    }
    return bytes;
}

// A pattern frame as a camera's JPEG.
std::vector<uint8_t> jpegFrame(uint32_t number, int32_t width = 640, int32_t height = 480) {
    auto picture = CVPixelBuffer::make(width, height, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
    SyntheticPattern::draw(*picture, number);
    JPEGEncoder encoder(95);
    std::vector<uint8_t> jpeg;
    EXPECT_TRUE(encoder.encode(*picture, jpeg)) << encoder.lastError();
    return jpeg;
}

// What a producer's sink got.
struct SinkRecord {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<CMSampleBuffer> samples;
    std::vector<std::exception_ptr> failures;

    CaptureProducerSink sink() {
        return {[this](const CMSampleBuffer& sample) {
                    std::lock_guard lock(mutex);
                    samples.push_back(sample);
                    changed.notify_all();
                },
                [this](std::exception_ptr error) {
                    std::lock_guard lock(mutex);
                    failures.push_back(error);
                    changed.notify_all();
                }};
    }
    bool waitFor(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return samples.size() >= count; });
    }
    bool waitForFailure(std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return !failures.empty(); });
    }
    size_t count() {
        std::lock_guard lock(mutex);
        return samples.size();
    }
};

class V4L2CameraTest : public ::testing::Test {
protected:
    testing::TempDirectory temp;
    std::shared_ptr<FakeV4L2Io> io = std::make_shared<FakeV4L2Io>(temp / "dev");
    std::shared_ptr<V4L2DeviceProvider> provider =
        std::make_shared<V4L2DeviceProvider>(io, temp / "dev", temp / "sys");

    std::shared_ptr<V4L2Camera> onlyCamera() {
        auto devices = provider->devices();
        EXPECT_EQ(devices.size(), 1u);
        return devices.empty() ? nullptr : std::static_pointer_cast<V4L2Camera>(devices.front());
    }
    // Selects the format of this pixel format and size.
    void select(AVCaptureDevice& camera, OSType subtype, int32_t width, int32_t height) {
        for (const auto& format : camera.formats()) {
            const auto& d = *format->formatDescription();
            if (d.mediaSubType() == subtype && d.dimensions().width == width && d.dimensions().height == height) {
                camera.lockForConfiguration();
                camera.setActiveFormat(format);
                camera.unlockForConfiguration();
                return;
            }
        }
        FAIL() << "no such format";
    }
};

TEST_F(V4L2CameraTest, EnumerationKeepsCamerasOnlyAndMapsTheirFormats) {
    addUSBSysfs(temp / "sys", "video0", "1-2");
    io->addDevice("video0", webcam());
    // uvcvideo's second node: metadata only.
    FakeV4L2Device metadata = webcam();
    metadata.deviceCaps = V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING;
    io->addDevice("video1", metadata);
    // A raw sensor: streams, but only Bayer.
    FakeV4L2Device bayer;
    bayer.driver = "intel-ipu6";
    bayer.formats = {{V4L2_PIX_FMT_SRGGB10, {{1920, 1080, {{1, 30}}}}}};
    io->addDevice("video2", bayer);
    // A memory-to-memory codec.
    FakeV4L2Device codec = webcam();
    codec.deviceCaps = V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    io->addDevice("video3", codec);

    auto camera = onlyCamera();
    ASSERT_TRUE(camera);
    EXPECT_EQ(camera->uniqueID(), "usb-046d:0825-ABC123-video-index0");
    EXPECT_EQ(camera->localizedName(), "Fake Webcam");
    EXPECT_EQ(camera->modelID(), "UVC Camera VendorID_1133 ProductID_2085");
    EXPECT_EQ(camera->manufacturer(), "Fakery");
    EXPECT_EQ(camera->transportType(), kAVCaptureDeviceTransportTypeUSB);
    EXPECT_EQ(camera->deviceType(), AVCaptureDeviceTypeExternal);
    EXPECT_EQ(camera->synchronizationClock(), CMClock::hostTimeClock());

    ASSERT_EQ(camera->formats().size(), 4u);
    auto subtype = [&](size_t i) { return camera->formats()[i]->formatDescription()->mediaSubType(); };
    EXPECT_EQ(subtype(0), kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);  // MJPEG, decoded
    EXPECT_EQ(subtype(2), kCVPixelFormatType_422YpCbCr8_yuvs);
    EXPECT_EQ(subtype(3), kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);
    // Rate ranges, fastest first, whatever the node's order.
    const auto& mjpeg720 = *camera->formats()[1];
    ASSERT_EQ(mjpeg720.videoSupportedFrameRateRanges().size(), 2u);
    EXPECT_EQ(mjpeg720.videoSupportedFrameRateRanges()[0].minFrameDuration, CMTime(1, 60));
    EXPECT_EQ(mjpeg720.formatDescription()->frameDuration(), CMTime(1, 60));
    EXPECT_EQ(camera->formats()[2]->videoSupportedFrameRateRanges()[0].minFrameDuration, CMTime(1, 30));
    EXPECT_EQ(io->openDescriptors(), 0);
}

TEST_F(V4L2CameraTest, IdentitySurvivesRenumberingAndNonUSBCamerasUseTheirBus) {
    addUSBSysfs(temp / "sys", "video0", "1-2");
    io->addDevice("video0", webcam());
    auto camera = onlyCamera();
    ASSERT_TRUE(camera);
    const std::string id = camera->uniqueID();

    // Replugged and renumbered: the same object, connected again at the new node.
    io->unplug("video0");
    EXPECT_TRUE(provider->devices().empty());
    EXPECT_FALSE(camera->isConnected());
    addUSBSysfs(temp / "sys", "video4", "1-2");
    io->addDevice("video4", webcam());
    auto again = onlyCamera();
    EXPECT_EQ(again, camera);
    EXPECT_EQ(again->uniqueID(), id);
    EXPECT_TRUE(again->isConnected());
    EXPECT_EQ(again->nodePath(), (temp / "dev" / "video4").string());

    // A camera on the SoC: no USB descriptors, so the driver's bus names it.
    FakeV4L2Device builtIn = webcam();
    builtIn.driver = "sun6i-csi";
    builtIn.busInfo = "platform:1cb0000.csi";
    builtIn.card = "CSI";
    io->addDevice("video6", builtIn);
    auto devices = provider->devices();
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[1]->uniqueID(), "platform:1cb0000.csi-video-index0");
    EXPECT_EQ(devices[1]->modelID(), "sun6i-csi");
    EXPECT_EQ(devices[1]->transportType(), kAVCaptureDeviceTransportTypeBuiltIn);
    EXPECT_EQ(devices[1]->deviceType(), AVCaptureDeviceTypeBuiltInWideAngleCamera);
}

TEST_F(V4L2CameraTest, SettingTheActiveFormatSetsTheNodesFormatAndRate) {
    io->addDevice("video0", webcam());
    auto camera = onlyCamera();
    ASSERT_TRUE(camera);
    select(*camera, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 1280, 720);
    auto format = io->lastFormat("video0");
    ASSERT_TRUE(format);
    EXPECT_EQ(format->pixelformat, uint32_t(V4L2_PIX_FMT_MJPEG));
    EXPECT_EQ(format->width, 1280u);
    EXPECT_EQ(format->height, 720u);
    auto rate = io->lastTimePerFrame("video0");
    ASSERT_TRUE(rate);
    EXPECT_EQ(rate->numerator, 1u);
    EXPECT_EQ(rate->denominator, 60u);
    EXPECT_EQ(io->openDescriptors(), 0);
}

TEST_F(V4L2CameraTest, AStreamSetsUpInOrderAndLeavesNothingBehind) {
    io->addDevice("video0", webcam());
    auto camera = onlyCamera();
    ASSERT_TRUE(camera);
    select(*camera, kCVPixelFormatType_422YpCbCr8_yuvs, 640, 480);
    io->clearCalls();

    SinkRecord record;
    auto producer = camera->startProducing({AVMediaType::video}, record.sink());
    for (int i = 0; i < 3; ++i) io->pushFrame("video0", {yuyvFrame(640, 480, uint8_t(60 + i))});
    ASSERT_TRUE(record.waitFor(3));
    producer->stop();

    std::vector<std::string> expected = {"open video0", "VIDIOC_S_FMT video0", "VIDIOC_S_PARM video0",
                                         "VIDIOC_REQBUFS video0"};
    for (int i = 0; i < 4; ++i) {
        expected.push_back("VIDIOC_QUERYBUF video0");
        expected.push_back("mmap video0");
    }
    expected.push_back("VIDIOC_STREAMON video0");
    expected.push_back("VIDIOC_STREAMOFF video0");
    for (int i = 0; i < 4; ++i) expected.push_back("munmap");
    expected.push_back("VIDIOC_REQBUFS video0");
    expected.push_back("close video0");
    EXPECT_EQ(io->calls(), expected);
    EXPECT_EQ(io->openDescriptors(), 0);
    EXPECT_EQ(io->mappings(), 0u);

    // YUYV arrives as such, row for row.
    const auto& picture = record.samples[1].imageBuffer();
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->pixelFormatType(), kCVPixelFormatType_422YpCbCr8_yuvs);
    EXPECT_EQ(picture->width(), 640u);
    EXPECT_EQ(picture->baseAddress()[0], 61);
    EXPECT_EQ(record.samples[1].formatDescription()->extension(CMFormatDescription::kYCbCrMatrix), "ITU_R_601_4");
}

TEST_F(V4L2CameraTest, MonotonicBufferStampsAreHostTimesAndOthersTakeTheDequeueTime) {
    io->addDevice("video0", webcam());
    FakeV4L2Device unstamped = webcam();
    unstamped.monotonicTimestamps = false;
    unstamped.busInfo = "usb-0000:00:14.0-2";
    io->addDevice("video1", unstamped);
    auto devices = provider->devices();
    ASSERT_EQ(devices.size(), 2u);
    for (auto& device : devices) select(*device, kCVPixelFormatType_422YpCbCr8_yuvs, 640, 480);

    SinkRecord stamped, arrival;
    auto a = devices[0]->startProducing({AVMediaType::video}, stamped.sink());
    auto b = devices[1]->startProducing({AVMediaType::video}, arrival.sink());
    io->pushFrame("video0", {yuyvFrame(640, 480, 80), 0, timeval{100, 250000}});
    const uint64_t before = hostTimeNanosecondsNow();
    io->pushFrame("video1", {yuyvFrame(640, 480, 80), 0, timeval{5, 0}});
    ASSERT_TRUE(stamped.waitFor(1));
    ASSERT_TRUE(arrival.waitFor(1));
    const uint64_t after = hostTimeNanosecondsNow();
    EXPECT_EQ(stamped.samples[0].presentationTimeStamp(), hostTimeFromNanoseconds(100'250'000'000ull));
    const uint64_t t = nanosecondsFromHostTime(arrival.samples[0].presentationTimeStamp());
    EXPECT_GE(t, before);
    EXPECT_LE(t, after);
    EXPECT_EQ(stamped.samples[0].duration(), CMTime(1, 30));
}

TEST_F(V4L2CameraTest, MJPEGDecodesWithAndWithoutHuffmanTablesAndBadFramesAreDropped) {
    FakeV4L2Device device = webcam();
    device.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480, {{1, 30}}}}}};
    io->addDevice("video0", device);
    auto camera = onlyCamera();
    ASSERT_TRUE(camera);

    // Through a session, as a recorder sees it: drops reach didDrop.
    auto session = AVCaptureSession::make();
    auto output = AVCaptureVideoDataOutput::make();
    output->setAlwaysDiscardsLateVideoFrames(false);
    auto collector = std::make_shared<testing::CaptureCollector>();
    output->setSampleBufferDelegate(collector, std::make_shared<DispatchQueue>("V4L2Test"));
    session->addInput(AVCaptureDeviceInput::make(camera));
    session->addOutput(output);
    session->startRunning();

    const auto whole = jpegFrame(7);
    const auto withoutTables = testing::stripHuffmanTables(jpegFrame(8));
    ASSERT_LT(withoutTables.size(), whole.size());
    std::vector<uint8_t> truncated(whole.begin(), whole.begin() + long(whole.size() / 2));
    io->pushFrame("video0", {whole});
    io->pushFrame("video0", {withoutTables});
    io->pushFrame("video0", {truncated});
    io->pushFrame("video0", {whole, V4L2_BUF_FLAG_ERROR});
    ASSERT_TRUE(collector->waitForSamples(2));
    ASSERT_TRUE(collector->waitForDrops(2));
    session->stopRunning();

    auto samples = collector->samples();
    ASSERT_EQ(samples.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        const auto& picture = *samples[i].imageBuffer();
        EXPECT_EQ(picture.pixelFormatType(), kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
        EXPECT_EQ(picture.width(), 640u);
        EXPECT_EQ(SyntheticPattern::readFrameCounter(picture), std::optional<uint32_t>(7 + i));
    }
    auto drops = collector->dropped();
    ASSERT_EQ(drops.size(), 2u);
    EXPECT_EQ(drops[0].attachments()[kCMSampleBufferAttachmentKey_DroppedFrameReason],
              kCMSampleBufferDroppedFrameReason_Discontinuity);
    EXPECT_NE(drops[0].attachments()[kCMSampleBufferAttachmentKey_DroppedFrameReasonInfo].get<std::string>().find(
                  "doesn't decode"),
              std::string::npos);
    EXPECT_NE(drops[1].attachments()[kCMSampleBufferAttachmentKey_DroppedFrameReasonInfo].get<std::string>().find(
                  "driver"),
              std::string::npos);
}

TEST_F(V4L2CameraTest, ABusyNodeMarksTheCameraInUseAndFailsTheStart) {
    io->addDevice("video0", webcam());
    auto camera = onlyCamera();
    ASSERT_TRUE(camera);
    io->setFailure("video0", VIDIOC_REQBUFS, EBUSY);
    SinkRecord record;
    try {
        camera->startProducing({AVMediaType::video}, record.sink());
        FAIL() << "started on a busy node";
    } catch (const PlatformError& error) {
        EXPECT_EQ(error.domain(), "AVFoundationErrorDomain");
        EXPECT_EQ(error.code(), -11815);
    }
    EXPECT_TRUE(camera->isInUseByAnotherApplication());
    EXPECT_EQ(camera->producerCount(), 0u);
    EXPECT_EQ(io->openDescriptors(), 0);
    EXPECT_EQ(io->mappings(), 0u);
}

TEST_F(V4L2CameraTest, AnUnpluggedCameraFailsItsSessionAndLeavesTheList) {
    io->addDevice("video0", webcam());
    std::atomic<int> changes{0};
    provider->setDevicesChangedHandler([&] { ++changes; });
    auto camera = onlyCamera();
    ASSERT_TRUE(camera);
    select(*camera, kCVPixelFormatType_422YpCbCr8_yuvs, 640, 480);

    auto session = AVCaptureSession::make();
    auto output = AVCaptureVideoDataOutput::make();
    auto collector = std::make_shared<testing::CaptureCollector>();
    output->setSampleBufferDelegate(collector, std::make_shared<DispatchQueue>("V4L2Test"));
    std::mutex mutex;
    std::condition_variable changed;
    std::exception_ptr runtimeError;
    session->setRuntimeErrorHandler([&](std::exception_ptr error) {
        std::lock_guard lock(mutex);
        runtimeError = error;
        changed.notify_all();
    });
    session->addInput(AVCaptureDeviceInput::make(camera));
    session->addOutput(output);
    session->startRunning();
    io->pushFrame("video0", {yuyvFrame(640, 480, 90)});
    ASSERT_TRUE(collector->waitForSamples(1));

    io->unplug("video0");
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(5), [&] { return runtimeError != nullptr; }));
    }
    try {
        std::rethrow_exception(runtimeError);
    } catch (const PlatformError& error) {
        EXPECT_EQ(error.code(), -11808);
    }
    EXPECT_FALSE(camera->isConnected());
    EXPECT_GE(changes.load(), 1);
    EXPECT_TRUE(provider->devices().empty());
    session->stopRunning();
    EXPECT_EQ(io->openDescriptors(), 0);
    EXPECT_EQ(io->mappings(), 0u);
}

TEST_F(V4L2CameraTest, ProducersShareOneStreamAndAFormatChangeRestartsIt) {
    FakeV4L2Device device = webcam();
    device.generator = [](uint64_t, uint32_t format, uint32_t width, uint32_t height) {
        FakeV4L2Frame frame;
        if (format == V4L2_PIX_FMT_YUYV) frame.bytes = yuyvFrame(width, height, 100);
        if (format == V4L2_PIX_FMT_NV12) frame.bytes.assign(size_t(width) * height * 3 / 2, 100);
        return frame;
    };
    io->addDevice("video0", device);
    auto camera = onlyCamera();
    ASSERT_TRUE(camera);
    select(*camera, kCVPixelFormatType_422YpCbCr8_yuvs, 640, 480);
    io->clearCalls();

    SinkRecord first, second;
    auto a = camera->startProducing({AVMediaType::video}, first.sink());
    auto b = camera->startProducing({AVMediaType::video}, second.sink());
    ASSERT_TRUE(first.waitFor(3));
    ASSERT_TRUE(second.waitFor(3));
    auto calls = io->calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "open video0"), 1);
    EXPECT_EQ(io->streamOnCount("video0"), 1);
    EXPECT_EQ(camera->producerCount(), 2u);

    // A new format while streaming: one restart, and both keep receiving it.
    select(*camera, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, 1280, 720);
    EXPECT_EQ(io->streamOnCount("video0"), 2);
    const size_t before = second.count();
    ASSERT_TRUE(second.waitFor(before + 3));
    ASSERT_TRUE(first.waitFor(first.count() + 1));
    {
        std::lock_guard lock(second.mutex);
        EXPECT_EQ(second.samples.back().imageBuffer()->pixelFormatType(),
                  kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);
        EXPECT_EQ(second.samples.back().imageBuffer()->width(), 1280u);
    }

    // The stream outlives the first producer and ends with the last.
    a->stop();
    EXPECT_EQ(io->openDescriptors(), 1);
    const size_t still = second.count();
    ASSERT_TRUE(second.waitFor(still + 2));
    b->stop();
    EXPECT_EQ(io->openDescriptors(), 0);
    EXPECT_EQ(io->mappings(), 0u);
    EXPECT_EQ(camera->producerCount(), 0u);
}

}  // namespace
}  // namespace ov::platform

namespace ov::platform {
namespace {

// Hotplug through inotify on the device directory: a node that comes, changes
// its permissions or goes tells the handler; other files don't.
TEST_F(V4L2CameraTest, NodesComingChangingAndGoingAreNoticedWithoutUdev) {
    std::mutex mutex;
    std::condition_variable told;
    int changes = 0;
    provider->setDevicesChangedHandler([&] {
        std::lock_guard lock(mutex);
        ++changes;
        told.notify_all();
    });
    const auto waitForChange = [&](int seen) {
        std::unique_lock lock(mutex);
        return told.wait_for(lock, std::chrono::seconds(30), [&] { return changes > seen; });
    };
    // The watch is in place once a node created now is noticed.
    int seen = 0;
    io->addDevice("video7", webcam());
    ASSERT_TRUE(waitForChange(seen));
    EXPECT_EQ(provider->devices().size(), 1u);
    {
        std::lock_guard lock(mutex);
        seen = changes;
    }
    std::filesystem::permissions(temp / "dev" / "video7", std::filesystem::perms::owner_read,
                                 std::filesystem::perm_options::remove);
    ASSERT_TRUE(waitForChange(seen)) << "a permission change is another look";
    {
        std::lock_guard lock(mutex);
        seen = changes;
    }
    io->unplug("video7");
    ASSERT_TRUE(waitForChange(seen));
    EXPECT_TRUE(provider->devices().empty());
    {
        std::lock_guard lock(mutex);
        seen = changes;
    }
    std::ofstream(temp / "dev" / "notacamera").put('x');
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(changes, seen);
    }
    provider->setDevicesChangedHandler({});
}

}  // namespace
}  // namespace ov::platform
