// The synthetic world's scripted mouse, keys and cursor: decoded from the
// world's JSON, played at exact host times, with the pointer and cursor
// following what was played.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "foundation/json_coding.h"
#include "platform/synthetic/synthetic_input.h"
#include "platform/synthetic/synthetic_world.h"

namespace ov::platform {
namespace {

struct Collected {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<CGEvent> events;
    bool ended = false;
    InputFeedSink sink() {
        return {[this](const CGEvent& e) {
                    std::lock_guard lock(mutex);
                    events.push_back(e);
                    cv.notify_all();
                },
                [this](std::exception_ptr) {
                    std::lock_guard lock(mutex);
                    ended = true;
                    cv.notify_all();
                }};
    }
    std::vector<CGEvent> waitFor(size_t count) {
        std::unique_lock lock(mutex);
        cv.wait_for(lock, std::chrono::seconds(30), [&] { return events.size() >= count; });
        return events;
    }
};

constexpr CGEventMask kAll = CGEventMaskFromTypes(
    {CGEventType::mouseMoved, CGEventType::leftMouseDown, CGEventType::leftMouseUp, CGEventType::leftMouseDragged,
     CGEventType::keyDown, CGEventType::keyUp, CGEventType::flagsChanged});

TEST(SyntheticInput, ScriptedEventsPlayAtExactHostTimesAndThePointerAndCursorFollow) {
    const auto world = SyntheticWorld::decode(coding::Json::parse(R"({
      "displays": [{"id": 1, "frame": {"x": 0, "y": 0, "width": 800, "height": 600}, "isMain": true}],
      "input": {"events": [
        {"after": 0.05, "kind": "move", "x": 10, "y": 20},
        {"after": 0.06, "kind": "buttonDown", "button": 1},
        {"after": 0.07, "kind": "move", "x": 30, "y": 20},
        {"after": 0.08, "kind": "buttonUp", "button": 1},
        {"after": 0.09, "kind": "cursor", "name": "xterm"},
        {"after": 0.10, "kind": "keyDown", "keysym": "Shift_L"},
        {"after": 0.11, "kind": "keyDown", "keysym": "a"},
        {"after": 0.12, "kind": "keyUp", "keysym": "a"},
        {"after": 0.13, "kind": "keyUp", "keysym": "Shift_L"},
        {"after": 0.14, "kind": "buttonDown", "button": 4}
      ]}})"));
    SyntheticInputProvider provider(world.input, world.displays.front().frame);
    auto cursors = provider.makeCursorSource();
    // Before any move: the main display's centre, the default arrow.
    EXPECT_EQ(cursors->pointer()->location, (CGPoint{400, 300}));
    EXPECT_EQ(cursors->currentSystemCursor()->name, "left_ptr");

    Collected got;
    auto feed = provider.startFeed(kAll, got.sink());
    const auto events = got.waitFor(8);
    ASSERT_EQ(events.size(), 8u);
    const std::vector<CGEventType> types{CGEventType::mouseMoved,    CGEventType::leftMouseDown,
                                         CGEventType::leftMouseDragged, CGEventType::leftMouseUp,
                                         CGEventType::flagsChanged,  CGEventType::keyDown,
                                         CGEventType::keyUp,         CGEventType::flagsChanged};
    for (size_t i = 0; i < types.size(); ++i) EXPECT_EQ(events[i].type, types[i]) << i;
    // Exactly the script's spacing on the host clock.
    EXPECT_EQ(events[1].timestamp - events[0].timestamp, 10'000'000u);
    EXPECT_EQ(events[5].timestamp - events[0].timestamp, 60'000'000u);
    EXPECT_EQ(events[2].location, (CGPoint{30, 20}));
    EXPECT_EQ(events[4].flags, kCGEventFlagMaskShift);
    EXPECT_EQ(events[5].characters, "A");
    EXPECT_EQ(events[5].flags, kCGEventFlagMaskShift);
    EXPECT_EQ(events[7].flags, 0u);
    feed->stop();
    EXPECT_TRUE(got.ended);

    EXPECT_EQ(cursors->pointer()->location, (CGPoint{30, 20}));
    const auto cursor = cursors->currentSystemCursor();
    EXPECT_EQ(cursor->name, "xterm");
    EXPECT_EQ(*cursor->image, SyntheticInputProvider::cursorImage("xterm"));
}

TEST(SyntheticInput, AFeedOfMouseTypesSeesNoKeysAndAFailingTapThrows) {
    SyntheticInput input;
    input.events = {{0.0, SyntheticInputEvent::Kind::keyDown, 0, 0, 1, "b", ""},
                    {0.01, SyntheticInputEvent::Kind::move, 5, 5, 1, "", ""}};
    SyntheticInputProvider provider(input, {{0, 0}, {100, 100}});
    Collected got;
    auto feed = provider.startFeed(CGEventMaskFromTypes({CGEventType::mouseMoved}), got.sink());
    const auto events = got.waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].type, CGEventType::mouseMoved);
    feed->stop();

    input.tapFails = true;
    SyntheticInputProvider failing(input, {{0, 0}, {100, 100}});
    EXPECT_THROW(failing.startFeed(kAll, got.sink()), CGEventTapError);
}

}  // namespace
}  // namespace ov::platform
