#include "platform/synthetic/synthetic_world.h"

#include <gtest/gtest.h>

#include "platform/capture_platform.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "support/temp_directory.h"

namespace ov::platform {
namespace {

using coding::DecodingError;
using coding::Json;

// The rendered coding path of the error that decoding `json` raises.
std::string failingPath(const Json& json) {
    try {
        SyntheticWorld::decode(json);
    } catch (const DecodingError& error) {
        return coding::renderCodingPath(error.codingPath());
    }
    return "<decoded>";
}

std::string failingDetail(const Json& json) {
    try {
        SyntheticWorld::decode(json);
    } catch (const DecodingError& error) {
        return error.rendering();
    }
    return "<decoded>";
}

TEST(SyntheticWorld, DefaultWorldHasOneOfEachSource) {
    const auto world = SyntheticWorld::makeDefault();
    ASSERT_EQ(world.displays.size(), 1u);
    EXPECT_EQ(world.displays[0].frame.size, (CGSize{1920, 1080}));
    EXPECT_EQ(world.displays[0].frameRate, 30);
    ASSERT_EQ(world.windows.size(), 1u);
    ASSERT_TRUE(world.windows[0].ownerPID);
    EXPECT_EQ(*world.windows[0].ownerPID, world.applications.at(0).pid);
    ASSERT_EQ(world.devices.size(), 2u);
    EXPECT_EQ(world.devices[0].kind, SyntheticDevice::Kind::camera);
    EXPECT_EQ(world.devices[1].kind, SyntheticDevice::Kind::microphone);
    EXPECT_EQ(world.devices[1].audio.sampleRate, 48000);
    EXPECT_EQ(world.devices[1].audio.tone.frequency, 440);
    EXPECT_NO_THROW(world.validate());
}

TEST(SyntheticWorld, DecodesEveryPartOfAWorld) {
    const Json json = Json::parse(R"({
        "displays": [{"id": 7, "name": "Wide", "frame": {"x": -100, "y": 0, "width": 2560, "height": 1440},
                      "scale": 2, "frameRate": 29.97, "isMain": false, "isBuiltIn": true,
                      "synchronizationClock": null,
                      "faults": [{"kind": "goesIdle", "after": 1.5}]}],
        "applications": [{"pid": 42, "name": "Editor", "bundleIdentifier": "dev.example.editor"}],
        "windows": [{"id": 9, "title": null, "frame": {"x": 1, "y": 2, "width": 300, "height": 200},
                     "ownerPID": 42, "layer": 3, "onScreen": false}],
        "cameras": [{"uniqueID": "cam", "transportType": "bltn",
                     "formats": [{"width": 640, "height": 360, "frameRate": 60, "pixelFormat": "BGRA",
                                  "centerStageSupported": true}],
                     "synchronizationClock": {"offset": 2.5}, "suspended": true}],
        "microphones": [{"uniqueID": "mic", "audio": {"sampleRate": 44100, "channels": 2, "bufferFrames": 441,
                                                      "tone": {"frequency": 1000, "level": 0.5}},
                         "faults": [{"kind": "stopsWithError", "after": 0.2, "domain": "Test", "code": 7,
                                     "message": "boom"}]}],
        "phones": [{"uniqueID": "phone", "connected": false}],
        "systemAudio": {"channels": 1},
        "authorization": {"camera": "denied", "microphone": "notDetermined", "screen": false}
    })");
    const auto world = SyntheticWorld::decode(json);

    const auto& display = world.displays.at(0);
    EXPECT_EQ(display.id, 7u);
    EXPECT_EQ(display.frame.origin.x, -100);
    EXPECT_EQ(display.scale, 2);
    EXPECT_FALSE(display.isMain);
    EXPECT_TRUE(display.isBuiltIn);
    EXPECT_FALSE(display.clockOffset) << "null means no synchronisation clock";
    ASSERT_EQ(display.faults.size(), 1u);
    EXPECT_EQ(display.faults[0].kind, SyntheticFault::Kind::goesIdle);
    EXPECT_EQ(display.faults[0].after, 1.5);

    const auto& window = world.windows.at(0);
    EXPECT_FALSE(window.title);
    EXPECT_EQ(window.ownerPID, 42);
    EXPECT_FALSE(window.onScreen);

