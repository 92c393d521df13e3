// Choosing the capture backend, the linux stand-in, the synthetic pictures,
// and change observation.

#include "platform/capture_platform.h"

#include <cstdlib>
#include <cstring>
#include <optional>

#include <gtest/gtest.h>

#include "platform/av_capture_session.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "platform/synthetic/synthetic_pattern.h"
#include "support/temp_directory.h"

namespace ov::platform {
namespace {

// Sets environment variables for one test and puts back what was there.
class ScopedEnvironment {
public:
    void set(const char* name, const std::optional<std::string>& value) {
        const char* old = std::getenv(name);
        saved_.push_back({name, old ? std::optional<std::string>(old) : std::nullopt});
        apply(name, value);
    }
    ~ScopedEnvironment() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) apply(it->first.c_str(), it->second);
    }

private:
    static void apply(const char* name, const std::optional<std::string>& value) {
        if (value) ::setenv(name, value->c_str(), 1);
        else ::unsetenv(name);
    }
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

ErrorDescription errorOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const std::exception& error) {
        return describeError(error);
    }
    return {};
}

TEST(CapturePlatform, EnvironmentChoosesTheBackend) {
    ScopedEnvironment environment;
    environment.set("ORVANE_SYNTHETIC_WORLD", std::nullopt);

    environment.set("ORVANE_PLATFORM", std::nullopt);
    EXPECT_EQ(CapturePlatform::makeFromEnvironment()->name(), "linux") << "linux is the default";

    environment.set("ORVANE_PLATFORM", "synthetic");
    auto synthetic = CapturePlatform::makeFromEnvironment();
    EXPECT_EQ(synthetic->name(), "synthetic");
    EXPECT_EQ(synthetic->devices().size(), 2u) << "the default world";
    EXPECT_EQ(synthetic->shareableContent(false, false).displays().size(), 1u);

    testing::TempDirectory directory;
    const auto worldFile = directory / "world.json";
    testing::writeFile(worldFile, R"({"phones": [{"uniqueID": "phone-1"}]})");
    environment.set("ORVANE_SYNTHETIC_WORLD", worldFile.string());
    auto fromFile = CapturePlatform::makeFromEnvironment();
    ASSERT_EQ(fromFile->devices().size(), 1u);
    EXPECT_EQ(fromFile->devices()[0]->uniqueID(), "phone-1");
    EXPECT_TRUE(fromFile->devices()[0]->hasMediaType(AVMediaType::muxed));

    testing::writeFile(worldFile, R"({"phones": [{"uniqueID": 5}]})");
    const auto badWorld = errorOf([] { CapturePlatform::makeFromEnvironment(); });
    EXPECT_EQ(badWorld.code, CapturePlatform::badWorld);
    EXPECT_NE(badWorld.debugDescription.find(".phones[0].uniqueID"), std::string::npos) << badWorld.debugDescription;

    environment.set("ORVANE_PLATFORM", "macos");
    const auto unknown = errorOf([] { CapturePlatform::makeFromEnvironment(); });
    EXPECT_EQ(unknown.domain, CapturePlatform::errorDomain);
    EXPECT_EQ(unknown.code, CapturePlatform::unknownPlatform);
    EXPECT_NE(unknown.debugDescription.find("macos"), std::string::npos);
}

TEST(CapturePlatform, LinuxStandInListsNothingAndRefusesToCapture) {
    CapturePlatform::ScopedOverride installed(std::make_shared<UnavailableCapturePlatform>());
    EXPECT_EQ(AVCaptureDevice::device("anything"), nullptr);
    EXPECT_EQ(AVCaptureDevice::defaultDevice(AVMediaType::audio), nullptr);
    AVCaptureDeviceDiscoverySession discovery({AVCaptureDeviceTypeExternal}, AVMediaType::video);
    EXPECT_TRUE(discovery.devices().empty());

    const auto content = errorOf([] { CapturePlatform::shared()->shareableContent(false, false); });
    EXPECT_EQ(content.domain, CapturePlatform::errorDomain);
    EXPECT_EQ(content.code, CapturePlatform::notAvailable);
    EXPECT_NE(content.localizedDescription.find("not available on this build"), std::string::npos);

    SCDisplay display;
    display.displayID = 1;
    auto stream = SCStream::make(SCContentFilter::displayExcludingWindows(display, {}), {}, {});
    const auto start = errorOf([&] { stream->startCapture(); });
    EXPECT_EQ(start.domain, SCStreamError::errorDomain);
    EXPECT_EQ(start.code, SCStreamError::failedToStart);
    EXPECT_NE(start.localizedDescription.find("not available on this build"), std::string::npos);
    EXPECT_EQ(errorOf([&] { stream->stopCapture(); }).code, SCStreamError::attemptToStopStreamState);

    // A session without inputs runs and delivers nothing, as on a machine without devices.
    auto session = AVCaptureSession::make();
    session->startRunning();
    EXPECT_TRUE(session->isRunning());
    EXPECT_EQ(session->synchronizationClock(), nullptr);
    session->stopRunning();
}

