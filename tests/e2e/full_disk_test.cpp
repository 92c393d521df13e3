// Recordings that run out of disk, and a segmented recording that is killed,
// as a host sees them over the protocol: the abort's error code, what `stop`
// lists, the description file, and that what is listed plays. The disk is a
// small tmpfs (tests that can't mount one are skipped); the microphone is the
// synthetic one.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <regex>
#include <thread>

#include "e2e/rpc_fixture.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// The errors of decoding a file (or a master playlist with its streams) to the end.
std::string decodeErrors(const fs::path& file) {
    return commandOutput("cd '" + file.parent_path().string() + "' && ffmpeg -nostdin -v error -i '" +
                         file.filename().string() + "' -f null - 2>&1");
}

double decodedSeconds(const fs::path& file) {
    const auto out = commandOutput("cd '" + file.parent_path().string() + "' && ffprobe -v error -show_entries "
                                   "format=duration -of csv=p=0 '" + file.filename().string() + "' 2>/dev/null");
    return out.empty() ? 0 : std::atof(out.c_str());
}

// The segments a media playlist lists, in order.
std::vector<std::string> listedSegments(const std::string& playlist) {
    std::vector<std::string> names;
    std::smatch m;
    for (auto it = playlist.cbegin();
         std::regex_search(it, playlist.cend(), m, std::regex("#EXTINF:[0-9.]+,\n([^\n]+)\n")); it = m.suffix().first)
        names.push_back(m[1]);
    return names;
}

class RecordingHost : public ::testing::Test {
protected:
    void TearDown() override {
        if (rpc) {
            rpc->kill(SIGKILL);
            rpc->waitForExit();
        }
        if (mounted) ::umount2(disk.c_str(), MNT_DETACH);
    }

    // A tmpfs of `bytes` at `disk`; false (the test skips) where mounting isn't permitted.
    bool mountSmallDisk(size_t bytes) {
        fs::create_directories(disk);
        const std::string options = "size=" + std::to_string(bytes);
        mounted = ::mount("tmpfs", disk.c_str(), "tmpfs", 0, options.c_str()) == 0;
        return mounted;
    }

    // Takes all but `keep` bytes of the disk's free space.
    void fillDiskLeaving(size_t keep) {
        struct statvfs s {};
        ASSERT_EQ(::statvfs(disk.c_str(), &s), 0);
        const size_t free = size_t(s.f_bavail) * s.f_frsize;
        ASSERT_GT(free, keep);
        std::ofstream out(disk / "filler", std::ios::binary);
        const std::string block(64 * 1024, 'x');
        size_t left = free - keep;
        while (left > 0) {
            const size_t n = std::min(left, block.size());
            out.write(block.data(), std::streamsize(n));
            left -= n;
        }
        out.close();
        ASSERT_TRUE(out.good());
    }

    json send(json message) {
        message["hvrpc"] = 1;
        message["id"] = std::to_string(++lastID);
        rpc->writeJSON(message);
        for (;;) {
            auto line = rpc->readJSON(std::chrono::milliseconds(20000));
            if (!line) {
                ADD_FAILURE() << "no answer to " << message.dump() << "\n" << rpc->stderrText();
                return json();
            }
            if (!line->contains("id")) {
                callbacks.push_back(*line);
                continue;
            }
            return *line;
        }
    }

    void startRecording(const json& item) {
        rpc = startRpc();
        auto r = send({{"procedure", "init"},
                       {"type", "Recorder"},
                       {"target", "rec"},
                       {"params",
                        {{"schema", {{"output_directory", bundle.string()}, {"items", json::array({item})}}},
                         {"onAbortInstance", "abort-cb"}}}});
        ASSERT_EQ(r["status"], 200) << r.dump();
        r = send({{"procedure", "perform"}, {"target", "rec"}, {"action", "prepare"}});
        ASSERT_EQ(r["status"], 200) << r.dump();
        r = send({{"procedure", "perform"}, {"target", "rec"}, {"action", "start"}});
        ASSERT_EQ(r["status"], 200) << r.dump();
    }

    // Reads callbacks until `done` holds for one of them or `seconds` pass.
    std::optional<json> waitForCallback(const std::function<bool(const json&)>& done, double seconds) {
        for (const auto& c : callbacks)
            if (done(c)) return c;
        const auto until = Clock::now() + std::chrono::duration<double>(seconds);
        while (Clock::now() < until) {
            for (auto& line : rpc->readLinesFor(std::chrono::milliseconds(100))) {
                callbacks.push_back(json::parse(line));
                if (done(callbacks.back())) return callbacks.back();
            }
        }
        return std::nullopt;
    }

    static bool isAbort(const json& c) { return c.value("target", "") == "abort-cb"; }

    // The abort's error is the low-disk stop, with the files that were kept.
    void expectLowDiskAbort(const json& abort) {
        const auto& params = abort["params"];
        EXPECT_EQ(params["reason"], "interrupted") << abort.dump();
        EXPECT_EQ(params["error"]["code"], "screenCaptureStoppedLowDiskSpace") << abort.dump();
        EXPECT_EQ(params["error"]["codeNumber"], -1303) << abort.dump();
        EXPECT_EQ(params["error"]["message"], "Recording stopped due to low disk space.") << abort.dump();
    }

