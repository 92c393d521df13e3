// The linux backend's screens over the protocol, on a private Xvfb with
// openbox: listing displays and windows, and recording a display.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "e2e/rpc_fixture.h"
#include "platform/linux/x11/x11_content.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"
#include "support/xvfb_server.h"

namespace ov::testing {
namespace {

using nlohmann::json;

class X11OverRpc : public ::testing::Test {
protected:
    static void SetUpTestSuite() { server_ = new XvfbServer(true); }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }
    void SetUp() override { rpc = startRpc({}, {{"ORVANE_PLATFORM", "linux"}, {"DISPLAY", server_->display()}}); }
    json call(const json& message) {
        rpc->writeJSON(message);
        return rpc->readJSON().value_or(json());
    }

    // Records one item for `seconds`; the stop response, or a skip when this
    // build has no recorder for screens yet.
    json record(const json& item, const std::filesystem::path& bundle, double seconds) {
        auto r = call(request("10", "init",
                              {{"type", "Recorder"},
                               {"target", "rec"},
                               {"params",
                                {{"schema", {{"output_directory", bundle.string()}, {"items", json::array({item})}}},
                                 {"onAbortInstance", "abort"}}}}));
        if (r["status"] != 200) return r;
        r = call(request("11", "perform", {{"target", "rec"}, {"action", "prepare"}}));
        if (r["status"] != 200) return r;
        call(request("12", "perform", {{"target", "rec"}, {"action", "start"}}));
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        return call(request("13", "perform", {{"target", "rec"}, {"action", "stop"}}));
    }
    static bool screenRecorderMissing(const json& response) {
        return response.dump().find("not supported") != std::string::npos ||
               response.dump().find("configurationNotSupported") != std::string::npos;
    }
    static uint32_t displayID() { return platform::x11::displayIDForMonitorName("screen"); }

    static XvfbServer* server_;
    std::unique_ptr<ChildProcess> rpc;
};
XvfbServer* X11OverRpc::server_ = nullptr;

TEST_F(X11OverRpc, ListsTheDisplayAndTheWindows) {
    HelperWindows helper(*server_, {{100, 100, 500, 400, 0x123456, "Listed window"}});
    auto r = call(request("1", "perform", {{"type", "Recorder"}, {"action", "getDisplays"}}));
    ASSERT_EQ(r["status"], 200) << r.dump() << rpc->stderrText();
    ASSERT_EQ(r["result"].size(), 1u) << r.dump();
    EXPECT_EQ(r["result"][0]["id"], displayID());
    EXPECT_EQ(r["result"][0]["isMain"], true);
    EXPECT_EQ(r["result"][0]["frame"]["width"], 1920);
    EXPECT_EQ(r["result"][0]["frame"]["height"], 1080);

    r = call(request("2", "perform", {{"type", "Recorder"}, {"action", "getWindows"}}));
    ASSERT_EQ(r["status"], 200) << r.dump();
    bool found = false;
    for (const auto& w : r["result"])
        if (w["id"] == helper.id()) {
            found = true;
            EXPECT_EQ(w["title"], "Listed window");
            EXPECT_EQ(w["application_process_id"], helper.pid());
            EXPECT_EQ(w["level"], 0);
        }
    EXPECT_TRUE(found) << r.dump();
}

TEST_F(X11OverRpc, RecordsABusyDisplayAtItsRate) {
    HelperWindows helper(*server_, {{0, 0, 1920, 1080, 0x336699, "Busy"}}, 30);
    TempDirectory temp;
    const auto bundle = temp / "display.orvane";
    const auto r = record({{"type", "display"}, {"display", displayID()}, {"shows_cursor", false}, {"filename", "screen.mov"}},
                          bundle, 6);
    if (screenRecorderMissing(r)) GTEST_SKIP() << "no screen recorder on this build yet: " << r.dump();
    ASSERT_EQ(r["status"], 200) << r.dump() << rpc->stderrText();
    const auto info = probeMedia(bundle / "screen.mov");
    ASSERT_FALSE(info["streams"].empty()) << info.dump();
    EXPECT_EQ(info["streams"][0]["codec_name"], "h264");
    EXPECT_EQ(info["streams"][0]["width"], 1920);
    EXPECT_EQ(info["streams"][0]["height"], 1080);
    const double duration = r["result"]["info"]["duration"].get<double>();
    const auto packets = commandOutput("ffprobe -v error -select_streams v:0 -show_entries packet=pts_time -of csv=p=0 '" +
                                       (bundle / "screen.mov").string() + "'");
    std::vector<double> times;
    std::istringstream in(packets);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) times.push_back(std::stod(line));
    EXPECT_NEAR(double(times.size()), duration * 30, duration * 30 * 0.03);
    std::sort(times.begin(), times.end());
    for (size_t i = 1; i < times.size(); ++i) EXPECT_LE(times[i] - times[i - 1], 0.1) << "at " << times[i];
}

