#pragma once
// The one live list of recording intervals of a recording.
//
// Capture never pauses: sources keep delivering while the conductor opens and
// closes intervals, and each recorder decides from this list what belongs to
// the recording. The conductor alone writes (start, pause, stop, each with the
// current host time in seconds); capture threads read concurrently. The lock
// is held for a pop and a push only, never across a call out.
//
// The list always ends in the entry being worked on: (∞, ∞) before a start and
// while paused (the waiting entry), (from, ∞) while recording, and (from, until)
// or (∞, ∞) once stopped.

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ov {

class VolatileRecordingTimeline {
public:
    struct Entry {
        double from;
        double until;
        bool operator==(const Entry&) const = default;
    };
    struct State {
        std::vector<Entry> timeline;
        bool isStopped = false;
    };

    VolatileRecordingTimeline();
    VolatileRecordingTimeline(const VolatileRecordingTimeline&) = delete;
    VolatileRecordingTimeline& operator=(const VolatileRecordingTimeline&) = delete;

    // Opens an interval at `at`: the first start and every resume.
    void start(double at);
    // Closes the open interval at `at` and appends a new waiting entry.
    void pause(double at);
    // Closes the open interval at `at`; a waiting entry stays as it is, so a
    // stop while paused or without a start adds no time.
    void stop(double at);

    // The entry at `index`; an index beyond the list is a fatal fault (indices
    // come only from snapshots, and the list only grows).
    Entry interval(size_t index) const;
    // The list and the stopped flag, read under one lock hold.
    State state() const;

    // "VolatileRecordingTimeline(active, intervals: [1000.000→1010.000] [∞→∞])".
    std::string debugDescription() const;

private:
    Entry popLast();

    mutable std::mutex mutex_;
    State state_;
};

namespace timeline_text {
// A bound as the timeline's log texts print it: "%.3f", "∞" when infinite.
std::string bound(double seconds);
// "[from→until]" entries joined by a blank.
std::string entries(const std::vector<VolatileRecordingTimeline::Entry>& entries);
}  // namespace timeline_text

}  // namespace ov
