// The segment delegate driven directly with made-up segments and reports: the
// files it stores, the playlist it keeps, the callbacks and every logged case.

#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <vector>

#include "output/segmented_asset_writer.h"
#include "output/segmented_asset_writer_delegate.h"
#include "foundation/ov_error.h"
#include "foundation/platform_error.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

namespace fs = std::filesystem;
using platform::AVAssetSegmentReport;
using platform::AVAssetSegmentType;
using platform::CMTime;

OVBoxedSegmentData bytes(const std::string& text) {
    return OVBoxedSegmentData(std::make_shared<const std::vector<uint8_t>>(text.begin(), text.end()));
}

AVAssetSegmentReport reportOf(CMTime earliest, CMTime duration, size_t trackCount = 1) {
    AVAssetSegmentReport report;
    for (size_t i = 0; i < trackCount; ++i) {
        platform::AVAssetSegmentTrackReport track;
        track.earliestPresentationTimeStamp = earliest;
        track.duration = duration;
        report.trackReports.push_back(track);
    }
    return report;
}

struct SegmentFixture {
    TempDirectory dir;
    LogCapture log;
    std::shared_ptr<platform::DispatchQueue> callbackQueue =
        std::make_shared<platform::DispatchQueue>("MultipleStreamsOutputAssetWriterQueue");
    std::mutex mutex;
    std::vector<fs::path> announced;
    SegmentedAssetWriter writer{dir.path(), "rec-video", callbackQueue,
                                [this](const fs::path& url) {
                                    std::lock_guard lock(mutex);
                                    announced.push_back(url);
                                },
                                2.5, log.loggerFor("SegmentedAssetWriter")};
    SegmentedAssetWriterDelegate& delegate = *writer.segmentedAssetWriterDelegate();
    // Callbacks still queued would run during the queue's destruction, after
    // the members they write to are gone.
    ~SegmentFixture() { callbackQueue->sync([] {}); }

    std::vector<fs::path> announcements() {
        callbackQueue->sync([] {});
        std::lock_guard lock(mutex);
        return announced;
    }
    std::vector<std::string> messages() {
        std::vector<std::string> out;
        for (const auto& line : log.lines()) out.push_back(line.message);
        return out;
    }
};

const std::string header3 =
    "#EXTM3U\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-TARGETDURATION:3\n#EXT-X-VERSION:6\n#EXT-X-MEDIA-SEQUENCE:1\n"
    "#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-MAP:URI=\"rec-video-0000.mp4\"\n";

TEST(SegmentedAssetWriterDelegateTest, StoresSegmentsKeepsThePlaylistAndAnnouncesEachFile) {
    SegmentFixture f;
    EXPECT_EQ(f.writer.assetWriter()->preferredOutputSegmentInterval(), CMTime(3, 1))
        << "2.5 s at timescale 1 rounds to 3";
    f.delegate.assetWriterDidOutputSegmentData(bytes("init"), AVAssetSegmentType::initialization, nullptr);
    EXPECT_EQ(readFile(f.dir / "rec-video-0000.mp4"), "init");
    EXPECT_EQ(readFile(f.dir / "rec-video.m3u8"), header3) << "target duration is the interval rounded up";

    auto r1 = reportOf(CMTime(0, 600), CMTime(1800, 600));
    f.delegate.assetWriterDidOutputSegmentData(bytes("first"), AVAssetSegmentType::separable, &r1);
    auto r2 = reportOf(CMTime(3, 1), CMTime(3, 1), 2);
    f.delegate.assetWriterDidOutputSegmentData(bytes("second!"), AVAssetSegmentType::separable, &r2);
    EXPECT_EQ(readFile(f.dir / "rec-video-0001.m4s"), "first");
    EXPECT_EQ(readFile(f.dir / "rec-video-0002.m4s"), "second!");
    EXPECT_EQ(f.delegate.segmentCount(), 3);
    EXPECT_EQ(f.announcements(), (std::vector<fs::path>{f.dir / "rec-video-0000.mp4", f.dir / "rec-video-0001.m4s",
                                                        f.dir / "rec-video-0002.m4s"}));
    EXPECT_TRUE(f.log.contains("Got multiple track reports, using the first one ignoring all others."));
    EXPECT_TRUE(f.log.contains("Did output segment data: 7, segmentType:2, segmentReport:" + r2.debugDescription()));
    EXPECT_TRUE(f.log.contains("Did output segment data: 4, segmentType:1, segmentReport:nil"));
    EXPECT_TRUE(f.log.contains("Writing segment data: " + (f.dir / "rec-video-0001.m4s").string()));
    EXPECT_TRUE(f.log.contains("Created playlist writer at " + (f.dir / "rec-video.m3u8").string()));
    EXPECT_TRUE(f.log.contains("Appending rec-video-0002.m4s: " + CMTime(3, 1).logDescription()));

    auto playlist = f.delegate.writePlaylist();
    EXPECT_EQ(playlist->url(), f.dir / "rec-video.m3u8");
    EXPECT_EQ(readFile(f.dir / "rec-video.m3u8"), header3 +
                                                      "#EXTINF:3.00000,\nrec-video-0001.m4s\n"
                                                      "#EXTINF:3.00000,\nrec-video-0002.m4s\n#EXT-X-ENDLIST");
    EXPECT_EQ(playlist->peakBytesPerSecond(), 2) << "7 bytes over 3 s";
}

