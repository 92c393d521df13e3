#include "host/recorder_schema.h"

#include <gtest/gtest.h>

#include "host/halvern_rpc.h"

namespace ov::host {
namespace {

using coding::Decoder;
using coding::DecodingError;
using nlohmann::json;

// Decodes {"schema": <schema>} as the params of "init" are read, so paths start at ".schema".
RecorderSchema decode(const std::string& schemaText) {
    const coding::Json root = coding::Json::parse(R"({"schema":)" + schemaText + "}");
    return Decoder(root)["schema"].decode<RecorderSchema>();
}

wire::Item decodeOne(const std::string& itemText) {
    auto schema = decode(R"({"items":[)" + itemText + "]}");
    EXPECT_EQ(schema.items.size(), 1u);
    return schema.items.at(0);
}

// The failure of decoding a schema, as the host's debugDescription shows it.
template <class Error = DecodingError>
Error decodeFailure(const std::string& schemaText) {
    try {
        decode(schemaText);
    } catch (const Error& e) {
        return e;
    }
    throw std::runtime_error("expected the schema to fail: " + schemaText);
}

// A context that records callbacks and says per-application capture is available or not.
struct Context {
    std::vector<std::pair<std::string, json>> performed;
    bool perApplication = true;
    RecorderSchemaContext make() {
        return {[this](const std::string& target, const Json& params) {
                    performed.emplace_back(target, json::parse(params.dump()));
                },
                {},
                {},
                [this] { return perApplication; }};
    }
};

// ---- decoding ----------------------------------------------------------------------------------

TEST(RecorderSchemaDecoding, TopLevelKeysAndSettings) {
    auto bare = decode(R"({"items":[]})");
    EXPECT_FALSE(bare.output_directory);
    EXPECT_TRUE(bare.items.empty());
    EXPECT_FALSE(bare.settings);
    EXPECT_FALSE(makeSettings(bare)) << "no settings key: the recorder's own defaults";

    auto full = decode(R"({"output_directory":"/tmp/rec","items":[],"settings":{"allowFrameReordering":false}})");
    EXPECT_EQ(full.output_directory, "/tmp/rec");
    auto settings = makeSettings(full);
    ASSERT_TRUE(settings);
    EXPECT_FALSE(settings->allowFrameReordering);
    EXPECT_TRUE(settings->updatesUserPreferred);
    EXPECT_TRUE(settings->_useTimeline);
    EXPECT_EQ(settings->audioSegmentDuration, 6);
    EXPECT_EQ(settings->videoSegmentDuration, 2);
    EXPECT_FALSE(settings->keyframeIntervalDuration);

    auto emptySettings = makeSettings(decode(R"({"items":[],"settings":{}})"));
    ASSERT_TRUE(emptySettings);
    EXPECT_TRUE(emptySettings->allowFrameReordering) << "a settings object without the key means true";

    const auto missingItems = decodeFailure(R"({"output_directory":"/tmp"})");
    EXPECT_EQ(missingItems.kind(), DecodingError::Kind::keyNotFound);
    EXPECT_EQ(missingItems.rendering(), "Key 'items' not found at .schema");
}

TEST(RecorderSchemaDecoding, WebcamDefaultsAndValues) {
    auto w = std::get<wire::WebcamItem>(decodeOne(R"({"type":"webcam","microphone":"m1","camera":"c1"})"));
    EXPECT_EQ(w.microphone, "m1");
    EXPECT_EQ(w.camera, "c1");
    EXPECT_EQ(w.videoCodec, OVVideoCodec::h264);
    EXPECT_FALSE(w.preserveActiveCameraConfiguration);
    EXPECT_FALSE(w.leftAudioChannelOnly);
    EXPECT_EQ(w.audioDelay, 0);
    EXPECT_EQ(w.output, wire::VideoOutput::singleFile);

    w = std::get<wire::WebcamItem>(decodeOne(
        R"({"type":"webcam","microphone":"m","camera":"c","videoCodec":"hevc","preserveActiveCameraConfiguration":true,
            "leftAudioChannelOnly":true,"audioDelay":0.25,"output":"segmented","filenamePrefix":"cam",
            "segmentCallback":"cb"})"));
    EXPECT_EQ(w.videoCodec, OVVideoCodec::hevc);
    EXPECT_TRUE(w.preserveActiveCameraConfiguration);
    EXPECT_TRUE(w.leftAudioChannelOnly);
    EXPECT_EQ(w.audioDelay, 0.25);
    EXPECT_EQ(w.output, wire::VideoOutput::segmented);
    EXPECT_EQ(w.file.filenamePrefix, "cam");
    EXPECT_EQ(w.file.segmentCallback, "cb");

    const auto missingCamera = decodeFailure(R"({"items":[{"type":"webcam","microphone":"m"}]})");
    EXPECT_EQ(missingCamera.rendering(), "Key 'camera' not found at .schema.items[0]");
}

TEST(RecorderSchemaDecoding, DisplayAndWindowDefaults) {
    auto d = std::get<wire::DisplayItem>(decodeOne(R"({"type":"display","display":69733382})"));
    EXPECT_EQ(d.display, 69733382u);
    EXPECT_EQ(d.colorSpace, OVColorSpace::sRGB);
    EXPECT_EQ(d.videoCodec, OVVideoCodec::h264);
    EXPECT_TRUE(d.shows_cursor) << "the cursor shows unless the host says otherwise";
    EXPECT_FALSE(d.mouse_events);
    EXPECT_FALSE(d.keyboard_events);
    EXPECT_FALSE(d.include_audio);
    EXPECT_EQ(d.output, wire::VideoOutput::singleFile);

    d = std::get<wire::DisplayItem>(decodeOne(
        R"({"type":"display","display":1,"colorSpace":"displayP3","shows_cursor":false,"mouse_events":true,
            "keyboard_events":true,"include_audio":true,"filename":"screen.mov"})"));
    EXPECT_EQ(d.colorSpace, OVColorSpace::displayP3);
    EXPECT_FALSE(d.shows_cursor);
    EXPECT_TRUE(d.mouse_events && d.keyboard_events && d.include_audio);
    EXPECT_EQ(d.file.filename, "screen.mov");

    auto w = std::get<wire::WindowBasedCropItem>(decodeOne(R"({"type":"windowBasedCrop","window":42})"));
    EXPECT_EQ(w.window, 42u);
    EXPECT_TRUE(w.shows_cursor);
    EXPECT_EQ(w.colorSpace, OVColorSpace::sRGB);

    // A display id must be an unsigned 32-bit number.
    const auto negative = decodeFailure(R"({"items":[{"type":"display","display":-1}]})");
    EXPECT_EQ(negative.kind(), DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(coding::renderCodingPath(negative.codingPath()), ".schema.items[0].display");
}

TEST(RecorderSchemaDecoding, AppleDevicesHaveOnlyDeviceAndFilename) {
    auto s = std::get<wire::AppleDeviceStaticOrientationItem>(
        decodeOne(R"({"type":"appleDeviceStaticOrientation","device":"udid-1","filename":"phone.mov"})"));
    EXPECT_EQ(s.device, "udid-1");
    EXPECT_EQ(s.filename, "phone.mov");
    auto a = std::get<wire::AppleDeviceItem>(decodeOne(R"({"type":"appleDevice","device":"udid-2","output":"x"})"));
    EXPECT_EQ(a.device, "udid-2");
    EXPECT_FALSE(a.filename);
}

TEST(RecorderSchemaDecoding, AudioItemsDefaultsAndStreams) {
    auto s = std::get<wire::SystemAudioItem>(decodeOne(R"({"type":"systemAudio","mode":"exclude"})"));
    EXPECT_EQ(s.mode, wire::SystemAudioMode::exclude);
    EXPECT_FALSE(s.backend);
    EXPECT_TRUE(s.excludeOptions.empty());
    EXPECT_TRUE(s.excludedProcessIDs.empty());
    EXPECT_FALSE(s.includedApplicationIDs);
    EXPECT_EQ(s.output, wire::AudioOutput::singleFile);
    EXPECT_FALSE(s.streamCallback);

    s = std::get<wire::SystemAudioItem>(decodeOne(
        R"({"type":"systemAudio","mode":"include","backend":"_beta_coreAudio","includedApplicationIDs":[12,-3],
            "output":"stream","streamCallback":"s1"})"));
    EXPECT_EQ(s.mode, wire::SystemAudioMode::include);
    EXPECT_EQ(s.backend, wire::Backend::_beta_coreAudio);
    EXPECT_EQ(s.includedApplicationIDs, (std::vector<ProcessID>{12, -3}));
    EXPECT_EQ(s.output, wire::AudioOutput::stream);
    EXPECT_EQ(s.streamCallback, "s1");

    auto a = std::get<wire::ApplicationAudioItem>(decodeOne(R"({"type":"applicationAudio","applicationID":501})"));
    EXPECT_EQ(a.applicationID, 501);
    EXPECT_FALSE(a.backend);
    EXPECT_EQ(a.output, wire::AudioOutput::singleFile);

    auto m = std::get<wire::MicrophoneItem>(decodeOne(R"({"type":"microphone","microphone":"BuiltIn"})"));
    EXPECT_EQ(m.microphone, "BuiltIn");
    EXPECT_FALSE(m.leftChannelOnly);
    EXPECT_EQ(m.audioDelay, 0);
    EXPECT_EQ(m.output, wire::AudioOutput::singleFile);

    const auto noMode = decodeFailure(R"({"items":[{"type":"systemAudio"}]})");
    EXPECT_EQ(noMode.rendering(), "Key 'mode' not found at .schema.items[0]");
    const auto badBackend =
        decodeFailure(R"({"items":[{"type":"applicationAudio","applicationID":1,"backend":"alsa"}]})");
    EXPECT_EQ(badBackend.kind(), DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(coding::renderCodingPath(badBackend.codingPath()), ".schema.items[0].backend");
    const auto pidTooLarge =
        decodeFailure(R"({"items":[{"type":"applicationAudio","applicationID":2147483648}]})");
    EXPECT_EQ(pidTooLarge.kind(), DecodingError::Kind::dataCorrupted);
}

TEST(RecorderSchemaDecoding, StreamOutputIsNoCaseOfVideoItems) {
    for (const char* item : {R"({"type":"webcam","microphone":"m","camera":"c","output":"stream"})",
                             R"({"type":"display","display":1,"output":"stream"})",
                             R"({"type":"windowBasedCrop","window":1,"output":"stream"})"}) {
        SCOPED_TRACE(item);
        const auto e = decodeFailure(std::string(R"({"items":[)") + item + "]}");
        EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted);
        EXPECT_EQ(coding::renderCodingPath(e.codingPath()), ".schema.items[0].output");
    }
}

TEST(RecorderSchemaDecoding, UnknownTypeNamesItsValueAndPath) {
    const auto e = decodeFailure<UnknownDiscriminator>(
        R"({"items":[{"type":"display","display":1},{"type":"hologram","display":1}]})");
    EXPECT_EQ(e.field(), "type");
    EXPECT_EQ(e.value(), "hologram");
    EXPECT_EQ(e.underlyingError().kind(), DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(e.debugDescription(), "Unknown .type 'hologram' decoded at path: .schema.items[1].type");
    const auto d = platform::describeError(e);
    EXPECT_EQ(d.debugDescription, e.debugDescription());
}

TEST(RecorderSchemaDecoding, AMissingOrNonStringTypeKeepsTheFirstFailure) {
    const auto missing = decodeFailure(R"({"items":[{"display":1}]})");
    EXPECT_EQ(missing.kind(), DecodingError::Kind::keyNotFound);
    EXPECT_EQ(missing.rendering(), "Key 'type' not found at .schema.items[0]");

    const auto number = decodeFailure(R"({"items":[{"type":7}]})");
    EXPECT_EQ(number.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(coding::renderCodingPath(number.codingPath()), ".schema.items[0].type");
    EXPECT_EQ(number.rendering(),
              "Type 'String' mismatch at .schema.items[0].type: Expected to decode String but found a number instead.");

    const auto wrongField = decodeFailure(R"({"items":[{"type":"display","display":"main"}]})");
    EXPECT_EQ(wrongField.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(coding::renderCodingPath(wrongField.codingPath()), ".schema.items[0].display");

    const auto notAnObject = decodeFailure(R"({"items":["display"]})");
    EXPECT_EQ(notAnObject.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(coding::renderCodingPath(notAnObject.codingPath()), ".schema.items[0]");
}

TEST(RecorderSchemaDecoding, AnUnknownTypeAnswers202WithItsTextThroughTheEngine) {
    std::vector<std::string> sent;
    HVRPCTypeRegistration recorderLike{
        "SchemaProbe",
        [](const std::shared_ptr<HalvernRPC>&, const HVRPCParams& params) -> std::shared_ptr<HVRPCObject> {
            decodeParams<RecorderSchema>(params);
            return nullptr;
        },
        [](const std::string&, const HVRPCParams&) -> std::optional<Json> { return std::nullopt; }};
    auto engine = HalvernRPC::create([&](std::string_view line) { sent.emplace_back(line); }, {recorderLike});
    engine->receive(
        R"({"hvrpc":1,"id":"i","procedure":"init","type":"SchemaProbe","target":"r","params":{"items":[{"type":"x"}]}})");
    ASSERT_EQ(sent.size(), 1u);
    const auto response = json::parse(sent[0]);
    EXPECT_EQ(response["status"], 202);
    EXPECT_EQ(response["error"]["name"], "NSError");
    EXPECT_EQ(response["error"]["debugDescription"], "Unknown .type 'x' decoded at path: .params.items[0].type");
}

// ---- into the library's schema -----------------------------------------------------------------

template <class T>
const T& itemAs(const OVRecorderSchema& schema, size_t index) {
    return std::get<T>(schema.items.at(index).internalItem);
}

TEST(RecorderSchemaMapping, ExcludeOptionsDropUnknownWordsAndAddProcessIDs) {
    Context c;
    auto schema = makeSchema(decode(R"({"items":[
        {"type":"systemAudio","mode":"exclude","backend":"screenCaptureKit","excludeOptions":["currentProcess","other"],
         "excludedProcessIDs":[77,12]},
        {"type":"systemAudio","mode":"exclude","backend":"screenCaptureKit","excludeOptions":["other","screenRecordingIndicator"]},
        {"type":"systemAudio","mode":"include","backend":"screenCaptureKit"}]})"),
                             c.make());
    const auto& first = itemAs<SystemAudioSchemaItem>(schema, 0);
    EXPECT_TRUE(first.excludeCurrentProcess);
    ASSERT_TRUE(first.excludedApplicationIDs);
    EXPECT_EQ(*first.excludedApplicationIDs, (std::vector<ProcessID>{12, 77}));
    EXPECT_FALSE(first.includedApplicationIDs);

    const auto& second = itemAs<SystemAudioSchemaItem>(schema, 1);
    EXPECT_FALSE(second.excludeCurrentProcess) << "words other than currentProcess are dropped without a word";
    EXPECT_EQ(second.excludedApplicationIDs, std::vector<ProcessID>{});

    const auto& third = itemAs<SystemAudioSchemaItem>(schema, 2);
    EXPECT_EQ(third.includedApplicationIDs, std::vector<ProcessID>{}) << "include without ids: an empty list";
    EXPECT_FALSE(third.excludedApplicationIDs);
    EXPECT_FALSE(third.excludeCurrentProcess);
}

TEST(RecorderSchemaMapping, BackendSelection) {
    const auto available = [] { return true; };
    const auto unavailable = [] { return false; };
    EXPECT_EQ(resolveBackend(std::nullopt, available), SystemAudioBackend::coreAudio);
    EXPECT_EQ(resolveBackend(std::nullopt, unavailable), SystemAudioBackend::screenCaptureKit);
    EXPECT_EQ(resolveBackend(wire::Backend::screenCaptureKit, available), SystemAudioBackend::screenCaptureKit);
    EXPECT_EQ(resolveBackend(wire::Backend::coreAudio, available), SystemAudioBackend::coreAudio);
    EXPECT_EQ(resolveBackend(wire::Backend::_beta_coreAudio, available), SystemAudioBackend::coreAudio);
    for (auto backend : {wire::Backend::coreAudio, wire::Backend::_beta_coreAudio}) {
        try {
            resolveBackend(backend, unavailable);
            ADD_FAILURE() << "per-application capture without a server must fail";
        } catch (const HVRPCError& e) {
            EXPECT_EQ(e.status(), 202);
            EXPECT_EQ(e.debugDescription(), "Core Audio backend requires macOS 14.2 or later");
        }
    }

    // In a schema, the failure of one item stops the whole conversion.
    Context c;
    c.perApplication = false;
    EXPECT_THROW(makeSchema(decode(R"({"items":[{"type":"display","display":1},
                                               {"type":"applicationAudio","applicationID":1,"backend":"coreAudio"}]})"),
                            c.make()),
                 HVRPCError);
}

TEST(RecorderSchemaMapping, VideoItemsTakeTheWiresFixedArguments) {
    Context c;
    auto schema = makeSchema(decode(R"({"output_directory":"/tmp/out","items":[
        {"type":"display","display":5,"include_audio":true,"mouse_events":true,"videoCodec":"hevc","filename":"ignored",
         "output":"segmented","filenamePrefix":"disp"},
        {"type":"windowBasedCrop","window":9,"shows_cursor":false,"filename":"win.mov","filenamePrefix":"ignored"},
        {"type":"webcam","microphone":"m","camera":"c","preserveActiveCameraConfiguration":true,"audioDelay":0.5}]})"),
                             c.make());
    EXPECT_EQ(schema.outputDirectory, std::filesystem::path("/tmp/out"));
    ASSERT_EQ(schema.items.size(), 3u);

