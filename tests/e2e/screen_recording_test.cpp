// Displays and windows recorded the way a host records them: over the
// protocol, on a synthetic world, checked with ffprobe and with the frame
// counters that the synthetic screens write into their top rows.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <thread>

#include "e2e/rpc_fixture.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;

// Display 1 is a plain 1080p screen; the small ones each carry one fault.
const char* kWorld = R"({
  "displays": [
    {"id": 1, "frame": {"x": 0, "y": 0, "width": 1920, "height": 1080}},
    {"id": 2, "frame": {"x": 1920, "y": 0, "width": 640, "height": 360},
     "faults": [{"kind": "disappears", "after": 1.5}]},
    {"id": 3, "frame": {"x": 2560, "y": 0, "width": 640, "height": 360},
     "faults": [{"kind": "stopsWithError", "after": 1.0, "domain": "com.apple.ScreenCaptureKit.SCStreamErrorDomain",
                 "code": -3817, "message": "Stopped by the user."}]},
    {"id": 4, "frame": {"x": 3200, "y": 0, "width": 640, "height": 360},
     "faults": [{"kind": "goesIdle", "after": 1.0}]},
    {"id": 5, "frame": {"x": 3840, "y": 0, "width": 640, "height": 360},
     "faults": [{"kind": "neverDelivers"}]},
    {"id": 6, "frame": {"x": 4480, "y": 0, "width": 640, "height": 360}}
  ],
  "applications": [{"pid": 1001, "name": "Notes", "bundleIdentifier": "dev.example.notes"}],
  "windows": [{"id": 101, "title": "Odd", "frame": {"x": 100, "y": 100, "width": 801, "height": 601}, "ownerPID": 1001}]
})";

// The frame numbers written into the top rows of each decoded picture.
std::vector<uint32_t> frameCounters(const std::filesystem::path& movie, int width) {
    const auto raw = commandOutput("ffmpeg -v error -i '" + movie.string() +
                                   "' -vf crop=iw:8:0:0 -fps_mode passthrough -pix_fmt gray -f rawvideo - 2>/dev/null");
    std::vector<uint32_t> counters;
    const size_t frameBytes = size_t(width) * 8;
    const size_t cell = size_t(width) / 32;
    for (size_t at = 0; at + frameBytes <= raw.size(); at += frameBytes) {
        uint32_t value = 0;
        for (size_t bit = 0; bit < 32; ++bit)
            value = value << 1 | (uint8_t(raw[at + 4 * size_t(width) + bit * cell + cell / 2]) > 128 ? 1u : 0u);
        counters.push_back(value);
    }
    return counters;
}

// The presentation times of a movie's video packets, in seconds.
std::vector<double> packetTimes(const std::filesystem::path& movie) {
    const auto out = commandOutput("ffprobe -v error -select_streams v:0 -show_entries packet=pts_time -of csv=p=0 '" +
                                   movie.string() + "'");
    std::vector<double> times;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty()) times.push_back(std::stod(line));
    return times;
}

class ScreenRecording : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(temp / "world.json", kWorld);
        rpc = startRpc({}, {{"ORVANE_SYNTHETIC_WORLD", (temp / "world.json").string()}});
    }

    json send(json message) {
        message["hvrpc"] = 1;
        message["id"] = std::to_string(++id);
        rpc->writeJSON(message);
        for (;;) {
            auto line = rpc->readJSON();
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
    // Each recording is a recorder of its own.
    json init(const json& item) {
        target = "rec" + std::to_string(id + 1);
        return send({{"procedure", "init"},
                     {"type", "Recorder"},
                     {"target", target},
                     {"params",
                      {{"schema", {{"output_directory", bundle.string()}, {"items", json::array({item})}}},
                       {"onAbortInstance", "abort-cb"}}}});
    }
    json perform(const std::string& action) {
        return send({{"procedure", "perform"}, {"target", target}, {"action", action}});
    }
    void collectFor(double seconds) {
        const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < until)
            for (auto& line : rpc->readLinesFor(std::chrono::milliseconds(100))) callbacks.push_back(json::parse(line));
    }
    // init, prepare, start, `seconds`, stop: the stop's result.
    json record(const json& item, double seconds) {
        EXPECT_EQ(init(item)["status"], 200);
        auto r = perform("prepare");
        EXPECT_EQ(r["status"], 200) << r.dump();
        EXPECT_EQ(perform("start")["status"], 200);
        collectFor(seconds);
        r = perform("stop");
        EXPECT_EQ(r["status"], 200) << r.dump() << "\n" << rpc->stderrText();
        return r["result"];
    }
    std::vector<json> aborts() const {
        std::vector<json> found;
        for (const auto& c : callbacks)
            if (c["target"] == "abort-cb") found.push_back(c);
        return found;
    }

    TempDirectory temp;
    std::filesystem::path bundle = temp / "recording.orvane";
    std::unique_ptr<ChildProcess> rpc;
    std::vector<json> callbacks;
    int id = 0;
    std::string target;
};