TEST(SegmentedAssetWriterDelegateTest, SegmentsWithoutAReportOrPlaylistStayOutOfThePlaylist) {
    SegmentFixture f;
    auto report = reportOf(CMTime(0, 1), CMTime(1, 1));
    f.delegate.assetWriterDidOutputSegmentData(bytes("early"), AVAssetSegmentType::separable, &report);
    EXPECT_TRUE(fs::exists(f.dir / "rec-video-0000.m4s")) << "the file is stored all the same";
    auto line = f.log.waitFor("No playlist writer available to append segment to, dropping segment.");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, OVLogLevel::warning);
    EXPECT_EQ(line->metadata.at("segmentCount"), "0");

    f.delegate.assetWriterDidOutputSegmentData(bytes("init"), AVAssetSegmentType::initialization, nullptr);
    f.delegate.assetWriterDidOutputSegmentData(bytes("noreport"), AVAssetSegmentType::separable, nullptr);
    line = f.log.waitFor("Missing segmentReport or trackReport to calculate duration, dropping segment.");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->metadata, (LogMetadata{{"segmentReport", "false"}, {"trackReports", "0"}}));
    AVAssetSegmentReport empty;
    f.delegate.assetWriterDidOutputSegmentData(bytes("empty"), AVAssetSegmentType::separable, &empty);
    int missing = 0;
    for (const auto& l : f.log.lines())
        if (l.message == "Missing segmentReport or trackReport to calculate duration, dropping segment.") {
            ++missing;
            if (missing == 2) {
                EXPECT_EQ(l.metadata.at("segmentReport"), "true");
            }
        }
    EXPECT_EQ(missing, 2);

    f.delegate.assetWriterDidOutputSegmentData(bytes("odd"), static_cast<AVAssetSegmentType>(7), &report);
    line = f.log.waitFor("Received unknown segment type.");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->metadata.at("segmentType"), "7");
    EXPECT_EQ(readFile(f.dir / "rec-video-0004.m4s"), "odd");
    EXPECT_EQ(f.announcements().size(), 5u) << "every stored file is announced";

    f.delegate.writePlaylist();
    EXPECT_EQ(readFile(f.dir / "rec-video.m3u8"),
              "#EXTM3U\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-TARGETDURATION:3\n#EXT-X-VERSION:6\n"
              "#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-MAP:URI=\"rec-video-0001.mp4\"\n"
              "#EXT-X-ENDLIST");
}

TEST(SegmentedAssetWriterDelegateTest, ASecondInitializationSegmentKeepsTheFirstPlaylist) {
    SegmentFixture f;
    f.delegate.assetWriterDidOutputSegmentData(bytes("init"), AVAssetSegmentType::initialization, nullptr);
    const auto first = f.delegate.playlistWriter();
    f.delegate.assetWriterDidOutputSegmentData(bytes("init2"), AVAssetSegmentType::initialization, nullptr);
    auto warning = f.log.waitFor(
        "Playlist writer was already initialized while initialization segment arrived, overwriting with a new "
        "playlist writer.");
    ASSERT_TRUE(warning);
    EXPECT_EQ(warning->metadata.at("playlist"), "rec-video.m3u8");
    auto error = f.log.waitFor("Error creating media playlist writer");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->level, OVLogLevel::error);
    EXPECT_NE(error->metadata.at("error").find("File already exists"), std::string::npos);
    EXPECT_EQ(f.delegate.playlistWriter(), first);
    EXPECT_EQ(readFile(f.dir / "rec-video-0001.mp4"), "init2");
}