    const auto& display = itemAs<DisplaySchemaItem>(schema, 0);
    EXPECT_EQ(display.displayID, 5u);
    EXPECT_FALSE(display.crop);
    EXPECT_EQ(display.excludeOptions, (std::set<ScreenRecordingExcludeOptions>{
                                          ScreenRecordingExcludeOptions::currentProcess(),
                                          ScreenRecordingExcludeOptions::screenRecordingIndicator()}));
    EXPECT_EQ(display.minimumFrameInterval, FrameInterval::zero());
    EXPECT_FALSE(display.maxVideoDimensions);
    EXPECT_TRUE(display.captureAudio);
    EXPECT_TRUE(display.mouseEvents);
    EXPECT_EQ(display.topWindowInfo.kind, TopWindowInfo::Kind::disabled);
    ASSERT_TRUE(display.inputEventsOutputOptions.asSingleFile());
    EXPECT_FALSE(display.inputEventsOutputOptions.asSingleFile()->filename);
    ASSERT_TRUE(display.outputOptions.asSegmented());
    EXPECT_EQ(display.outputOptions.asSegmented()->filenamePrefix, "disp");
    EXPECT_EQ(display.outputOptions.videoCodec(), OVVideoCodec::hevc);
    EXPECT_FALSE(display.outputOptions.asSegmented()->segmentCallback) << "no segmentCallback key: no callback";

