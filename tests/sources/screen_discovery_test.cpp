// Display, window and application discovery over a scripted synthetic world:
// displays and windows coming and going, availability transitions, polling
// only while someone listens, names and their order.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "foundation/ov_error.h"
#include "output/ov_logger.h"
#include "platform/dispatch_queue.h"
#include "platform/edid.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "session/source_diagnostics.h"
#include "sources/application_discovery.h"
#include "sources/availability.h"
#include "sources/cg_interop.h"
#include "sources/display_discovery.h"
#include "sources/natural_compare.h"
#include "sources/ov_sources.h"
#include "sources/ov_user_preferred.h"
#include "sources/window_discovery.h"

namespace ov {
namespace {

using platform::CapturePlatform;
using platform::CGRect;
using platform::DispatchQueue;
using platform::SyntheticApplication;
using platform::SyntheticCapturePlatform;
using platform::SyntheticDisplay;
using platform::SyntheticWindow;
using platform::SyntheticWorld;
using Clock = std::chrono::steady_clock;

struct World {
    std::shared_ptr<SyntheticCapturePlatform> platform;
    CapturePlatform::ScopedOverride installed;
    explicit World(SyntheticWorld world)
        : platform(std::make_shared<SyntheticCapturePlatform>(std::move(world))), installed(platform) {}
};

// Runs the main queue until `done` holds; generous, since CI machines are loaded.
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

SyntheticDisplay display(uint32_t id, std::string name, double x, bool isMain, bool builtIn = false) {
    SyntheticDisplay d;
    d.id = id;
    d.name = std::move(name);
    d.frame = {{x, 0}, {1920, 1080}};
    d.isMain = isMain;
    d.isBuiltIn = builtIn;
    return d;
}

SyntheticWindow window(uint32_t id, std::optional<std::string> title, std::optional<int32_t> owner, int32_t layer = 0,
                       bool onScreen = true) {
    SyntheticWindow w;
    w.id = id;
    w.title = std::move(title);
    w.frame = {{double(id), 10}, {400, 300}};
    w.ownerPID = owner;
    w.layer = layer;
    w.onScreen = onScreen;
    return w;
}

SyntheticWorld twoDisplayWorld(std::optional<std::string> model) {
    SyntheticWorld world;
    world.machineModel = std::move(model);
    world.displays = {display(7, "External", 1920, false), display(3, "Built-in Panel", 0, true, true)};
    return world;
}

template <class T>
std::vector<uint32_t> ids(const std::vector<std::shared_ptr<T>>& list) {
    std::vector<uint32_t> out;
    for (const auto& item : list) out.push_back(static_cast<uint32_t>(item->id));
    return out;
}

// ---- Displays

TEST(DisplayDiscovery, PresentDisplaysSortedByIdWithNamesFramesAndTheMainOne) {
    World world(twoDisplayWorld("Macmini9,1"));
    auto discovery = DisplayDiscovery::make();
    const auto list = discovery->current();
    ASSERT_EQ(ids(list), (std::vector<uint32_t>{3, 7}));
    EXPECT_EQ(list[0]->localizedName(), "Built-in Panel");
    EXPECT_TRUE(list[0]->isMain());
    EXPECT_FALSE(list[1]->isMain());
    EXPECT_EQ(list[1]->frame(), (CGRect{{1920, 0}, {1920, 1080}}));
    EXPECT_EQ(list[0]->symbolName, "desktopcomputer");
    EXPECT_EQ(list[1]->symbolName, "display");
    EXPECT_EQ(discovery->getPreferred(), list[0]);
}

TEST(DisplayDiscovery, AGoneBuiltInPanelIsLidClosedOnAPortableAndNotConnectedOnADesktop) {
    for (const auto& [model, expected] : {std::pair<std::string, DisplayAvailability>{"MacBookPro16,1", DisplayAvailability::lidClosed},
                                          {"Macmini9,1", DisplayAvailability::notConnected}}) {
        SCOPED_TRACE(model);
        World world(twoDisplayWorld(model));
        auto discovery = DisplayDiscovery::make();
        const auto panel = discovery->item(3);
        const auto external = discovery->item(7);
        world.platform->removeDisplay(3);
        world.platform->removeDisplay(7);
        ASSERT_TRUE(eventually([&] { return discovery->current().empty(); }));
        EXPECT_EQ(panel->availability(), expected);
        EXPECT_EQ(external->availability(), DisplayAvailability::notConnected);
        // Back again: the same object, available and published.
        world.platform->addDisplay(display(3, "Built-in Panel", 0, true, true));
        ASSERT_TRUE(eventually([&] { return discovery->current().size() == 1; }));
        EXPECT_EQ(discovery->current()[0], panel);
        EXPECT_EQ(panel->availability(), DisplayAvailability::available);
    }
}

TEST(DisplayDiscovery, FieldChangesAreObservedAndPreferredIdsComeBeforeTheMainDisplay) {
    World world(twoDisplayWorld("Macmini9,1"));
    auto discovery = DisplayDiscovery::make();
    const auto external = discovery->item(7);
    std::vector<std::string> keys;
    auto observation = external->observe({}, [&](const std::string& key) { keys.push_back(key); });
    world.platform->removeDisplay(7);
    ASSERT_TRUE(eventually([&] { return !keys.empty(); }));
    EXPECT_EQ(keys, std::vector<std::string>{"availability"});

    // A stored preferred display that is there comes first; one that went doesn't count.
    OVUserPreferred::shared().updateDisplay(7);
    EXPECT_EQ(discovery->getPreferred()->id, 3u);
    world.platform->addDisplay(display(7, "External", 1920, false));
    ASSERT_TRUE(eventually([&] { return external->availability() == DisplayAvailability::available; }));
    EXPECT_EQ(discovery->getPreferred()->id, 7u);
    OVUserPreferred::shared().updateDisplay(3);
    EXPECT_EQ(discovery->getPreferred()->id, 3u);
}

TEST(DisplayDiscovery, NothingPublishedWhenNothingChanged) {
    World world(twoDisplayWorld("Macmini9,1"));
    auto discovery = DisplayDiscovery::make();
    auto stream = discovery->updates();
    ASSERT_TRUE(stream->next(std::chrono::milliseconds(0)));
    discovery->update();
    EXPECT_FALSE(stream->next(std::chrono::milliseconds(0)));
    world.platform->removeDisplay(7);
    discovery->update();
    auto next = stream->next(std::chrono::milliseconds(0));
    ASSERT_TRUE(next);
    EXPECT_EQ(ids(*next), std::vector<uint32_t>{3});
}

TEST(DisplayDiscovery, AGoneDisplayNamesItsStateInTheRecordingError) {
    World world(twoDisplayWorld("Macmini9,1"));
    auto discovery = DisplayDiscovery::make();
    world.platform->removeDisplay(7);
    discovery->update();
    struct Lookup : SourceLookup {
        std::shared_ptr<DisplayDiscovery> discovery;
        std::optional<NamedSource<DisplayAvailability>> display(uint32_t id) const override {
            auto item = discovery->item(id);
            if (!item) return std::nullopt;
            return NamedSource<DisplayAvailability>{item->localizedName(), item->availability()};
        }
    } lookup;
    lookup.discovery = discovery;
    try {
        throwCantFindDisplay(7, Logger("Test"), lookup);
        FAIL() << "no error";
    } catch (const OVError& error) {
        EXPECT_EQ(error.code(), OVError::Code::displayUnavailable);
        EXPECT_NE(error.debugDescription().find("notConnected"), std::string::npos) << error.debugDescription();
        EXPECT_NE(error.localizedDescription().find("External"), std::string::npos) << error.localizedDescription();
    }
}

TEST(DisplayNames, VendorTableMirrorsAndTheSidecarRename) {
    using CGInterop::Display;
    using CGInterop::vendorSerialName;
    EXPECT_EQ(vendorSerialName(4268, 1234), "Dell Display");
    EXPECT_EQ(vendorSerialName(1552, 41038), "Built-in Retina Display");
    EXPECT_EQ(vendorSerialName(1552, 7), "Apple Display");
    EXPECT_EQ(vendorSerialName(7789, 23313), "LG UltraFine");
    EXPECT_EQ(vendorSerialName(7789, 1), "LG Display");
    EXPECT_EQ(vendorSerialName(1633775724, 0), "AirPlay Display");
    EXPECT_EQ(vendorSerialName(19501, 0), "Samsung Display");
    EXPECT_EQ(vendorSerialName(1, 0), std::nullopt);

    Display plain;
    plain.displayID = 42;
    EXPECT_EQ(plain.displayName({}), "Display #42");
    Display sidecar = plain;
    sidecar.vendorNumber = 1633775724;
    sidecar.modelNumber = 1337;
    EXPECT_EQ(sidecar.displayName({}), "iPad Sidecar");
    Display dell = plain;
    dell.displayID = 5;
    dell.vendorNumber = 4268;
    Display mirror = plain;
    mirror.mirrorsDisplay = 5;
    EXPECT_EQ(mirror.displayName({dell, mirror}), "Display #42 (mirror of Dell Display)");
    // A display with a screen takes the screen's name and no mirror suffix.
    mirror.screenName = "HDMI-1";
    EXPECT_EQ(mirror.displayName({dell, mirror}), "HDMI-1");
    EXPECT_FALSE(Display::make(0));
}

std::vector<uint8_t> edidFixture(const char manufacturer[3], uint16_t product, uint32_t serial, const std::string& name) {
    std::vector<uint8_t> bytes(128, 0);
    const uint8_t header[8] = {0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0};
    std::copy(header, header + 8, bytes.begin());
    const uint16_t id = uint16_t((manufacturer[0] - 'A' + 1) << 10 | (manufacturer[1] - 'A' + 1) << 5 | (manufacturer[2] - 'A' + 1));
    bytes[8] = uint8_t(id >> 8);
    bytes[9] = uint8_t(id);
    bytes[10] = uint8_t(product);
    bytes[11] = uint8_t(product >> 8);
    for (int i = 0; i < 4; ++i) bytes[12 + i] = uint8_t(serial >> (8 * i));
    bytes[21] = 60;
    bytes[22] = 34;
    // Descriptor 1: detailed timing (not a display descriptor); descriptor 2: the name.
    bytes[54] = 0x01;
    bytes[55] = 0x1D;
    const size_t at = 72;
    bytes[at + 3] = 0xFC;
    for (size_t i = 0; i < 13; ++i) bytes[at + 5 + i] = i < name.size() ? uint8_t(name[i]) : (i == name.size() ? 0x0A : 0x20);
    return bytes;
}

TEST(EDID, MakerProductSerialSizeAndNameFromTheBaseBlock) {
    const auto dell = platform::parseEDID(edidFixture("DEL", 0xA0C3, 0x4C304A31, "DELL U2720Q"));
    ASSERT_TRUE(dell);
    EXPECT_EQ(dell->vendorNumber, 4268u);
    EXPECT_EQ(dell->manufacturerID(), "DEL");
    EXPECT_EQ(dell->modelNumber, 0xA0C3u);
    EXPECT_EQ(dell->serialNumber, 0x4C304A31u);
    EXPECT_EQ(dell->widthCentimetres, 60u);
    EXPECT_EQ(dell->productName, "DELL U2720Q");
    EXPECT_EQ(CGInterop::vendorSerialName(dell->vendorNumber, dell->modelNumber), "Dell Display");

    for (const auto& [maker, vendor, name] : {std::tuple<const char*, uint32_t, const char*>{"SAM", 19501, "Samsung Display"},
                                              {"GSM", 7789, "LG Display"},
                                              {"APP", 1552, "Apple Display"},
                                              {"PHL", 16652, "Philips Display"},
                                              {"IVM", 9933, "iiyama Display"}}) {
        const auto edid = platform::parseEDID(edidFixture(maker, 1, 2, "X"));
        ASSERT_TRUE(edid) << maker;
        EXPECT_EQ(edid->vendorNumber, vendor) << maker;
        EXPECT_EQ(CGInterop::vendorSerialName(edid->vendorNumber, edid->modelNumber), name) << maker;
    }
    // A block without its header, or cut short, is no EDID.
    auto broken = edidFixture("DEL", 1, 2, "X");
    broken[1] = 0;
    EXPECT_FALSE(platform::parseEDID(broken));
    const auto whole = edidFixture("DEL", 1, 2, "X");
    EXPECT_FALSE(platform::parseEDID(std::span<const uint8_t>(whole).first(100)));
    // Without a name descriptor.
    auto unnamed = edidFixture("DEL", 1, 2, "X");
    unnamed[72 + 3] = 0xFF;
    EXPECT_EQ(platform::parseEDID(unnamed)->productName, std::nullopt);
}

// ---- Windows

SyntheticWorld windowWorld() {
    SyntheticWorld world;
    world.displays = {display(1, "Main", 0, true)};
    world.applications = {{100, "Notes", "dev.example.notes"}, {200, "Window Server", ""}, {300, "item 10", ""},
                          {400, "Item 2", ""}};
    world.windows = {window(11, "Note", 100), window(12, "StatusIndicator", 200), window(13, "Palette", 100, 3),
                     window(14, "Orphan", std::nullopt), window(15, "Hidden", 100, 0, false)};
    return world;
}

TEST(WindowDiscovery, OnScreenWindowsFrontToBackAndTheDefaultFilter) {
    World world(windowWorld());
    auto discovery = WindowDiscovery::make();
    // The orphan has no owner id, which the window list requires; the hidden one is known, off screen.
    EXPECT_EQ(ids(discovery->current()), (std::vector<uint32_t>{11, 12, 13, 15}));
    EXPECT_EQ(discovery->item(15)->availability(), WindowAvailability::notOnScreen);
    const auto all = filtered(discovery->current(), OVWindow::FilterOptions::allOnScreen);
    EXPECT_EQ(ids(all), (std::vector<uint32_t>{11, 12, 13}));
    // Not the recording indicator, not a palette.
    EXPECT_EQ(ids(filtered(discovery->current(), OVWindow::FilterOptions::defaultOptions)), std::vector<uint32_t>{11});
    const auto note = discovery->item(11);
    EXPECT_EQ(note->title(), "Note");
    EXPECT_EQ(note->applicationName(), "Notes");
    EXPECT_EQ(note->applicationProcessID(), 100);
    EXPECT_EQ(note->level(), OVWindow::Level::normal);
    EXPECT_EQ(discovery->item(13)->level(), OVWindow::Level::floating);
}

TEST(WindowDiscovery, OffScreenClosedAndReorderedWindows) {
    World world(windowWorld());
    auto discovery = WindowDiscovery::make();
    auto stream = discovery->updates();
    ASSERT_TRUE(stream->next(std::chrono::seconds(1)));
    const auto note = discovery->item(11);

    // Off screen (minimised): known, notOnScreen, out of the on-screen list.
    world.platform->setWindowOnScreen(11, false);
    ASSERT_TRUE(eventually([&] { return note->availability() == WindowAvailability::notOnScreen; }));
    EXPECT_EQ(ids(filtered(discovery->current(), OVWindow::FilterOptions::allOnScreen)), (std::vector<uint32_t>{12, 13}));

    // Closed: known, closed, no longer published.
    world.platform->removeWindow(11);
    ASSERT_TRUE(eventually([&] { return note->availability() == WindowAvailability::closed; }));
    EXPECT_EQ(ids(discovery->current()), (std::vector<uint32_t>{12, 13, 15}));
    EXPECT_EQ(discovery->item(11), note);

    // Two windows swap places with nothing else changed: published in the new order.
    world.platform->raiseWindow(13);
    ASSERT_TRUE(eventually([&] { return ids(discovery->current()) == std::vector<uint32_t>{13, 12, 15}; }));

    // Shown again: the same object, available.
    const auto hidden = discovery->item(15);
    world.platform->setWindowOnScreen(15, true);
    ASSERT_TRUE(eventually([&] { return hidden->availability() == WindowAvailability::available; }));
    EXPECT_EQ(discovery->item(15), hidden);
}

TEST(WindowDiscovery, PollsOnlyWhileAStreamIsOpenAndANewSubscriberStartsFresh) {
    World world(windowWorld());
    auto discovery = WindowDiscovery::make();
    const int before = world.platform->windowListRequestCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    EXPECT_EQ(world.platform->windowListRequestCount(), before) << "read without a subscriber";
    EXPECT_FALSE(discovery->isPolling());

    // A window that came while nobody listened is in the first list of a new stream.
    world.platform->addWindow(window(21, "Late", 100));
    auto stream = discovery->updates();
    auto first = stream->next(std::chrono::seconds(1));
    ASSERT_TRUE(first);
    const auto firstIDs = ids(*first);
    EXPECT_EQ(firstIDs.front(), 11u);
    EXPECT_NE(std::find(firstIDs.begin(), firstIDs.end(), 21u), firstIDs.end());
    EXPECT_TRUE(discovery->isPolling());

    // While subscribed, changes arrive without anyone asking.
    world.platform->setWindowTitle(11, "Renamed");
    ASSERT_TRUE(eventually([&] { return discovery->item(11)->title() == "Renamed"; }));

    auto second = discovery->updates();
    EXPECT_EQ(discovery->loopSubscriberCount(), 2u);
    stream->cancel();
    EXPECT_TRUE(discovery->isPolling());
    second.reset();  // dropping a stream ends it too
    EXPECT_FALSE(discovery->isPolling());
    const int stopped = world.platform->windowListRequestCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    EXPECT_EQ(world.platform->windowListRequestCount(), stopped);
}

// ---- Applications

TEST(ApplicationDiscovery, WindowOwnersOnlyInNaturalNameOrderAndNotRunningWhenTheirWindowsGo) {
    SyntheticWorld w = windowWorld();
    w.windows.push_back(window(31, "Ten", 300));
    w.windows.push_back(window(32, "Two", 400));
    World world(std::move(w));
    auto discovery = ApplicationDiscovery::make();
    const auto list = discovery->current();
    std::vector<std::string> names;
    for (const auto& app : list) names.push_back(app->name.value_or(""));
    // Window owners only ("Window Server" owns the indicator); "Item 2" before "item 10".
    EXPECT_EQ(names, (std::vector<std::string>{"Item 2", "item 10", "Notes", "Window Server"}));
    EXPECT_EQ(list[2]->bundleIdentifier, "dev.example.notes");

    const auto ten = discovery->item(300);
    auto stream = discovery->updates();
    ASSERT_TRUE(stream->next(std::chrono::seconds(1)));
    world.platform->removeWindow(31);
    ASSERT_TRUE(eventually([&] { return ten->availability() == RunningApplicationAvailability::notRunning; }));
    EXPECT_EQ(discovery->current().size(), 3u);
    EXPECT_EQ(discovery->item(300), ten);

    // An owner without a running application has neither name nor bundle id.
    world.platform->addWindow(window(33, "Stray", 999));
    ASSERT_TRUE(eventually([&] { return discovery->item(999) != nullptr; }));
    EXPECT_EQ(discovery->item(999)->name, std::nullopt);
    EXPECT_EQ(discovery->current().front()->id, 999) << "no name sorts as empty text, first";
}

TEST(NaturalCompare, DigitRunsAsNumbersLettersCaseFolded) {
    EXPECT_LT(localizedStandardCompare("Item 2", "item 10"), 0);
    EXPECT_GT(localizedStandardCompare("item 10", "Item 2"), 0);
    EXPECT_EQ(localizedStandardCompare("Notes", "notes"), 0);
    EXPECT_LT(localizedStandardCompare("a9b", "a10a"), 0);
    EXPECT_LT(localizedStandardCompare("file", "file1"), 0);
    EXPECT_EQ(localizedStandardCompare("x007", "x7"), 0);
    EXPECT_LT(localizedStandardCompare("Alpha", "beta"), 0);
    EXPECT_LT(localizedStandardCompare("", "a"), 0);
}

// ---- Availability texts and sources for interfaces

TEST(Availability, TextsOfEveryKind) {
    EXPECT_EQ(availabilityStatus(DisplayAvailability::lidClosed), "MacBook lid closed");
    EXPECT_EQ(availabilityRecoverySuggestion(DisplayAvailability::notConnected), "Connect display");
    EXPECT_EQ(availabilityRecoverySuggestion(DisplayAvailability::available), "");
    EXPECT_EQ(availabilityStatus(CaptureDeviceAvailability::unknownSuspended), "Suspended");
    EXPECT_EQ(availabilityRecoverySuggestion(CaptureDeviceAvailability::unknownSuspended, false), "Unsuspend microphone");
    EXPECT_EQ(availabilityRecoverySuggestion(CaptureDeviceAvailability::notConnected, true), "Connect camera");
    EXPECT_EQ(availabilityStatus(AppleDeviceAvailability::pairedNeedsConnect), "Device paired, but not connected");
    EXPECT_EQ(availabilityRecoverySuggestion(AppleDeviceAvailability::notPaired), "Tap 'Trust' on iPhone");
    EXPECT_EQ(availabilityRecoverySuggestion(AppleDeviceAvailability::pairedNeedsReconnect),
              "Unplug cable, and reconnect again");
    EXPECT_EQ(caseName(RunningApplicationAvailability::notRunning), "notRunning");
    EXPECT_EQ(caseName(WindowAvailability::notOnScreen), "notOnScreen");
}

TEST(OVSources, TheSourceFollowsItsStreamAndEndsWithItsOwner) {
    World world(windowWorld());
    auto discovery = WindowDiscovery::make();
    auto source = OVSources<OVWindow>::Source::make(
        discovery->updates(), discovery->current(),
        [](const std::vector<std::shared_ptr<OVWindow>>& list) { return filtered(list, OVWindow::FilterOptions::defaultOptions); });
    OVSources<OVWindow> sources(source);
    EXPECT_EQ(ids(sources.wrappedValue()), std::vector<uint32_t>{11});
    world.platform->addWindow(window(41, "Another", 100));
    ASSERT_TRUE(eventually([&] { return sources.wrappedValue().size() == 2; }));
    EXPECT_TRUE(discovery->isPolling());
    source.reset();
    sources = OVSources<OVWindow>(nullptr);
    EXPECT_FALSE(discovery->isPolling()) << "the source's end ends its stream";
}

TEST(OVSources, CamerasWithoutDeskViewNeverShowOneInitiallyOrLater) {
    SyntheticWorld w;
    auto camera = platform::SyntheticDevice::make(platform::SyntheticDevice::Kind::camera, "cam");
    auto desk = platform::SyntheticDevice::make(platform::SyntheticDevice::Kind::camera, "desk");
    desk.deviceType = platform::AVCaptureDeviceTypeDeskViewCamera;
    auto late = desk;
    late.uniqueID = "desk-2";
    late.connected = false;
    w.devices = {camera, desk, late};
    World world(std::move(w));
    auto cameras = CaptureDeviceDiscovery::make(CaptureDeviceDiscovery::Kind::camera);
    auto source = OVSources<OVCaptureSource>::Source::make(
        cameras->updates(), cameras->current(), [](const std::vector<OVCameraRef>& list) {
            std::vector<OVCameraRef> kept;
            for (const auto& c : list)
                if (!c->isDeskView) kept.push_back(c);
            return kept;
        });
    ASSERT_EQ(source->current().size(), 1u);
    EXPECT_EQ(source->current()[0]->id, "cam");
    world.platform->setDeviceConnected("desk-2", true);
    ASSERT_TRUE(eventually([&] { return cameras->current().size() == 3; }));
    // Let the source's task deliver what the stream carried.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    DispatchQueue::drainMainForTesting();
    for (const auto& c : source->current()) EXPECT_FALSE(c->isDeskView) << c->id;
    EXPECT_EQ(source->current().size(), 1u);
}

}  // namespace
}  // namespace ov
