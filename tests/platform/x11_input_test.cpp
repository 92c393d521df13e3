// The linux backend's input feed and cursor against a private Xvfb with
// openbox, driven by xdotool and XTest as a user would.
#include <gtest/gtest.h>

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <condition_variable>
#include <mutex>

#include "metadata/cursor_timeline.h"
#include "metadata/input_recorder.h"
#include "metadata/ov_input_event.h"
#include "platform/cm_clock.h"
#include "platform/linux/x11/input_x11_provider.h"
#include "support/input_x_server.h"
#include "support/log_capture.h"

namespace ov {
namespace {

using platform::CGEvent;
using platform::CGEventType;

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
    // Waits until `count` events arrived (or 3 s passed); all so far.
    std::vector<CGEvent> waitFor(size_t count) {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, std::chrono::seconds(3), [&] { return events_.size() >= count; });
        return events_;
    }
    std::vector<CGEvent> take(std::chrono::milliseconds settle = std::chrono::milliseconds(150)) {
        std::this_thread::sleep_for(settle);
        std::lock_guard lock(mutex_);
        return std::exchange(events_, {});
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<CGEvent> events_;
    bool ended_ = false;
    std::exception_ptr error_;
};

class X11Input : public ::testing::Test {
protected:
    static void SetUpTestSuite() { server_ = testing::InputXServer::start().release(); }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }
    void SetUp() override {
        if (!server_) GTEST_SKIP() << "Xvfb and openbox are needed for the X11 input backend tests";
    }
    int xdotool(std::vector<std::string> args) {
        args.insert(args.begin(), "xdotool");
        return server_->run(args);
    }
    static testing::InputXServer* server_;
    platform::x11::X11InputProvider provider_;
};
testing::InputXServer* X11Input::server_ = nullptr;

constexpr auto kMouse = platform::CGEventMaskFromTypes(
    {CGEventType::leftMouseDown, CGEventType::leftMouseUp, CGEventType::rightMouseDown, CGEventType::rightMouseUp,
     CGEventType::otherMouseDown, CGEventType::otherMouseUp, CGEventType::mouseMoved, CGEventType::leftMouseDragged,
     CGEventType::rightMouseDragged, CGEventType::otherMouseDragged});
constexpr auto kKeys =
    platform::CGEventMaskFromTypes({CGEventType::keyDown, CGEventType::keyUp, CGEventType::flagsChanged});

TEST_F(X11Input, MotionHasExactRootPositionsAndHostTimes) {
    xdotool({"mousemove", "100", "100"});
    Collected got;
    auto feed = provider_.startFeed(kMouse, got.sink());
    const uint64_t before = platform::hostTimeNanosecondsNow();
    xdotool({"mousemove_relative", "--", "7", "3"});
    const uint64_t after = platform::hostTimeNanosecondsNow();
    auto events = got.waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].type, CGEventType::mouseMoved);
    EXPECT_EQ(events[0].location.x, 107);
    EXPECT_EQ(events[0].location.y, 103);
    EXPECT_GE(events[0].timestamp + 2'000'000, before);
    EXPECT_LE(events[0].timestamp, after + 2'000'000);
    got.take(std::chrono::milliseconds(0));

    // 200 one-pixel XTest motions in a burst keep every position.
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    for (int i = 0; i < 200; ++i) xcb_test_fake_input(c, XCB_MOTION_NOTIFY, 1, XCB_CURRENT_TIME, root, 1, 0, 0);
    xcb_flush(c);
    free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    events = got.waitFor(200);
    xcb_disconnect(c);
    ASSERT_EQ(events.size(), 200u);
    for (size_t i = 0; i < events.size(); ++i) EXPECT_EQ(events[i].location.x, 108 + static_cast<double>(i));
    feed->stop();
}

TEST_F(X11Input, ClicksButtonsAndALeftHandedMapping) {
    xdotool({"mousemove", "300", "300"});
    Collected got;
    auto feed = provider_.startFeed(kMouse, got.sink());
    for (const char* b : {"1", "2", "3", "8"}) xdotool({"click", b});
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
    got.take(std::chrono::milliseconds(0));
    server_->run({"xmodmap", "-e", "pointer = 3 2 1"});
    xdotool({"click", "1"});
    events = got.waitFor(2);
    server_->run({"xmodmap", "-e", "pointer = 1 2 3"});
    ASSERT_GE(events.size(), 1u);
    EXPECT_EQ(mouseButton(events[0]), OVMouseButton::secondary);
    // The wheel gives nothing.
    got.take();
    xdotool({"click", "4"});
    EXPECT_TRUE(got.take().empty());
    feed->stop();
}

