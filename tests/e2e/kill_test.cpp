// Recordings killed (SIGKILL) at random moments, in every output mode a
// microphone has: what the host is left with must play, and lose at most
// two seconds. ORVANE_KILL_COUNT sets the kills per mode (3 here, 30 from
// bench/kill_recordings.sh); each run prints the median and the worst loss.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <regex>
#include <thread>

#include "e2e/rpc_fixture.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr double kMaxLostSeconds = 2.0;
constexpr double kSegmentSeconds = 6.0;

int killCount() {
    if (const char* text = std::getenv("ORVANE_KILL_COUNT")) return std::max(1, std::atoi(text));
    return 3;
}

// The earliest kill, in seconds after start's answer: early enough to hit a
// single file's first second, where its movie header is written with the first
// fragment (cut as soon as every track has a packet).
double earliestKill() {
    if (const char* text = std::getenv("ORVANE_KILL_EARLIEST")) return std::max(0.1, std::atof(text));
    return 0.3;
}

struct Listing {
    double seconds = 0;
    std::vector<std::string> segments;
};

// The media segments a playlist lists and their listed length.
Listing mediaPlaylist(const std::string& text) {
    Listing listing;
    std::smatch m;
    const std::regex entry("#EXTINF:([0-9.]+),\n([^\n]+)\n");
    for (auto it = text.cbegin(); std::regex_search(it, text.cend(), m, entry); it = m.suffix().first) {
        listing.seconds += std::stod(m[1]);
        listing.segments.push_back(m[2]);
    }
    return listing;
}

std::string decodeErrors(const fs::path& directory, const std::string& input) {
    return commandOutput("cd '" + directory.string() + "' && ffmpeg -nostdin -v error -i '" + input +
                         "' -f null - 2>&1");
}

class KillTest : public ::testing::TestWithParam<std::string> {
protected:
    void TearDown() override {
        if (lost_.empty()) return;
        std::sort(lost_.begin(), lost_.end());
        const double median = lost_.size() % 2 ? lost_[lost_.size() / 2]
                                                : (lost_[lost_.size() / 2 - 1] + lost_[lost_.size() / 2]) / 2;
        std::printf("[ kill ] %s: %zu kills, seconds lost median %.3f, max %.3f\n", GetParam().c_str(),
                    lost_.size(), median, lost_.back());
        std::fflush(stdout);
    }

    // Starts a recording of `item`, kills the process after `seconds` and
    // returns the recorded seconds the host had seen begin (start's answer to
    // the kill). Callbacks are kept.
    double recordAndKill(const fs::path& bundle, const json& item, double seconds) {
        auto rpc = startRpc({}, {{"ORVANE_OS_LOG", "error"}});
        int id = 0;
        auto call = [&](json message) {
            message["hvrpc"] = 1;
            message["id"] = std::to_string(++id);
            rpc->writeJSON(message);
            for (;;) {
                auto line = rpc->readJSON(20000ms);
                if (!line) return json();
                if (!line->contains("id")) {
                    callbacks_.push_back(*line);
                    continue;
                }
                return *line;
            }
        };
        auto r = call({{"procedure", "init"},
                       {"type", "Recorder"},
                       {"target", "rec"},
                       {"params",
                        {{"schema", {{"output_directory", bundle.string()}, {"items", json::array({item})}}},
                         {"onAbortInstance", "abort"}}}});
        EXPECT_EQ(r["status"], 200) << r.dump();
        EXPECT_EQ(call({{"procedure", "perform"}, {"target", "rec"}, {"action", "prepare"}})["status"], 200);
        EXPECT_EQ(call({{"procedure", "perform"}, {"target", "rec"}, {"action", "start"}})["status"], 200);
        const auto started = Clock::now();
        const auto until = started + std::chrono::duration<double>(seconds);
        while (Clock::now() < until) {
            for (auto& line : rpc->readLinesFor(50ms)) callbacks_.push_back(json::parse(line));
            (void)rpc->stderrText();
        }
        rpc->kill(SIGKILL);
        const double recorded = std::chrono::duration<double>(Clock::now() - started).count();
        // What was already in the pipe reached the host before the kill.
        for (auto& line : rpc->readLinesFor(200ms)) callbacks_.push_back(json::parse(line));
        (void)rpc->waitForExit();
        return recorded;
    }

