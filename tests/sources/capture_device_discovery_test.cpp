// Camera and microphone discovery over scripted synthetic devices.
#include "sources/capture_device_discovery.h"

#include <gtest/gtest.h>

#include "platform/synthetic/synthetic_capture_platform.h"
#include "sources/machine_model.h"
#include "sources/ov_user_preferred.h"
#include "sources/user_defaults.h"

namespace ov {
namespace {

using platform::CapturePlatform;
using platform::SyntheticCapturePlatform;
using platform::SyntheticDevice;
using platform::SyntheticWorld;

SyntheticDevice device(SyntheticDevice::Kind kind, std::string id, std::string name, uint32_t transport,
                       bool suspended = false, std::string manufacturer = "Orvane") {
    auto d = SyntheticDevice::make(kind, std::move(id));
    d.name = std::move(name);
    d.transportType = transport;
    d.suspended = suspended;
    d.manufacturer = std::move(manufacturer);
    return d;
}

struct World {
    std::shared_ptr<SyntheticCapturePlatform> platform;
    CapturePlatform::ScopedOverride installed;
    explicit World(SyntheticWorld world)
        : platform(std::make_shared<SyntheticCapturePlatform>(std::move(world))), installed(platform) {}
};

std::vector<std::string> ids(const std::vector<std::shared_ptr<OVCaptureSource>>& list) {
    std::vector<std::string> out;
    for (const auto& d : list) out.push_back(d->id);
    return out;
}

constexpr uint32_t builtIn = platform::kAVCaptureDeviceTransportTypeBuiltIn;
constexpr uint32_t usb = platform::kAVCaptureDeviceTransportTypeUSB;

SyntheticWorld lidWorld(std::optional<std::string> model) {
    SyntheticWorld world;
    world.machineModel = std::move(model);
    auto camera = device(SyntheticDevice::Kind::camera, "facetime", "FaceTime HD Camera", builtIn, true, "Apple Inc.");
    camera.deviceType = platform::AVCaptureDeviceTypeBuiltInWideAngleCamera;
    world.devices.push_back(camera);
    world.devices.push_back(device(SyntheticDevice::Kind::microphone, "builtin-mic", "MacBook Microphone", builtIn));
    world.devices.push_back(device(SyntheticDevice::Kind::microphone, "usb-mic", "USB Microphone", usb));
    return world;
}

TEST(CaptureDeviceDiscovery, AClosedLidOfAPortableShowsOnItsCameraAndBuiltInMicrophoneOnly) {
    World world(lidWorld("MacBookPro16,1"));
    auto cameras = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::camera);
    auto mics = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::microphone);
    EXPECT_EQ(cameras->item("facetime")->availability(), CaptureDeviceAvailability::lidClosed);
    EXPECT_EQ(mics->item("builtin-mic")->availability(), CaptureDeviceAvailability::lidClosed);
    EXPECT_EQ(mics->item("usb-mic")->availability(), CaptureDeviceAvailability::available);
}

TEST(CaptureDeviceDiscovery, ASuspendedCameraOfADesktopIsOnlySuspended) {
    World world(lidWorld("Macmini9,1"));
    auto cameras = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::camera);
    auto mics = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::microphone);
    EXPECT_EQ(cameras->item("facetime")->availability(), CaptureDeviceAvailability::unknownSuspended);
    EXPECT_EQ(mics->item("builtin-mic")->availability(), CaptureDeviceAvailability::available);
}

TEST(CaptureDeviceDiscovery, ListsAreSortedByNameAndDeskViewAndOwnTapsStayOut) {
    SyntheticWorld world;
    world.devices.push_back(device(SyntheticDevice::Kind::camera, "b", "Camera 2", usb));
    world.devices.push_back(device(SyntheticDevice::Kind::camera, "a", "Camera 10", usb));
    auto desk = device(SyntheticDevice::Kind::camera, "desk", "Desk View Camera", builtIn);
    desk.deviceType = platform::AVCaptureDeviceTypeDeskViewCamera;
    world.devices.push_back(desk);
    world.devices.push_back(device(SyntheticDevice::Kind::microphone, "tap", "Orvane-Tap-1234", builtIn));
    world.devices.push_back(device(SyntheticDevice::Kind::microphone, "m", "Mic", usb));
    World installed(world);
    auto cameras = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::camera);
    EXPECT_EQ(ids(cameras->devices(false)), (std::vector<std::string>{"a", "b"})) << "plain text order by name";
    EXPECT_EQ(ids(cameras->devices(true)), (std::vector<std::string>{"a", "b", "desk"}));
    auto mics = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::microphone);
    EXPECT_EQ(ids(mics->devices()), (std::vector<std::string>{"m"}));
}

