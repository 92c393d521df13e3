// The linux backend's input feed and cursor against a private Xvfb with
// openbox, driven by xdotool and XTest as a user would.
#include <gtest/gtest.h>

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "metadata/cursor_timeline.h"
#include "metadata/input_recorder.h"
#include "metadata/ov_input_event.h"
#include "platform/cm_clock.h"
#include "platform/linux/x11/input_x11_provider.h"
#include "support/child_process.h"
#include "support/xvfb_server.h"
#include "support/log_capture.h"

namespace ov {
namespace {

using platform::CGEvent;
using platform::CGEventType;

// Generous deadlines: under load on a shared machine an X round trip can take
// long, and every wait ends as soon as its condition holds.
constexpr auto kDeadline = std::chrono::seconds(30);

class Collected {
public:
    platform::InputFeedSink sink() {
        return {[this](const CGEvent& e) {
                    std::lock_guard lock(mutex_);
                    events_.push_back(e);
                    cv_.notify_all();
                },
                [this](std::exception_ptr error) {
                    std::lock_guard lock(mutex_);
                    ended_ = true;
                    error_ = error;
                    cv_.notify_all();
                }};
    }
    // Waits until `count` events arrived (or the deadline passed); all so far.
    std::vector<CGEvent> waitFor(size_t count) {
        return waitUntil([count](const std::vector<CGEvent>& events) { return events.size() >= count; });
    }
    template <class Predicate>
    std::vector<CGEvent> waitUntil(Predicate predicate) {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, kDeadline, [&] { return predicate(events_); });
        return events_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<CGEvent> events_;
    bool ended_ = false;
    std::exception_ptr error_;
};

size_t countOf(const std::vector<CGEvent>& events, CGEventType type) {
    return static_cast<size_t>(std::count_if(events.begin(), events.end(), [&](const auto& e) { return e.type == type; }));
}

class X11Input : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // Cursor names come from the theme, which openbox and xterm load.
        ::setenv("XCURSOR_THEME", "DMZ-White", 1);
        server_ = new testing::XvfbServer(/*withWindowManager=*/true, "1280x800x24");
    }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
        ::unsetenv("XCURSOR_THEME");
    }
    int xdotool(const std::string& args) { return server_->run("xdotool " + args); }
    static testing::XvfbServer* server_;
    platform::x11::X11InputProvider provider_;
};
testing::XvfbServer* X11Input::server_ = nullptr;

constexpr auto kMouse = platform::CGEventMaskFromTypes(
    {CGEventType::leftMouseDown, CGEventType::leftMouseUp, CGEventType::rightMouseDown, CGEventType::rightMouseUp,
     CGEventType::otherMouseDown, CGEventType::otherMouseUp, CGEventType::mouseMoved, CGEventType::leftMouseDragged,
     CGEventType::rightMouseDragged, CGEventType::otherMouseDragged});
constexpr auto kKeys =
    platform::CGEventMaskFromTypes({CGEventType::keyDown, CGEventType::keyUp, CGEventType::flagsChanged});

TEST_F(X11Input, MotionHasExactRootPositionsAndHostTimes) {
    ASSERT_EQ(xdotool("mousemove 100 100"), 0);
    Collected got;
    auto feed = provider_.startFeed(kMouse, got.sink());
    const uint64_t before = platform::hostTimeNanosecondsNow();
    ASSERT_EQ(xdotool("mousemove_relative -- 7 3"), 0);
    const uint64_t after = platform::hostTimeNanosecondsNow();
    auto events = got.waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].type, CGEventType::mouseMoved);
    EXPECT_EQ(events[0].location.x, 107);
    EXPECT_EQ(events[0].location.y, 103);
    // The server's millisecond clock, mapped to ours: within the call, with
    // 2 ms of slack for the truncation either side.
    EXPECT_GE(events[0].timestamp + 2'000'000, before);
    EXPECT_LE(events[0].timestamp, after + 2'000'000);
    got.clear();

    // 200 one-pixel XTest motions in a burst keep every position.
    xcb_connection_t* c = xcb_connect(server_->display().c_str(), nullptr);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    for (int i = 0; i < 200; ++i) xcb_test_fake_input(c, XCB_MOTION_NOTIFY, 1, XCB_CURRENT_TIME, root, 1, 0, 0);
    xcb_flush(c);
    free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    events = got.waitFor(200);
    xcb_disconnect(c);
    ASSERT_EQ(events.size(), 200u);
    for (size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i].location.x, 108 + static_cast<double>(i));
        if (i > 0) {
            EXPECT_GE(events[i].timestamp, events[i - 1].timestamp);
        }
    }
    feed->stop();
}

