// The user's preferred sources in the user defaults.
#include "sources/ov_user_preferred.h"

#include <gtest/gtest.h>

#include <fstream>

#include "platform/synthetic/synthetic_capture_platform.h"
#include "session/ov_recorder.h"
#include "support/temp_directory.h"

namespace ov {
namespace {

using testing::TempDirectory;

class PreferredTest : public ::testing::Test {
protected:
    TempDirectory temp;
    UserDefaults defaults{temp / "config" / "defaults.json"};
    OVUserPreferred preferred{defaults};
};

TEST_F(PreferredTest, AnIdUsedTwiceStandsOnceAtTheHeadAndTheListKeepsFive) {
    preferred.updateMicrophone("a");
    preferred.updateMicrophone("a");
    EXPECT_EQ(preferred.microphoneIDs(), (std::vector<std::string>{"a"}));

    for (const char* id : {"b", "c", "d", "e"}) preferred.updateMicrophone(id);
    EXPECT_EQ(preferred.microphoneIDs(), (std::vector<std::string>{"e", "d", "c", "b", "a"}));
    preferred.updateMicrophone("f");
    EXPECT_EQ(preferred.microphoneIDs(), (std::vector<std::string>{"f", "e", "d", "c", "b"}));
    preferred.updateMicrophone("c");
    EXPECT_EQ(preferred.microphoneIDs(), (std::vector<std::string>{"c", "f", "e", "d", "b"}));

    preferred.updateDisplay(4000000000u);
    preferred.updateDisplay(7);
    EXPECT_EQ(preferred.displayIDs(), (std::vector<uint32_t>{7, 4000000000u}));
    EXPECT_TRUE(preferred.cameraIDs().empty());
}

TEST_F(PreferredTest, AListOfTheWrongTypeReadsEmptyAndIsReplacedByTheNextUpdate) {
    defaults.setObject(nlohmann::json::array({"x", 3}), OVUserPreferred::camerasKey);
    defaults.setObject(nlohmann::json::array({"12"}), OVUserPreferred::displaysKey);
    defaults.setObject("not a list", OVUserPreferred::microphonesKey);
    EXPECT_TRUE(preferred.cameraIDs().empty());
    EXPECT_TRUE(preferred.displayIDs().empty());
    EXPECT_TRUE(preferred.microphoneIDs().empty());
    // Reading changed nothing.
    EXPECT_EQ(*defaults.object(OVUserPreferred::camerasKey), nlohmann::json::array({"x", 3}));

    preferred.updateCamera("cam");
    EXPECT_EQ(*defaults.object(OVUserPreferred::camerasKey), nlohmann::json::array({"cam"}));
}

TEST_F(PreferredTest, TheLastItemOfAKindInASchemaEndsAtTheHead) {
    std::vector<std::string> triggered;
    OVUserPreferred::setTriggerUpdate(OVUserPreferred::Kind::microphone, [&] { triggered.push_back("microphone"); });
    OVRecorderSchema schema;
    schema.items.push_back(OVRecorderSchemaItem::microphone("first", false, 0, EchoCancellation::off, std::optional<std::string>()));
    schema.items.push_back(OVRecorderSchemaItem::webcam("webcam-mic", "cam", std::nullopt, false, false, 0, std::optional<std::string>()));
    schema.items.push_back(OVRecorderSchemaItem::microphone("second", false, 0, EchoCancellation::off, std::optional<std::string>()));
    preferred.updateFromSchema(schema);
    OVUserPreferred::setTriggerUpdate(OVUserPreferred::Kind::microphone, nullptr);

    EXPECT_EQ(preferred.microphoneIDs(), (std::vector<std::string>{"second", "webcam-mic", "first"}));
    EXPECT_EQ(preferred.cameraIDs(), (std::vector<std::string>{"cam"}));
    EXPECT_EQ(triggered.size(), 3u) << "each update asks the microphone discovery to update";
}

TEST_F(PreferredTest, AnUnreadableFileReadsEmptyAndIsReplacedWhole) {
    std::filesystem::create_directories(defaults.path().parent_path());
    std::ofstream(defaults.path()) << "{ torn";
    EXPECT_TRUE(preferred.microphoneIDs().empty());
    preferred.updateMicrophone("m");
    EXPECT_EQ(preferred.microphoneIDs(), (std::vector<std::string>{"m"}));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(defaults.path().parent_path()),
                            std::filesystem::directory_iterator{}),
              1)
        << "no staging file is left beside the store";
}

TEST(PreferredFromRecordings, AStartedRecordingPutsItsMicrophoneFirstUnlessTheSettingsSayNo) {
    using platform::CapturePlatform;
    using platform::SyntheticCapturePlatform;
    CapturePlatform::ScopedOverride installed(
        std::make_shared<SyntheticCapturePlatform>(platform::SyntheticWorld::makeDefault()));
    TempDirectory temp;
    UserDefaults::standard().removeObject(OVUserPreferred::microphonesKey);
    const auto record = [&](const std::string& bundle, bool updatesUserPreferred) {
        OVRecorderSettings settings;
        settings.updatesUserPreferred = updatesUserPreferred;
        OVRecorder recorder({OVRecorderSchemaItem::microphone("synthetic-microphone", false, 0, EchoCancellation::off,
                                                              std::optional<std::string>())},
                            temp / bundle, settings);
        recorder.start();
        recorder.stop();
    };

    record("a.orvane", false);
    EXPECT_FALSE(UserDefaults::standard().object(OVUserPreferred::microphonesKey)) << "the store stays as it was";
    record("b.orvane", true);
    EXPECT_EQ(OVUserPreferred::shared().microphoneIDs(), (std::vector<std::string>{"synthetic-microphone"}));
}

}  // namespace
}  // namespace ov
