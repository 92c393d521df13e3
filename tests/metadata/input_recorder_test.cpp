// The input recorder on the synthetic feed: what reaches the file, with which
// times, around pauses and cursor changes, in each mode; and how it fails.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "foundation/ov_error.h"
#include "metadata/input_recorder.h"
#include "platform/synthetic/synthetic_input.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"

namespace ov {
namespace {

using platform::CMTime;
using platform::SyntheticInputEvent;
using K = SyntheticInputEvent::Kind;

constexpr double T0 = 1000.0;

CMTime at(double seconds) { return CMTime::makeWithSeconds(seconds, 1'000'000'000); }
uint64_t ns(double seconds) { return static_cast<uint64_t>(std::llround(seconds * 1e9)); }

platform::NSCursor named(const std::string& name, uint64_t serial) {
    platform::NSCursor c;
    c.hotSpot = {4, 4};
    c.size = {24, 24};
    c.name = name;
    c.serial = serial;
    c.image = platform::SyntheticInputProvider::cursorImage(name);
    return c;
}

SyntheticInputEvent move(double x, double y) { return {0, K::move, x, y, 1, "", ""}; }
SyntheticInputEvent key(K kind, const std::string& keysym) { return {0, kind, 0, 0, 1, keysym, ""}; }
SyntheticInputEvent button(K kind, int b) { return {0, kind, 0, 0, b, "", ""}; }

struct Harness {
    testing::TempDirectory dir;
    testing::LogCapture capture;
    std::shared_ptr<VolatileRecordingTimeline> volatileTimeline = std::make_shared<VolatileRecordingTimeline>();
    std::shared_ptr<StableRecordingTimeline> timeline = std::make_shared<StableRecordingTimeline>(volatileTimeline);
    std::shared_ptr<platform::SyntheticInputProvider> provider =
        std::make_shared<platform::SyntheticInputProvider>(platform::SyntheticInput{}, platform::CGRect{{0, 0}, {200, 100}});
    std::shared_ptr<CursorTimeline> cursors = std::make_shared<CursorTimeline>();
    std::shared_ptr<RecordingRectTimeline> rects = std::make_shared<RecordingRectTimeline>();
    std::atomic<int> aborts{0};
    std::unique_ptr<InputRecorder> recorder;

    explicit Harness(InputRecorder::CaptureMode mode, bool useTimeline = true, bool segmented = false,
                     bool sampledForever = true) {
        rects->capture(at(T0 - 1), platform::CGRect{{0, 0}, {200, 100}});
        if (sampledForever) rects->capture(at(1e6), std::nullopt);
        InputRecorder::Configuration c;
        c.id = "display-1";
        c.logger = capture.logger;
        c.recordingTimeline = timeline;
        c.useTimeline = useTimeline;
        c.captureMode = mode;
        c.cursorTimeline = cursors;
        c.recordingRectTimeline = rects;
        c.output = segmented ? OutputDescription::multipleStreams(dir.path(), "screen", [](const auto&) {})
                             : OutputDescription::singleFile(dir / "screen.input-events.json");
        c.onAbort = [this](AbortSignal signal) {
            if (signal.kind == AbortSignal::Kind::interrupted) ++aborts;
        };
        c.provider = provider;
        c.prepareTimeout = 0.2;
        recorder = std::make_unique<InputRecorder>(std::move(c));
    }

    void cursorAt(double seconds, const std::string& name, uint64_t serial) {
        cursors->capture(named(name, serial), at(seconds), {{0, 0}, 0});
    }

    nlohmann::json entries() { return nlohmann::json::parse(testing::readFile(dir / "screen.input-events.json")); }
};

std::vector<std::string> kinds(const nlohmann::json& entries) {
    std::vector<std::string> out;
    for (const auto& e : entries) {
        std::string kind = e["type"];
        if (e.contains("mouseEventType")) kind += ":" + e["mouseEventType"].get<std::string>();
        if (e.contains("keyboardEventType")) kind += ":" + e["keyboardEventType"].get<std::string>();
        out.push_back(kind);
    }
    return out;
}

TEST(InputRecorder, CursorChangesAndPausesOnTheOutputTimeline) {
    Harness h(InputRecorder::CaptureMode::mouseAndKeyboardEvents);
    h.cursorAt(T0 + 0.5, "left_ptr", 1);
    h.cursorAt(T0 + 0.7, "xterm", 2);
    h.cursorAt(T0 + 1.5, "hand2", 3);  // in the pause: no entry
    h.cursorAt(T0 + 2.8, "left_ptr", 4);  // after the last event: from finish
    h.cursors->capture(named("left_ptr", 4), at(1e6), {{0, 0}, 0});
    const auto assets = h.recorder->prepare();
    ASSERT_EQ(assets.size(), 1u);
    EXPECT_EQ(assets[0].type, OVBundleInfo::FileAssetType::mouse);
    EXPECT_EQ(assets[0].filename, "screen.input-events.json");

    h.provider->post(move(10, 10), ns(T0 - 0.5));  // before the start: nothing
    h.volatileTimeline->start(T0);
    h.volatileTimeline->pause(T0 + 1);
    h.volatileTimeline->start(T0 + 2);
    h.volatileTimeline->stop(T0 + 3);
    h.provider->post(move(50, 25), ns(T0 + 0.6));
    h.provider->post(move(100, 50), ns(T0 + 0.8));
    h.provider->post(move(100, 60), ns(T0 + 1.2));  // in the pause
    h.provider->post(move(150, 75), ns(T0 + 2.5));
    h.recorder->finish();

    const auto e = h.entries();
    EXPECT_EQ(kinds(e), (std::vector<std::string>{"mouse:cursorChanged", "mouse:moved", "mouse:cursorChanged",
                                                  "mouse:moved", "discontinuation", "mouse:moved",
                                                  "mouse:cursorChanged"}));
    const auto value = [&](size_t i) { return e[i]["time"]["value"].get<int64_t>(); };
    EXPECT_NEAR(value(0), 500'000'000, 1);
    EXPECT_NEAR(value(2), 700'000'000, 1);
    EXPECT_EQ(e[2]["cursorType"], "iBeam");
    EXPECT_EQ(e[3]["cursorType"], "iBeam");
    EXPECT_NEAR(value(4), 1'000'000'000, 1);
    EXPECT_NEAR(value(5), 1'500'000'000, 1);
    EXPECT_NEAR(value(6), 1'800'000'000, 1);
    EXPECT_EQ(e[6]["cursorType"], "arrow");
    EXPECT_DOUBLE_EQ(e[1]["x"].get<double>(), 0.25);
    EXPECT_DOUBLE_EQ(e[1]["y"].get<double>(), 0.25);
    for (size_t i = 0; i < e.size(); ++i) {
        EXPECT_EQ(e[i]["time"]["timescale"], 1'000'000'000);
        EXPECT_EQ(e[i]["time"]["value"].get<int64_t>(), static_cast<int64_t>(std::trunc(e[i]["time"]["seconds"].get<double>() * 1e9)));
        if (i > 0) {
            EXPECT_GE(value(i), value(i - 1));
        }
        EXPECT_FALSE(e[i].contains("button")) << i;
    }
    struct stat st {};
    ASSERT_EQ(::stat((h.dir / "screen.input-events.json").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(InputRecorder, WithoutTheTimelineTimesAreOffsetsFromTheStart) {
    Harness h(InputRecorder::CaptureMode::mouseEvents, /*useTimeline=*/false);
    h.cursorAt(T0 + 0.2, "left_ptr", 1);
    h.cursorAt(T0 + 0.7, "xterm", 2);
    h.cursors->capture(named("xterm", 2), at(1e6), {{0, 0}, 0});
    h.recorder->prepare();
    h.volatileTimeline->start(T0);
    h.volatileTimeline->stop(T0 + 3);
    h.provider->post(button(K::buttonDown, 1), ns(T0 + 0.6));
    h.provider->post(move(20, 20), ns(T0 + 0.8));
    h.provider->post(button(K::buttonUp, 1), ns(T0 + 0.9));
    h.provider->post(key(K::keyDown, "a"), ns(T0 + 0.95));  // not asked for
    h.provider->post(move(20, 30), ns(T0 + 3.5));            // after the stop
    h.recorder->finish();
    const auto e = h.entries();
    EXPECT_EQ(kinds(e), (std::vector<std::string>{"mouse:cursorChanged", "mouse:down", "mouse:cursorChanged",
                                                  "mouse:dragged", "mouse:up"}));
    EXPECT_NEAR(e[2]["time"]["value"].get<int64_t>(), 700'000'000, 1);
    EXPECT_EQ(e[1]["button"], "primary");
    EXPECT_EQ(e[3]["button"], "primary");
    EXPECT_EQ(e[1]["targetsCurrentProcess"], false);
}

TEST(InputRecorder, KeyboardOnlyKeepsKeysAndCursorChangesButNoMouseEntries) {
    Harness h(InputRecorder::CaptureMode::keyboardEvents, true, false, /*sampledForever=*/false);
    h.cursorAt(T0 + 0.1, "left_ptr", 1);
    h.cursorAt(T0 + 0.3, "xterm", 2);
    h.recorder->prepare();
    h.volatileTimeline->start(T0);
    h.provider->post(move(5, 5), ns(T0 + 0.2));
    h.provider->post(key(K::keyDown, "Shift_L"), ns(T0 + 0.4));
    h.provider->post(key(K::keyDown, "a"), ns(T0 + 0.5));
    h.provider->post(key(K::keyDown, "a"), ns(T0 + 0.55));
    h.provider->post(key(K::keyUp, "a"), ns(T0 + 0.6));
    h.provider->post(key(K::keyUp, "Shift_L"), ns(T0 + 0.7));
    h.provider->post(key(K::keyDown, "Escape"), ns(T0 + 0.8));
    h.provider->post(button(K::buttonDown, 3), ns(T0 + 0.9));
    h.volatileTimeline->stop(T0 + 2);
    h.recorder->finish();
    const auto e = h.entries();
    EXPECT_EQ(kinds(e), (std::vector<std::string>{"mouse:cursorChanged", "mouse:cursorChanged", "modifiersChanged",
                                                  "keyboard:down", "keyboard:down", "keyboard:up", "modifiersChanged",
                                                  "keyboard:down"}));
    EXPECT_EQ(e[2]["modifiers"], nlohmann::json::array({"shift"}));
    EXPECT_EQ(e[3]["characters"], "A");
    EXPECT_EQ(e[3]["keyTitle"], "A");
    EXPECT_EQ(e[3]["isARepeat"], false);
    EXPECT_EQ(e[4]["isARepeat"], true);
    EXPECT_EQ(e[6]["modifiers"], nlohmann::json::array());
    EXPECT_EQ(e[7]["keyType"], "escape");
    EXPECT_FALSE(e[7].contains("characters"));
    // Not one key's data reached the log.
    for (const auto& line : h.capture.lines()) {
        std::string all = line.message;
        for (const auto& [k, v] : line.metadata) all += k + "=" + v;
        EXPECT_EQ(all.find("\"A\""), std::string::npos) << all;
        EXPECT_EQ(all.find("Escape"), std::string::npos) << all;
    }
}

TEST(InputRecorder, SegmentedOutputConcatenatesToTheSingleFile) {
    const auto script = [](Harness& h) {
        h.cursorAt(T0 + 0.1, "left_ptr", 1);
        h.cursors->capture(named("left_ptr", 1), at(1e6), {{0, 0}, 0});
        h.recorder->prepare();
        h.volatileTimeline->start(T0);
        h.volatileTimeline->stop(T0 + 2);
        for (int i = 0; i < 20; ++i) h.provider->post(move(i, i), ns(T0 + 0.5 + i * 0.01));
        h.provider->post(key(K::keyDown, "b"), ns(T0 + 0.9));
        h.provider->post(key(K::keyUp, "b"), ns(T0 + 0.95));
        h.recorder->finish();
    };
    Harness single(InputRecorder::CaptureMode::mouseAndKeyboardEvents);
    script(single);
    Harness segmented(InputRecorder::CaptureMode::mouseAndKeyboardEvents, true, /*segmented=*/true);
    script(segmented);
    const auto index = nlohmann::json::parse(testing::readFile(segmented.dir / "screen.index.json"));
    ASSERT_GE(index.size(), 1u);
    nlohmann::json joined = nlohmann::json::array();
    for (size_t i = 0; i < index.size(); ++i) {
        EXPECT_EQ(index[i], fmt::format("screen-{:04d}.json", i));
        for (const auto& entry : nlohmann::json::parse(testing::readFile(segmented.dir / index[i].get<std::string>())))
            joined.push_back(entry);
    }
    EXPECT_EQ(joined, single.entries());
}

TEST(InputRecorder, FailuresAbortOrFailPrepare) {
    {
        // No cursor within the time limit.
        Harness h(InputRecorder::CaptureMode::mouseEvents);
        try {
            h.recorder->prepare();
            FAIL();
        } catch (const OVError& error) {
            EXPECT_EQ(error.code(), OVError::Code::inputRecordingUnavailable);
            EXPECT_EQ(error.debugDescription(), "Mouse cursor capturing failed to capture any cursors before timeout");
        }
    }
    {
        // A lost connection ends the stream with an error: the recording aborts.
        Harness h(InputRecorder::CaptureMode::mouseEvents);
        h.cursorAt(T0, "left_ptr", 1);
        h.recorder->prepare();
        h.provider->failFeeds(std::make_exception_ptr(std::runtime_error("connection lost")));
        EXPECT_TRUE(testing::eventually([&] { return h.aborts == 1; }));
        EXPECT_TRUE(h.capture.waitFor("Event monitor stopped with error, aborting.").has_value());
        h.recorder->cancel();
    }
    {
        // A recorder dropped with its monitor still running says so.
        Harness h(InputRecorder::CaptureMode::mouseEvents);
        h.cursorAt(T0, "left_ptr", 1);
        h.recorder->prepare();
        h.recorder.reset();
        EXPECT_TRUE(h.capture.contains("Deallocated without event monitor being properly stopped."));
    }
}

}  // namespace
}  // namespace ov