TEST_F(X11OverRpc, RecordsAnIdleDisplayAtAboutOneFramePerSecond) {
    TempDirectory temp;
    const auto bundle = temp / "idle.orvane";
    const auto r = record({{"type", "display"}, {"display", displayID()}, {"shows_cursor", false}, {"filename", "screen.mov"}},
                          bundle, 6);
    if (screenRecorderMissing(r)) GTEST_SKIP() << "no screen recorder on this build yet: " << r.dump();
    ASSERT_EQ(r["status"], 200) << r.dump() << rpc->stderrText();
    const double duration = r["result"]["info"]["duration"].get<double>();
    const auto packets = commandOutput("ffprobe -v error -select_streams v:0 -show_entries packet=pts_time -of csv=p=0 '" +
                                       (bundle / "screen.mov").string() + "'");
    std::vector<double> times;
    std::istringstream in(packets);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) times.push_back(std::stod(line));
    EXPECT_GE(times.size(), size_t(std::floor(duration)));
    EXPECT_LE(times.size(), size_t(std::floor(duration)) + 3);
    std::sort(times.begin(), times.end());
    for (size_t i = 1; i < times.size(); ++i) EXPECT_LE(times[i] - times[i - 1], 1.15);
}

TEST_F(X11OverRpc, ShowsTheCursorOnlyWhenAskedFor) {
    HelperWindows helper(*server_, {{0, 0, 1920, 1080, 0xffffff, "White"}});
    ASSERT_EQ(server_->run("xdotool mousemove --sync 500 400"), 0);
    for (bool shows : {true, false}) {
        SetUp();  // a fresh process per recording
        TempDirectory temp;
        const auto bundle = temp / "cursor.orvane";
        const auto r = record({{"type", "display"}, {"display", displayID()}, {"shows_cursor", shows}, {"filename", "screen.mov"}},
                              bundle, 1.5);
        if (screenRecorderMissing(r)) GTEST_SKIP() << "no screen recorder on this build yet: " << r.dump();
        ASSERT_EQ(r["status"], 200) << r.dump();
        // The last decoded picture, as grey bytes, around the pointer.
        const auto raw = temp / "frame.gray";
        ASSERT_EQ(std::system(("ffmpeg -v error -sseof -0.5 -i '" + (bundle / "screen.mov").string() +
                               "' -frames:v 1 -vf crop=60:60:470:370 -pix_fmt gray -f rawvideo -y '" + raw.string() + "'")
                                  .c_str()),
                  0);
        std::ifstream in(raw, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        ASSERT_EQ(bytes.size(), 3600u);
        const auto dark = std::count_if(bytes.begin(), bytes.end(), [](char c) { return uint8_t(c) < 0x60; });
        if (shows) {
            EXPECT_GT(dark, 10);
        } else {
            EXPECT_EQ(dark, 0);
        }
    }
}

TEST_F(X11OverRpc, WindowBasedCropRecordsTheWindowsFrameRoundedToEven) {
    HelperWindows helper(*server_, {{200, 150, 601, 401, 0x00ff00, "Cropped"}});
    TempDirectory temp;
    const auto bundle = temp / "crop.orvane";
    const auto r = record({{"type", "windowBasedCrop"}, {"window", helper.id()}, {"filename", "window.mov"}}, bundle, 2);
    if (screenRecorderMissing(r)) GTEST_SKIP() << "no screen recorder on this build yet: " << r.dump();
    ASSERT_EQ(r["status"], 200) << r.dump() << rpc->stderrText();
    const auto windows = call(request("20", "perform", {{"type", "Recorder"}, {"action", "getWindows"}}));
    json frame;
    for (const auto& w : windows["result"])
        if (w["id"] == helper.id()) frame = w["frame"];
    ASSERT_FALSE(frame.is_null());
    const auto info = probeMedia(bundle / "window.mov");
    ASSERT_FALSE(info["streams"].empty()) << info.dump();
    EXPECT_EQ(info["streams"][0]["width"], int(frame["width"].get<double>()) & ~1);
    EXPECT_EQ(info["streams"][0]["height"], int(frame["height"].get<double>()) & ~1);
}

}  // namespace
}  // namespace ov::testing
