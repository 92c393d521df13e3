// Single-file writer sets: the container by extension and the file lists.

#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <vector>

#include "output/output_asset_writers.h"
#include "foundation/ov_error.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

namespace fs = std::filesystem;
using platform::AVFileType;

TEST(OutputAssetWritersTest, ChoosesTheContainerByTheExactExtension) {
    struct Case {
        const char* name;
        AVFileType type;
        const char* warning;
    };
    const Case cases[] = {
        {"a.mp4", platform::AVFileTypeMPEG4, nullptr},
        {"a.mov", platform::AVFileTypeQuickTimeMovie, nullptr},
        {"a.m4a", platform::AVFileTypeAppleM4A, nullptr},
        {"a.b.m4a", platform::AVFileTypeAppleM4A, nullptr},
        {"a.MP4", platform::AVFileTypeQuickTimeMovie, "Unknown file extension MP4, defaulting to .mov for AVAssetWriter"},
        {"a.Mov", platform::AVFileTypeQuickTimeMovie, "Unknown file extension Mov, defaulting to .mov for AVAssetWriter"},
        {"noextension", platform::AVFileTypeQuickTimeMovie, "Unknown file extension , defaulting to .mov for AVAssetWriter"},
        {"a.webm", platform::AVFileTypeQuickTimeMovie, "Unknown file extension webm, defaulting to .mov for AVAssetWriter"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(fileTypeForURL(fs::path("/bundle") / c.name, log.logger), c.type) << c.name;
        if (c.warning) {
            auto line = log.single();
            ASSERT_TRUE(line) << c.name;
            EXPECT_EQ(line->level, OVLogLevel::warning);
            EXPECT_EQ(line->message, c.warning);
        } else {
            EXPECT_TRUE(log.lines().empty()) << c.name;
        }
    }
}

TEST(OutputAssetWritersTest, ASingleFileSharesOneWriterAndListsItsURL) {
    TempDirectory dir;
    LogCapture log;
    SingleFileOutputAssetWriters writers(dir / "screen.mov", log.logger);
    EXPECT_EQ(writers.audioAssetWriter(), writers.videoAssetWriter());
    EXPECT_EQ(writers.sharedAssetWriter(), writers.videoAssetWriter());
    EXPECT_EQ(writers.expectedFileURLs(), std::vector<fs::path>{dir / "screen.mov"});
    EXPECT_EQ(fs::path(writers.sharedAssetWriter()->outputPath()), dir / "screen.mov");
}

TEST(OutputAssetWritersTest, ASegmentedSetExpectsOnlyItsMasterPlaylist) {
    TempDirectory dir;
    LogCapture log;
    MultipleStreamsOutputAssetWriters writers(dir.path(), "rec", {}, 2, 6, MasterPlaylist{}, log.logger);
    EXPECT_EQ(writers.expectedFileURLs(), std::vector<fs::path>{dir / "rec.m3u8"});
    EXPECT_EQ(writers.masterPlaylistURL(), dir / "rec.m3u8");
    EXPECT_EQ(writers.audioSegmentWriter()->segmentedAssetWriterDelegate()->filenamePrefix(), "rec-audio");
    EXPECT_EQ(writers.videoSegmentWriter()->segmentedAssetWriterDelegate()->filenamePrefix(), "rec-video");
    EXPECT_EQ(writers.audioAssetWriter(), writers.audioSegmentWriter()->assetWriter());
    EXPECT_EQ(writers.videoAssetWriter(), writers.videoSegmentWriter()->assetWriter());
    EXPECT_EQ(writers.audioAssetWriter()->preferredOutputSegmentInterval(), platform::CMTime(2, 1));
    EXPECT_EQ(writers.videoAssetWriter()->preferredOutputSegmentInterval(), platform::CMTime(6, 1));
}

std::shared_ptr<const std::vector<uint8_t>> segmentBytes(size_t count) {
    return std::make_shared<const std::vector<uint8_t>>(count, uint8_t{0x2a});
}

platform::AVAssetSegmentReport audioReport(platform::CMTime earliest, platform::CMTime duration) {
    platform::AVAssetSegmentReport report;
    report.trackReports.push_back({platform::AVMediaType::audio, earliest, duration});
    return report;
}

// Plays the writer's part for the audio stream: an initialization segment and
// two media segments through the writer's own delegate adapter.
void feedAudioSegments(MultipleStreamsOutputAssetWriters& writers) {
    auto& writer = *writers.audioAssetWriter();
    auto delegate = writer.delegate();
    ASSERT_TRUE(delegate) << "the adapter is the writer's delegate";
    delegate->didOutputSegmentData(writer, segmentBytes(100), platform::AVAssetSegmentType::initialization, nullptr);
    const auto r1 = audioReport(platform::CMTime(0, 48000), platform::CMTime(96000, 48000));
    delegate->didOutputSegmentData(writer, segmentBytes(4000), platform::AVAssetSegmentType::separable, &r1);
    const auto r2 = audioReport(platform::CMTime(96000, 48000), platform::CMTime(24000, 48000));
    delegate->didOutputSegmentData(writer, segmentBytes(1500), platform::AVAssetSegmentType::separable, &r2);
}

TEST(OutputAssetWritersTest, AnAudioOnlySegmentedRecordingHasAnAudioOnlyMasterPlaylist) {
    TempDirectory dir;
    LogCapture log;
    std::mutex mutex;
    std::vector<fs::path> announced;
    MasterPlaylist values;
    values.audioChannelsCount = 1;
    values.audioTrackName = "Microphone";
    values.audioCodecName = "mp4a.40.2";
    values.videoCodecName = "avc1.42e00a";
    values.videoResolution = MasterPlaylist::Resolution{640, 480};
    MultipleStreamsOutputAssetWriters writers(
        dir.path(), "mic",
        [&](const fs::path& url) {
            std::lock_guard lock(mutex);
            announced.push_back(url);
        },
        2, 6, values, log.logger);
    writers.startWriting();
    feedAudioSegments(writers);

    EXPECT_EQ(writers.finishWriting(), std::vector<fs::path>{dir / "mic.m3u8"});
    // 1500 bytes over 0.5 s is the peak: 3000 B/s, 24000 b/s.
    EXPECT_EQ(readFile(dir / "mic.m3u8"),
              "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-STREAM-INF:BANDWIDTH=24000,CODECS=\"mp4a.40.2\"\nmic-audio.m3u8");
    EXPECT_EQ(readFile(dir / "mic-audio.m3u8"),
              "#EXTM3U\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-TARGETDURATION:2\n#EXT-X-VERSION:6\n"
              "#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-MAP:URI=\"mic-audio-0000.mp4\"\n"
              "#EXTINF:2.00000,\nmic-audio-0001.m4s\n#EXTINF:0.50000,\nmic-audio-0002.m4s\n#EXT-X-ENDLIST");
    EXPECT_FALSE(fs::exists(dir / "mic-video.m3u8"));
    EXPECT_TRUE(eventually([&] {
        std::lock_guard lock(mutex);
        return announced.size() == 3;
    }));
    std::lock_guard lock(mutex);
    EXPECT_EQ(announced.front(), dir / "mic-audio-0000.mp4");
}

TEST(OutputAssetWritersTest, AMasterPlaylistFailureComesAfterBothPlaylistsAreClosed) {
    TempDirectory dir;
    LogCapture log;
    MultipleStreamsOutputAssetWriters writers(dir.path(), "mic", {}, 2, 6, MasterPlaylist{}, log.logger);
    writers.startWriting();
    feedAudioSegments(writers);
    try {
        writers.finishWriting();
        FAIL() << "the audio codec is missing";
    } catch (const OVError& e) {
        EXPECT_EQ(e.debugDescription(), "Missing required fields for audio");
    }
    EXPECT_FALSE(fs::exists(dir / "mic.m3u8"));
    EXPECT_NE(readFile(dir / "mic-audio.m3u8").find("mic-audio-0002.m4s\n#EXT-X-ENDLIST"), std::string::npos);
    EXPECT_FALSE(fs::exists(dir / "mic-audio.m3u8~"));
}

TEST(OutputAssetWritersTest, ASegmentedSetWithoutSegmentsWritesTheBareMasterPlaylist) {
    TempDirectory dir;
    LogCapture log;
    MultipleStreamsOutputAssetWriters writers(dir.path(), "rec", {}, 2, 6, MasterPlaylist{}, log.logger);
    writers.startWriting();
    EXPECT_EQ(writers.finishWriting(), std::vector<fs::path>{dir / "rec.m3u8"});
    EXPECT_EQ(readFile(dir / "rec.m3u8"), "#EXTM3U\n#EXT-X-VERSION:6");
}

}  // namespace
}  // namespace ov::testing
