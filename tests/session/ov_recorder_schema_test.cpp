#include "session/ov_recorder_schema.h"

#include <gtest/gtest.h>

#include <set>

#include "session/ov_recorder_types.h"
#include "session/short_id.h"

namespace ov {
namespace {

using Item = OVRecorderSchemaItem;
using Exclude = SystemAudioExcludeOptions;
constexpr auto scBackend = SystemAudioBackend::screenCaptureKit;

template <class T>
const T& as(const Item& item) {
    return std::get<T>(item.internalItem);
}

TEST(ShortIDs, FiveCharactersOfTheAlphabetAndFreshEachTime) {
    std::set<std::string> seen;
    std::set<char> characters;
    for (int i = 0; i < 2000; ++i) {
        const std::string id = ShortID::make();
        ASSERT_EQ(id.size(), 5u);
        for (char c : id) {
            ASSERT_NE(ShortID::alphabet.find(c), std::string_view::npos) << id;
            characters.insert(c);
        }
        seen.insert(id);
    }
    // 62^5 ids: 2000 draws collide with a chance of about 0.2 %; allow one.
    EXPECT_GE(seen.size(), 1999u);
    // 10,000 characters drawn: every one of the 62 turns up unless the draw is skewed.
    EXPECT_EQ(characters.size(), ShortID::alphabet.size());
}

TEST(SchemaFactories, EqualArgumentsGiveDifferentIDs) {
    const auto a = Item::appleDevice("udid", std::optional<std::string>("x.mov"));
    const auto b = Item::appleDevice("udid", std::optional<std::string>("x.mov"));
    EXPECT_NE(a.id(), b.id());
    EXPECT_EQ(as<AppleDeviceSchemaItem>(a).deviceID, "udid");
}

TEST(SchemaFactories, WebcamStoresPreserveNegatedAndFilenameAsH264SingleFile) {
    const auto preserve = as<WebcamSchemaItem>(Item::webcam("m", "c", std::nullopt, true, true, 0.1, std::optional<std::string>("cam.mov")));
    EXPECT_FALSE(preserve.allowCaptureDevicesConfiguration);
    EXPECT_TRUE(preserve.leftAudioChannelOnly);
    EXPECT_EQ(preserve.audioDelay, 0.1);
    ASSERT_TRUE(preserve.outputOptions.asSingleFile());
    EXPECT_EQ(preserve.outputOptions.asSingleFile()->filename, "cam.mov");
    EXPECT_EQ(preserve.outputOptions.videoCodec(), OVVideoCodec::h264);

    const auto allow = as<WebcamSchemaItem>(Item::webcam("m", "c", platform::CGSize{1280, 720}, false, false, 0,
                                                         WebcamOutputOptions::segmented("w", OVVideoCodec::hevc)));
    EXPECT_TRUE(allow.allowCaptureDevicesConfiguration);
    EXPECT_EQ(allow.maxVideoDimensions, (platform::CGSize{1280, 720}));
    EXPECT_EQ(allow.outputOptions.videoCodec(), OVVideoCodec::hevc);
}

TEST(SchemaFactories, SystemAudioExcludingAndIncluding) {
    const auto excluding = as<SystemAudioSchemaItem>(Item::systemAudio(
        std::set<Exclude>{Exclude::processID(300), Exclude::currentProcess(), Exclude::processID(20)}, scBackend,
        std::optional<std::string>("sys.m4a")));
    EXPECT_FALSE(excluding.includedApplicationIDs);
    EXPECT_EQ(excluding.excludedApplicationIDs, (std::vector<ProcessID>{20, 300}));
    EXPECT_TRUE(excluding.excludeCurrentProcess);
    EXPECT_EQ(excluding.backend, scBackend);

    const auto none = as<SystemAudioSchemaItem>(Item::systemAudio(std::set<Exclude>{}, scBackend, AudioOutputOptions::singleFile()));
    ASSERT_TRUE(none.excludedApplicationIDs) << "an empty set is an empty list, not an absent one";
    EXPECT_TRUE(none.excludedApplicationIDs->empty());
    EXPECT_FALSE(none.excludeCurrentProcess);

    const auto including = as<SystemAudioSchemaItem>(
        Item::systemAudio(std::vector<ProcessID>{5, 6}, SystemAudioBackend::coreAudio, AudioOutputOptions::segmented("s")));
    EXPECT_EQ(including.includedApplicationIDs, (std::vector<ProcessID>{5, 6}));
    EXPECT_FALSE(including.excludedApplicationIDs);
    EXPECT_FALSE(including.excludeCurrentProcess);
    ASSERT_TRUE(including.outputOptions.asSegmented());
    EXPECT_EQ(including.outputOptions.asSegmented()->filenamePrefix, "s");

    const auto stream = Item::systemAudio(std::set<Exclude>{Exclude::currentProcess()}, scBackend,
                                          [](const platform::AVAudioPCMBuffer&) { return true; });
    const auto& streamItem = as<SystemAudioStreamSchemaItem>(stream);
    EXPECT_TRUE(streamItem.excludeCurrentProcess);
    EXPECT_EQ(streamItem.excludedApplicationIDs, std::vector<ProcessID>{});
}

TEST(SchemaFactories, ApplicationAudioIsSystemAudioIncludingOneProcess) {
    const auto app = Item::applicationAudio(4242, scBackend, std::optional<std::string>("a.m4a"));
    const auto list = Item::systemAudio(std::vector<ProcessID>{4242}, scBackend, std::optional<std::string>("a.m4a"));
    ASSERT_EQ(app.internalItem.index(), list.internalItem.index());
    const auto& a = as<SystemAudioSchemaItem>(app);
    const auto& l = as<SystemAudioSchemaItem>(list);
    EXPECT_EQ(a.includedApplicationIDs, l.includedApplicationIDs);
    EXPECT_EQ(a.excludedApplicationIDs, l.excludedApplicationIDs);
    EXPECT_EQ(a.excludeCurrentProcess, l.excludeCurrentProcess);

    const auto stream = Item::applicationAudio(7, scBackend, [](const platform::AVAudioPCMBuffer&) { return false; });
    EXPECT_EQ(as<SystemAudioStreamSchemaItem>(stream).includedApplicationIDs, std::vector<ProcessID>{7});
}

TEST(SchemaFactories, MicrophoneForms) {
    const auto file = as<MicrophoneFileSchemaItem>(
        Item::microphone("m", true, 0.2, EchoCancellation::aec3Both, std::optional<std::string>("mic.m4a")));
    EXPECT_TRUE(file.leftChannelOnly);
    EXPECT_EQ(file.echoCancellation, EchoCancellation::aec3Both);
    EXPECT_EQ(file.outputOptions.asSingleFile()->filename, "mic.m4a");

    const auto callback = [](const platform::CMSampleBuffer&) { return true; };
    const auto internal = as<MicrophoneStreamSchemaItem>(Item::_microphone("m", callback));
    EXPECT_EQ(internal.echoCancellation, EchoCancellation::off);
    EXPECT_FALSE(internal.audioConfiguration);
    const auto configured = as<MicrophoneStreamSchemaItem>(
        Item::microphone("m", AudioStreamConfiguration{16, false, true}, EchoCancellation::aec3Online, callback));
    EXPECT_EQ(configured.audioConfiguration, (AudioStreamConfiguration{16, false, true}));
    EXPECT_EQ(configured.echoCancellation, EchoCancellation::aec3Online);
}

TEST(SchemaFactories, DisplayAndWindows) {
    const auto simple = as<DisplaySchemaItem>(Item::display(
        3, platform::CGRect{{10, 20}, {300, 200}}, {ScreenRecordingExcludeOptions::processID(9)}, OVColorSpace::displayP3,
        std::chrono::milliseconds(16), std::nullopt, false, true, false, true, std::optional<std::string>("d.mov")));
    EXPECT_TRUE(simple.captureAudio) << "includeAudio is stored as captureAudio";
    EXPECT_FALSE(simple.showsCursor);
    EXPECT_TRUE(simple.mouseEvents);
    EXPECT_EQ(simple.topWindowInfo.kind, TopWindowInfo::Kind::disabled);
    ASSERT_TRUE(simple.inputEventsOutputOptions.asSingleFile());
    EXPECT_FALSE(simple.inputEventsOutputOptions.asSingleFile()->filename);
    EXPECT_EQ(simple.outputOptions.asSingleFile()->filename, "d.mov");
    EXPECT_EQ(simple.outputOptions.videoCodec(), OVVideoCodec::h264);
    EXPECT_EQ(simple.minimumFrameInterval, std::chrono::milliseconds(16));

    const auto enabled = as<DisplaySchemaItem>(Item::_display(
        3, std::nullopt, {}, OVColorSpace::sRGB, FrameInterval::zero(), std::nullopt, true, false, false,
        JSONOutputOptions::singleFile("events.json"), true, JSONOutputOptions::segmented("top"), false,
        ScreenRecordingOutputOptions::singleFile(std::nullopt, OVVideoCodec::hevc)));
    EXPECT_EQ(enabled.topWindowInfo.kind, TopWindowInfo::Kind::enabled);
    EXPECT_EQ(enabled.topWindowInfoOutputOptions.asSegmented()->filenamePrefix, "top");
    EXPECT_EQ(enabled.inputEventsOutputOptions.asSingleFile()->filename, "events.json");

    const auto noStream = as<DisplaySchemaItem>(Item::_display(
        3, std::nullopt, {}, OVColorSpace::sRGB, FrameInterval::zero(), std::nullopt, true, false, false,
        JSONOutputOptions::singleFile(), std::shared_ptr<TopWindowInfoStream>(), JSONOutputOptions::singleFile(),
        false, ScreenRecordingOutputOptions::singleFile(std::nullopt, OVVideoCodec::h264)));
    EXPECT_EQ(noStream.topWindowInfo.kind, TopWindowInfo::Kind::disabled);

    const auto independent = Item::desktopIndependentWindow(8, OVColorSpace::sRGB, FrameInterval::zero(), std::nullopt,
                                                            true, false, true, JSONOutputOptions::singleFile(), true,
                                                            std::optional<std::string>("w.mov"));
    const auto crop = Item::windowBasedCrop(8, OVColorSpace::sRGB, FrameInterval::zero(), std::nullopt, true, false,
                                            true, JSONOutputOptions::singleFile(), true,
                                            std::optional<std::string>("w.mov"));
    EXPECT_NE(independent.internalItem.index(), crop.internalItem.index()) << "two kinds with the same fields";
    EXPECT_TRUE(as<DesktopIndependentWindowSchemaItem>(independent).captureAudio);
    EXPECT_TRUE(as<WindowBasedCropSchemaItem>(crop).keyboardEvents);
    EXPECT_EQ(as<WindowBasedCropSchemaItem>(crop).windowID, 8u);
}

TEST(RecorderSettings, Defaults) {
    const OVRecorderSettings settings;
    EXPECT_TRUE(settings.allowFrameReordering);
    EXPECT_TRUE(settings.updatesUserPreferred);
    EXPECT_TRUE(settings._useTimeline);
    EXPECT_EQ(settings.audioSegmentDuration, 6);
    EXPECT_EQ(settings.videoSegmentDuration, 2);
    EXPECT_FALSE(settings.keyframeIntervalDuration);
}

}  // namespace
}  // namespace ov
