// Display, window and application discovery on the X11 backend, on a private
// Xvfb with openbox: monitors as displays (stable ids, virtual monitors, EDID
// names), windows and their owners while subscribed, and no X traffic from the
// loops while nobody listens. Every wait is on a condition with a generous
// deadline: CI machines run these under heavy load.
#include <gtest/gtest.h>
#include <xcb/randr.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "platform/dispatch_queue.h"
#include "platform/linux/linux_capture_platform.h"
#include "platform/linux/x11/x11_content.h"
#include "platform/linux/x11/x11_screen_provider.h"
#include "sources/application_discovery.h"
#include "sources/display_discovery.h"
#include "sources/window_discovery.h"
#include "support/xvfb_server.h"

namespace ov {
namespace {

using platform::CapturePlatform;
using platform::DispatchQueue;
using platform::LinuxCapturePlatform;
using platform::x11::X11ScreenProvider;
using testing::HelperWindows;
using testing::XvfbServer;
using Clock = std::chrono::steady_clock;

template <class F>
bool eventually(F done, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        DispatchQueue::drainMainForTesting();
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    DispatchQueue::drainMainForTesting();
    return done();
}

struct X11Platform {
    std::shared_ptr<LinuxCapturePlatform> platform;
    CapturePlatform::ScopedOverride installed;
    explicit X11Platform(const XvfbServer& server)
        : platform(std::make_shared<LinuxCapturePlatform>(
              std::vector<std::shared_ptr<platform::CaptureDeviceProvider>>{},
              std::make_shared<X11ScreenProvider>(server.display()))),
          installed(platform) {}
};

class X11Discovery : public ::testing::Test {
protected:
    static void SetUpTestSuite() { server_ = new XvfbServer(true); }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }
    static XvfbServer* server_;
};
XvfbServer* X11Discovery::server_ = nullptr;

std::shared_ptr<OVWindow> windowWithID(const std::vector<std::shared_ptr<OVWindow>>& list, uint32_t id) {
    for (const auto& w : list)
        if (w->id == id) return w;
    return nullptr;
}

TEST_F(X11Discovery, WindowsAndTheirOwnersWhileSubscribed) {
    X11Platform x11(*server_);
    auto windows = WindowDiscovery::make();
    auto applications = ApplicationDiscovery::make();
    auto windowStream = windows->updates();
    auto applicationStream = applications->updates();

    const auto mapped = Clock::now();
    HelperWindows first(*server_, {{100, 120, 400, 300, 0xff0000, "First discovered"}});
    HelperWindows second(*server_, {{600, 200, 300, 250, 0x00ff00, "Second discovered"}}, 0, {"--no-pid"});
    ASSERT_TRUE(eventually([&] {
        return windowWithID(windows->current(), first.id()) && windowWithID(windows->current(), second.id());
    }));
    std::printf("[ measured ] two helper windows published %.3f s after the helpers started\n",
                std::chrono::duration<double>(Clock::now() - mapped).count());
    const auto a = windowWithID(windows->current(), first.id());
    const auto b = windowWithID(windows->current(), second.id());
    ASSERT_TRUE(eventually([&] { return a->title() == "First discovered" && b->title() == "Second discovered"; }));
    EXPECT_EQ(a->applicationProcessID(), first.pid());
    EXPECT_EQ(b->applicationProcessID(), second.pid()) << "the owner comes from the server, not _NET_WM_PID";
    EXPECT_EQ(a->level(), OVWindow::Level::normal);
    EXPECT_TRUE(a->applicationName());
    const auto defaults = filtered(windows->current(), OVWindow::FilterOptions::defaultOptions);
    EXPECT_TRUE(windowWithID(defaults, first.id()));

    ASSERT_TRUE(eventually([&] { return applications->item(first.pid()) && applications->item(second.pid()); }));
    const auto firstApplication = applications->item(first.pid());

    // Minimised: still known, off screen.
    ASSERT_EQ(server_->run("xdotool windowminimize --sync " + std::to_string(first.id())), 0);
    ASSERT_TRUE(eventually([&] { return a->availability() == WindowAvailability::notOnScreen; }));
    EXPECT_FALSE(windowWithID(filtered(windows->current(), OVWindow::FilterOptions::allOnScreen), first.id()));

    // Killed: closed, and its application no longer running.
    first.kill();
    ASSERT_TRUE(eventually([&] { return a->availability() == WindowAvailability::closed; }));
    EXPECT_FALSE(windowWithID(windows->current(), first.id()));
    const auto killed = Clock::now();
    ASSERT_TRUE(eventually(
        [&] { return firstApplication->availability() == RunningApplicationAvailability::notRunning; }));
    std::printf("[ measured ] application notRunning %.3f s after its window closed\n",
                std::chrono::duration<double>(Clock::now() - killed).count());
    EXPECT_EQ(b->availability(), WindowAvailability::available);
}

TEST_F(X11Discovery, NoServerReadsWhileNobodyListens) {
    X11Platform x11(*server_);
    auto windows = WindowDiscovery::make();
    auto applications = ApplicationDiscovery::make();
    const auto before = platform::x11::x11ContentReadCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(platform::x11::x11ContentReadCount(), before);

    auto stream = windows->updates();
    ASSERT_TRUE(eventually([&] { return platform::x11::x11ContentReadCount() > before + 2; }));
    stream.reset();
    const auto stopped = platform::x11::x11ContentReadCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(platform::x11::x11ContentReadCount(), stopped);
}

// Sets the EDID property of the screen's first output, as a monitor's driver would.
void setEDID(const std::string& display, const std::vector<uint8_t>& edid) {
    xcb_connection_t* c = xcb_connect(display.c_str(), nullptr);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    auto* resources = xcb_randr_get_screen_resources_current_reply(c, xcb_randr_get_screen_resources_current(c, root), nullptr);
    ASSERT_TRUE(resources);
    ASSERT_GT(xcb_randr_get_screen_resources_current_outputs_length(resources), 0);
    const xcb_randr_output_t output = xcb_randr_get_screen_resources_current_outputs(resources)[0];
    std::free(resources);
    auto* atom = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, 4, "EDID"), nullptr);
    ASSERT_TRUE(atom);
    xcb_randr_change_output_property(c, output, atom->atom, XCB_ATOM_INTEGER, 8, XCB_PROP_MODE_REPLACE,
                                     uint32_t(edid.size()), edid.data());
    std::free(atom);
    std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    xcb_disconnect(c);
}

