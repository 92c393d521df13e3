// Screen streams of the X11 backend on a private Xvfb with openbox: pictures,
// change detection and pacing, the cursor, crops, filters that hide or keep
// windows, single windows, and the ends of a stream.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "platform/linux/linux_capture_platform.h"
#include "platform/linux/x11/x11_screen_provider.h"
#include "platform/sc_stream.h"
#include "platform/capture_platform.h"
#include "platform/sc_stream_error.h"
#include "platform/capture_collector.h"
#include "support/xvfb_server.h"
#include "platform/x11_support.h"

using namespace ov::platform;
using namespace ov::testing;
using ov::platform::x11::X11ScreenProvider;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t red = 0xff0000, green = 0x00ff00, blue = 0x0000ff, white = 0xffffff;

class X11Stream : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        server_ = new XvfbServer(true);
        provider_ = new X11ScreenProvider(server_->display());
    }
    static void TearDownTestSuite() {
        delete provider_;
        delete server_;
        provider_ = nullptr;
        server_ = nullptr;
    }

    SCShareableContent content() { return provider_->shareableContent(false, false); }
    SCDisplay display() { return content().displays().at(0); }
    SCWindow window(uint32_t id) {
        const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
        while (std::chrono::steady_clock::now() < deadline) {
            const auto listed = content();
            for (const auto& w : listed.windows())
                if (w.windowID == id && w.isOnScreen) return w;
            std::this_thread::sleep_for(20ms);
        }
        throw std::runtime_error("window not listed");
    }
    std::optional<SCRunningApplication> application(pid_t pid) {
        const auto listed = content();
        for (const auto& a : listed.applications())
            if (a.processID == pid) return a;
        return std::nullopt;
    }
    void activate(uint32_t id) { ASSERT_EQ(server_->run("xdotool windowactivate --sync " + std::to_string(id)), 0); }

    std::unique_ptr<ScreenCaptureProducer> start(const SCContentFilter& filter, SCStreamConfiguration configuration,
                                                 ScreenSinkCollector& collector) {
        return provider_->startScreenCapture(filter, configuration, collector.sink());
    }
    static SCStreamConfiguration noCursor() {
        SCStreamConfiguration c;
        c.showsCursor = false;
        return c;
    }
    // Complete frames presented within [from, from + length).
    static size_t completeBetween(const std::vector<DeliveredFrame>& frames, int64_t from, int64_t length) {
        return size_t(std::count_if(frames.begin(), frames.end(), [&](const auto& f) {
            return f.complete() && f.time() >= from && f.time() < from + length;
        }));
    }

    static XvfbServer* server_;
    static X11ScreenProvider* provider_;
};
XvfbServer* X11Stream::server_ = nullptr;
X11ScreenProvider* X11Stream::provider_ = nullptr;

TEST_F(X11Stream, FirstFrameIsCompleteThenAQuietScreenGivesOnlyIdleSamples) {
    HelperWindows helper(*server_, {{300, 200, 400, 300, red, "Still red"}});
    const auto frame = window(helper.id()).frame;
    ScreenSinkCollector collector;
    auto producer = start(SCContentFilter::displayExcludingApplications(display(), {}, {}), noCursor(), collector);
    ASSERT_TRUE(collector.waitFor([](const auto& f) { return f.size() >= 40; }));
    producer->stop();
    const auto frames = collector.frames();
    ASSERT_TRUE(frames.front().complete());
    const auto& first = frames.front();
    EXPECT_EQ(first.picture().width(), 1920u);
    EXPECT_EQ(first.picture().height(), 1080u);
    EXPECT_EQ(first.screenRect(), (CGRect{{0, 0}, {1920, 1080}}));
    // The window's colour where the window is (its middle, away from the block's row).
    EXPECT_EQ(first.pixel(size_t(frame.origin.x + frame.size.width / 2), size_t(frame.origin.y + frame.size.height - 20)), red);
    EXPECT_EQ(first.pixel(5, 5), 0u);  // the black root
    // Nothing draws: everything after the first frames is idle and carries no picture.
    const size_t complete = size_t(std::count_if(frames.begin(), frames.end(), [](const auto& f) { return f.complete(); }));
    EXPECT_LE(complete, 2u);
    for (size_t i = 5; i < frames.size(); ++i) {
        EXPECT_FALSE(frames[i].complete());
        EXPECT_FALSE(frames[i].sample.imageBuffer());
    }
    // Pacing at the 60 Hz ceiling: 40 samples in about two thirds of a second.
    EXPECT_EQ(frames[1].sample.duration(), CMTime(1'000'000'000 / 60, 1'000'000'000));
}

