// Framing, commits and failures of StreamingJSONWriter.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "output/streaming_json_writer.h"
#include "foundation/platform_error.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr double kNeverCommits = 3600;  // only construction and close() commit

struct Point {
    int x = 0;
    int y = 0;
};
void to_json(json& j, const Point& p) { j = json{{"y", p.y}, {"x", p.x}}; }

TEST(StreamingJSONWriterTest, AnEmptyWriterLeavesAnEmptyArrayWithoutTrailingLineFeed) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "events.json";
    StreamingJSONWriter writer(url, kNeverCommits, log.logger);
    EXPECT_EQ(readFile(url), "[\n\n]") << "the target is a valid array from the first moment";
    EXPECT_EQ(writer.expectedFileURLs(), std::vector<fs::path>{url});
    EXPECT_EQ(writer.close(), std::vector<fs::path>{url});
    EXPECT_EQ(readFile(url), "[\n\n]");
    EXPECT_EQ(json::parse(readFile(url)), json::array());
    EXPECT_FALSE(fs::exists(dir / "events.json~"));
    EXPECT_FALSE(fs::exists(dir / "events.tmp"));
}

TEST(StreamingJSONWriterTest, ElementsAreSeparatedByACommaThatStartsTheNextOne) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "events.json";
    StreamingJSONWriter writer(url, kNeverCommits, log.logger);
    writer.write(Point{1, 2});
    EXPECT_EQ(readFile(dir / "events.json~"), "[\n{\"x\":1,\"y\":2}\n]")
        << "the hot file holds the element and the footer, no comma before the footer";
    writer.write(json{{"b", 1}, {"a", nullptr}});
    writer.write(json("text"));
    writer.close();
    EXPECT_EQ(readFile(url), "[\n{\"x\":1,\"y\":2},\n{\"a\":null,\"b\":1},\n\"text\"\n]");
    EXPECT_EQ(readFile(url).back(), ']');
}

TEST(StreamingJSONWriterTest, KeysAreSortedWhateverOptionalKeysAnEventHas) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "events.json";
    StreamingJSONWriter writer(url, kNeverCommits, log.logger);
    // Insertion order that a wire type keeps must not leak into the file.
    nlohmann::ordered_json full;
    full["type"] = "click";
    full["time"] = 1.5;
    full["button"] = 1;
    nlohmann::ordered_json partial;
    partial["type"] = "move";
    partial["time"] = 2.0;
    writer.write(json(full));
    writer.write(json(partial));
    writer.close();
    EXPECT_EQ(readFile(url), "[\n{\"button\":1,\"time\":1.5,\"type\":\"click\"},\n{\"time\":2.0,\"type\":\"move\"}\n]");
}

TEST(StreamingJSONWriterTest, WritesPublishOnlyAtCommits) {
    TempDirectory dir;
    LogCapture log;
    const auto slowUrl = dir / "slow.json";
    StreamingJSONWriter slow(slowUrl, kNeverCommits, log.logger);
    slow.write(json{{"n", 0}});
    EXPECT_EQ(readFile(slowUrl), "[\n\n]") << "a write alone does not commit";

    const auto fastUrl = dir / "fast.json";
    StreamingJSONWriter fast(fastUrl, 0.01, log.logger);
    fast.write(json{{"n", 0}});
    EXPECT_TRUE(eventually([&] { return readFile(fastUrl) == "[\n{\"n\":0}\n]"; })) << "the timer commits";
    fast.write(json{{"n", 1}});
    EXPECT_TRUE(eventually([&] { return readFile(fastUrl) == "[\n{\"n\":0},\n{\"n\":1}\n]"; }));

    slow.close();
    fast.close();
    EXPECT_EQ(readFile(slowUrl), "[\n{\"n\":0}\n]");
    EXPECT_TRUE(log.contains("Closing streaming JSON file."));
    EXPECT_TRUE(log.contains("Closed streaming JSON file successfully."));
}

