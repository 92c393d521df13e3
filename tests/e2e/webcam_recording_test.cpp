// A camera with a microphone recorded the way a host records it, over the
// protocol on the synthetic platform, and its live preview watched meanwhile.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "e2e/rpc_fixture.h"
#include "platform/cv_pixel_buffer.h"
#include "platform/synthetic/synthetic_pattern.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

class WebcamRecording : public ::testing::Test {
protected:
    void start(std::map<std::string, std::string> env = {}) { rpc = startRpc({}, std::move(env)); }

    json send(json message) {
        message["hvrpc"] = 1;
        message["id"] = std::to_string(++id);
        rpc->writeJSON(message);
        for (;;) {
            auto line = rpc->readJSON(20000ms);
            if (!line) {
                ADD_FAILURE() << "no answer to " << message.dump() << "\n" << rpc->stderrText();
                return json();
            }
            if (line->contains("id")) return *line;
        }
    }
    json perform(const std::string& action) {
        auto r = send({{"procedure", "perform"}, {"target", "rec"}, {"action", action}});
        EXPECT_EQ(r["status"], 200) << action << ": " << r.dump() << "\n" << rpc->stderrText();
        return r;
    }
    void initAndStart(const json& item) {
        auto r = send({{"procedure", "init"},
                       {"type", "Recorder"},
                       {"target", "rec"},
                       {"params",
                        {{"schema", {{"output_directory", bundle.string()}, {"items", json::array({item})}}},
                         {"onAbortInstance", "abort-cb"}}}});
        ASSERT_EQ(r["status"], 200) << r.dump();
        perform("prepare");
        perform("start");
    }
    json record(const json& item, std::chrono::milliseconds length, const std::function<void()>& meanwhile = {}) {
        initAndStart(item);
        const auto until = std::chrono::steady_clock::now() + length;
        if (meanwhile) meanwhile();
        std::this_thread::sleep_until(until);
        return perform("stop")["result"];
    }

    static json streamOf(const json& info, const std::string& type) {
        for (const auto& stream : info["streams"])
            if (stream["codec_type"] == type) return stream;
        return json();
    }

    std::unique_ptr<ChildProcess> rpc;
    int id = 0;
    TempDirectory temp;
    std::filesystem::path bundle = temp / "recording.orvane";
};

// The frame counters of the movie's pictures, decoded by ffmpeg.
std::vector<uint32_t> frameCounters(const std::filesystem::path& movie, int width, int height) {
    TempDirectory dir;
    commandOutput("ffmpeg -v error -i '" + movie.string() + "' -map 0:v -fps_mode passthrough -pix_fmt gray -f rawvideo '" +
                  (dir / "frames.gray").string() + "' 2>&1");
    const auto bytes = readFile(dir / "frames.gray");
    const size_t frameSize = size_t(width) * height;
    std::vector<uint32_t> counters;
    for (size_t at = 0; frameSize && at + frameSize <= bytes.size(); at += frameSize) {
        // ffmpeg's grey is full range.
        auto picture = platform::CVPixelBuffer::make(width, height, platform::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
        for (int row = 0; row < height; ++row)
            std::memcpy(picture->baseAddressOfPlane(0) + row * picture->bytesPerRowOfPlane(0),
                        bytes.data() + at + size_t(row) * width, size_t(width));
        if (auto counter = platform::SyntheticPattern::readFrameCounter(*picture)) counters.push_back(*counter);
    }
    return counters;
}

// The first bytes of a preview stream.
std::string readPreview(const std::string& url, std::chrono::milliseconds duration) {
    const auto portStart = url.find(':', 7) + 1;
    const uint16_t port = uint16_t(std::stoi(url.substr(portStart)));
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string data;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        const std::string request = "GET " + url.substr(url.find("/camera/")) + " HTTP/1.1\r\n\r\n";
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        const auto until = std::chrono::steady_clock::now() + duration;
        char buffer[65536];
        while (std::chrono::steady_clock::now() < until) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            data.append(buffer, size_t(n));
        }
    }
    ::close(fd);
    return data;
}