    // `stop` after the abort, the description file, and that every listed file plays.
    json stopAndCheckTheBundle(const json& abort) {
        const auto r = send({{"procedure", "perform"}, {"target", "rec"}, {"action", "stop"}});
        EXPECT_EQ(r["status"], 200) << r.dump();
        const auto& files = r["result"]["info"]["files"];
        EXPECT_EQ(files, abort["params"]["result"]["info"]["files"]) << "stop repeats what the abort said";
        const auto description = json::parse(readFile(bundle / "orvane.json"), nullptr, false);
        EXPECT_FALSE(description.is_discarded()) << "orvane.json is written and whole";
        EXPECT_EQ(description["files"], files);
        EXPECT_FALSE(fs::exists(bundle / ".orvane.json.reserve"));
        for (const auto& f : files) {
            const auto path = bundle / f["filename"].get<std::string>();
            EXPECT_EQ(decodeErrors(path), "") << path;
        }
        return r["result"];
    }

    TempDirectory temp;
    fs::path disk = temp / "disk";
    fs::path bundle = disk / "recording.orvane";
    bool mounted = false;
    std::unique_ptr<ChildProcess> rpc;
    std::vector<json> callbacks;
    int lastID = 0;
};

TEST_F(RecordingHost, ASingleFileOnAFullDiskKeepsItsPlayableAudioAndSaysLowDisk) {
    if (!mountSmallDisk(4 << 20)) GTEST_SKIP() << "mounting a tmpfs is not permitted here";
    startRecording({{"type", "microphone"}, {"microphone", "synthetic-microphone"}, {"filename", "mic.m4a"}});
    // A few whole fragments (about a second each) land before the disk fills.
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    fillDiskLeaving(12 * 1024);
    const auto abort = waitForCallback(isAbort, 20);
    ASSERT_TRUE(abort) << "no abort on a full disk\n" << rpc->stderrText();
    expectLowDiskAbort(*abort);
    const auto result = stopAndCheckTheBundle(*abort);
    ASSERT_EQ(result["info"]["files"], json::parse(R"([{"filename":"mic.m4a","type":"audio"}])"));
    EXPECT_GT(decodedSeconds(bundle / "mic.m4a"), 1.5) << "what was written before the disk filled plays";
}

TEST_F(RecordingHost, SegmentsOnAFullDiskAreNeverListedUnstoredAndTheRecordingStopsLowDisk) {
    if (!mountSmallDisk(4 << 20)) GTEST_SKIP() << "mounting a tmpfs is not permitted here";
    startRecording({{"type", "microphone"},
                    {"microphone", "synthetic-microphone"},
                    {"output", "segmented"},
                    {"filenamePrefix", "mic"},
                    {"segmentCallback", "segment-cb"}});
    // Room for about one six-second segment (8 kB/s) and its playlist, not two.
    fillDiskLeaving(72 * 1024);
    const auto abort = waitForCallback(isAbort, 25);
    ASSERT_TRUE(abort) << "no abort on a full disk\n" << rpc->stderrText();
    expectLowDiskAbort(*abort);

    // The master playlist was written when the streams were known, and every
    // segment the media playlist lists is on disk and whole.
    const auto master = readFile(bundle / "mic.m3u8");
    EXPECT_NE(master.find("mic-audio.m3u8"), std::string::npos) << master;
    const auto media = readFile(bundle / "mic-audio.m3u8");
    for (const auto& name : listedSegments(media)) EXPECT_TRUE(fs::exists(bundle / name)) << name << "\n" << media;
    int announced = 0;
    for (const auto& c : callbacks)
        if (c.value("target", "") == "segment-cb") {
            ++announced;
            EXPECT_TRUE(fs::exists(c["params"]["path"].get<std::string>())) << c.dump();
        }
    EXPECT_EQ(announced, int(listedSegments(media).size()) + 1) << "the init segment and each listed segment";

    const auto result = stopAndCheckTheBundle(*abort);
    // The master playlist is listed exactly when a segment made it to disk.
    const bool anySegment = !listedSegments(media).empty();
    EXPECT_EQ(result["info"]["files"].size(), anySegment ? 1u : 0u) << result.dump() << "\n" << media;
}

TEST_F(RecordingHost, AKilledSegmentedRecordingPlaysUpToItsLastWholeSegment) {
    TempDirectory dir;
    bundle = dir / "recording.orvane";
    startRecording({{"type", "microphone"},
                    {"microphone", "synthetic-microphone"},
                    {"output", "segmented"},
                    {"filenamePrefix", "mic"},
                    {"segmentCallback", "segment-cb"}});
    // The master playlist and the stream's header exist before any segment.
    EXPECT_NE(readFile(bundle / "mic.m3u8").find("mic-audio.m3u8"), std::string::npos);
    const auto firstSegment = waitForCallback(
        [](const json& c) {
            return c.value("target", "") == "segment-cb" &&
                   c["params"]["path"].get<std::string>().ends_with("mic-audio-0001.m4s");
        },
        20);
    ASSERT_TRUE(firstSegment) << rpc->stderrText();
    rpc->kill(SIGKILL);
    rpc->waitForExit();

    const auto media = readFile(bundle / "mic-audio.m3u8");
    EXPECT_EQ(listedSegments(media), std::vector<std::string>{"mic-audio-0001.m4s"})
        << "the segment is listed as soon as it is stored\n" << media;
    EXPECT_EQ(decodeErrors(bundle / "mic.m3u8"), "");
    EXPECT_NEAR(decodedSeconds(bundle / "mic.m3u8"), 6.0, 0.2) << "the one whole segment plays";
}

}  // namespace
}  // namespace ov::testing