TEST(SegmentedAssetWriterDelegateTest, AFailedSegmentWriteIsNeitherListedNorAnnouncedAndFailsTheCall) {
    SegmentFixture f;
    f.delegate.assetWriterDidOutputSegmentData(bytes("init"), AVAssetSegmentType::initialization, nullptr);
    // A directory in the segment's place makes its write fail.
    fs::create_directory(f.dir / "rec-video-0001.m4s");
    fs::create_directory(f.dir / "rec-video-0001.m4s" / "occupied");
    auto r1 = reportOf(CMTime(0, 1), CMTime(2, 1));
    auto r2 = reportOf(CMTime(2, 1), CMTime(2, 1));
    try {
        f.delegate.assetWriterDidOutputSegmentData(bytes("lost"), AVAssetSegmentType::separable, &r1);
        ADD_FAILURE() << "a segment that can't be stored fails the writer's call";
    } catch (const platform::PlatformError& e) {
        EXPECT_EQ(e.domain(), "NSPOSIXErrorDomain") << "the file system's own error";
    }
    const auto errorLine = [&] {
        for (const auto& l : f.log.lines())
            if (l.message.rfind("Error writing segment data: ", 0) == 0) return true;
        return false;
    };
    EXPECT_TRUE(errorLine());
    EXPECT_EQ(readFile(f.dir / "rec-video.m3u8"), header3) << "nothing is listed for the lost segment";
    // Called again (a writer would have failed by now), names stay unique.
    f.delegate.assetWriterDidOutputSegmentData(bytes("kept"), AVAssetSegmentType::separable, &r2);
    EXPECT_EQ(f.announcements(), (std::vector<fs::path>{f.dir / "rec-video-0000.mp4", f.dir / "rec-video-0002.m4s"}));
    const auto playlist = readFile(f.dir / "rec-video.m3u8");
    EXPECT_EQ(playlist.find("rec-video-0001.m4s"), std::string::npos) << playlist;
    EXPECT_NE(playlist.find("rec-video-0002.m4s"), std::string::npos) << playlist;
    EXPECT_FALSE(fs::exists(f.dir / "rec-video-0001.m4s.partial"));
}

TEST(SegmentedAssetWriterDelegateTest, ASegmentWhosePlaylistCantBePublishedFailsTheCall) {
    SegmentFixture f;
    f.delegate.assetWriterDidOutputSegmentData(bytes("init"), AVAssetSegmentType::initialization, nullptr);
    // The commit goes through "<playlist>.tmp": a directory there breaks it.
    fs::create_directory(f.dir / "rec-video.tmp");
    fs::create_directory(f.dir / "rec-video.tmp" / "occupied");
    auto r1 = reportOf(CMTime(0, 1), CMTime(2, 1));
    EXPECT_THROW(f.delegate.assetWriterDidOutputSegmentData(bytes("first"), AVAssetSegmentType::separable, &r1),
                 platform::PlatformError);
    EXPECT_TRUE(f.log.contains("Error appending to media playlist writer"));
    EXPECT_EQ(readFile(f.dir / "rec-video.m3u8"), header3);
}

TEST(SegmentedAssetWriterDelegateTest, WritingAPlaylistThatNeverStartedFails) {
    SegmentFixture f;
    try {
        f.delegate.writePlaylist();
        FAIL() << "no initialization segment came";
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::internalError);
        EXPECT_EQ(e.debugDescription(), "Unable to write playlist, playlist writer was never created.");
    }
    auto line = f.log.waitFor("Unable to write playlist, playlist writer was never created.");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, OVLogLevel::error);
    EXPECT_EQ(line->metadata.at("segmentCount"), "0");
}

TEST(SegmentedAssetWriterDelegateTest, NumbersSegmentsWithAtLeastFourDigits) {
    using D = SegmentedAssetWriterDelegate;
    EXPECT_EQ(D::segmentFilename("p-audio", 0, AVAssetSegmentType::initialization), "p-audio-0000.mp4");
    EXPECT_EQ(D::segmentFilename("p-audio", 42, AVAssetSegmentType::separable), "p-audio-0042.m4s");
    EXPECT_EQ(D::segmentFilename("p-audio", 9999, AVAssetSegmentType::separable), "p-audio-9999.m4s");
    EXPECT_EQ(D::segmentFilename("p-audio", 10000, AVAssetSegmentType::separable), "p-audio-10000.m4s");
    EXPECT_EQ(D::segmentFilename("p", 123456, static_cast<AVAssetSegmentType>(9)), "p-123456.m4s");
}

}  // namespace
}  // namespace ov::testing