    const auto& window = itemAs<WindowBasedCropSchemaItem>(schema, 1);
    EXPECT_EQ(window.windowID, 9u);
    EXPECT_FALSE(window.showsCursor);
    EXPECT_FALSE(window.captureAudio);
    ASSERT_TRUE(window.outputOptions.asSingleFile());
    EXPECT_EQ(window.outputOptions.asSingleFile()->filename, "win.mov");
    EXPECT_EQ(window.outputOptions.videoCodec(), OVVideoCodec::h264);

    const auto& webcam = itemAs<WebcamSchemaItem>(schema, 2);
    EXPECT_FALSE(webcam.allowCaptureDevicesConfiguration) << "preserve is stored negated";
    EXPECT_EQ(webcam.audioDelay, 0.5);
    EXPECT_FALSE(webcam.maxVideoDimensions);

    EXPECT_NE(schema.items[0].id(), schema.items[1].id());
}

TEST(RecorderSchemaMapping, SegmentCallbacksSendThePercentEncodedPath) {
    Context c;
    auto schema = makeSchema(decode(R"({"items":[
        {"type":"microphone","microphone":"m","output":"segmented","filenamePrefix":"mic","segmentCallback":"seg-1"}]})"),
                             c.make());
    const auto& mic = itemAs<MicrophoneFileSchemaItem>(schema, 0);
    EXPECT_EQ(mic.echoCancellation, EchoCancellation::off);
    ASSERT_TRUE(mic.outputOptions.asSegmented());
    ASSERT_TRUE(mic.outputOptions.asSegmented()->segmentCallback);
    mic.outputOptions.asSegmented()->segmentCallback("/tmp/My Recording/mic 0%.m4s");
    ASSERT_EQ(c.performed.size(), 1u);
    EXPECT_EQ(c.performed[0].first, "seg-1");
    EXPECT_EQ(c.performed[0].second, json({{"path", "/tmp/My%20Recording/mic%200%25.m4s"}}));

    EXPECT_EQ(percentEncodedPath("/a/b-c_d.e~f"), "/a/b-c_d.e~f");
    EXPECT_EQ(percentEncodedPath("/\xC3\xA9t\xC3\xA9?#"), "/%C3%A9t%C3%A9%3F%23");
}