TEST_F(ScreenRecording, ADisplayRecordsEveryFrameOnceWithItsSizesAndColourTags) {
    // Display P3 with H.264 records sRGB after a warning in the bundle's log.
    auto result = record({{"type", "display"}, {"display", 1}, {"filename", "screen.mov"}, {"colorSpace", "displayP3"}},
                         5.0);
    const json expected = json::parse(R"([{"filename":"screen.mov","type":"screen",
        "recordingSize":{"width":1920.0,"height":1080.0},"recordingScale":1.0,
        "videoDimensions":{"width":1920.0,"height":1080.0}}])");
    EXPECT_EQ(result["info"]["files"], expected) << result.dump();
    const auto bundleInfo = json::parse(readFile(bundle / "orvane.json"));
    EXPECT_EQ(bundleInfo["files"], expected);
    EXPECT_NE(readFile(bundle / "orvane.log")
                  .find("Cannot record Display P3 with H.264 video codec. Falling back to sRGB color space instead."),
              std::string::npos);

    const double duration = result["info"]["duration"].get<double>();
    auto info = probeMedia(bundle / "screen.mov");
    ASSERT_EQ(info["streams"].size(), 1u) << info.dump();
    const auto& video = info["streams"][0];
    EXPECT_EQ(video["codec_name"], "h264");
    EXPECT_EQ(video["width"], 1920);
    EXPECT_EQ(video["height"], 1080);
    EXPECT_EQ(video["pix_fmt"], "yuv420p");
    EXPECT_EQ(video["color_primaries"], "bt709");
    EXPECT_EQ(video["color_transfer"], "bt709");
    EXPECT_EQ(video["color_space"], "bt709");

    const auto times = packetTimes(bundle / "screen.mov");
    ASSERT_FALSE(times.empty());
    std::smatch dropped;
    const auto log = readFile(bundle / "orvane.log");
    ASSERT_TRUE(std::regex_search(log, dropped, std::regex("droppedByInput=([0-9]+)")));
    const auto refused = std::stoul(dropped[1]);
    // The frame shown at the start opens the output at 0, every capture follows
    // at its own time and the last is held to the end: one or two more than
    // the duration's thirtieths, fewer by what the encoder's input refused.
    EXPECT_NEAR(double(times.size() + refused), duration * 30, 2.0) << "packets " << times.size() << " for " << duration;
    EXPECT_EQ(times.front(), 0.0);
    if (refused == 0) EXPECT_NEAR(times.back(), duration, 1.0 / 30 + 1e-3);

    // Every captured frame appears once and in order, the last one held to the
    // end. A frame is missing only where the writer's input refused it (a
    // busy encoder), which the log counts.
    const auto counters = frameCounters(bundle / "screen.mov", 1920);
    ASSERT_EQ(counters.size(), times.size());
    uint32_t missing = 0;
    for (size_t i = 1; i < counters.size(); ++i) {
        // Only the closing frame may repeat the one before it.
        if (i + 1 == counters.size() && counters[i] == counters[i - 1]) break;
        ASSERT_GT(counters[i], counters[i - 1]) << "a frame repeated or out of order at " << i;
        missing += counters[i] - counters[i - 1] - 1;
    }
    EXPECT_LE(missing, refused) << "frames lost on the way to the writer";
}