TEST_F(X11Input, ClicksButtonsAndALeftHandedMapping) {
    ASSERT_EQ(xdotool("mousemove 300 300"), 0);
    Collected got;
    auto feed = provider_.startFeed(kMouse, got.sink());
    ASSERT_EQ(xdotool("click 1 click 2 click 3 click 8"), 0);
    auto events = got.waitFor(8);
    ASSERT_EQ(events.size(), 8u);
    const std::vector<std::pair<CGEventType, std::optional<OVMouseButton>>> expected{
        {CGEventType::leftMouseDown, OVMouseButton::primary},  {CGEventType::leftMouseUp, OVMouseButton::primary},
        {CGEventType::otherMouseDown, OVMouseButton::center},  {CGEventType::otherMouseUp, OVMouseButton::center},
        {CGEventType::rightMouseDown, OVMouseButton::secondary}, {CGEventType::rightMouseUp, OVMouseButton::secondary},
        {CGEventType::otherMouseDown, OVMouseButton::other},   {CGEventType::otherMouseUp, OVMouseButton::other}};
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(events[i].type, expected[i].first) << i;
        EXPECT_EQ(mouseButton(events[i]), expected[i].second) << i;
    }
    got.clear();
    ASSERT_EQ(server_->run("xmodmap -e 'pointer = 3 2 1'"), 0);
    ASSERT_EQ(xdotool("click 1"), 0);
    events = got.waitFor(2);
    ASSERT_EQ(server_->run("xmodmap -e 'pointer = 1 2 3'"), 0);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(mouseButton(events[0]), OVMouseButton::secondary);
    // The wheel gives nothing: the motion after it is the next event.
    got.clear();
    ASSERT_EQ(xdotool("click 4 click 5 mousemove_relative -- 1 0"), 0);
    events = got.waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].type, CGEventType::mouseMoved);
    feed->stop();
}

