// How schema items become recorders: names, outputs, side files and refusals.

#include <gtest/gtest.h>

#include "foundation/ov_error.h"
#include "session/recorder_assembly.h"

namespace ov {
namespace {

const std::filesystem::path kBundle = "/tmp/bundle";

DisplaySchemaItem display(const std::string& id) {
    DisplaySchemaItem item;
    item.id = id;
    item.outputOptions = ScreenRecordingOutputOptions::singleFile(std::nullopt, OVVideoCodec::h264);
    item.inputEventsOutputOptions = JSONOutputOptions::singleFile();
    return item;
}

TEST(RecorderAssembly, FallbackNamesFollowTheItem) {
    EXPECT_EQ(fallbackFilename(display("abc12")), "display-abc12.mov");
    EXPECT_NE(fallbackFilename(display("a")), fallbackFilename(display("b")));
    WebcamSchemaItem webcam;
    webcam.id = "w1";
    EXPECT_EQ(fallbackFilename(webcam), "webcam-w1.mov");
    MicrophoneFileSchemaItem mic;
    mic.id = "m1";
    EXPECT_EQ(fallbackFilename(mic), "microphone-m1.m4a");
    WindowBasedCropSchemaItem crop;
    crop.id = "c";
    EXPECT_EQ(fallbackFilename(crop), "windowcrop-c.mov");
    DesktopIndependentWindowSchemaItem window;
    window.id = "d";
    EXPECT_EQ(fallbackFilename(window), "window-d.mov");
    AppleDeviceStaticOrientationItem phone;
    phone.id = "p";
    EXPECT_EQ(fallbackFilename(phone), "appledevice-p.mov");
}

TEST(RecorderAssembly, SystemAudioNamesTellOneApplicationFromMany) {
    SystemAudioSchemaItem one;
    one.id = "s1";
    one.includedApplicationIDs = std::vector<ProcessID>{42};
    one.backend = SystemAudioBackend::coreAudio;
    EXPECT_EQ(fallbackFilename(one), "appaudio-ca-s1.m4a");

    SystemAudioSchemaItem two = one;
    two.includedApplicationIDs = std::vector<ProcessID>{42, 43};
    two.backend = SystemAudioBackend::screenCaptureKit;
    const auto a = fallbackFilename(two), b = fallbackFilename(two);
    EXPECT_EQ(a.rfind("systemaudio-sck-", 0), 0u) << a;
    EXPECT_EQ(a.size(), std::string("systemaudio-sck-").size() + 5 + 4);
    EXPECT_NE(a, b) << "each draws a new short id";
}

TEST(RecorderAssembly, OutputDescriptionsFromOptions) {
    auto single = outputDescription(AudioOutputOptions::singleFile(), kBundle, "microphone-m.m4a");
    ASSERT_TRUE(single.asSingleFile());
    EXPECT_EQ(single.asSingleFile()->url, kBundle / "microphone-m.m4a");

    auto named = outputDescription(AudioOutputOptions::singleFile("mine.m4a"), kBundle, "microphone-m.m4a");
    EXPECT_EQ(named.asSingleFile()->url, kBundle / "mine.m4a");

    auto segmented = outputDescription(AudioOutputOptions::segmented(), kBundle, "microphone-m.m4a");
    ASSERT_TRUE(segmented.asMultipleStreams());
    EXPECT_EQ(segmented.asMultipleStreams()->directoryURL, kBundle);
    EXPECT_EQ(segmented.asMultipleStreams()->filenamePrefix, "microphone-m");
    ASSERT_TRUE(segmented.asMultipleStreams()->segmentCallback) << "a no-op stands in for no callback";
    segmented.asMultipleStreams()->segmentCallback("x");
}

TEST(RecorderAssembly, SideFilesAreNamedAfterTheVideo) {
    auto item = display("abc12");
    auto description =
        screenSideFileDescription(item.outputOptions, item.inputEventsOutputOptions, kBundle, "display-abc12.mov",
                                  "input-events.json");
    EXPECT_EQ(description.asSingleFile()->url, kBundle / "display-abc12.input-events.json");

    item.outputOptions = ScreenRecordingOutputOptions::singleFile("a.b.mov", OVVideoCodec::h264);
    EXPECT_EQ(sideFilename(item.outputOptions, "display-abc12.mov", "input-events.json"), "a.b.input-events.json");

    // A segmented video names its side files from the prefix, dots and all, and
    // the side file's own segmented options take that name without extension.
    item.outputOptions = ScreenRecordingOutputOptions::segmented("p.v1", OVVideoCodec::hevc);
    item.inputEventsOutputOptions = JSONOutputOptions::segmented();
    auto segmented = screenSideFileDescription(item.outputOptions, item.inputEventsOutputOptions, kBundle,
                                               "display-abc12.mov", "top-windows.json");
    ASSERT_TRUE(segmented.asMultipleStreams());
    EXPECT_EQ(segmented.asMultipleStreams()->filenamePrefix, "p.v1.top-windows");
}

TEST(RecorderAssembly, CustomItemsMakeTheirOwnRecorders) {
    struct Fixed final : Recorder {
        std::string id() const override { return "c1"; }
        std::vector<OVBundleInfo::FileAsset> prepare() override { return {}; }
        std::vector<OVBundleInfo::FileAsset> finish() override { return {}; }
    };
    std::filesystem::path seen;
    CustomSchemaItem custom{"c1", [&](const std::filesystem::path& bundle, const Logger&, AbortFunction) {
                                seen = bundle;
                                return std::vector<std::shared_ptr<Recorder>>{std::make_shared<Fixed>(),
                                                                              std::make_shared<Fixed>()};
                            }};
    RecorderAssemblyContext context;
    context.bundleURL = kBundle;
    EXPECT_EQ(createRecorders(custom, context).size(), 2u);
    EXPECT_EQ(seen, kBundle);
}

TEST(RecorderAssembly, SourcesThisBuildCannotCaptureFailAtPrepare) {
    RecorderAssemblyContext context;
    AppleDeviceSchemaItem device;
    device.id = "d1";
    auto recorders = createRecorders(device, context);
    ASSERT_EQ(recorders.size(), 1u);
    EXPECT_EQ(recorders[0]->id(), "d1");
    try {
        recorders[0]->prepare();
        FAIL() << "an unsupported source prepared";
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::configurationNotSupported);
        EXPECT_NE(e.debugDescription().find("Apple device"), std::string::npos) << e.debugDescription();
    }

    MicrophoneFileSchemaItem mic;
    mic.id = "m";
    mic.echoCancellation = EchoCancellation::aec3Online;
    try {
        createRecorders(mic, context);
        FAIL() << "echo cancellation accepted";
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::configurationNotSupported);
    }
}

}  // namespace
}  // namespace ov