std::vector<uint8_t> dellEDID() {
    std::vector<uint8_t> bytes(128, 0);
    const uint8_t header[8] = {0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0};
    std::memcpy(bytes.data(), header, 8);
    bytes[8] = 0x10, bytes[9] = 0xAC;   // "DEL"
    bytes[10] = 0xC3, bytes[11] = 0xA0;  // product 0xA0C3
    bytes[12] = 0x31, bytes[13] = 0x4A, bytes[14] = 0x30, bytes[15] = 0x4C;
    bytes[54 + 3] = 0xFC;
    const char name[] = "DELL U2720Q\n ";
    std::memcpy(bytes.data() + 54 + 5, name, 13);
    return bytes;
}

TEST(X11DisplayDiscovery, MonitorsAsDisplaysStableIdsVirtualMonitorsAndEDIDNames) {
    XvfbServer server(true);
    uint32_t id = 0;
    {
        X11Platform x11(server);
        auto displays = DisplayDiscovery::make();
        ASSERT_EQ(displays->current().size(), 1u);
        const auto screen = displays->current()[0];
        id = screen->id;
        EXPECT_EQ(screen->localizedName(), "screen");
        EXPECT_TRUE(screen->isMain());
        EXPECT_EQ(screen->frame(), (platform::CGRect{{0, 0}, {1920, 1080}}));
        EXPECT_EQ(screen->availability(), DisplayAvailability::available);

        // Split into two virtual monitors: the server says nothing, triggerUpdate re-reads.
        ASSERT_EQ(server.run("xrandr --setmonitor LEFT 960/254x1080/286+0+0 screen"), 0);
        ASSERT_EQ(server.run("xrandr --setmonitor RIGHT 960/254x1080/286+960+0 none"), 0);
        displays->triggerUpdate();
        ASSERT_TRUE(eventually([&] { return displays->current().size() == 2; }));
        EXPECT_EQ(screen->availability(), DisplayAvailability::notConnected);
        std::vector<std::string> names;
        for (const auto& d : displays->current()) names.push_back(d->localizedName());
        std::sort(names.begin(), names.end());
        EXPECT_EQ(names, (std::vector<std::string>{"LEFT", "RIGHT"}));
        int mains = 0;
        for (const auto& d : displays->current()) mains += d->isMain();
        EXPECT_EQ(mains, 1) << "one main display, the one at the origin";

        ASSERT_EQ(server.run("xrandr --delmonitor LEFT"), 0);
        ASSERT_EQ(server.run("xrandr --delmonitor RIGHT"), 0);
        displays->triggerUpdate();
        ASSERT_TRUE(eventually([&] { return displays->current().size() == 1; }));
        EXPECT_EQ(displays->current()[0], screen) << "the old display comes back as the same object";
        EXPECT_EQ(screen->availability(), DisplayAvailability::available);

        // A monitor's EDID names it.
        setEDID(server.display(), dellEDID());
        const auto infos = x11.platform->activeDisplays();
        ASSERT_EQ(infos.size(), 1u);
        EXPECT_EQ(infos[0].vendorNumber, 4268u);
        EXPECT_EQ(infos[0].modelNumber, 0xA0C3u);
        EXPECT_EQ(infos[0].serialNumber, 0x4C304A31u);
        displays->triggerUpdate();
        ASSERT_TRUE(eventually([&] { return screen->localizedName() == "DELL U2720Q"; }));
    }
    server.restart();
    X11Platform x11(server);
    auto displays = DisplayDiscovery::make();
    ASSERT_EQ(displays->current().size(), 1u);
    EXPECT_EQ(displays->current()[0]->id, id) << "the id survives a server restart";
}

TEST(X11DisplayDiscovery, AReconfigurationNoticeUpdatesWithoutBeingAsked) {
    XvfbServer server;
    X11Platform x11(server);
    auto displays = DisplayDiscovery::make();
    ASSERT_EQ(displays->current().size(), 1u);
    // Virtual monitors come without a notice; making the output primary sends one.
    ASSERT_EQ(server.run("xrandr --setmonitor LEFT 960/254x1080/286+0+0 screen"), 0);
    ASSERT_EQ(server.run("xrandr --setmonitor RIGHT 960/254x1080/286+960+0 none"), 0);
    ASSERT_EQ(server.run("xrandr --output screen --primary"), 0);
    ASSERT_TRUE(eventually([&] { return displays->current().size() == 2; }));
}

}  // namespace
}  // namespace ov