TEST_F(ScreenRecording, HEVCInDisplayP3IsMain10WithP3Primaries) {
    record({{"type", "display"}, {"display", 4}, {"filename", "p3.mov"}, {"videoCodec", "hevc"}, {"colorSpace", "displayP3"}},
           1.0);
    auto info = probeMedia(bundle / "p3.mov");
    ASSERT_EQ(info["streams"].size(), 1u) << info.dump();
    const auto& video = info["streams"][0];
    EXPECT_EQ(video["codec_name"], "hevc");
    EXPECT_EQ(video["codec_tag_string"], "hvc1");
    EXPECT_EQ(video["profile"], "Main 10");
    EXPECT_EQ(video["color_primaries"], "smpte432");
}

TEST_F(ScreenRecording, SegmentedOutputHasPlaylistsAndAnnouncesEveryFile) {
    auto result = record({{"type", "display"},
                          {"display", 1},
                          {"output", "segmented"},
                          {"filenamePrefix", "scr"},
                          {"segmentCallback", "segment-cb"}},
                         5.0);
    EXPECT_EQ(result["info"]["files"][0]["filename"], "scr.m3u8");
    const auto master = readFile(bundle / "scr.m3u8");
    EXPECT_NE(master.find("CODECS=\"avc1.42e00a\""), std::string::npos) << master;
    EXPECT_NE(master.find("RESOLUTION=1920x1080"), std::string::npos) << master;
    const auto media = readFile(bundle / "scr-video.m3u8");
    EXPECT_TRUE(media.ends_with("#EXT-X-ENDLIST")) << media;
    int segments = 0;
    std::smatch m;
    for (auto it = media.cbegin(); std::regex_search(it, media.cend(), m, std::regex("#EXTINF:([0-9.]+),\n([^\n]+)\n"));
         it = m.suffix().first) {
        // Cut at the first frame at or after each 2 s bound.
        EXPECT_LE(std::stod(m[1]), 2.0 + 0.1) << m[2];
        EXPECT_TRUE(std::filesystem::exists(bundle / m[2].str())) << m[2];
        ++segments;
    }
    EXPECT_GE(segments, 2);
    int announced = 0;
    for (const auto& c : callbacks) announced += c["target"] == "segment-cb";
    EXPECT_EQ(announced, segments + 1) << "the init segment and each media segment";
}

TEST_F(ScreenRecording, AWindowCropOfAnOddWindowIsEvenAndMissingSourcesAreNamed) {
    auto result = record({{"type", "windowBasedCrop"}, {"window", 101}, {"filename", "crop.mov"}}, 1.0);
    EXPECT_EQ(result["info"]["files"][0]["recordingSize"], json::parse(R"({"width":801.0,"height":601.0})"));
    auto info = probeMedia(bundle / "crop.mov");
    ASSERT_EQ(info["streams"].size(), 1u) << info.dump();
    EXPECT_EQ(info["streams"][0]["width"], 800);
    EXPECT_EQ(info["streams"][0]["height"], 600);

    // Unknown sources fail prepare and name the id.
    struct Case {
        json item;
        const char* code;
        int number;
        const char* text;
    };
    const std::vector<Case> cases = {
        {{{"type", "display"}, {"display", 77}}, "displayUnavailable", -1203, "77"},
        {{{"type", "windowBasedCrop"}, {"window", 999}}, "windowUnavailable", -1204, "999"},
    };
    for (const auto& c : cases) {
        bundle = temp / ("b" + std::to_string(id) + ".orvane");
        EXPECT_EQ(init(c.item)["status"], 200);
        auto r = perform("prepare");
        EXPECT_EQ(r["status"], 202) << r.dump();
        EXPECT_EQ(r["error"]["code"], c.code) << r.dump();
        if (c.number) {
            EXPECT_EQ(r["error"]["codeNumber"], c.number);
        }
        EXPECT_NE(r["error"]["message"].get<std::string>().find(c.text), std::string::npos) << r.dump();
    }
}