TEST(RecorderSchemaMapping, StreamsWithAndWithoutAHostCallback) {
    Context c;
    std::vector<std::string> sinks;
    auto context = c.make();
    context.audioStreamCallback = [&](const std::string& id) -> PCMBufferCallback {
        sinks.push_back("audio:" + id);
        return [](const platform::AVAudioPCMBuffer&) { return true; };
    };
    context.microphoneStreamCallback = [&](const std::string& id) -> SampleBufferCallback {
        sinks.push_back("mic:" + id);
        return [](const platform::CMSampleBuffer&) { return true; };
    };
    auto schema = makeSchema(decode(R"({"items":[
        {"type":"applicationAudio","applicationID":42,"backend":"screenCaptureKit","output":"stream"},
        {"type":"systemAudio","mode":"include","includedApplicationIDs":[42],"backend":"screenCaptureKit","output":"stream","streamCallback":"a"},
        {"type":"microphone","microphone":"m","leftChannelOnly":true,"output":"stream","streamCallback":"b"},
        {"type":"applicationAudio","applicationID":42,"backend":"screenCaptureKit","filename":"app.m4a"}]})"),
                             context);
    EXPECT_EQ(sinks, (std::vector<std::string>{"audio:a", "mic:b"}));

    // applicationAudio is system audio including that one process; without a
    // callback identifier it records and discards.
    const auto& discarded = itemAs<SystemAudioStreamSchemaItem>(schema, 0);
    EXPECT_EQ(discarded.includedApplicationIDs, std::vector<ProcessID>{42});
    EXPECT_FALSE(discarded.excludedApplicationIDs);
    EXPECT_TRUE(discarded.callback) << "a stream without a host callback still has a sink";

    const auto& microphone = itemAs<MicrophoneStreamSchemaItem>(schema, 2);
    EXPECT_EQ(microphone.audioConfiguration, (AudioStreamConfiguration{32, true, false}));
    EXPECT_EQ(microphone.echoCancellation, EchoCancellation::off);

    const auto& file = itemAs<SystemAudioSchemaItem>(schema, 3);
    EXPECT_EQ(file.includedApplicationIDs, std::vector<ProcessID>{42});
    ASSERT_TRUE(file.outputOptions.asSingleFile());
    EXPECT_EQ(file.outputOptions.asSingleFile()->filename, "app.m4a");
}