TEST(CapturePlatform, OverridesNestAndRestore) {
    auto outer = std::make_shared<SyntheticCapturePlatform>(SyntheticWorld::makeDefault());
    auto inner = std::make_shared<SyntheticCapturePlatform>(SyntheticWorld::makeEmpty());
    CapturePlatform::ScopedOverride first(outer);
    {
        CapturePlatform::ScopedOverride second(inner);
        EXPECT_EQ(CapturePlatform::shared(), inner);
        EXPECT_EQ(AVCaptureDevice::defaultDevice(AVMediaType::video), nullptr);
    }
    EXPECT_EQ(CapturePlatform::shared(), outer);
    EXPECT_EQ(AVCaptureDevice::defaultDevice(AVMediaType::video)->uniqueID(), "synthetic-camera");
}

TEST(SyntheticPattern, FrameCounterSurvivesEveryPixelFormat) {
    for (OSType format : {kCVPixelFormatType_32BGRA, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange,
                          kCVPixelFormatType_420YpCbCr8BiPlanarFullRange}) {
        for (uint64_t frame : {0ull, 1ull, 2ull, 1000ull, 0x80000001ull, 0xFFFFFFFFull}) {
            auto picture = CVPixelBuffer::make(96, 40, format);
            SyntheticPattern::draw(*picture, frame);
            EXPECT_EQ(SyntheticPattern::readFrameCounter(*picture), static_cast<uint32_t>(frame))
                << fourCharCodeString(format) << " frame " << frame;
        }
    }
    // The narrowest picture: one pixel per counter cell.
    auto narrow = CVPixelBuffer::make(32, 4, kCVPixelFormatType_32BGRA);
    SyntheticPattern::draw(*narrow, 0xA5A5A5A5u);
    EXPECT_EQ(SyntheticPattern::readFrameCounter(*narrow), 0xA5A5A5A5u);
}

TEST(SyntheticPattern, PicturesMoveAndForeignPicturesDontRead) {
    auto a = CVPixelBuffer::make(64, 32, kCVPixelFormatType_32BGRA);
    auto b = CVPixelBuffer::make(64, 32, kCVPixelFormatType_32BGRA);
    SyntheticPattern::draw(*a, 5);
    SyntheticPattern::draw(*b, 6);
    // Below the counter, the pictures of consecutive frames differ.
    const size_t offset = 16 * a->bytesPerRow();
    EXPECT_NE(std::memcmp(a->baseAddress() + offset, b->baseAddress() + offset, 64 * 4), 0);

    auto blank = CVPixelBuffer::make(64, 32, kCVPixelFormatType_32BGRA);
    EXPECT_FALSE(SyntheticPattern::readFrameCounter(*blank)) << "a zero-filled picture is no frame 0";
    auto grey = CVPixelBuffer::make(64, 32, kCVPixelFormatType_32BGRA);
    std::memset(grey->baseAddress(), 128, grey->dataSize());
    EXPECT_FALSE(SyntheticPattern::readFrameCounter(*grey));
    EXPECT_THROW(SyntheticPattern::draw(*CVPixelBuffer::make(64, 32, kCVPixelFormatType_422YpCbCr8_yuvs), 0),
                 std::invalid_argument);
}

TEST(KeyValueObservation, CallbacksFollowKeysAndEndWithTheObservation) {
    KeyValueObservable observable;
    std::vector<std::string> seen;
    auto all = observable.observe({}, [&](const std::string& key) { seen.push_back("all:" + key); });
    auto some = observable.observe({"isSuspended"}, [&](const std::string& key) { seen.push_back("some:" + key); });
    observable.notify("isSuspended");
    observable.notify("isConnected");
    EXPECT_EQ(seen, (std::vector<std::string>{"all:isSuspended", "some:isSuspended", "all:isConnected"}));

    seen.clear();
    some.invalidate();
    EXPECT_FALSE(some.isValid());
    observable.notify("isSuspended");
    EXPECT_EQ(seen, (std::vector<std::string>{"all:isSuspended"}));

    // An observer may end its own observation from inside its callback.
    KeyValueObservation self;
    int calls = 0;
    self = observable.observe({}, [&](const std::string&) {
        ++calls;
        self.invalidate();
    });
    observable.notify("x");
    observable.notify("x");
    EXPECT_EQ(calls, 1);

    seen.clear();
    { auto moved = std::move(all); }
    observable.notify("isConnected");
    EXPECT_TRUE(seen.empty()) << "a destroyed observation hears nothing";
}

}  // namespace
}  // namespace ov::platform