TEST_F(X11Stream, ChangesAt30HzGiveAFrameEachAndTimesFollowTheHostClock) {
    HelperWindows helper(*server_, {{0, 0, 1920, 1080, 0x336699, "Busy"}}, 30);
    ScreenSinkCollector collector(false);
    auto producer = start(SCContentFilter::displayExcludingApplications(display(), {}, {}), noCursor(), collector);
    std::this_thread::sleep_for(2600ms);
    producer->stop();
    const auto frames = collector.frames();
    ASSERT_FALSE(frames.empty());
    const int64_t from = frames.front().time() + 300'000'000;
    const size_t count = completeBetween(frames, from, 2'000'000'000);
    EXPECT_GE(count, 58u);  // 30 per second ± 3 %
    EXPECT_LE(count, 62u);
    for (size_t i = 0; i < frames.size(); ++i) {
        if (i > 0) {
            EXPECT_GT(frames[i].time(), frames[i - 1].time());
        }
        EXPECT_LE(frames[i].time(), frames[i].deliveredAt);
        EXPECT_GE(frames[i].time(), frames[i].deliveredAt - 20'000'000);
    }
}

TEST_F(X11Stream, MinimumFrameIntervalCapsA60HzSource) {
    HelperWindows helper(*server_, {{0, 0, 800, 600, 0x996633, "Fast"}}, 60);
    ScreenSinkCollector collector(false);
    auto configuration = noCursor();
    configuration.minimumFrameInterval = CMTime(1, 30);
    auto producer = start(SCContentFilter::displayExcludingApplications(display(), {}, {}), configuration, collector);
    std::this_thread::sleep_for(2400ms);
    producer->stop();
    const auto frames = collector.frames();
    ASSERT_FALSE(frames.empty());
    const size_t count = completeBetween(frames, frames.front().time() + 200'000'000, 2'000'000'000);
    EXPECT_GE(count, 58u);  // 30 ± 1 per second
    EXPECT_LE(count, 62u);
}

TEST_F(X11Stream, TheCursorIsDrawnOnlyWhenAskedFor) {
    HelperWindows helper(*server_, {{0, 0, 1920, 1080, white, "White"}});
    ASSERT_EQ(server_->run("xdotool mousemove --sync 500 400"), 0);
    auto dark = [](const DeliveredFrame& f) {
        size_t n = 0;
        for (size_t y = 370; y < 430; ++y)
            for (size_t x = 470; x < 530; ++x) n += (f.pixel(x, y) & 0xff) < 0x40;
        return n;
    };
    for (bool shows : {true, false}) {
        ScreenSinkCollector collector;
        SCStreamConfiguration configuration;
        configuration.showsCursor = shows;
        auto producer = start(SCContentFilter::displayExcludingApplications(display(), {}, {}), configuration, collector);
        ASSERT_TRUE(collector.waitForComplete(1));
        producer->stop();
        const auto first = collector.completeFrames().front();
        if (shows) {
            EXPECT_GT(dark(first), 10u);
        } else {
            EXPECT_EQ(dark(first), 0u);
        }
    }
    // Moving the pointer is a change.
    ScreenSinkCollector collector;
    SCStreamConfiguration configuration;
    auto producer = start(SCContentFilter::displayExcludingApplications(display(), {}, {}), configuration, collector);
    ASSERT_TRUE(collector.waitFor([](const auto& f) { return f.size() >= 10; }));
    ASSERT_EQ(server_->run("xdotool mousemove --sync 900 700"), 0);
    ASSERT_TRUE(collector.waitForComplete(2));
    producer->stop();
}

TEST_F(X11Stream, SourceRectAndOutputSize) {
    HelperWindows helper(*server_, {{100, 100, 600, 400, green, "Green"}});
    const auto frame = window(helper.id()).frame;
    ScreenSinkCollector collector;
    auto configuration = noCursor();
    // Below the helper's moving block (its rows 100–300), inside the client area.
    const CGRect crop{{frame.origin.x + 50, frame.origin.y + frame.size.height - 95}, {100, 80}};
    configuration.sourceRect = crop;
    auto producer = start(SCContentFilter::displayExcludingApplications(display(), {}, {}), configuration, collector);
    ASSERT_TRUE(collector.waitForComplete(1));
    // Scaled to twice the size and a different aspect: letterboxed.
    configuration.width = 400;
    configuration.height = 200;
    producer->updateConfiguration(configuration);
    ASSERT_TRUE(collector.waitForComplete(2));
    producer->stop();
    const auto frames = collector.completeFrames();
    EXPECT_EQ(frames[0].screenRect(), crop);
    EXPECT_EQ(frames[0].picture().width(), 100u);
    EXPECT_EQ(frames[0].picture().height(), 80u);
    EXPECT_EQ(frames[0].count(green, 0, 0, 100, 80), 100u * 80u);
    const auto& scaled = frames[1];
    EXPECT_EQ(scaled.picture().width(), 400u);
    EXPECT_EQ(scaled.picture().height(), 200u);
    // Filtering may round a step off the colour.
    const uint32_t middle = scaled.pixel(200, 100);
    EXPECT_GE((middle >> 8) & 0xff, 0xf0u) << std::hex << middle;
    EXPECT_LE(middle & 0xff00ff, 0x080008u) << std::hex << middle;
    EXPECT_EQ(scaled.pixel(10, 100), 0u);  // the bars
    const auto content = *CGRectMakeWithDictionaryRepresentation(
        scaled.sample.sampleAttachments()[0].at(SCStreamFrameInfoContentRect));
    EXPECT_EQ(content, (CGRect{{75, 0}, {250, 200}}));
}

TEST_F(X11Stream, ExcludingAnApplicationShowsTheWindowBelow) {
    HelperWindows below(*server_, {{200, 200, 500, 400, red, "Below"}});
    HelperWindows above(*server_, {{300, 300, 500, 400, green, "Above"}});
    activate(above.id());
    const auto app = application(above.pid());
    ASSERT_TRUE(app);
    const auto belowFrame = window(below.id()).frame;
    ScreenSinkCollector collector;
    auto producer = start(SCContentFilter::displayExcludingApplications(display(), {*app}, {}), noCursor(), collector);
    ASSERT_TRUE(collector.waitForComplete(1));
    producer->stop();
    const auto first = collector.completeFrames().front();
    // Where both overlap, the hidden window's colour is gone and the one below shows.
    const size_t x = size_t(belowFrame.origin.x + belowFrame.size.width - 40);
    const size_t y = size_t(belowFrame.origin.y + belowFrame.size.height - 30);
    EXPECT_EQ(first.pixel(x, y), red);
    EXPECT_EQ(first.count(green, 0, 0, 1920, 1080), 0u);
}

TEST_F(X11Stream, WindowBasedCropKeepsTheOwnersWindowsOnly) {
    HelperWindows owner(*server_, {{200, 150, 700, 500, red, "Target"}, {650, 500, 300, 200, blue, "Same owner"}});
    HelperWindows other(*server_, {{150, 100, 300, 250, green, "Other"}});
    activate(owner.id(1));
    activate(other.id());
    const auto target = window(owner.id(0));
    const auto all = content();
    std::vector<SCRunningApplication> others;
    for (const auto& a : all.applications())
        if (a.processID != owner.pid()) others.push_back(a);
    std::vector<SCWindow> kept{window(owner.id(1))};
    auto configuration = noCursor();
    configuration.sourceRect = target.frame;  // the display is at the origin
    ScreenSinkCollector collector;
    auto producer = start(SCContentFilter::displayExcludingApplications(display(), others, kept), configuration, collector);
    ASSERT_TRUE(collector.waitForComplete(1));
    producer->stop();
    const auto first = collector.completeFrames().front();
    const size_t w = first.picture().width(), h = first.picture().height();
    EXPECT_EQ(first.count(green, 0, 0, w, h), 0u);
    EXPECT_GT(first.count(blue, 0, 0, w, h), 1000u);
    // Under the other application's window the target shows.
    EXPECT_EQ(first.pixel(60, 60), red);
}

TEST_F(X11Stream, ADesktopIndependentWindowIsWholeFollowsMovesAndEndsWithIt) {
    HelperWindows covered(*server_, {{400, 300, 400, 300, red, "Covered"}});
    HelperWindows cover(*server_, {{350, 250, 600, 500, green, "Cover"}});
    activate(cover.id());
    const auto target = window(covered.id());
    ScreenSinkCollector collector;
    auto producer = start(SCContentFilter(target), noCursor(), collector);
    ASSERT_TRUE(collector.waitForComplete(1));
    auto first = collector.completeFrames().front();
    EXPECT_EQ(first.screenRect(), target.frame);
    EXPECT_EQ(first.picture().width(), size_t(target.frame.size.width));
    EXPECT_EQ(first.count(green, 0, 0, first.picture().width(), first.picture().height()), 0u);
    // The client area, below the title bar, is the window's own picture.
    const double top = target.frame.size.height - 300 - 5;
    EXPECT_GT(first.count(red, 0, size_t(top), first.picture().width(), 300), 300u * 100u);

    ASSERT_EQ(server_->run("xdotool windowmove --sync " + std::to_string(covered.id()) + " 900 500"), 0);
    const auto moved = window(covered.id()).frame;
    ASSERT_TRUE(collector.waitFor([&](const auto& frames) {
        return std::any_of(frames.begin(), frames.end(), [&](const auto& f) { return f.complete() && f.screenRect() == moved; });
    }));

    covered.kill();
    ASSERT_TRUE(collector.waitForError());
    producer->stop();
    const auto errors = collector.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(describeError(errors[0]).code, SCStreamError::noCaptureSource);
}

TEST_F(X11Stream, MissingSourcesFailToStart) {
    SCDisplay gone{12345, {{0, 0}, {10, 10}}, 10, 10};
    ScreenSinkCollector collector;
    try {
        start(SCContentFilter::displayExcludingApplications(gone, {}, {}), {}, collector);
        FAIL();
    } catch (const SCStreamError& e) {
        EXPECT_EQ(e.code(), SCStreamError::noCaptureSource);
    }
    SCWindow none;
    none.windowID = 0x7fffff;
    try {
        start(SCContentFilter(none), {}, collector);
        FAIL();
    } catch (const SCStreamError& e) {
        EXPECT_EQ(e.code(), SCStreamError::noCaptureSource);
    }
}

TEST(X11StreamEnd, KillingTheServerStopsTheStreamOnceThroughTheDelegate) {
    XvfbServer server;
    auto provider = std::make_shared<X11ScreenProvider>(server.display());
    auto platform = std::make_shared<LinuxCapturePlatform>(std::vector<std::shared_ptr<CaptureDeviceProvider>>{}, provider);
    CapturePlatform::ScopedOverride installed(platform);
    const auto display = provider->shareableContent(false, false).displays().at(0);
    auto collector = std::make_shared<CaptureCollector>();
    auto stream = SCStream::make(SCContentFilter::displayExcludingApplications(display, {}, {}), {}, collector);
    stream->addStreamOutput(collector, SCStreamOutputType::screen, std::make_shared<DispatchQueue>("x11.test"));
    stream->startCapture();
    ASSERT_TRUE(collector->waitForSamples(3));
    EXPECT_EQ(stream->synchronizationClock(), CMClock::hostTimeClock());
    server.killServer();
    ASSERT_TRUE(collector->waitForError());
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(collector->errors().size(), 1u);
    EXPECT_EQ(describeError(collector->errors()[0]).code, SCStreamError::systemStoppedStream);
    EXPECT_THROW(stream->stopCapture(), SCStreamError);
}

}  // namespace