TEST_F(X11Input, KeysRepeatsAndAGrabOfAnotherClient) {
    Collected got;
    auto feed = provider_.startFeed(kKeys, got.sink());
    xdotool({"key", "a", "shift+a", "Escape", "F5"});
    const auto events = got.take(std::chrono::milliseconds(300));
    std::vector<OVKeyboardEvent> keys;
    for (const auto& e : events)
        if (e.type != CGEventType::flagsChanged) keys.push_back(keyboardEvent(e, nanosecondTime(0)));
    ASSERT_EQ(keys.size(), 8u);  // no extra ups from xdotool's releases
    EXPECT_EQ(keys[0].characters, "a");
    EXPECT_EQ(keys[2].characters, "A");
    EXPECT_EQ(keys[2].modifiers, OVInputModifierSet{OVInputModifier::shift});
    EXPECT_EQ(keys[4].keyType, OVKeyboardKeyType::escape);
    EXPECT_EQ(keys[6].keyType, OVKeyboardKeyType::f5);
    EXPECT_EQ(keys[7].keyboardEventType, OVKeyboardEventType::up);

    // A held key: server repeats with isARepeat, one release.
    server_->run({"xset", "r", "rate", "300", "25"});
    xdotool({"keydown", "b"});
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    xdotool({"keyup", "b"});
    const auto held = got.take(std::chrono::milliseconds(200));
    size_t downs = 0, repeats = 0, ups = 0;
    for (const auto& e : held) {
        if (e.type == CGEventType::keyDown) (e.autorepeat ? repeats : downs)++;
        if (e.type == CGEventType::keyUp) ++ups;
    }
    EXPECT_EQ(downs, 1u);
    EXPECT_GE(repeats, 5u);
    EXPECT_EQ(ups, 1u);

    // Another client's keyboard grab doesn't stop the feed (a fact of X11,
    // documented for users: lock screens don't hide their passwords from it).
    xcb_connection_t* grabber = xcb_connect(nullptr, nullptr);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(grabber)).data->root;
    auto* grab = xcb_grab_keyboard_reply(
        grabber, xcb_grab_keyboard(grabber, 1, root, XCB_CURRENT_TIME, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC),
        nullptr);
    ASSERT_TRUE(grab);
    EXPECT_EQ(grab->status, XCB_GRAB_STATUS_SUCCESS);
    free(grab);
    xdotool({"key", "c"});
    EXPECT_EQ(got.take().size(), 2u);
    xcb_disconnect(grabber);
    feed->stop();
}

TEST_F(X11Input, CursorNamesOverTheRootAndAnXterm) {
    auto source = provider_.makeCursorSource();
    xdotool({"mousemove", "1200", "780"});
    std::optional<platform::NSCursor> cursor;
    ASSERT_TRUE(testing::eventually([&] {
        cursor = source->currentSystemCursor();
        return cursor && cursor->name == "left_ptr";
    }));
    EXPECT_EQ(cursorTypeForName(*cursor->name), OVCursorType::arrow);
    ASSERT_TRUE(cursor->image);
    EXPECT_EQ(cursor->image->size(), 8 + 4 * cursor->size.width * cursor->size.height);

    server_->launch({"xterm", "-geometry", "40x10+0+0"});
    ASSERT_TRUE(testing::eventually([&] { return server_->run({"xdotool", "search", "--class", "xterm"}) == 0; }));
    xdotool({"mousemove", "60", "80"});
    ASSERT_TRUE(testing::eventually([&] {
        cursor = source->currentSystemCursor();
        return cursor && cursor->name == "xterm";
    }));
    EXPECT_EQ(cursorTypeForName(*cursor->name), OVCursorType::iBeam);
    const auto pointer = source->pointer();
    ASSERT_TRUE(pointer);
    EXPECT_EQ(pointer->location.x, 60);
}

}  // namespace
}  // namespace ov
