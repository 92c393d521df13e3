// The cursor's timeline, its names and pictures, and the rectangle timeline
// that mouse positions are measured against.
#include <gtest/gtest.h>

#include "metadata/cursor_recorder.h"
#include "metadata/cursor_timeline.h"
#include "support/log_capture.h"
#include "timing/recording_rect_timeline.h"

namespace ov {
namespace {

using platform::CGPoint;
using platform::CMTime;
using platform::NSCursor;
using platform::PointerState;

CMTime at(int64_t seconds) { return CMTime(seconds * 1'000'000'000, 1'000'000'000); }

NSCursor cursor(std::optional<std::string> name, std::string image, uint64_t serial) {
    NSCursor c;
    c.hotSpot = {4, 4};
    c.size = {24, 24};
    c.name = std::move(name);
    c.image = std::move(image);
    c.serial = serial;
    return c;
}

TEST(CursorNames, AliasTable) {
    EXPECT_EQ(cursorTypeForName("left_ptr"), OVCursorType::arrow);
    EXPECT_EQ(cursorTypeForName("default"), OVCursorType::arrow);
    EXPECT_EQ(cursorTypeForName("xterm"), OVCursorType::iBeam);
    EXPECT_EQ(cursorTypeForName("hand2"), OVCursorType::pointingHand);
    EXPECT_EQ(cursorTypeForName("sb_h_double_arrow"), OVCursorType::resizeLeftRight);
    EXPECT_EQ(cursorTypeForName("top_left_corner"), OVCursorType::topLeftResize);
    EXPECT_EQ(cursorTypeForName("fd_double_arrow"), OVCursorType::windowResizeNorthEastSouthWest);
    EXPECT_EQ(cursorTypeForName("left_ptr_watch"), OVCursorType::busyButClickable);
    EXPECT_EQ(cursorTypeForName("watch"), std::nullopt);
    EXPECT_EQ(sha1Hex("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(CursorTimeline, NamesPicturesAndChanges) {
    CursorTimeline timeline;
    const PointerState still{{10, 10}, 0};
    EXPECT_EQ(timeline.capture(cursor("left_ptr", "A", 1), at(1), still), "arrow");
    // The same look at another place adds nothing: changes, not motion.
    EXPECT_EQ(timeline.capture(cursor("left_ptr", "A", 1), at(2), {{20, 20}, 0}), "arrow");
    EXPECT_EQ(timeline.allObservations().size(), 1u);

    // Two unnamed cursors with the same bytes share one id, the picture's SHA-1.
    const auto first = timeline.capture(cursor(std::nullopt, "custom-bytes", 2), at(3), still);
    EXPECT_EQ(first, sha1Hex("custom-bytes"));
    timeline.capture(cursor("xterm", "I", 3), at(4), still);
    const auto again = timeline.capture(cursor(std::nullopt, "custom-bytes", 4), at(5), still);
    EXPECT_EQ(again, first);
    EXPECT_EQ(timeline.allObservations().size(), 4u);
    EXPECT_EQ(timeline.allObservations()[1].cursorType, OVCursorType::custom);
    EXPECT_EQ(timeline.allObservations()[2].cursorType, OVCursorType::iBeam);

    // A picture that can't be read (animated theme cursors) adds nothing and
    // the last observation stays.
    NSCursor unreadable = cursor(std::nullopt, "", 5);
    unreadable.image.reset();
    EXPECT_EQ(timeline.capture(unreadable, at(6), still), std::nullopt);
    EXPECT_EQ(timeline.allObservations().size(), 4u);
    EXPECT_EQ(timeline.unsafeCursorsMissingTiffRepresentation().size(), 1u);
}

TEST(CursorTimeline, StillPointerNewPictureIsSeenAtTheNextTickBecauseTheSerialChanged) {
    CursorTimeline timeline;
    const PointerState still{{10, 10}, 0};
    timeline.capture(cursor("left_ptr", "A", 7), at(1), still);
    // The fast path: same serial, same place: the picture isn't looked at.
    EXPECT_EQ(timeline.capture(cursor("xterm", "I", 7), at(2), still), "arrow");
    // The window system gives every new cursor a new serial.
    EXPECT_EQ(timeline.capture(cursor("xterm", "I", 8), at(3), still), "iBeam");
    const auto all = timeline.allObservations();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[1].timestamp, at(3));
}

TEST(CursorTimeline, PreloadKeepsTheFirstOfTwoWithOnePicture) {
    CursorTimeline timeline;
    Cursor publicArrow{"arrow", OVCursorType::arrow, {{4, 4}, {24, 24}}, "A", false};
    Cursor privateArrow{"genericDrag", OVCursorType::genericDrag, {{4, 4}, {24, 24}}, "A", true};
    const auto duplicates = timeline.preload({publicArrow, privateArrow});
    ASSERT_EQ(duplicates.size(), 1u);
    EXPECT_EQ(duplicates[0].skipped.id, "genericDrag");
    EXPECT_EQ(duplicates[0].isDuplicateOf.id, "arrow");
    // A captured unnamed cursor with that picture is the preloaded one.
    EXPECT_EQ(timeline.capture(cursor(std::nullopt, "A", 1), at(1), {{0, 0}, 0}), "arrow");
}

TEST(CursorTimeline, QueriesAndObservationsBetween) {
    CursorTimeline timeline;
    EXPECT_TRUE(std::holds_alternative<CursorTimeline::NoCursorsCaptured>(timeline.cursor(at(1))));
    timeline.capture(cursor("left_ptr", "A", 1), at(5), {{0, 0}, 0});
    timeline.capture(cursor("xterm", "I", 2), at(7), {{0, 0}, 0});
    timeline.capture(cursor("xterm", "I", 2), at(8), {{1, 0}, 0});
    EXPECT_TRUE(std::holds_alternative<CursorTimeline::BeforeFirstCapture>(timeline.cursor(at(4))));
    EXPECT_EQ(std::get<CursorTimeline::Found>(timeline.cursor(at(6))).observation.cursorId, "arrow");
    EXPECT_EQ(std::get<CursorTimeline::Found>(timeline.cursor(at(7))).observation.cursorId, "iBeam");
    const auto after = std::get<CursorTimeline::AfterLastCapture>(timeline.cursor(at(9)));
    EXPECT_EQ(after.lastCaptureCall, at(8));
    EXPECT_EQ(timeline.observations(at(5), at(7)).size(), 1u);
    EXPECT_EQ(timeline.observations(at(4), at(6)).size(), 1u);
}

TEST(CursorRecorder, ThrottledWarningsPerKey) {
    testing::LogCapture capture;
    const auto warn = createThrottledLogWarning(10.0, capture.logger);
    warn("mouseLocationNil", 100.0, "Skipping frame; failed to retreive mouse location.", {});
    warn("mouseLocationNil", 105.0, "Skipping frame; failed to retreive mouse location.", {});
    warn("cursorNil", 105.0, "Skipping frame; failed to retreive system cursor.", {});
    warn("mouseLocationNil", 110.5, "Skipping frame; failed to retreive mouse location.", {});
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].metadata.at("rateLimitedAt"), "10/sec");
    EXPECT_EQ(lines[1].message, "Skipping frame; failed to retreive system cursor.");
}

TEST(RecordingRectTimelines, OneTimelinePerItemSharedByWhoeverAsks) {
    RecordingRectTimelines timelines;
    auto screen = timelines.forItem("item", Logger("Test"));
    auto input = timelines.forItem("item", Logger("Test"));
    EXPECT_EQ(screen, input);
    EXPECT_NE(screen, timelines.forItem("other", Logger("Test")));
    screen->capture(at(5), platform::CGRect{{10, 20}, {100, 50}});
    EXPECT_EQ(input->recordingRect(at(5)).kind, RecordingRectTimeline::QueryResult::Kind::found);
    EXPECT_EQ(input->recordingRect(at(5)).observation->rect, (platform::CGRect{{10, 20}, {100, 50}}));
}

}  // namespace
}  // namespace ov