    ASSERT_EQ(world.devices.size(), 3u);
    const auto& camera = world.devices[0];
    EXPECT_EQ(camera.transportType, kAVCaptureDeviceTransportTypeBuiltIn);
    EXPECT_EQ(camera.formats.at(0).pixelFormat, kCVPixelFormatType_32BGRA);
    EXPECT_TRUE(camera.formats.at(0).centerStageSupported);
    EXPECT_EQ(camera.clockOffset, 2.5);
    EXPECT_TRUE(camera.suspended);
    const auto& microphone = world.devices[1];
    EXPECT_EQ(microphone.audio.sampleRate, 44100);
    EXPECT_EQ(microphone.audio.bufferFrames, 441u);
    EXPECT_EQ(microphone.audio.tone.level, 0.5);
    ASSERT_EQ(microphone.faults.size(), 1u);
    EXPECT_EQ(microphone.faults[0].code, 7);
    EXPECT_EQ(microphone.faults[0].message, "boom");
    EXPECT_EQ(world.devices[2].kind, SyntheticDevice::Kind::phone);
    EXPECT_FALSE(world.devices[2].connected);
    EXPECT_EQ(world.systemAudio.channels, 1u);
    EXPECT_EQ(world.systemAudio.sampleRate, 48000) << "unset audio keys keep their defaults";
    EXPECT_EQ(world.authorization.camera, AVAuthorizationStatus::denied);
    EXPECT_EQ(world.authorization.microphone, AVAuthorizationStatus::notDetermined);
    EXPECT_FALSE(world.authorization.screen);
}

TEST(SyntheticWorld, FrameRatesBecomeExactDurations) {
    EXPECT_EQ(SyntheticVideoFormat({32, 2, 30}).frameDuration(), CMTime(1, 30));
    const CMTime ntsc = SyntheticVideoFormat({32, 2, 29.97}).frameDuration();
    EXPECT_EQ(ntsc, CMTime(1000, 29970));
    EXPECT_FALSE(ntsc.hasBeenRounded());
    EXPECT_EQ(SyntheticVideoFormat({32, 2, 0.5}).frameDuration(), CMTime(2, 1));
}

TEST(SyntheticWorld, BadInputNamesTheCodingPath) {
    const Json camera = {{"uniqueID", "cam"}};
    struct Case {
        Json json;
        std::string path;
    };
    const std::vector<Case> cases = {
        {{{"displayz", Json::array()}}, ".displayz"},
        {{{"cameras", {{{"uniqueID", "cam"}, {"formatz", Json::array()}}}}}, ".cameras[0].formatz"},
        {{{"cameras", {camera, {{"uniqueID", "cam"}}}}}, ".cameras[1].uniqueID"},
        {{{"cameras", {{{"uniqueID", "cam"}, {"formats", {{{"width", 64}, {"height", 32}, {"pixelFormat", "v210"}}}}}}}},
         ".cameras[0].formats[0].pixelFormat"},
        {{{"cameras", {{{"uniqueID", "cam"}, {"activeFormat", 5}}}}}, ".cameras[0].activeFormat"},
        {{{"microphones", {{{"uniqueID", "mic"}, {"audio", {{"sampleRate", "fast"}}}}}}}, ".microphones[0].audio.sampleRate"},
        {{{"microphones", {{{"uniqueID", "mic"}, {"audio", {{"tone", {{"level", 2}}}}}}}}},
         ".microphones[0].audio.tone.level"},
        {{{"displays", {{{"id", 1}, {"frame", {{"x", 0}, {"y", 0}, {"width", 100}, {"height", 100}}},
                         {"faults", {{{"kind", "explodes"}}}}}}}},
         ".displays[0].faults[0].kind"},
        {{{"displays", {{{"id", 1}}}}}, ".displays[0]"},
        {{{"windows", {{{"id", 3}, {"frame", {{"x", 0}, {"y", 0}, {"width", 100}, {"height", 100}}}, {"ownerPID", 5}}}}},
         ".windows[0].ownerPID"},
        {{{"authorization", {{"camera", "maybe"}}}}, ".authorization.camera"},
        {{{"phones", {{{"uniqueID", "p"}, {"transportType", "usb"}}}}}, ".phones[0].transportType"},
        {{{"microphones", {{{"uniqueID", "mic"}, {"formats", Json::array()}}}}}, ".microphones[0].formats"},
    };
    for (const auto& c : cases) EXPECT_EQ(failingPath(c.json), c.path) << c.json.dump();

    // A missing key is named, and so is the reason a value is refused.
    EXPECT_NE(failingDetail({{"displays", {{{"id", 1}}}}}).find("frame"), std::string::npos);
    EXPECT_NE(failingDetail({{"displays", {{{"id", 1}, {"frame", {{"x", 0}, {"y", 0}, {"width", 100}, {"height", 100}}},
                                            {"faults", {{{"kind", "explodes"}}}}}}}})
                  .find("explodes"),
              std::string::npos);
}

TEST(SyntheticWorld, ConsistencyIsCheckedAfterDecoding) {
    // A display too narrow for the frame counter can only be judged as a whole.
    const Json narrow = {{"displays", {{{"id", 1}, {"frame", {{"x", 0}, {"y", 0}, {"width", 16}, {"height", 16}}}}}}};
    EXPECT_EQ(failingPath(narrow), "");
    EXPECT_NE(failingDetail(narrow).find("32 pixels"), std::string::npos);

    SyntheticWorld world = SyntheticWorld::makeDefault();
    world.devices.push_back(world.devices[0]);
    EXPECT_THROW(world.validate(), std::invalid_argument) << "the same uniqueID twice";
    EXPECT_THROW(SyntheticCapturePlatform{world}, std::invalid_argument);
}

TEST(SyntheticWorld, LoadingAFileReportsFileAndPath) {
    testing::TempDirectory directory;
    const auto good = directory / "world.json";
    testing::writeFile(good, R"({"microphones": [{"uniqueID": "m1"}, {"uniqueID": "m2"}]})");
    const auto world = SyntheticWorld::load(good);
    ASSERT_EQ(world.devices.size(), 2u);
    EXPECT_EQ(world.devices[1].uniqueID, "m2");

    auto loadError = [](const std::filesystem::path& path) -> ErrorDescription {
        try {
            SyntheticWorld::load(path);
        } catch (const PlatformError& error) {
            return error.errorDescription();
        }
        return {};
    };
    const auto bad = directory / "bad.json";
    testing::writeFile(bad, R"({"microphones": [{"uniqueID": "m1", "audio": {"channels": 0}}]})");
    auto error = loadError(bad);
    EXPECT_EQ(error.domain, CapturePlatform::errorDomain);
    EXPECT_EQ(error.code, CapturePlatform::badWorld);
    EXPECT_NE(error.debugDescription.find(bad.string()), std::string::npos);
    EXPECT_NE(error.debugDescription.find(".microphones[0].audio.channels"), std::string::npos);

    const auto broken = directory / "broken.json";
    testing::writeFile(broken, "{\"displays\": [");
    EXPECT_EQ(loadError(broken).code, CapturePlatform::badWorld);
    EXPECT_EQ(loadError(directory / "missing.json").code, CapturePlatform::badWorld);
}

}  // namespace
}  // namespace ov::platform