TEST(StreamingJSONWriterTest, AnEventTheEncoderRefusesChangesNothing) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "events.json";
    StreamingJSONWriter writer(url, kNeverCommits, log.logger);
    writer.write(json{{"n", 0}});
    EXPECT_THROW(writer.write(json{{"bad", std::string("\xff\xfe")}}), json::type_error) << "invalid UTF-8";
    EXPECT_EQ(readFile(dir / "events.json~"), "[\n{\"n\":0}\n]");
    writer.write(json{{"n", 1}});
    writer.close();
    EXPECT_EQ(json::parse(readFile(url)), json::parse(R"([{"n":0},{"n":1}])"))
        << "the refused event took neither a place nor a comma";
}

TEST(StreamingJSONWriterTest, WritingAfterCloseFailsWithTheFileSystemsError) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "events.json";
    StreamingJSONWriter writer(url, kNeverCommits, log.logger);
    writer.write(json{{"n", 0}});
    writer.close();
    try {
        writer.write(json{{"n", 1}});
        FAIL() << "a write after close succeeded";
    } catch (const platform::PlatformError& e) {
        EXPECT_EQ(e.domain(), "NSPOSIXErrorDomain");
        EXPECT_EQ(e.code(), EBADF);
    }
    EXPECT_THROW(writer.close(), platform::PlatformError) << "closing twice fails as well";
    EXPECT_EQ(readFile(url), "[\n{\"n\":0}\n]");
    EXPECT_FALSE(fs::exists(dir / "events.json~")) << "nothing was recreated";
}

TEST(StreamingJSONWriterTest, AWriterThatWasNeverClosedBlocksTheNextOne) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "events.json";
    {
        StreamingJSONWriter writer(url, kNeverCommits, log.logger);
        writer.write(json{{"n", 0}});
    }
    auto warning = log.waitFor("Deallocated without closing commitTask first.", std::chrono::milliseconds(0));
    ASSERT_TRUE(warning);
    EXPECT_EQ(warning->level, OVLogLevel::warning);
    EXPECT_EQ(warning->category, "StreamingJSONWriter");
    EXPECT_EQ(readFile(url), "[\n\n]") << "the target stays as last committed";
    EXPECT_EQ(readFile(dir / "events.json~"), "[\n{\"n\":0}\n]") << "as a crash would leave it";

    try {
        StreamingJSONWriter again(url, kNeverCommits, log.logger);
        FAIL() << "a second writer started over a stale hot file";
    } catch (const std::exception& e) {
        EXPECT_EQ(platform::describeError(e).domain, "Orvane.OVError");
        EXPECT_EQ(platform::describeError(e).code, -1706) << "fileOperationFailed";
        EXPECT_EQ(platform::describeError(e).debugDescription,
                  "File already exists at " + (dir / "events.json~").string());
    }
}

TEST(StreamingJSONWriterTest, ATimerCommitThatFailsIsLoggedAndRetried) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "events.json";
    StreamingJSONWriter writer(url, 0.005, log.logger);
    // A non-empty directory in the target's place makes every commit fail.
    fs::remove(url);
    fs::create_directory(url);
    writeFile(url / "blocker", "");
    writer.write(json{{"n", 0}});

    auto failure = log.waitFor("Timer failed to commit streaming JSON to file.");
    ASSERT_TRUE(failure) << "the failure is logged, not thrown";
    EXPECT_EQ(failure->level, OVLogLevel::error);
    ASSERT_TRUE(failure->metadata.count("error"));
    EXPECT_NE(failure->metadata.at("error").find("rename"), std::string::npos) << failure->metadata.at("error");
    EXPECT_FALSE(fs::exists(dir / "events.tmp"));

    writer.write(json{{"n", 1}});
    fs::remove_all(url);
    EXPECT_TRUE(eventually([&] { return readFile(url) == "[\n{\"n\":0},\n{\"n\":1}\n]"; })) << "a later tick succeeds";
    writer.close();
}

TEST(StreamingJSONWriterTest, ACommitThatFailsInCloseLeavesTheHotFile) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "events.json";
    StreamingJSONWriter writer(url, kNeverCommits, log.logger);
    writer.write(json{{"n", 0}});
    fs::remove(url);
    fs::create_directory(url);
    writeFile(url / "blocker", "");
    EXPECT_THROW(writer.close(), platform::PlatformError);
    EXPECT_FALSE(log.contains("Closed streaming JSON file successfully."));
    EXPECT_EQ(readFile(dir / "events.json~"), "[\n{\"n\":0}\n]");
}

}  // namespace
}  // namespace ov::testing
