#include "session/source_diagnostics.h"

#include <gtest/gtest.h>

#include <map>

#include "support/log_capture.h"
#include "foundation/ov_error.h"

namespace ov {
namespace {

using Code = OVError::Code;

struct FakeLookup : SourceLookup {
    std::map<std::string, NamedSource<CaptureDeviceAvailability>> microphones, cameras;
    std::map<std::string, NamedSource<AppleDeviceAvailability>> appleDevices;
    std::map<uint32_t, NamedSource<DisplayAvailability>> displays;
    std::map<uint32_t, WindowSource> windows;

    template <class Map, class Key>
    static auto find(const Map& map, const Key& key) -> std::optional<typename Map::mapped_type> {
        auto it = map.find(key);
        if (it == map.end()) return std::nullopt;
        return it->second;
    }
    std::optional<NamedSource<CaptureDeviceAvailability>> microphone(const std::string& id) const override {
        return find(microphones, id);
    }
    std::optional<NamedSource<CaptureDeviceAvailability>> camera(const std::string& id) const override {
        return find(cameras, id);
    }
    std::optional<NamedSource<AppleDeviceAvailability>> appleDevice(const std::string& id) const override {
        return find(appleDevices, id);
    }
    std::optional<NamedSource<DisplayAvailability>> display(uint32_t id) const override { return find(displays, id); }
    std::optional<WindowSource> window(uint32_t id) const override { return find(windows, id); }
};

// Runs one throw... call and returns its error; fails the test when it doesn't throw.
template <class F>
std::optional<OVError> failureOf(F&& call) {
    try {
        call();
    } catch (const OVError& e) {
        return e;
    }
    ADD_FAILURE() << "expected an OVError";
    return std::nullopt;
}

TEST(SourceDiagnostics, UnknownSourcesLeaveTheFailureToTheCaller) {
    testing::LogCapture log;
    // The process-wide lookup finds nothing until the discoveries install one.
    EXPECT_NO_THROW(throwMicrophoneNoSampleBuffers("never-seen", log.logger));
    EXPECT_NO_THROW(throwMicrophoneNoAVCaptureDevice("never-seen", log.logger));
    EXPECT_NO_THROW(throwCameraNoAVCaptureDevice("never-seen", log.logger));
    EXPECT_NO_THROW(throwAppleDeviceNoVideoSampleBuffers("never-seen", log.logger));
    EXPECT_NO_THROW(throwCantFindDisplay(1, log.logger));
    EXPECT_NO_THROW(throwCantFindWindow(1, log.logger));
    EXPECT_TRUE(log.taken().empty());

    // Installing a lookup makes the same calls speak; removing it silences them again.
    auto lookup = std::make_shared<FakeLookup>();
    lookup->microphones["mic"] = {"USB Audio", CaptureDeviceAvailability::notConnected};
    SourceLookup::setShared(lookup);
    EXPECT_THROW(throwMicrophoneNoSampleBuffers("mic", log.logger), OVError);
    SourceLookup::setShared(nullptr);
    EXPECT_NO_THROW(throwMicrophoneNoSampleBuffers("mic", log.logger));
}

TEST(SourceDiagnostics, MicrophonesByAvailabilityAndName) {
    FakeLookup lookup;
    lookup.microphones["a"] = {"Studio Mic", CaptureDeviceAvailability::available};
    lookup.microphones["b"] = {"MacBook Pro Microphone", CaptureDeviceAvailability::lidClosed};
    lookup.microphones["c"] = {"Headset", CaptureDeviceAvailability::unknownSuspended};

    testing::LogCapture log;
    auto e = failureOf([&] { throwMicrophoneNoSampleBuffers("a", log.logger, lookup); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->code(), Code::noAudioSamplesReceived);
    EXPECT_EQ(e->localizedDescription(), "No audio from microphone 'Studio Mic', make sure it's unmuted and powered on.");
    EXPECT_EQ(e->debugDescription(),
              "OVMicrophone \"Studio Mic\" (a) has availability: available, provides no sample buffers");
    auto line = log.single();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, OVLogLevel::error);
    EXPECT_EQ(line->message, "No samples received from microphone, timed out.");
    EXPECT_EQ(line->metadata, (LogMetadata{{"OVMicrophone.availability", "available"}}));

    testing::LogCapture log2;
    e = failureOf([&] { throwMicrophoneNoAVCaptureDevice("a", log2.logger, lookup); });
    EXPECT_EQ(e->code(), Code::microphoneUnavailable);
    EXPECT_EQ(e->localizedDescription(), "Can't record microphone 'Studio Mic', make sure it's unmuted and powered on.");
    EXPECT_EQ(e->debugDescription(), "OVMicrophone \"Studio Mic\" (a) has availability: available, no AVCaptureDevice");
    EXPECT_EQ(log2.single()->message, "Found in MicrophoneDiscovery as OVMicrophone.");

    // The name says "microphone" already: the short prefix, whatever the case of the name.
    e = failureOf([&] { throwMicrophoneNoSampleBuffers("b", log.logger, lookup); });
    EXPECT_EQ(e->localizedDescription(), "Can't record 'MacBook Pro Microphone' because MacBook lid is closed.");
    e = failureOf([&] { throwMicrophoneNoAVCaptureDevice("c", log.logger, lookup); });
    EXPECT_EQ(e->localizedDescription(), "Can't record microphone 'Headset' because it is suspended.");
}

TEST(SourceDiagnostics, CamerasDifferInTheirApostrophe) {
    FakeLookup lookup;
    lookup.cameras["cam"] = {"FaceTime HD Camera", CaptureDeviceAvailability::available};
    lookup.cameras["usb"] = {"Logitech BRIO", CaptureDeviceAvailability::notConnected};
    testing::LogCapture log;

    auto e = failureOf([&] { throwCameraNoAVCaptureDevice("cam", log.logger, lookup); });
    EXPECT_EQ(e->code(), Code::cameraUnavailable);
    EXPECT_EQ(e->localizedDescription(),
              "Can't record 'FaceTime HD Camera', make sure it\u2019s powered on and any privacy shutter is open.");
    e = failureOf([&] { throwCameraNoSampleBuffers("cam", log.logger, lookup); });
    EXPECT_EQ(e->code(), Code::noVideoFramesReceived);
    EXPECT_EQ(e->localizedDescription(),
              "No video from 'FaceTime HD Camera', make sure it's powered on and any privacy shutter is open.");

    e = failureOf([&] { throwCameraNoSampleBuffers("usb", log.logger, lookup); });
    EXPECT_EQ(e->localizedDescription(), "Can't record camera 'Logitech BRIO' because it is not connected anymore.");
    const auto lines = log.taken();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message, "Found in CameraDiscovery as OVCamera.");
    EXPECT_EQ(lines[2].message, "No samples received from camera, timed out.");
    EXPECT_EQ(lines[2].metadata, (LogMetadata{{"OVCamera.availability", "notConnected"}}));
}

TEST(SourceDiagnostics, AppleDevices) {
    FakeLookup lookup;
    lookup.appleDevices["p"] = {"Anna's iPhone", AppleDeviceAvailability::available};
    lookup.appleDevices["t"] = {"Living room TV", AppleDeviceAvailability::pairedNeedsConnect};
    lookup.appleDevices["g"] = {"Old iPad", AppleDeviceAvailability::notConnected};
    testing::LogCapture log;

    auto e = failureOf([&] { throwAppleDeviceNoAVCaptureDevice("p", log.logger, lookup); });
    EXPECT_EQ(e->code(), Code::appleDeviceUnavailable);
    EXPECT_EQ(e->localizedDescription(), "Can't record 'Anna's iPhone', make sure device is unlocked.");
    e = failureOf([&] { throwAppleDeviceNoVideoSampleBuffers("p", log.logger, lookup); });
    EXPECT_EQ(e->code(), Code::noVideoFramesReceived);
    EXPECT_EQ(e->localizedDescription(), "No video from 'Anna's iPhone', make sure device is unlocked.");
    e = failureOf([&] { throwAppleDeviceNoVideoSampleBuffers("t", log.logger, lookup); });
    EXPECT_EQ(e->localizedDescription(), "No video from device 'Living room TV', make sure it is unlocked.");
    EXPECT_EQ(e->debugDescription(),
              "OVAppleDevice \"Living room TV\" (t) has availability: pairedNeedsConnect, provides no sample buffers");
    e = failureOf([&] { throwAppleDeviceNoAVCaptureDevice("t", log.logger, lookup); });
    EXPECT_EQ(e->localizedDescription(), "Can't record device 'Living room TV', make sure device is unlocked.");
    for (auto call : {throwAppleDeviceNoAVCaptureDevice, throwAppleDeviceNoVideoSampleBuffers}) {
        e = failureOf([&] { call("g", log.logger, lookup); });
        EXPECT_EQ(e->localizedDescription(), "Can't record 'Old iPad' because it is not connected anymore.");
    }
    EXPECT_EQ(log.taken().at(1).message, "No samples received from Apple device, timed out.");
    EXPECT_EQ(log.taken().at(0).message, "Found in AppleDeviceDiscovery as OVAppleDevice.");
}

TEST(SourceDiagnostics, Displays) {
    FakeLookup lookup;
    lookup.displays[1] = {"Built-in Retina Display", DisplayAvailability::lidClosed};
    lookup.displays[2] = {"DELL U2720Q", DisplayAvailability::available};
    lookup.displays[3] = {"DELL U2720Q", DisplayAvailability::notConnected};
    testing::LogCapture log;

    auto e = failureOf([&] { throwCantFindDisplay(1, log.logger, lookup); });
    EXPECT_EQ(e->code(), Code::displayUnavailable);
    EXPECT_EQ(e->localizedDescription(), "Can't record 'Built-in Retina Display' because MacBook lid is closed.");
    EXPECT_EQ(e->debugDescription(), "OVDisplay \"Built-in Retina Display\" (1) has availability: lidClosed");
    auto line = log.single();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->message, "Can't find display for given ID, but there's a OVDisplay.");
    EXPECT_EQ(line->metadata, (LogMetadata{{"OVDisplay.availability", "lidClosed"}, {"displayID", "1"}}));

