// Lines, commits and failures of StreamingLogWriter.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "output/streaming_log_writer.h"
#include "foundation/platform_error.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

namespace fs = std::filesystem;

OVLogger::LogMessage message(std::string text, LogMetadata metadata = {}) {
    OVLogger::LogMessage m;
    m.timestamp = std::chrono::system_clock::now();
    m.level = OVLogLevel::info;
    m.category = "Conductor";
    m.message = std::move(text);
    m.metadata = std::move(metadata);
    return m;
}

TEST(StreamingLogWriterTest, EachMessageIsItsDescriptionOnALineWithNoHeaderOrFooter) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "orvane.log";
    StreamingLogWriter writer(url, 3600, log.logger);
    const auto first = message("Begin.", {{"b", "2"}, {"a", "1"}});
    const auto second = message("Middle.");
    const auto third = message("End.");
    writer.write(std::vector<OVLogger::LogMessage>{first, second});
    writer.write(third);
    writer.close();
    EXPECT_EQ(readFile(url), first.description() + "\n" + second.description() + "\n" + third.description() + "\n");
    EXPECT_NE(readFile(url).find("[Conductor] Begin. a=1 b=2\n"), std::string::npos);
    EXPECT_FALSE(fs::exists(dir / "orvane.log~"));
    EXPECT_TRUE(log.contains("Closing streaming Log file."));
    EXPECT_TRUE(log.contains("Closed streaming Log file successfully."));
}

TEST(StreamingLogWriterTest, TheTimerPublishesAnEmptyFileAndThenEachNewLine) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "orvane.log";
    StreamingLogWriter writer(url, 0.01, log.logger);
    EXPECT_TRUE(eventually([&] { return fs::exists(url); })) << "the first tick commits even with nothing written";
    EXPECT_EQ(readFile(url), "");
    const auto line = message("Started.");
    writer.write(line);
    EXPECT_TRUE(eventually([&] { return readFile(url) == line.description() + "\n"; }));
    writer.close();
}

TEST(StreamingLogWriterTest, WritingAfterCloseFailsAndTheTargetStays) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "orvane.log";
    StreamingLogWriter writer(url, 3600, log.logger);
    const auto line = message("Only line.");
    writer.write(line);
    writer.close();
    try {
        writer.write(message("Late."));
        FAIL() << "a write after close succeeded";
    } catch (const platform::PlatformError& e) {
        EXPECT_EQ(e.code(), EBADF);
    }
    EXPECT_EQ(readFile(url), line.description() + "\n");
}

TEST(StreamingLogWriterTest, ATimerCommitThatFailsIsLoggedAndRetried) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "orvane.log";
    // A non-empty directory in the target's place, made well before the
    // first tick, makes every commit fail.
    StreamingLogWriter writer(url, 0.05, log.logger);
    fs::create_directory(url);
    writeFile(url / "blocker", "");
    auto failure = log.waitFor("Timer failed to commit streaming Log to file.");
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->level, OVLogLevel::error);
    EXPECT_EQ(failure->category, "StreamingLogWriter");
    EXPECT_TRUE(failure->metadata.count("error"));

    const auto line = message("After the failure.");
    writer.write(line);
    fs::remove_all(url);
    EXPECT_TRUE(eventually([&] { return readFile(url) == line.description() + "\n"; }));
    writer.close();
}

TEST(StreamingLogWriterTest, DestroyingAnOpenWriterWarnsAndKeepsTheHotFile) {
    TempDirectory dir;
    LogCapture log;
    const auto url = dir / "orvane.log";
    { StreamingLogWriter writer(url, 3600, log.logger); }
    auto warning = log.waitFor("Deallocated without closing commitTask first.", std::chrono::milliseconds(0));
    ASSERT_TRUE(warning);
    EXPECT_EQ(warning->level, OVLogLevel::warning);
    EXPECT_TRUE(fs::exists(dir / "orvane.log~"));
    try {
        StreamingLogWriter again(url, 3600, log.logger);
        FAIL() << "a second writer started over a stale hot file";
    } catch (const std::exception& e) {
        EXPECT_EQ(platform::describeError(e).code, -1706);
    }
}

}  // namespace
}  // namespace ov::testing
