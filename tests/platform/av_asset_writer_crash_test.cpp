// A recording killed mid-way: the movie written so far still opens and holds
// all but its last fragment.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdio>
#include <thread>

#include "support/child_process.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

TEST(AVAssetWriterCrash, AKilledRecordingLeavesAPlayableFileShortOfAtMostTwoSeconds) {
    TempDirectory dir;
    const auto movie = dir / "killed.mov";
    ChildProcess child(ORVANE_TEST_HELPER_PATH, {"write-movie", movie.string()});
    ASSERT_EQ(child.readLine().value_or(""), "started") << child.stderrText();
    double written = 0;
    while (written < 3.0) {
        auto line = child.readLine();
        ASSERT_TRUE(line) << child.stderrText();
        std::sscanf(line->c_str(), "written %lf", &written);
    }
    child.kill(SIGKILL);
    child.waitForExit();

    auto info = probeMedia(movie);
    ASSERT_TRUE(info.is_object()) << "ffprobe can't open the killed file";
    ASSERT_EQ(info["streams"].size(), 2u) << info.dump();
    const double duration = std::stod(info["format"]["duration"].get<std::string>());
    EXPECT_GE(duration, written - 2.0) << info.dump();
    EXPECT_LE(duration, written + 1.0) << info.dump();
}

}  // namespace
}  // namespace ov::testing
