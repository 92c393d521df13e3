// A microphone recorded the way a host records it: over the protocol, on the
// synthetic platform, to a file, to segments and streamed back to the host.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <thread>

#include "e2e/rpc_fixture.h"
#include "foundation/json_coding.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;

constexpr double aacFrame = 1024.0 / 48000;

std::string run(const std::string& command) { return commandOutput(command); }

class MicrophoneRecording : public RpcProcessTest {
protected:
    // init, prepare, start, `seconds` of recording, stop; the stop's result.
    // Callbacks that arrive meanwhile are collected.
    json record(const json& item, double seconds) {
        int id = 0;
        auto send = [&](json message) {
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
        };
        auto r = send({{"procedure", "init"},
                       {"type", "Recorder"},
                       {"target", "rec"},
                       {"params",
                        {{"schema", {{"output_directory", bundle.string()}, {"items", json::array({item})}}},
                         {"onAbortInstance", "abort-cb"}}}});
        EXPECT_EQ(r["status"], 200) << r.dump();
        r = send({{"procedure", "perform"}, {"target", "rec"}, {"action", "prepare"}});
        EXPECT_EQ(r["status"], 200) << r.dump();
        r = send({{"procedure", "perform"}, {"target", "rec"}, {"action", "start"}});
        EXPECT_EQ(r["status"], 200) << r.dump();
        const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < until) {
            for (auto& line : rpc->readLinesFor(std::chrono::milliseconds(100)))
                callbacks.push_back(json::parse(line));
        }
        r = send({{"procedure", "perform"}, {"target", "rec"}, {"action", "stop"}});
        EXPECT_EQ(r["status"], 200) << r.dump() << "\n" << rpc->stderrText();
        return r["result"];
    }

    TempDirectory temp;
    std::filesystem::path bundle = temp / "recording.orvane";
    std::vector<json> callbacks;
};

TEST_F(MicrophoneRecording, ASingleFileLastsAsLongAsTheTimeline) {
    auto result = record({{"type", "microphone"}, {"microphone", "synthetic-microphone"}, {"filename", "mic.m4a"}}, 5.0);
    ASSERT_EQ(result["info"]["files"], json::parse(R"([{"filename":"mic.m4a","type":"audio"}])"));
    const double timeline = result["info"]["duration"].get<double>();
    EXPECT_NEAR(timeline, 5.0, 0.5);

    auto info = probeMedia(bundle / "mic.m4a");
    ASSERT_EQ(info["streams"].size(), 1u) << info.dump();
    const auto& stream = info["streams"][0];
    EXPECT_EQ(stream["codec_name"], "aac");
    EXPECT_EQ(stream["profile"], "LC");
    // The encoder's priming lies before zero and the edit list skips it: what
    // plays is the duration from zero.
    EXPECT_NEAR(playedDuration(info), timeline, aacFrame) << info.dump();
}

TEST_F(MicrophoneRecording, SegmentedOutputHasPlaylistsThatFfmpegReadsToTheEnd) {
    std::vector<json> segmentPaths;
    auto result = record({{"type", "microphone"},
                          {"microphone", "synthetic-microphone"},
                          {"output", "segmented"},
                          {"filenamePrefix", "mic"},
                          {"segmentCallback", "segment-cb"}},
                         5.0);
    ASSERT_EQ(result["info"]["files"], json::parse(R"([{"filename":"mic.m3u8","type":"audio"}])"));
    const auto master = readFile(bundle / "mic.m3u8");
    EXPECT_EQ(master.rfind("#EXTM3U\n#EXT-X-VERSION:6\n", 0), 0u) << master;
    EXPECT_NE(master.find("CODECS=\"mp4a.40.2\""), std::string::npos) << master;
    EXPECT_NE(master.find("mic-audio.m3u8"), std::string::npos) << master;

    const auto media = readFile(bundle / "mic-audio.m3u8");
    EXPECT_NE(media.find("#EXT-X-MAP:URI=\"mic-audio-0000.mp4\""), std::string::npos) << media;
    EXPECT_TRUE(media.ends_with("#EXT-X-ENDLIST")) << media;
    double listed = 0;
    int segments = 0;
    std::smatch m;
    for (auto it = media.cbegin(); std::regex_search(it, media.cend(), m, std::regex("#EXTINF:([0-9.]+),\n([^\n]+)\n"));
         it = m.suffix().first) {
        listed += std::stod(m[1]);
        ++segments;
        EXPECT_TRUE(std::filesystem::exists(bundle / m[2].str())) << m[2];
    }
    EXPECT_GE(segments, 1);
    EXPECT_NEAR(listed, result["info"]["duration"].get<double>(), 2 * aacFrame) << media;

    // Every segment was announced to the host with its path.
    int announced = 0;
    for (const auto& c : callbacks)
        if (c["target"] == "segment-cb") ++announced;
    EXPECT_EQ(announced, segments + 1) << "the init segment and each media segment";

    const auto errors = run("cd '" + bundle.string() + "' && ffmpeg -v error -i mic.m3u8 -f null - 2>&1");
    EXPECT_EQ(errors, "");
}

TEST_F(MicrophoneRecording, AStreamDeliversEveryFrameOfTheRecordingToTheHost) {
    auto result = record({{"type", "microphone"},
                          {"microphone", "synthetic-microphone"},
                          {"output", "stream"},
                          {"streamCallback", "audio-cb"}},
                         5.0);
    EXPECT_EQ(result["info"]["files"], json::array());
    int64_t frames = 0;
    double rate = 0;
    for (const auto& c : callbacks) {
        if (c["target"] != "audio-cb") continue;
        const auto& p = c["params"];
        rate = p["sampleRate"].get<double>();
        frames += p["numberOfFrames"].get<int64_t>();
        ASSERT_EQ(p["channelData"].size(), p["numberOfChannels"].get<size_t>());
        // Four bytes per frame, Base64.
        EXPECT_EQ(p["channelData"][0].get<std::string>().size(), size_t((p["numberOfFrames"].get<int64_t>() * 4 + 2) / 3 * 4));
    }
    ASSERT_GT(rate, 0);
    EXPECT_NEAR(double(frames) / rate, result["info"]["duration"].get<double>(), 1.0 / rate * 2)
        << frames << " frames at " << rate;
}

}  // namespace
}  // namespace ov::testing