    std::vector<double> lost_;
    std::vector<json> callbacks_;
};

TEST_P(KillTest, WhatAKilledRecordingLeavesPlaysAndLosesLittle) {
    const std::string mode = GetParam();
    std::mt19937 random(std::random_device{}());
    // Segmented runs go past several segment bounds; the others need not.
    std::uniform_real_distribution<double> when(earliestKill(), mode == "segmented" ? 14.0 : 4.0);

    for (int run = 0; run < killCount(); ++run) {
        TempDirectory temp;
        const fs::path bundle = temp / "killed.orvane";
        json item = {{"type", "microphone"}, {"microphone", "synthetic-microphone"}, {"output", mode}};
        if (mode == "singleFile") item["filename"] = "mic.m4a";
        if (mode == "segmented") item["filenamePrefix"] = "mic";
        if (mode == "stream") item["streamCallback"] = "audio";
        callbacks_.clear();
        const double seconds = when(random);
        const double recorded = recordAndKill(bundle, item, seconds);
        SCOPED_TRACE(::testing::Message() << mode << " run " << run << " killed after " << recorded << " s");

        double kept = 0;
        if (mode == "singleFile") {
            if (!fs::exists(bundle / "mic.m4a")) {
                ADD_FAILURE() << "no file";
                continue;
            }
            const auto errors = decodeErrors(bundle, "mic.m4a");
            if (!errors.empty()) {
                ADD_FAILURE() << errors;
                continue;
            }
            kept = playedDuration(probeMedia(bundle / "mic.m4a"));
            lost_.push_back(recorded - kept);
            EXPECT_LE(recorded - kept, kMaxLostSeconds);
        } else if (mode == "segmented") {
            const auto media = readFile(bundle / "mic-audio.m3u8");
            const auto listing = mediaPlaylist(media);
            for (const auto& segment : listing.segments) {
                ASSERT_TRUE(fs::exists(bundle / segment)) << "listed but missing: " << segment << "\n" << media;
                // A listed segment is whole: it plays on its own after the init segment.
                const auto joined = temp / "whole.mp4";
                commandOutput("cat '" + (bundle / "mic-audio-0000.mp4").string() + "' '" + (bundle / segment).string() +
                              "' > '" + joined.string() + "'");
                EXPECT_EQ(decodeErrors(temp.path(), "whole.mp4"), "") << segment;
            }
            if (!listing.segments.empty()) {
                EXPECT_EQ(decodeErrors(bundle, "mic-audio.m3u8"), "") << media;
            }
            kept = listing.seconds;
            // Only whole segments count: what lies after the last bound is not yet published.
            const double whole = std::floor(recorded / kSegmentSeconds) * kSegmentSeconds;
            lost_.push_back(recorded - kept);
            std::vector<std::string> faults;
            if (!fs::exists(bundle / "mic.m3u8")) faults.push_back("no master playlist");
            if (whole - kept > kMaxLostSeconds)
                faults.push_back(::testing::PrintToString(whole - kept) + " s of whole segments unlisted");
            for (const auto& fault : faults) ADD_FAILURE() << fault << "\n" << media;
        } else {
            int64_t frames = 0;
            double rate = 48000;
            for (const auto& c : callbacks_) {
                if (c["target"] != "audio") continue;
                rate = c["params"]["sampleRate"].get<double>();
                frames += c["params"]["numberOfFrames"].get<int64_t>();
            }
            kept = double(frames) / rate;
            lost_.push_back(recorded - kept);
            EXPECT_LE(recorded - kept, kMaxLostSeconds);
        }
        EXPECT_GE(kept, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(OutputModes, KillTest, ::testing::Values("singleFile", "segmented", "stream"),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace ov::testing
