// Segments of side files: numbering, index, file form, failures and callbacks.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <fstream>

#include "foundation/ov_error.h"
#include "output/atomic_file_writer.h"
#include "output/segmented_json_writer.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"

namespace ov {
namespace {

using testing::readFile;
using testing::TempDirectory;

struct Recorded {
    std::mutex mutex;
    std::vector<std::string> names;
    std::vector<std::string> indexAtCallback;
};

std::unique_ptr<SegmentedJSONWriter> makeWriter(const TempDirectory& dir, std::shared_ptr<Recorded> recorded,
                                                double interval = 3600) {
    return std::make_unique<SegmentedJSONWriter>(
        dir.path(), "screen.input-events", interval, nullptr,
        [recorded, index = dir / "screen.input-events.index.json"](const std::filesystem::path& url) {
            std::lock_guard lock(recorded->mutex);
            recorded->names.push_back(url.filename().string());
            recorded->indexAtCallback.push_back(readFile(AtomicFileWriter::hotFileFor(index)));
        },
        Logger("Test"), 0600);
}

TEST(SegmentedJSONWriter, OneEventGivesSegmentZeroAndAnIndexOfOne) {
    TempDirectory dir;
    auto recorded = std::make_shared<Recorded>();
    auto writer = makeWriter(dir, recorded);
    writer->write(nlohmann::json{{"b", 1}, {"a", 2}});
    EXPECT_EQ(writer->close(), std::vector<std::filesystem::path>{dir / "screen.input-events.index.json"});
    const auto segment = readFile(dir / "screen.input-events-0000.json");
    EXPECT_EQ(segment, "[\n{\"a\":2,\"b\":1}\n]");  // sorted keys, no line feed after "]"
    EXPECT_EQ(nlohmann::json::parse(readFile(dir / "screen.input-events.index.json")),
              nlohmann::json::array({"screen.input-events-0000.json"}));
    struct stat st {};
    ASSERT_EQ(::stat((dir / "screen.input-events-0000.json").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(SegmentedJSONWriter, NoEventsGiveAnEmptyIndexAndNoSegment) {
    TempDirectory dir;
    auto writer = makeWriter(dir, std::make_shared<Recorded>());
    writer->flushNow();
    writer->close();
    EXPECT_EQ(nlohmann::json::parse(readFile(dir / "screen.input-events.index.json")), nlohmann::json::array());
    EXPECT_FALSE(std::filesystem::exists(dir / "screen.input-events-0000.json"));
}

TEST(SegmentedJSONWriter, QuietIntervalsUseNoNumberAndEachSegmentStartsWithoutAComma) {
    TempDirectory dir;
    auto recorded = std::make_shared<Recorded>();
    auto writer = makeWriter(dir, recorded);
    writer->write(nlohmann::json(1));
    writer->write(nlohmann::json(2));
    writer->flushNow();
    writer->flushNow();  // quiet
    writer->write(nlohmann::json(3));
    writer->close();
    EXPECT_EQ(readFile(dir / "screen.input-events-0000.json"), "[\n1,\n2\n]");
    EXPECT_EQ(readFile(dir / "screen.input-events-0001.json"), "[\n3\n]");
    EXPECT_FALSE(std::filesystem::exists(dir / "screen.input-events-0002.json"));
    // Callbacks come in order, each after its name is in the index.
    EXPECT_TRUE(testing::eventually([&] {
        std::lock_guard lock(recorded->mutex);
        return recorded->names.size() == 2;
    }));
    std::lock_guard lock(recorded->mutex);
    EXPECT_EQ(recorded->names, (std::vector<std::string>{"screen.input-events-0000.json", "screen.input-events-0001.json"}));
    EXPECT_NE(recorded->indexAtCallback[0].find("screen.input-events-0000.json"), std::string::npos);
    EXPECT_NE(recorded->indexAtCallback[1].find("screen.input-events-0001.json"), std::string::npos);
}

TEST(SegmentedJSONWriter, AFailedFlushKeepsItsEventsAndRetriesUnderTheSameName) {
    TempDirectory dir;
    auto writer = makeWriter(dir, std::make_shared<Recorded>());
    writer->write(nlohmann::json("kept"));
    // A file in the way of the segment's target makes the flush fail.
    { std::ofstream(dir / "screen.input-events-0000.json") << "in the way"; }
    EXPECT_THROW(writer->flushNow(), OVError);
    EXPECT_EQ(writer->currentSegmentIndex(), 0);
    std::filesystem::remove(dir / "screen.input-events-0000.json");
    writer->write(nlohmann::json("later"));
    writer->close();
    EXPECT_EQ(readFile(dir / "screen.input-events-0000.json"), "[\n\"kept\",\n\"later\"\n]");
}

TEST(SegmentedJSONWriter, TheTimerFlushesAndClosingWarnsNothing) {
    TempDirectory dir;
    testing::LogCapture capture;
    auto writer = std::make_unique<SegmentedJSONWriter>(dir.path(), "p", 0.05, nullptr, SegmentCallback{},
                                                        capture.logger);
    writer->write(nlohmann::json(1));
    EXPECT_TRUE(testing::eventually([&] { return std::filesystem::exists(dir / "p-0000.json"); }));
    writer->close();
    writer.reset();
    EXPECT_FALSE(capture.contains("Deallocated without closing segmentTask first."));

    TempDirectory other;
    auto abandoned = std::make_unique<SegmentedJSONWriter>(other.path(), "q", 3600, nullptr, SegmentCallback{},
                                                           capture.logger);
    abandoned.reset();
    EXPECT_TRUE(capture.contains("Deallocated without closing segmentTask first."));
}

}  // namespace
}  // namespace ov
