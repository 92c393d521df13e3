// Shareable content of the X11 backend on a private Xvfb with openbox:
// displays from RandR monitors, windows front to back with their owners, and
// the bounded reconnect of the content connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "platform/linux/x11/x11_content.h"
#include "platform/linux/x11/x11_screen_provider.h"
#include "support/child_process.h"
#include "support/xvfb_server.h"

using namespace ov::platform;
using namespace ov::testing;
using ov::platform::x11::X11ScreenProvider;

namespace {

const SCWindow* findWindow(const SCShareableContent& content, uint32_t id) {
    for (const auto& w : content.windows())
        if (w.windowID == id) return &w;
    return nullptr;
}

size_t positionOf(const SCShareableContent& content, uint32_t id) {
    const auto& windows = content.windows();
    auto it = std::find_if(windows.begin(), windows.end(), [&](const auto& w) { return w.windowID == id; });
    return size_t(it - windows.begin());
}

// Polls until the content satisfies `done` (the window manager works asynchronously).
template <class Done>
SCShareableContent contentWhen(X11ScreenProvider& provider, Done done, bool onScreenOnly = false) {
    SCShareableContent content;
    const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
    while (std::chrono::steady_clock::now() < deadline) {
        content = provider.shareableContent(false, onScreenOnly);
        if (done(content)) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return content;
}

class X11Content : public ::testing::Test {
protected:
    static void SetUpTestSuite() { server_ = new XvfbServer(true); }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }
    static XvfbServer* server_;
};
XvfbServer* X11Content::server_ = nullptr;

TEST_F(X11Content, OneDisplayAtTheOriginWithAnIdFromItsName) {
    X11ScreenProvider provider(server_->display());
    const auto content = provider.shareableContent(false, false);
    ASSERT_EQ(content.displays().size(), 1u);
    const auto& display = content.displays()[0];
    EXPECT_NE(display.displayID, 0u);
    EXPECT_EQ(display.displayID, x11::displayIDForMonitorName("screen"));
    EXPECT_EQ(display.frame, (CGRect{{0, 0}, {1920, 1080}}));
    EXPECT_EQ(display.width, 1920);
    EXPECT_EQ(display.height, 1080);
    EXPECT_TRUE(provider.preflightScreenCaptureAccess());
}

TEST_F(X11Content, WindowsOfTwoClientsWithTitlesFramesOwnersAndOrder) {
    HelperWindows first(*server_, {{100, 120, 400, 300, 0xff0000, "First helper"}});
    HelperWindows second(*server_, {{700, 200, 300, 250, 0x00ff00, "Second helper"}}, 0, {"--no-pid"});
    X11ScreenProvider provider(server_->display());
    auto content = contentWhen(provider, [&](const auto& c) {
        return findWindow(c, first.id()) && findWindow(c, second.id());
    });
    const auto* a = findWindow(content, first.id());
    const auto* b = findWindow(content, second.id());
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->title, "First helper");
    EXPECT_EQ(b->title, "Second helper");
    // The frame holds the client area (decorations around it).
    int x = -1, y = -1;
    {
        xcb_connection_t* c = xcb_connect(server_->display().c_str(), nullptr);
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
        auto* at = xcb_translate_coordinates_reply(c, xcb_translate_coordinates(c, first.id(), root, 0, 0), nullptr);
        ASSERT_TRUE(at);
        x = at->dst_x, y = at->dst_y;
        std::free(at);
        xcb_disconnect(c);
    }
    EXPECT_LE(a->frame.origin.x, x);
    EXPECT_LE(a->frame.origin.y, y);
    EXPECT_GE(a->frame.origin.x + a->frame.size.width, x + 400);
    EXPECT_GE(a->frame.origin.y + a->frame.size.height, y + 300);
    // Owners come from the server, not from the optional _NET_WM_PID.
    ASSERT_TRUE(a->owningApplication && b->owningApplication);
    EXPECT_EQ(a->owningApplication->processID, first.pid());
    EXPECT_EQ(b->owningApplication->processID, second.pid());
    EXPECT_EQ(a->owningApplication->applicationName, "OrvaneHelper");
    EXPECT_TRUE(a->isOnScreen);
    EXPECT_EQ(a->windowLayer, 0);
    // Applications are the owners.
    std::vector<int32_t> pids;
    for (const auto& app : content.applications()) pids.push_back(app.processID);
    EXPECT_NE(std::find(pids.begin(), pids.end(), first.pid()), pids.end());
    EXPECT_NE(std::find(pids.begin(), pids.end(), second.pid()), pids.end());

    // Front to back follows activation.
    ASSERT_EQ(server_->run("xdotool windowactivate --sync " + std::to_string(first.id())), 0);
    content = contentWhen(provider, [&](const auto& c) { return positionOf(c, first.id()) < positionOf(c, second.id()); });
    EXPECT_LT(positionOf(content, first.id()), positionOf(content, second.id()));
    ASSERT_EQ(server_->run("xdotool windowactivate --sync " + std::to_string(second.id())), 0);
    content = contentWhen(provider, [&](const auto& c) { return positionOf(c, second.id()) < positionOf(c, first.id()); });
    EXPECT_LT(positionOf(content, second.id()), positionOf(content, first.id()));