TEST_F(ScreenRecording, ADisplayThatNeverDeliversFailsPrepareAfterThreeSeconds) {
    EXPECT_EQ(init({{"type", "display"}, {"display", 5}})["status"], 200);
    const auto start = std::chrono::steady_clock::now();
    auto r = perform("prepare");
    const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(r["status"], 202);
    EXPECT_EQ(r["error"]["code"], "noVideoFramesReceived");
    EXPECT_GE(waited, 3.0);
    EXPECT_LT(waited, 4.5);
}

TEST_F(ScreenRecording, ADisplayThatDisappearsAbortsOnceAndLeavesAPlayableFile) {
    EXPECT_EQ(init({{"type", "display"}, {"display", 2}, {"filename", "gone.mov"}})["status"], 200);
    EXPECT_EQ(perform("prepare")["status"], 200);
    EXPECT_EQ(perform("start")["status"], 200);
    collectFor(3.0);
    const auto found = aborts();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_FALSE(found[0].contains("id"));
    const auto& params = found[0]["params"];
    EXPECT_EQ(params["reason"], "interrupted");
    EXPECT_EQ(params["error"]["code"], "screenCaptureStoppedWithError");
    EXPECT_EQ(params["error"]["message"].get<std::string>().rfind("Recording stopped with a screen capture error: ", 0), 0u)
        << params.dump();
    auto info = probeMedia(bundle / "gone.mov");
    ASSERT_FALSE(info.is_null());
    EXPECT_GT(playedDuration(info), 0.5);
    EXPECT_EQ(commandOutput("ffmpeg -v error -i '" + (bundle / "gone.mov").string() + "' -f null - 2>&1"), "");
}

TEST_F(ScreenRecording, AStreamStoppedByTheUserEndsAsUserStopped) {
    EXPECT_EQ(init({{"type", "display"}, {"display", 3}})["status"], 200);
    EXPECT_EQ(perform("prepare")["status"], 200);
    EXPECT_EQ(perform("start")["status"], 200);
    collectFor(2.0);
    const auto found = aborts();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]["params"]["reason"], "userStopped");
    EXPECT_FALSE(found[0]["params"].contains("error"));
}

TEST_F(ScreenRecording, AnIdleDisplayGivesOneFrameASecondAndHoldsTheLastToTheEnd) {
    auto result = record({{"type", "display"}, {"display", 4}, {"filename", "idle.mov"}}, 4.0);
    const double duration = result["info"]["duration"].get<double>();
    const auto times = packetTimes(bundle / "idle.mov");
    const auto counters = frameCounters(bundle / "idle.mov", 640);
    ASSERT_EQ(counters.size(), times.size());
    ASSERT_GE(times.size(), 4u);
    // The last picture lasts to the end of the recording.
    const auto info = probeMedia(bundle / "idle.mov");
    EXPECT_NEAR(std::stod(info["streams"][0]["duration"].get<std::string>()), duration, 1.0 / 30 + 1e-3);
    // The idle stretch: the same picture at about one-second steps.
    const uint32_t still = counters.back();
    size_t firstStill = counters.size() - 1;
    while (firstStill > 0 && counters[firstStill - 1] == still) --firstStill;
    ASSERT_LE(firstStill + 3, counters.size()) << "fewer repeats than the idle time asks for";
    for (size_t i = firstStill + 1; i + 1 < times.size(); ++i) EXPECT_NEAR(times[i] - times[i - 1], 1.0, 0.25) << i;
}

TEST_F(ScreenRecording, AKilledRecordingLeavesAPlayableMovie) {
    EXPECT_EQ(init({{"type", "display"}, {"display", 6}, {"filename", "killed.mov"}})["status"], 200);
    EXPECT_EQ(perform("prepare")["status"], 200);
    EXPECT_EQ(perform("start")["status"], 200);
    collectFor(3.0);
    rpc->kill();
    auto info = probeMedia(bundle / "killed.mov");
    ASSERT_FALSE(info.is_null());
    ASSERT_EQ(info["streams"].size(), 1u);
    EXPECT_GE(playedDuration(info), 2.0);
}

}  // namespace
}  // namespace ov::testing