    e = failureOf([&] { throwCantFindDisplay(2, log.logger, lookup); });
    EXPECT_EQ(e->localizedDescription(), "Can't record display 'DELL U2720Q' because id 2 can't be found.");
    e = failureOf([&] { throwCantFindDisplay(3, log.logger, lookup); });
    EXPECT_EQ(e->localizedDescription(), "Can't record display 'DELL U2720Q' because it is not connected anymore.");
}

TEST(SourceDiagnostics, WindowsByTitleApplicationOrNeither) {
    FakeLookup lookup;
    lookup.windows[10] = {"Budget.xlsx", "Spreadsheet", WindowAvailability::closed};
    lookup.windows[11] = {"", "Spreadsheet", WindowAvailability::closed};
    lookup.windows[12] = {std::nullopt, std::nullopt, WindowAvailability::closed};
    lookup.windows[13] = {std::nullopt, "Terminal", WindowAvailability::notOnScreen};
    lookup.windows[14] = {"Notes", std::nullopt, WindowAvailability::available};
    lookup.windows[15] = {std::nullopt, std::nullopt, WindowAvailability::available};
    lookup.windows[16] = {std::nullopt, std::nullopt, WindowAvailability::notOnScreen};
    testing::LogCapture log;

    const auto text = [&](uint32_t id) {
        auto e = failureOf([&] { throwCantFindWindow(id, log.logger, lookup); });
        EXPECT_EQ(e->code(), Code::windowUnavailable);
        return e ? e->localizedDescription() : std::string();
    };
    EXPECT_EQ(text(10), "Can't record 'Budget.xlsx' because the window has been closed.");
    EXPECT_EQ(text(11), "Can't record 'Spreadsheet' window because it has been closed.");
    EXPECT_EQ(text(12), "Can't record window because it has been closed.");
    EXPECT_EQ(text(13), "Can't record 'Terminal' window because it is not on screen.");
    EXPECT_EQ(text(14), "Can't record 'Notes' because windowID 14 can't be found.");
    EXPECT_EQ(text(15), "Can't record window because windowID 15 can't be found.");
    EXPECT_EQ(text(16), "Can't record window because it is not on screen.");

    // One error line per call, with the keys alone.
    const auto lines = log.taken();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0].message, "");
    EXPECT_EQ(lines[0].level, OVLogLevel::error);
    EXPECT_EQ(lines[0].metadata, (LogMetadata{{"OVWindow.availability", "closed"}, {"windowID", "10"}}));
    auto e = failureOf([&] { throwCantFindWindow(10, log.logger, lookup); });
    EXPECT_EQ(e->debugDescription(), "OVWindow \"Budget.xlsx\" (10) has availability: closed");
}

}  // namespace
}  // namespace ov