TEST(RecorderSchemaDecoding, MicrophoneEchoCancellationIsOptionalAndOffByDefault) {
    auto m = std::get<wire::MicrophoneItem>(decodeOne(R"({"type":"microphone","microphone":"BuiltIn"})"));
    EXPECT_EQ(m.echoCancellation, EchoCancellation::off);
    const std::pair<const char*, EchoCancellation> cases[] = {
        {"off", EchoCancellation::off},          {"online", EchoCancellation::aec3Online},
        {"offline", EchoCancellation::aec3Offline}, {"both", EchoCancellation::aec3Both},
        {"aec3Both", EchoCancellation::aec3Both}};
    for (const auto& [text, mode] : cases) {
        m = std::get<wire::MicrophoneItem>(decodeOne(std::string(R"({"type":"microphone","microphone":"m","echoCancellation":")") +
                                                     text + "\"}"));
        EXPECT_EQ(m.echoCancellation, mode) << text;
    }
    const auto bad = decodeFailure(R"({"items":[{"type":"microphone","microphone":"m","echoCancellation":"loud"}]})");
    EXPECT_EQ(bad.kind(), DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(coding::renderCodingPath(bad.codingPath()), ".schema.items[0].echoCancellation");

    // A file item carries it to the library; a stream item ignores it.
    Context c;
    auto schema = makeSchema(decode(R"({"items":[
        {"type":"microphone","microphone":"m","echoCancellation":"both"},
        {"type":"microphone","microphone":"m","echoCancellation":"both","output":"stream"}]})"),
                             c.make());
    EXPECT_EQ(itemAs<MicrophoneFileSchemaItem>(schema, 0).echoCancellation, EchoCancellation::aec3Both);
    EXPECT_EQ(itemAs<MicrophoneStreamSchemaItem>(schema, 1).echoCancellation, EchoCancellation::off);
}

}  // namespace
}  // namespace ov::host
