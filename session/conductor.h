#pragma once
// One recording from beginning to end: the state machine, the shared timeline,
// the internal recorders, the bundle folder with its log and description, and
// the inhibitor that keeps the machine awake while recording.
//
// Capture starts at prepare. start, pause and resume never touch a recorder:
// they only open and close intervals on the timeline, which the recorders read.
//
// Serialised: every operation holds the mutex except while it waits for child
// work (creating, preparing, finishing recorders) or for a state change, so
// several operations can be in flight at once; the state tables decide what
// each one does when it finds another under way. A waiter runs its whole
// operation again once the state has changed.
#include <condition_variable>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "output/ov_logger.h"
#include "session/abort_signal.h"
#include "session/ov_bundle_info.h"
#include "session/ov_recorder_types.h"
#include "session/recorder.h"

namespace ov {

namespace platform {
class ActivityToken;
}
class VolatileRecordingTimeline;
class StreamingLogWriter;

class Conductor : public std::enable_shared_from_this<Conductor> {
    struct PassKey {
        explicit PassKey() = default;
    };

public:
    using AbortHandler = std::function<void(const OVRecorderAbortReason&)>;

    enum class StateKind {
        initial,
        preparing,
        prepared,
        recording,
        paused,
        stopping,
        abortingPrepared,
        abortingRecording,
        prepareFailed,
        stopped,
        stopFailed,
        aborted,
    };

    // The reason's "interrupted"/"failed"/"userStopped", with the state's payload.
    struct State {
        StateKind kind = StateKind::initial;
        // prepareFailed: the error; stopFailed: the OVRecorderPartialResultError.
        std::exception_ptr error;
        // stopped.
        std::optional<OVRecorderResult> result;
        // aborted.
        std::optional<OVRecorderAbortReason> abortReason;
    };

    // The options of the process activity that a recording holds.
    static constexpr uint64_t activityOptions = 0x1ff00100000ull;
    static constexpr const char* activityReason = "Orvane Recording";
    static constexpr const char* logFilename = "orvane.log";
    static constexpr double logCommitInterval = 0.5;

    // Nothing is created on disk yet; the bundle's place is decided here.
    static std::shared_ptr<Conductor> create(const std::string& id, OVRecorderSchema schema, bool useTimeline,
                                             int audioSegmentDuration, int videoSegmentDuration,
                                             std::optional<double> keyframeIntervalDuration, const Logger& logger,
                                             AbortHandler onAbort);
    Conductor(PassKey, const std::string& id, OVRecorderSchema schema, bool useTimeline, int audioSegmentDuration,
              int videoSegmentDuration, std::optional<double> keyframeIntervalDuration, const Logger& logger,
              AbortHandler onAbort);
    ~Conductor();
    Conductor(const Conductor&) = delete;
    Conductor& operator=(const Conductor&) = delete;

    // Only before prepare; fails with internalConductorError afterwards.
    void setOnAbort(AbortHandler handler);
    OVBundleInfo prepare(const std::string& traceID);
    void start(const std::string& traceID);
    void pause();
    void resume();
    // Fails only with OVRecorderPartialResultError.
    OVRecorderResult stop(const std::string& traceID);

    const std::filesystem::path& bundleURL() const { return bundleURL_; }
    StateKind stateKind() const;
    const std::shared_ptr<VolatileRecordingTimeline>& recordingTimeline() const { return recordingTimeline_; }

private:
    using Lock = std::unique_lock<std::mutex>;

    OVBundleInfo prepareLocked(Lock& lock, const std::string& traceID);
    OVBundleInfo runPrepare(Lock& lock, const std::string& traceID);
    void startLocked(Lock& lock, const std::string& traceID);
    OVRecorderResult stopLocked(Lock& lock, const std::string& traceID);
    OVRecorderResult runStop(Lock& lock, const std::string& traceID);
    void abort(const AbortSignal& signal, const std::string& traceID);

    struct TimelineChange;
    void changeTimeline(const TimelineChange& change);
    void setState(State state);
    void waitForStateChange(Lock& lock);
    void openLogFile();
    void closeLogWriter();
    void endActivity();
    // Holds room for the description in the bundle from prepare until the
    // description is written (a full disk must not cost it).
    void reserveDescriptionSpace();
    void releaseDescriptionSpace();
    AbortFunction makeRecorderAbortFunction();
    OVRecorderResult emptyResult() const;

    // The log file and its writer queue live apart from the conductor, so that
    // the log handler neither keeps it alive nor needs its mutex: a line logged
    // while an operation holds the mutex only queues a write.
    struct LogFile;

    const OVRecorderSchema schema_;
    std::filesystem::path bundleURL_;
    AbortHandler onAbort_;
    std::vector<std::shared_ptr<Recorder>> recorders_;
    // What each recorder said at prepare it would write, by recorder position.
    std::vector<std::vector<OVBundleInfo::FileAsset>> expectedAssets_;
    bool descriptionSpaceReserved_ = false;
    std::shared_ptr<platform::ActivityToken> activityToken_;
    Logger logger_;
    std::shared_ptr<VolatileRecordingTimeline> recordingTimeline_;
    std::shared_ptr<LogFile> logFile_;
    std::shared_ptr<OVLogger::HandlerWrapper> logHandlerWrapper_;
    const bool useTimeline_;
    const int audioSegmentDuration_;
    const int videoSegmentDuration_;
    const std::optional<double> keyframeIntervalDuration_;
    std::optional<OVBundleInfo> preparedBundleInfo_;
    State state_;

    mutable std::mutex mutex_;
    std::condition_variable stateChanged_;
    uint64_t stateGeneration_ = 0;
};

std::string_view debugName(Conductor::StateKind kind);

// The folder of a recording without an output directory: in the system's
// temporary directory, the ISO 8601 date without ":" then "-" + id + ".orvane".
std::filesystem::path autoGeneratedBundleURL(const std::string& id);

}  // namespace ov
