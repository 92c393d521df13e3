// Where the recorded area lay: changes only, and what a query can and can't know.
#include "timing/recording_rect_timeline.h"

#include <gtest/gtest.h>

namespace ov {
namespace {

using platform::CGRect;
using platform::CMTime;
using Kind = RecordingRectTimeline::QueryResult::Kind;

CMTime at(int64_t seconds) { return CMTime(seconds, 1); }
const CGRect kRect{{0, 0}, {1920, 1080}};

TEST(RecordingRectTimeline, AQueryBeforeAtAndAfterTheCapturesSaysWhatIsKnown) {
    RecordingRectTimeline timeline;
    timeline.capture(at(5), kRect);
    timeline.capture(at(8), std::nullopt);  // nothing changed, as of 8

    EXPECT_EQ(timeline.recordingRect(at(4)).kind, Kind::beforeFirstCapture);
    EXPECT_EQ(timeline.recordingRect(at(4)).observation->timestamp, at(5));
    // Exactly at the observation's time, and up to the last capture call.
    for (int64_t t : {5, 6, 8}) {
        auto found = timeline.recordingRect(at(t));
        EXPECT_EQ(found.kind, Kind::found) << t;
        EXPECT_EQ(found.observation->rect, kRect) << t;
    }
    auto after = timeline.recordingRect(at(9));
    EXPECT_EQ(after.kind, Kind::afterLastCapture);
    EXPECT_EQ(after.observation->rect, kRect);
    EXPECT_EQ(*after.lastCaptureCall, at(8));
}

TEST(RecordingRectTimeline, StoresChangesOnlyAndIgnoresTimesNotAfterTheLastCall) {
    RecordingRectTimeline timeline;
    timeline.capture(at(5), kRect);
    timeline.capture(at(6), kRect);
    EXPECT_EQ(timeline.timeline().size(), 1u);
    EXPECT_EQ(timeline.lastCaptureCall(), at(6));

    // The same time again changes nothing, even with another rectangle.
    timeline.capture(at(6), CGRect{{10, 10}, {100, 100}});
    EXPECT_EQ(timeline.timeline().size(), 1u);
    EXPECT_EQ(timeline.lastCaptureCall(), at(6));

    // A moved window is a change; the query finds the rectangle in force.
    timeline.capture(at(7), CGRect{{10, 10}, {100, 100}});
    ASSERT_EQ(timeline.timeline().size(), 2u);
    EXPECT_EQ(timeline.recordingRect(at(6)).observation->rect, kRect);
    EXPECT_EQ(timeline.recordingRect(at(7)).observation->rect.origin.x, 10);
    EXPECT_EQ(timeline.prepareAdapter().buffer().count(), 1u);
}

TEST(RecordingRectTimeline, CapturesWithoutARectangleLeaveTheTimelineEmpty) {
    RecordingRectTimeline timeline;
    EXPECT_EQ(timeline.recordingRect(at(1)).kind, Kind::emptyTimeline);
    timeline.capture(at(7), std::nullopt);
    EXPECT_EQ(timeline.lastCaptureCall(), at(7));
    EXPECT_EQ(timeline.recordingRect(at(7)).kind, Kind::emptyTimeline);
    EXPECT_EQ(timeline.recordingRect(at(8)).kind, Kind::emptyTimeline);
}

}  // namespace
}  // namespace ov