TEST_F(WebcamRecording, AMovieOfTheCameraAndMicrophoneWhileItsPreviewIsWatched) {
    start();
    // Cameras carry their preview address; microphones don't.
    auto cameras = send({{"procedure", "perform"}, {"type", "Recorder"}, {"action", "getCameras"},
                         {"params", {{"includeDeskView", false}}}});
    ASSERT_EQ(cameras["status"], 200) << cameras.dump();
    const auto& camera = cameras["result"][0];
    ASSERT_EQ(camera["id"], "synthetic-camera");
    const std::string url = camera["preview_url"];
    ASSERT_TRUE(url.starts_with("http://127.0.0.1:")) << url;
    ASSERT_TRUE(url.ends_with("/camera/synthetic-camera")) << url;
    auto microphones = send({{"procedure", "perform"}, {"type", "Recorder"}, {"action", "getMicrophones"}});
    EXPECT_FALSE(microphones["result"][0].contains("preview_url"));

    std::string preview;
    auto result = record({{"type", "webcam"},
                          {"camera", "synthetic-camera"},
                          {"microphone", "synthetic-microphone"},
                          {"filename", "cam.mov"}},
                         3000ms, [&] { preview = readPreview(url, 700ms); });
    EXPECT_TRUE(preview.starts_with("HTTP/1.0 200 OK\r\n")) << preview.substr(0, 100);
    EXPECT_NE(preview.find("\xFF\xD8", 0), std::string::npos) << "a JPEG during the recording";

    ASSERT_EQ(result["info"]["files"][0]["filename"], "cam.mov") << result.dump();
    EXPECT_EQ(result["info"]["files"][0]["type"], "webcam");
    const double timeline = result["info"]["duration"].get<double>();
    auto info = probeMedia(bundle / "cam.mov");
    ASSERT_EQ(info["streams"].size(), 2u) << info.dump();
    const auto video = streamOf(info, "video");
    const auto audio = streamOf(info, "audio");
    EXPECT_EQ(video["codec_name"], "h264");
    EXPECT_EQ(video["width"], 1280);
    EXPECT_EQ(video["height"], 720);
    EXPECT_EQ(audio["codec_name"], "aac");
    EXPECT_NEAR(std::stod(video["duration"].get<std::string>()), timeline, 0.1) << info.dump();
    EXPECT_NEAR(playedDuration(info), timeline, 0.1) << info.dump();
    const int frames = std::stoi(video["nb_read_packets"].get<std::string>());
    // A 30 fps camera; a loaded machine drops a few late frames rather than queueing them.
    EXPECT_LE(frames, timeline * 30 + 2);
    EXPECT_GE(frames, timeline * 30 * 0.75);

    const auto counters = frameCounters(bundle / "cam.mov", 1280, 720);
    ASSERT_GE(counters.size(), size_t(frames) * 9 / 10) << "the frame counters are readable";
    // Increasing; the last picture may repeat, held to the recording's end.
    for (size_t i = 1; i + 1 < counters.size(); ++i) ASSERT_GT(counters[i], counters[i - 1]) << i;
    EXPECT_GE(counters.back(), counters[counters.size() - 2]);
}

TEST_F(WebcamRecording, HEVCKeepsTheActiveFormatWhenAskedTo) {
    writeFile(temp / "world.json", R"({
        "cameras": [{"uniqueID": "cam", "formats": [{"width": 1280, "height": 720}, {"width": 640, "height": 480}],
                     "activeFormat": 1}],
        "microphones": [{"uniqueID": "mic"}]})");
    start({{"ORVANE_SYNTHETIC_WORLD", (temp / "world.json").string()}});
    record({{"type", "webcam"},
            {"camera", "cam"},
            {"microphone", "mic"},
            {"videoCodec", "hevc"},
            {"preserveActiveCameraConfiguration", true},
            {"filename", "cam.mov"}},
           1500ms);
    auto info = probeMedia(bundle / "cam.mov");
    const auto video = streamOf(info, "video");
    EXPECT_EQ(video["codec_name"], "hevc") << info.dump();
    EXPECT_EQ(video["codec_tag_string"], "hvc1");
    EXPECT_EQ(video["width"], 640);
    EXPECT_EQ(video["height"], 480);
    EXPECT_EQ(streamOf(info, "audio")["codec_name"], "aac");
}

TEST_F(WebcamRecording, SegmentedOutputNamesCameraAndMicrophoneInItsPlaylist) {
    start();
    auto result = record({{"type", "webcam"},
                          {"camera", "synthetic-camera"},
                          {"microphone", "synthetic-microphone"},
                          {"output", "segmented"},
                          {"filenamePrefix", "cam"}},
                         2500ms);
    const auto master = readFile(bundle / "cam.m3u8");
    EXPECT_NE(master.find("NAME=\"Microphone\""), std::string::npos) << master;
    EXPECT_NE(master.find("mp4a.40.2"), std::string::npos) << master;
    EXPECT_NE(master.find("avc1.42e00a"), std::string::npos) << master;
    EXPECT_NE(master.find("RESOLUTION=1280x720"), std::string::npos) << master;
    // Frame times follow the capture, not a constant rate: keep them as they are.
    const auto errors = commandOutput("cd '" + bundle.string() +
                                      "' && ffmpeg -v error -i cam.m3u8 -fps_mode passthrough -enc_time_base -1 -f null - 2>&1");
    EXPECT_EQ(errors, "");
    EXPECT_EQ(result["info"]["files"][0]["type"], "webcam") << result.dump();
}

TEST_F(WebcamRecording, AKilledProcessLeavesAPlayableMovie) {
    start();
    initAndStart({{"type", "webcam"},
                  {"camera", "synthetic-camera"},
                  {"microphone", "synthetic-microphone"},
                  {"filename", "cam.mov"}});
    std::this_thread::sleep_for(2500ms);
    rpc->kill(9);
    rpc->waitForExit();
    auto info = probeMedia(bundle / "cam.mov");
    ASSERT_EQ(info["streams"].size(), 2u) << info.dump();
    EXPECT_GT(std::stoi(streamOf(info, "video")["nb_read_packets"].get<std::string>()), 20);
    const auto errors = commandOutput("ffmpeg -v error -i '" + (bundle / "cam.mov").string() + "' -fps_mode passthrough -enc_time_base -1 -f null - 2>&1");
    EXPECT_EQ(errors, "");
}

}  // namespace
}  // namespace ov::testing