TEST(CaptureDeviceDiscovery, AnUnpluggedCameraKeepsItsObjectAndLeavesTheListUntilItReturns) {
    World world(lidWorld(std::nullopt));
    auto cameras = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::camera);
    auto mics = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::microphone);
    const auto before = mics->item("usb-mic");
    auto stream = mics->updates();
    ASSERT_TRUE(stream->next(std::chrono::milliseconds(100))) << "the current list comes first";

    world.platform->setDeviceConnected("usb-mic", false);
    mics->update();
    EXPECT_EQ(ids(mics->devices()), (std::vector<std::string>{"builtin-mic"}));
    EXPECT_EQ(before->availability(), CaptureDeviceAvailability::notConnected);
    auto published = stream->next(std::chrono::milliseconds(100));
    ASSERT_TRUE(published);
    EXPECT_EQ(ids(*published), (std::vector<std::string>{"builtin-mic"}));

    world.platform->setDeviceConnected("usb-mic", true);
    mics->update();
    EXPECT_EQ(mics->item("usb-mic"), before) << "the same object";
    EXPECT_EQ(before->availability(), CaptureDeviceAvailability::available);
    EXPECT_EQ(ids(mics->devices()), (std::vector<std::string>{"builtin-mic", "usb-mic"}));
}

TEST(CaptureDeviceDiscovery, PreferredLaddersOfCamerasAndMicrophones) {
    UserDefaults::standard().removeObject(OVUserPreferred::microphonesKey);
    UserDefaults::standard().removeObject(OVUserPreferred::camerasKey);
    SyntheticWorld world = lidWorld("MacBookAir8,1");
    world.devices.push_back(device(SyntheticDevice::Kind::camera, "usb-cam", "A USB Camera", usb));
    World installed(world);
    auto cameras = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::camera);
    auto mics = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::microphone);

    // No preference: the system's camera in any state, the system's microphone only when available.
    EXPECT_EQ(cameras->getPreferred()->id, "facetime");
    EXPECT_EQ(mics->getPreferred()->id, "usb-mic") << "the built-in one is behind a closed lid";

    // A preferred microphone behind a closed lid still comes before the system's.
    OVUserPreferred::shared().updateMicrophone("builtin-mic");
    EXPECT_EQ(mics->getPreferred()->id, "builtin-mic");
    // An available preference wins over everything.
    OVUserPreferred::shared().updateCamera("usb-cam");
    EXPECT_EQ(cameras->getPreferred()->id, "usb-cam");
}

TEST(MacModelSpecs, WhichGenerationsSuspendTheCameraWithTheLid) {
    EXPECT_FALSE(MacModelSpecs::isT2MacBook(std::string("MacBookAir7,2")));
    EXPECT_TRUE(MacModelSpecs::isT2MacBook(std::string("MacBookAir8,1")));
    EXPECT_FALSE(MacModelSpecs::isT2MacBook(std::string("MacBookPro14,3")));
    EXPECT_TRUE(MacModelSpecs::isT2MacBook(std::string("MacBookPro15,1")));
    EXPECT_TRUE(MacModelSpecs::isT2MacBook(std::string("MacBookProX,1"))) << "an unparsable number counts";
    EXPECT_TRUE(MacModelSpecs::isT2MacBook(std::string("Mac14,2")));
    EXPECT_FALSE(MacModelSpecs::isT2MacBook(std::string("Mac14,3")));
    EXPECT_FALSE(MacModelSpecs::isT2MacBook(std::string("Standard PC (Q35 + ICH9, 2009)")));
    EXPECT_FALSE(MacModelSpecs::isT2MacBook(std::nullopt));
    EXPECT_EQ(MacModelSpecs::deviceFamily("MacBook10,1"), MacDeviceFamily::macBook);
    EXPECT_EQ(MacModelSpecs::deviceFamily("Mac13,1"), MacDeviceFamily::macStudio);
}

}  // namespace
}  // namespace ov
