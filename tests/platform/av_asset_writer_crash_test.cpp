// A recording killed mid-way: the movie written so far still opens and holds
// all but its last fragment.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdio>
#include <thread>

#include "support/child_process.h"
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

    FILE* pipe = popen(("ffprobe -v error -show_format -show_streams -of json '" + movie.string() + "'").c_str(), "r");
    std::string out;
    char buffer[4096];
    while (pipe && fgets(buffer, sizeof buffer, pipe)) out += buffer;
    if (pipe) pclose(pipe);
    ASSERT_FALSE(out.empty()) << "ffprobe can't open the killed file";
    auto info = nlohmann::json::parse(out);
    ASSERT_EQ(info["streams"].size(), 2u) << out;
    const double duration = std::stod(info["format"]["duration"].get<std::string>());
    EXPECT_GE(duration, written - 2.0) << out;
    EXPECT_LE(duration, written + 1.0) << out;
}

}  // namespace
}  // namespace ov::testing
