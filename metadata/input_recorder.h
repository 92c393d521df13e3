#pragma once
// Writes the "input-events.json" side file of a screen item: listens to the
// global input feed, drops what lies outside the recording, joins each event
// with the cursor and the recorded rectangle of the same moment and writes
// one entry per event.
//
// Events flow from prepare on; the timeline decides which count. The feed's
// sink only queues: one monitor thread handles events strictly in arrival
// order, and may wait up to two display frames for the samplers to catch up
// with an event.
//
// Privacy: key events are asked of the window system only in the modes that
// record them; no key data is ever logged; the files are created mode 0600;
// while logind says the session is locked, keyboard and modifier entries are
// dropped (and the log says how many, nothing more).

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <variant>

#include "metadata/cursor_timeline.h"
#include "metadata/ov_input_event.h"
#include "timing/recording_rect_timeline.h"
#include "output/output_json_writer.h"
#include "platform/capture/input_provider.h"
#include "platform/cv_display_link.h"
#include "session/abort_signal.h"
#include "session/output_description.h"
#include "session/recorder.h"
#include "session/schema_items.h"
#include "timing/recording_timeline_bounded_event_retimer.h"
#include "timing/stable_recording_timeline.h"

namespace ov {

class InputRecorder final : public Recorder {
public:
    enum class CaptureMode { mouseEvents, keyboardEvents, mouseAndKeyboardEvents };
    enum class EventSource { globalMonitor, localMonitor, tap };

    // Absent when the item asks for neither kind.
    static std::optional<CaptureMode> captureMode(bool mouseEvents, bool keyboardEvents);
    // The feed's types for a mode.
    static platform::CGEventMask eventMask(CaptureMode mode);

    struct Configuration {
        std::string id;
        Logger logger{"InputRecorder"};
        std::shared_ptr<StableRecordingTimeline> recordingTimeline;
        bool useTimeline = true;
        CaptureMode captureMode = CaptureMode::mouseAndKeyboardEvents;
        std::shared_ptr<CursorTimeline> cursorTimeline;
        std::shared_ptr<RecordingRectTimeline> recordingRectTimeline;
        OutputDescription output = OutputDescription::singleFile("input-events.json");
        AbortFunction onAbort;
        // Null: the capture platform's provider at prepare.
        std::shared_ptr<platform::InputCaptureProvider> provider;
        // How long prepare waits for a first cursor and a first rectangle.
        double prepareTimeout = 3.0;
    };

    explicit InputRecorder(Configuration configuration);
    ~InputRecorder() override;

    std::string id() const override { return configuration_.id; }
    std::vector<OVBundleInfo::FileAsset> prepare() override;
    std::vector<OVBundleInfo::FileAsset> finish() override;
    // Stops the feed and the monitor; waits for the monitor to end.
    void cancel();

    // The file name of the side file: the screen file's name without its
    // extension + ".input-events.json".
    static constexpr const char* fileExtension = "input-events.json";
    static constexpr double streamingCommitInterval = 0.5;
    static constexpr double segmentInterval = 2.0;
    static constexpr int64_t fetchRetryNanoseconds = 16'666'666;

private:
    struct QueuedEvent {
        platform::CGEvent event;
        EventSource source;
    };
    struct StreamEnd {
        std::exception_ptr error;
    };
    using StreamItem = std::variant<QueuedEvent, StreamEnd>;

    void monitorLoop(std::stop_token token);
    void process(const platform::CGEvent& event, EventSource source, const std::stop_token& token);
    void catchUpOnCursor(const platform::CMTime& after, const platform::CMTime& untilIncluding,
                         const std::stop_token& token);
    void appendEvent(const OVInputEvent& event);
    CursorTimeline::Observation fetchCursorObservation(const platform::CMTime& time, const std::stop_token& token);
    RecordingRectTimeline::Observation fetchRecordingRectObservation(const platform::CMTime& time,
                                                                     const std::stop_token& token);
    OVMouseEvent makeMouseEvent(OVMouseEventType type, const OVTime& time, platform::CGPoint location,
                                platform::CGEventFlags flags, std::optional<OVMouseButton> button,
                                OVCursorType cursorType, const platform::CMTime& at, const std::stop_token& token);
    bool keyboardEntriesBlocked();
    std::vector<OVBundleInfo::FileAsset> assets(const std::vector<std::filesystem::path>& urls) const;

    Configuration configuration_;
    Logger logger_;
    StableRecordingTimeline recordingTimeline_;
    RecordingTimelineBoundedEventRetimer<OVInputEvent> retimer_;
    std::unique_ptr<OutputJSONWriter> writer_;
    std::optional<platform::CMTime> lastEventTimestamp_;

    std::mutex streamMutex_;
    std::condition_variable streamCondition_;
    std::deque<StreamItem> stream_;
    std::unique_ptr<platform::InputFeed> feed_;
    std::jthread eventMonitor_;

    std::unique_ptr<platform::SessionLockWatcher> lockWatcher_;
    uint64_t droppedWhileLocked_ = 0;
    bool wasLocked_ = false;
};

}  // namespace ov
