// Segmented output killed mid-recording: every published playlist is whole and
// lists only segments that are on disk, complete.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <regex>

#include "support/child_process.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

TEST(SegmentedOutputCrash, PublishedPlaylistsListOnlyCompleteSegments) {
    TempDirectory dir;
    ChildProcess child(ORVANE_TEST_HELPER_PATH, {"write-segments", dir.path().string()});
    int announced = 0;
    // Two init segments and enough media segments that each playlist has
    // published at least one entry (the newest waits for its successor).
    while (announced < 10) {
        auto line = child.readLine();
        ASSERT_TRUE(line) << child.stderrText();
        if (line->rfind("segment ", 0) == 0) ++announced;
    }
    child.kill(SIGKILL);
    child.waitForExit();

    for (const char* playlist : {"rec-audio.m3u8", "rec-video.m3u8"}) {
        const auto text = readFile(dir / playlist);
        ASSERT_FALSE(text.empty()) << playlist;
        EXPECT_TRUE(text.ends_with("#EXT-X-ENDLIST")) << text;
        std::smatch m;
        int listed = 0;
        for (auto it = text.cbegin(); std::regex_search(it, text.cend(), m, std::regex("#EXTINF:[0-9.]+,\n([^\n]+)\n"));
             it = m.suffix().first) {
            ++listed;
            const auto segment = dir / m[1].str();
            ASSERT_TRUE(std::filesystem::exists(segment)) << m[1];
            // A listed segment is whole: ffprobe reads it behind its init segment.
            const auto joined = dir / "joined.mp4";
            {
                std::ofstream out(joined, std::ios::binary);
                out << readFile(dir / (std::string(playlist).substr(0, std::string(playlist).size() - 5) + "-0000.mp4"))
                    << readFile(segment);
            }
            const int status = std::system(("ffprobe -v error -show_packets '" + joined.string() + "' >/dev/null 2>&1").c_str());
            EXPECT_EQ(status, 0) << m[1];
        }
        EXPECT_GE(listed, 1) << text;
    }
}

}  // namespace
}  // namespace ov::testing
