// The media playlist as it is published after each step, and its peak rate.

#include <gtest/gtest.h>

#include <filesystem>

#include "output/media_playlist_writer.h"
#include "platform/cm_time.h"
#include "foundation/platform_error.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

namespace fs = std::filesystem;
using platform::CMTime;

const std::string header =
    "#EXTM3U\n"
    "#EXT-X-PLAYLIST-TYPE:VOD\n"
    "#EXT-X-TARGETDURATION:6\n"
    "#EXT-X-VERSION:6\n"
    "#EXT-X-MEDIA-SEQUENCE:1\n"
    "#EXT-X-INDEPENDENT-SEGMENTS\n"
    "#EXT-X-MAP:URI=\"rec-video-0000.mp4\"\n";

MediaPlaylistWriter::Segment segment(const std::string& name, CMTime earliest, CMTime duration, int64_t bytes) {
    return {name, earliest, duration, bytes, std::nullopt};
}

TEST(MediaPlaylistWriterTest, PublishesEachSegmentAtOnceAndSettlesItWhenItsSuccessorArrives) {
    TempDirectory dir;
    const auto url = dir / "rec-video.m3u8";
    MediaPlaylistWriter writer(url);
    EXPECT_EQ(writer.url(), url);
    writer.writeInitializationSegment("rec-video-0000.mp4", 6);
    EXPECT_EQ(readFile(url), header) << "the header alone is published";
    EXPECT_EQ(readFile(dir / "rec-video.m3u8~"), header + "#EXT-X-ENDLIST") << "the end tag waits in the hot file";

    // The reported durations (6 s) differ from the distances between starts
    // (5.5 s, then 6.25 s), as an encoder's cut points do.
    writer.writeSegment(segment("rec-video-0001.m4s", CMTime(0, 600), CMTime(3600, 600), 1000));
    EXPECT_EQ(readFile(url), header + "#EXTINF:6.00000,\nrec-video-0001.m4s\n#EXT-X-ENDLIST")
        << "the first segment is published at once, with its reported duration";

    writer.writeSegment(segment("rec-video-0002.m4s", CMTime(5500, 1000), CMTime(6, 1), 2000));
    const std::string first = "#EXTINF:5.50000,\nrec-video-0001.m4s\n";
    EXPECT_EQ(readFile(url), header + first + "#EXTINF:6.00000,\nrec-video-0002.m4s\n#EXT-X-ENDLIST")
        << "the first settles at the distance to the second; the second is provisional";

    writer.writeSegment(segment("rec-video-0003.m4s", CMTime(11750, 1000), CMTime(6, 1), 3000));
    const std::string second = "#EXTINF:6.25000,\nrec-video-0002.m4s\n";
    EXPECT_EQ(readFile(url), header + first + second + "#EXTINF:6.00000,\nrec-video-0003.m4s\n#EXT-X-ENDLIST")
        << "the same segment showed 6 s first and 6.25 s afterwards";

    writer.close();
    EXPECT_EQ(readFile(url), header + first + second + "#EXTINF:6.00000,\nrec-video-0003.m4s\n#EXT-X-ENDLIST")
        << "close brings in the last with its reported duration";
    EXPECT_FALSE(fs::exists(dir / "rec-video.m3u8~")) << "the working file goes with close";
    EXPECT_FALSE(fs::exists(dir / "rec-video.tmp"));
}

TEST(MediaPlaylistWriterTest, ClosingBeforeAnySegmentPublishesTheHeaderAndTheEndTag) {
    TempDirectory dir;
    MediaPlaylistWriter writer(dir / "rec-audio.m3u8");
    writer.writeInitializationSegment("rec-audio-0000.mp4", 2);
    writer.close();
    EXPECT_EQ(readFile(dir / "rec-audio.m3u8"),
              "#EXTM3U\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-TARGETDURATION:2\n#EXT-X-VERSION:6\n"
              "#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-MAP:URI=\"rec-audio-0000.mp4\"\n"
              "#EXT-X-ENDLIST");
}

TEST(MediaPlaylistWriterTest, ASingleSegmentIsListedAtOnceAndStaysListedAtClose) {
    TempDirectory dir;
    MediaPlaylistWriter writer(dir / "rec-video.m3u8");
    writer.writeInitializationSegment("rec-video-0000.mp4", 6);
    writer.writeSegment(segment("rec-video-0001.m4s", CMTime(0, 1), CMTime(1001, 3000), 10));
    EXPECT_EQ(readFile(dir / "rec-video.m3u8"), header + "#EXTINF:0.33367,\nrec-video-0001.m4s\n#EXT-X-ENDLIST")
        << "a killed recording keeps it";
    writer.close();
    EXPECT_EQ(readFile(dir / "rec-video.m3u8"), header + "#EXTINF:0.33367,\nrec-video-0001.m4s\n#EXT-X-ENDLIST");
}

TEST(MediaPlaylistWriterTest, EntryLinesCarryTheTitleAndMeasureAcrossTimescales) {
    auto s = segment("a.m4s", CMTime(1, 3), CMTime(2, 1), 0);
    EXPECT_EQ(s.lines(std::nullopt), "#EXTINF:2.00000,\na.m4s\n");
    EXPECT_EQ(s.lines(CMTime(1, 1)), "#EXTINF:0.66667,\na.m4s\n");
    s.title = "Intro";
    EXPECT_EQ(s.lines(CMTime(1, 3)), "#EXTINF:0.00000,Intro\na.m4s\n");
}

TEST(MediaPlaylistWriterTest, PeakRateIsTheLargestTruncatedPerSegmentRate) {
    TempDirectory dir;
    MediaPlaylistWriter writer(dir / "p.m3u8");
    writer.writeInitializationSegment("p-0000.mp4", 1);
    EXPECT_EQ(writer.peakBytesPerSecond(), 0) << "no segments";
    // A zero-length segment counts 0, not infinity.
    writer.writeSegment(segment("p-0001.m4s", CMTime(0, 1), platform::kCMTimeZero, 5000));
    EXPECT_EQ(writer.peakBytesPerSecond(), 0);
    writer.writeSegment(segment("p-0002.m4s", CMTime(0, 1), CMTime(3, 1), 1000));  // 333.33
    EXPECT_EQ(writer.peakBytesPerSecond(), 333);
    writer.writeSegment(segment("p-0003.m4s", CMTime(3, 1), CMTime(1, 2), 300));  // 600
    writer.writeSegment(segment("p-0004.m4s", CMTime(4, 1), CMTime(2, 1), 1000));  // 500
    EXPECT_EQ(writer.peakBytesPerSecond(), 600);
    writer.close();
    EXPECT_EQ(writer.peakBytesPerSecond(), 600) << "still readable after close";
}

TEST(MediaPlaylistWriterTest, RefusesAPlaylistThatExistsAlready) {
    TempDirectory dir;
    MediaPlaylistWriter first(dir / "x.m3u8");
    first.writeInitializationSegment("x-0000.mp4", 1);
    try {
        MediaPlaylistWriter second(dir / "x.m3u8");
        FAIL() << "a second writer for the same playlist must fail";
    } catch (const std::exception& e) {
        EXPECT_EQ(platform::describeError(e).code, -1706);
    }
    // The first writer is unharmed.
    first.writeSegment(segment("x-0001.m4s", CMTime(0, 1), CMTime(1, 1), 1));
    first.close();
    EXPECT_NE(readFile(dir / "x.m3u8").find("x-0001.m4s\n#EXT-X-ENDLIST"), std::string::npos);
}

}  // namespace
}  // namespace ov::testing
