#pragma once
// A cached view of one entry of the live timeline. The bounds are read when the
// view is made and again only on update(): a holder sees a pause or a stop when
// it chooses to look, which retimers do at each flush.

#include <cstddef>
#include <memory>
#include <string>

#include "timing/volatile_recording_timeline.h"

namespace ov {

struct RecordingInterval {
    std::shared_ptr<VolatileRecordingTimeline> volatileRecordingTimeline;
    size_t index = 0;
    double recordFrom = 0;
    double recordUntil = 0;

    // Reads entry `index` now.
    RecordingInterval(std::shared_ptr<VolatileRecordingTimeline> timeline, size_t index);
    // Takes bounds already read (from a snapshot).
    RecordingInterval(std::shared_ptr<VolatileRecordingTimeline> timeline, size_t index, double recordFrom,
                      double recordUntil);

    // Reads entry `index` again.
    void update();

    // "RecordingInterval(1)[1020.000→1030.000, dur:10.000s]".
    std::string debugDescription() const;
};

}  // namespace ov
