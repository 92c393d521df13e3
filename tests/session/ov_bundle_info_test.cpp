// The bundle description: its JSON on the wire and in "orvane.json".

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "session/ov_bundle_info.h"
#include "support/temp_directory.h"

namespace ov {
namespace {

using Type = OVBundleInfo::FileAssetType;

std::string readFile(const std::filesystem::path& p) {
    std::ifstream in(p);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

OVBundleInfo oneScreen() {
    OVBundleInfo info;
    OVBundleInfo::FileAsset screen;
    screen.type = Type::screen;
    screen.filename = "display-abc12.mov";
    screen.recordingSize = OVBundleInfo::Size{1440, 900};
    screen.recordingScale = 2;
    screen.videoDimensions = OVBundleInfo::Size{2880, 1800};
    info.files.push_back(screen);
    info.duration = 12.5;
    return info;
}

TEST(OVBundleInfo, BundleFileSortsKeysAtEveryLevel) {
    const std::string text = oneScreen().bundleFileText();
    EXPECT_LT(text.find("\"duration\""), text.find("\"files\""));
    EXPECT_LT(text.find("\"files\""), text.find("\"version\""));
    EXPECT_LT(text.find("\"filename\""), text.find("\"recordingScale\""));
    EXPECT_LT(text.find("\"recordingSize\""), text.find("\"type\""));
    EXPECT_LT(text.find("\"type\""), text.find("\"videoDimensions\""));
    EXPECT_NE(text.find('\n'), std::string::npos) << "pretty printed";
    auto parsed = nlohmann::json::parse(text);
    EXPECT_EQ(parsed["version"], 1);
    EXPECT_EQ(parsed["files"][0]["type"], "screen");
}

TEST(OVBundleInfo, WireFormKeepsFieldOrderAndOmitsAbsentOptionals) {
    OVBundleInfo info;
    info.files.push_back({Type::audio, "microphone-x.m4a", std::nullopt, std::nullopt, std::nullopt, std::nullopt});
    info.files.push_back({Type::mouse, "m.json", std::vector<std::string>{}, std::nullopt, std::nullopt, std::nullopt});
    EXPECT_EQ(coding::encodeLine(info.toJSON()),
              R"({"version":1,"files":[{"type":"audio","filename":"microphone-x.m4a"},)"
              R"({"type":"mouse","filename":"m.json","related":[]}],"duration":0.0})");
}

TEST(OVBundleInfo, RoundTripsAndRejectsUnknownTypes) {
    const auto info = oneScreen();
    EXPECT_EQ(OVBundleInfo::fromJSON(info.toJSON()), info);
    auto bad = info.toJSON();
    bad["files"][0]["type"] = "hologram";
    try {
        OVBundleInfo::fromJSON(bad);
        FAIL() << "unknown asset type decoded";
    } catch (const coding::DecodingError& e) {
        EXPECT_EQ(e.kind(), coding::DecodingError::Kind::dataCorrupted);
        EXPECT_EQ(coding::renderCodingPath(e.codingPath()), ".files[0].type");
    }
    auto missing = info.toJSON();
    missing.erase("duration");
    EXPECT_THROW(OVBundleInfo::fromJSON(missing), coding::DecodingError);
}

TEST(OVBundleInfo, NonFiniteNumbersBecomeStringsInTheFile) {
    testing::TempDirectory dir;
    OVBundleInfo info = oneScreen();
    info.duration = INFINITY;
    info.files[0].recordingScale = std::nan("");
    OVRecorderResult result{dir.path(), std::make_shared<OVBundleInfo>(info)};
    ASSERT_NO_THROW(writeBundleDescription(result));
    auto parsed = nlohmann::json::parse(readFile(dir.path() / "orvane.json"));
    EXPECT_EQ(parsed["duration"], "+infinity");
    EXPECT_EQ(parsed["files"][0]["recordingScale"], "NaN");
    info.duration = -INFINITY;
    EXPECT_EQ(nlohmann::json::parse(info.bundleFileText())["duration"], "-infinity");
}

TEST(OVBundleInfo, WritingReplacesTheFileWholeAndFailsOnAMissingBundle) {
    testing::TempDirectory dir;
    OVRecorderResult result{dir.path(), std::make_shared<OVBundleInfo>(oneScreen())};
    writeBundleDescription(result);
    result.bundleInfo = std::make_shared<OVBundleInfo>(OVBundleInfo::empty());
    writeBundleDescription(result);
    auto parsed = nlohmann::json::parse(readFile(dir.path() / "orvane.json"));
    EXPECT_TRUE(parsed["files"].empty());
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "orvane.json.writing"));
    size_t entries = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.path())) ++entries;
    EXPECT_EQ(entries, 1u);

    OVRecorderResult gone{dir.path() / "missing", result.bundleInfo};
    EXPECT_THROW(writeBundleDescription(gone), std::exception);
}

}  // namespace
}  // namespace ov