TEST_F(X11Input, KeysRepeatsAndAGrabOfAnotherClient) {
    Collected got;
    auto feed = provider_.startFeed(kKeys, got.sink());
    ASSERT_EQ(xdotool("key a shift+a Escape F5"), 0);
    auto events = got.waitUntil([](const auto& e) { return countOf(e, CGEventType::keyUp) >= 4; });
    // One more key flushes any duplicate release xdotool might have sent.
    ASSERT_EQ(xdotool("key x"), 0);
    events = got.waitUntil([](const auto& e) { return countOf(e, CGEventType::keyUp) >= 5; });
    std::vector<OVKeyboardEvent> keys;
    std::vector<CGEvent> flags;
    for (const auto& e : events)
        if (e.type == CGEventType::flagsChanged) flags.push_back(e);
        else keys.push_back(keyboardEvent(e, nanosecondTime(0)));
    ASSERT_EQ(keys.size(), 10u);  // no extra ups from xdotool's releases
    EXPECT_EQ(keys[0].characters, "a");
    EXPECT_EQ(keys[0].keyTitle, "A");
    EXPECT_EQ(keys[2].characters, "A");
    EXPECT_EQ(keys[2].modifiers, OVInputModifierSet{OVInputModifier::shift});
    EXPECT_EQ(keys[4].keyType, OVKeyboardKeyType::escape);
    EXPECT_FALSE(keys[4].characters.has_value());
    EXPECT_EQ(keys[6].keyType, OVKeyboardKeyType::f5);
    EXPECT_EQ(keys[7].keyboardEventType, OVKeyboardEventType::up);
    // Shift down and up: two changes, the set after each.
    ASSERT_EQ(flags.size(), 2u);
    EXPECT_EQ(toOVInputModifierSet(flags[0].flags), OVInputModifierSet{OVInputModifier::shift});
    EXPECT_TRUE(toOVInputModifierSet(flags[1].flags).empty());
    got.clear();

    // A held key: server repeats with isARepeat, one release. The hold is the
    // stimulus; the wait after it is on the release.
    ASSERT_EQ(server_->run("xset r rate 300 25"), 0);
    ASSERT_EQ(xdotool("keydown b"), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    ASSERT_EQ(xdotool("keyup b"), 0);
    const auto held = got.waitUntil([](const auto& e) { return countOf(e, CGEventType::keyUp) >= 1; });
    size_t downs = 0, repeats = 0;
    for (const auto& e : held)
        if (e.type == CGEventType::keyDown) (e.autorepeat ? repeats : downs)++;
    EXPECT_EQ(downs, 1u);
    EXPECT_GE(repeats, 5u);
    EXPECT_EQ(countOf(held, CGEventType::keyUp), 1u);
    got.clear();

    // Another client's keyboard grab doesn't stop the feed (a fact of X11,
    // documented for users: lock screens don't hide their passwords from it).
    xcb_connection_t* grabber = xcb_connect(server_->display().c_str(), nullptr);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(grabber)).data->root;
    // The window manager may hold the keyboard for a moment: ask until it's ours.
    ASSERT_TRUE(testing::eventually(
        [&] {
            auto* grab = xcb_grab_keyboard_reply(
                grabber,
                xcb_grab_keyboard(grabber, 1, root, XCB_CURRENT_TIME, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC),
                nullptr);
            const bool ours = grab && grab->status == XCB_GRAB_STATUS_SUCCESS;
            free(grab);
            return ours;
        },
        kDeadline));
    ASSERT_EQ(xdotool("key c"), 0);
    EXPECT_EQ(got.waitFor(2).size(), 2u);
    xcb_disconnect(grabber);
    feed->stop();
}

TEST_F(X11Input, AMouseOnlyFeedNeverSeesAKey) {
    Collected got;
    auto feed = provider_.startFeed(kMouse, got.sink());
    ASSERT_EQ(xdotool("key a mousemove_relative -- 1 1"), 0);
    const auto events = got.waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].type, CGEventType::mouseMoved);
    feed->stop();
}

TEST_F(X11Input, CursorNamesOverTheRootAndAnXterm) {
    auto source = provider_.makeCursorSource();
    ASSERT_EQ(xdotool("mousemove 1200 780"), 0);
    std::optional<platform::NSCursor> cursor;
    ASSERT_TRUE(testing::eventually(
        [&] {
            cursor = source->currentSystemCursor();
            return cursor && cursor->name == "left_ptr";
        },
        kDeadline));
    EXPECT_EQ(cursorTypeForName(*cursor->name), OVCursorType::arrow);
    ASSERT_TRUE(cursor->image);
    EXPECT_EQ(cursor->image->size(), 8 + 4 * cursor->size.width * cursor->size.height);
    const uint64_t rootSerial = cursor->serial;

    testing::ChildProcess xterm("/usr/bin/xterm", {"-geometry", "40x10+0+0"},
                                std::map<std::string, std::string>{{"DISPLAY", server_->display()},
                                                                   {"XCURSOR_THEME", "DMZ-White"}});
    ASSERT_TRUE(testing::eventually([&] { return server_->run("xdotool search --class xterm") == 0; }, kDeadline));
    ASSERT_EQ(xdotool("mousemove 60 80"), 0);
    ASSERT_TRUE(testing::eventually(
        [&] {
            cursor = source->currentSystemCursor();
            return cursor && cursor->name == "xterm";
        },
        kDeadline));
    EXPECT_EQ(cursorTypeForName(*cursor->name), OVCursorType::iBeam);
    EXPECT_NE(cursor->serial, rootSerial);
    const auto pointer = source->pointer();
    ASSERT_TRUE(pointer);
    EXPECT_EQ(pointer->location.x, 60);
    EXPECT_EQ(pointer->location.y, 80);
    xterm.kill();
    xterm.waitForExit();
}

}  // namespace
}  // namespace ov