    // Minimised: listed, not on screen, and left out of "on screen only".
    ASSERT_EQ(server_->run("xdotool windowminimize --sync " + std::to_string(first.id())), 0);
    content = contentWhen(provider, [&](const auto& c) {
        const auto* w = findWindow(c, first.id());
        return w && !w->isOnScreen;
    });
    ASSERT_TRUE(findWindow(content, first.id()));
    EXPECT_FALSE(findWindow(content, first.id())->isOnScreen);
    const auto onScreen = provider.shareableContent(false, true);
    EXPECT_FALSE(findWindow(onScreen, first.id()));
    EXPECT_TRUE(findWindow(onScreen, second.id()));
}

TEST_F(X11Content, ClientsWithoutAPidPropertyStillHaveTheirOwner) {
    ChildProcess xlogo("/usr/bin/xlogo", {"-geometry", "200x200+50+50"}, {{"DISPLAY", server_->display()}});
    X11ScreenProvider provider(server_->display());
    auto content = contentWhen(provider, [](const auto& c) {
        return std::any_of(c.windows().begin(), c.windows().end(), [](const auto& w) { return w.title == "xlogo"; });
    });
    auto it = std::find_if(content.windows().begin(), content.windows().end(), [](const auto& w) { return w.title == "xlogo"; });
    ASSERT_NE(it, content.windows().end());
    ASSERT_TRUE(it->owningApplication);
    EXPECT_EQ(it->owningApplication->processID, xlogo.pid());
}

TEST(X11ContentDisplays, VirtualMonitorsAreDisplaysAndIdsSurviveProcessesAndRestarts) {
    XvfbServer server;
    const auto before = X11ScreenProvider(server.display()).shareableContent(false, false).displays().at(0).displayID;
    // Another process sees the same id.
    ChildProcess other(ORVANE_TEST_HELPER_PATH, {"x11-displays"}, {{"DISPLAY", server.display()}});
    auto line = other.readLine();
    ASSERT_TRUE(line);
    EXPECT_EQ(*line, std::to_string(before) + " 0,0,1920,1080");
    // So does a restarted server.
    server.restart();
    EXPECT_EQ(X11ScreenProvider(server.display()).shareableContent(false, false).displays().at(0).displayID, before);

    ASSERT_EQ(server.run("xrandr --setmonitor LEFT 960/254x1080/286+0+0 screen"), 0);
    ASSERT_EQ(server.run("xrandr --setmonitor RIGHT 960/254x1080/286+960+0 none"), 0);
    const auto content = X11ScreenProvider(server.display()).shareableContent(false, false);
    ASSERT_EQ(content.displays().size(), 2u);
    std::vector<double> origins{content.displays()[0].frame.origin.x, content.displays()[1].frame.origin.x};
    std::sort(origins.begin(), origins.end());
    EXPECT_EQ(origins, (std::vector<double>{0, 960}));
    for (const auto& d : content.displays()) {
        EXPECT_EQ(d.width, 960);
        EXPECT_EQ(d.height, 1080);
    }
    EXPECT_NE(content.displays()[0].displayID, content.displays()[1].displayID);
}

TEST(X11ContentService, AServerGrabTimesRetrievalOutAndTheReconnectIsBounded) {
    XvfbServer server;
    X11ScreenProvider provider(server.display(), 1.0);
    ASSERT_EQ(provider.shareableContent(false, false).displays().size(), 1u);
    HelperWindows grabber(server, {{0, 0, 50, 50, 0x0000ff, "Grabber"}}, 0, {"--grab", "5"});
    ASSERT_EQ(grabber.process().readLine(), "grabbed");

    const auto t0 = std::chrono::steady_clock::now();
    try {
        provider.shareableContent(false, false);
        FAIL() << "a retrieval under a server grab answered";
    } catch (const x11::X11Error& e) {
        EXPECT_EQ(e.code(), x11::X11Error::timedOut);
    }
    const auto t1 = std::chrono::steady_clock::now();
    EXPECT_FALSE(provider.restartShareableContentService());
    const auto t2 = std::chrono::steady_clock::now();
    // Both waits end at their limits, not with the grab.
    EXPECT_LT(t1 - t0, std::chrono::milliseconds(2500));
    EXPECT_LT(t2 - t1, std::chrono::milliseconds(3000));

    ASSERT_EQ(grabber.process().readLine(std::chrono::milliseconds(10000)), "released");
    EXPECT_TRUE(provider.restartShareableContentService());
    EXPECT_EQ(provider.shareableContent(false, false).displays().size(), 1u);
}

TEST(X11ContentService, NoServerIsAnErrorNamingTheDisplay) {
    try {
        X11ScreenProvider provider(":4242");
        FAIL() << "connected to a display that does not exist";
    } catch (const x11::X11Error& e) {
        EXPECT_EQ(e.code(), x11::X11Error::noDisplay);
        EXPECT_NE(std::string(e.what()).find(":4242"), std::string::npos);
    }
}

}  // namespace
