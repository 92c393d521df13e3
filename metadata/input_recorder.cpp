#include "metadata/input_recorder.h"

#include <chrono>

#include "foundation/ov_error.h"
#include "output/segmented_json_writer.h"
#include "output/streaming_json_writer.h"
#include "platform/capture_platform.h"

namespace ov {
namespace {

using platform::CGEvent;
using platform::CGEventType;
using platform::CMTime;

constexpr platform::CGEventMask kMouseClickTypes = platform::CGEventMaskFromTypes(
    {CGEventType::leftMouseDown, CGEventType::rightMouseDown, CGEventType::otherMouseDown, CGEventType::leftMouseUp,
     CGEventType::rightMouseUp, CGEventType::otherMouseUp});
constexpr platform::CGEventMask kMouseMovementTypes = platform::CGEventMaskFromTypes(
    {CGEventType::mouseMoved, CGEventType::leftMouseDragged, CGEventType::otherMouseDragged,
     CGEventType::rightMouseDragged});
constexpr platform::CGEventMask kMouseTypes = kMouseClickTypes | kMouseMovementTypes;
constexpr platform::CGEventMask kKeyPressTypes =
    platform::CGEventMaskFromTypes({CGEventType::keyDown, CGEventType::keyUp});
constexpr platform::CGEventMask kModifiersChangedTypes = platform::CGEventMaskFromTypes({CGEventType::flagsChanged});
constexpr platform::CGEventMask kKeyboardTypes = kKeyPressTypes | kModifiersChangedTypes;

constexpr platform::CMTimeScale kNanoseconds = 1'000'000'000;

CMTime nanosecondsTime(double seconds) { return CMTime::makeWithSeconds(seconds, kNanoseconds); }

bool isTapDisabled(CGEventType type) {
    return type == CGEventType::tapDisabledByTimeout || type == CGEventType::tapDisabledByUserInput;
}

// The texts of one timeline's fetch, so that the cursor and the rectangle
// share one shape.
struct FetchTexts {
    const char* before;
    const char* afterRetrying;
    const char* afterError;
    const char* empty;
    const char* emptyError;
    const char* afterFallingBack;
};

constexpr FetchTexts kCursorTexts{
    "Input event occured before first cursor was captured, falling back to first known cursor.",
    "Input event occured after last cursor capture, retrying.",
    "Input event occurred after last cursor capture",
    "Input event occured while cursor timeline is empty.",
    "Cursor timeline empty",
    "Input event occured after last cursor capture, falling back to last known cursor.",
};

constexpr FetchTexts kRectTexts{
    "Input event occured before first recording rect was captured, falling back to first known recording rect.",
    "Input event occured after last recording rect capture, retrying.",
    "Input event occurred after last recording rect capture",
    "Input event occured while recording rect timeline is empty.",
    "Recording rect timeline empty",
    "Input event occured after last recording rect capture, falling back to last known recording rect.",
};

[[noreturn]] void throwProcessingFailed(const char* text) {
    throw OVError(OVError::Code::inputEventProcessingFailed, std::string(text), std::string(text));
}

// Two attempts that may wait a frame each, then a last lookup that settles.
template <class Observation, class Before, class Found, class After, class Query>
Observation fetch(const Query& query, const FetchTexts& texts, const Logger& logger, const std::stop_token& token) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        const auto result = query();
        if (const auto* found = std::get_if<Found>(&result)) return found->observation;
        if (const auto* before = std::get_if<Before>(&result)) {
            logger.debug([&] { return std::string(texts.before); });
            return before->firstAvailableObservation;
        }
        if (std::holds_alternative<After>(result))
            logger.debug([&] { return std::string(texts.afterRetrying); });
        else
            logger.debug([&] { return std::string(texts.empty); });
        // One frame at 60 per second; the sampler runs at display rate.
        std::mutex mutex;
        std::condition_variable_any cv;
        std::unique_lock lock(mutex);
        cv.wait_for(lock, token, std::chrono::nanoseconds(InputRecorder::fetchRetryNanoseconds), [] { return false; });
    }
    if (token.stop_requested()) throw CancellationError();
    const auto result = query();
    if (const auto* found = std::get_if<Found>(&result)) return found->observation;
    if (const auto* before = std::get_if<Before>(&result)) {
        logger.debug([&] { return std::string(texts.before); });
        return before->firstAvailableObservation;
    }
    if (const auto* after = std::get_if<After>(&result)) {
        logger.debug([&] { return std::string(texts.afterFallingBack); });
        return after->lastAvailableObservation;
    }
    logger.debug([&] { return std::string(texts.empty); });
    throwProcessingFailed(texts.emptyError);
}

}  // namespace

std::optional<InputRecorder::CaptureMode> InputRecorder::captureMode(bool mouseEvents, bool keyboardEvents) {
    if (mouseEvents && keyboardEvents) return CaptureMode::mouseAndKeyboardEvents;
    if (mouseEvents) return CaptureMode::mouseEvents;
    if (keyboardEvents) return CaptureMode::keyboardEvents;
    return std::nullopt;
}

platform::CGEventMask InputRecorder::eventMask(CaptureMode mode) {
    switch (mode) {
        case CaptureMode::mouseEvents: return kMouseTypes;
        case CaptureMode::keyboardEvents: return kKeyboardTypes;
        case CaptureMode::mouseAndKeyboardEvents: return kMouseTypes | kKeyboardTypes;
    }
    return 0;
}

InputRecorder::InputRecorder(Configuration configuration)
    : configuration_(std::move(configuration)),
      logger_(configuration_.logger.with("InputRecorder", configuration_.id)),
      recordingTimeline_(*configuration_.recordingTimeline),
      retimer_(*configuration_.recordingTimeline, logger_) {}

InputRecorder::~InputRecorder() {
    if (eventMonitor_.joinable()) {
        logger_.error("Deallocated without event monitor being properly stopped.");
        cancel();
    }
}

std::vector<OVBundleInfo::FileAsset> InputRecorder::assets(const std::vector<std::filesystem::path>& urls) const {
    std::vector<OVBundleInfo::FileAsset> out;
    for (const auto& url : urls) {
        OVBundleInfo::FileAsset asset;
        asset.type = OVBundleInfo::FileAssetType::mouse;
        asset.filename = url.filename().string();
        out.push_back(std::move(asset));
    }
    return out;
}

std::vector<OVBundleInfo::FileAsset> InputRecorder::prepare() {
    logger_.info("Preparing.");
    auto provider = configuration_.provider;
    if (!provider) {
        try {
            provider = platform::CapturePlatform::shared()->inputProvider();
        } catch (const OVError&) {
            throw;
        } catch (const std::exception& error) {
            const auto description = platform::describeError(error);
            throw OVError(OVError::Code::inputRecordingUnavailable,
                          "Input event recording is unavailable: " + description.debugDescription,
                          std::string("Input event recording is unavailable"));
        }
    }
    try {
        configuration_.cursorTimeline->prepareAdapter().waitForItem(configuration_.prepareTimeout);
    } catch (const TimeoutError&) {
        logger_.warning("Cursor capturing failed to capture any cursors before timeout.");
        throw OVError(OVError::Code::inputRecordingUnavailable,
                      std::string("Mouse cursor capturing failed to capture any cursors before timeout"),
                      std::string("Mouse cursor capturing failed to capture any cursors before timeout"));
    }
    try {
        configuration_.recordingRectTimeline->prepareAdapter().waitForItem(configuration_.prepareTimeout);
    } catch (const TimeoutError&) {
        logger_.warning("Recording rect capturing failed to capture any rects before timeout.");
        throw OVError(OVError::Code::inputRecordingUnavailable,
                      std::string("Recording rect capturing failed to capture any rects before timeout"),
                      std::string("Recording rect capturing failed to capture any rects before timeout"));
    }

    // Keystrokes are private: only the user may read the file.
    constexpr unsigned kPrivateMode = 0600;
    if (const auto* single = configuration_.output.asSingleFile()) {
        writer_ = std::make_unique<StreamingJSONWriter>(single->url, streamingCommitInterval, logger_, kPrivateMode);
    } else {
        const auto* segmented = configuration_.output.asMultipleStreams();
        writer_ = std::make_unique<SegmentedJSONWriter>(segmented->directoryURL, segmented->filenamePrefix,
                                                        segmentInterval, nullptr, segmented->segmentCallback, logger_,
                                                        kPrivateMode);
    }

    if (configuration_.captureMode != CaptureMode::mouseEvents)
        lockWatcher_ = std::make_unique<platform::SessionLockWatcher>();

    platform::InputFeedSink sink;
    sink.event = [this](const CGEvent& event) {
        {
            std::lock_guard lock(streamMutex_);
            stream_.emplace_back(QueuedEvent{event, EventSource::tap});
        }
        streamCondition_.notify_all();
    };
    sink.ended = [this](std::exception_ptr error) {
        {
            std::lock_guard lock(streamMutex_);
            stream_.emplace_back(StreamEnd{std::move(error)});
        }
        streamCondition_.notify_all();
    };
    try {
        feed_ = provider->startFeed(eventMask(configuration_.captureMode), sink);
    } catch (...) {
        // No fall-back: the stream ends with the error and the recording aborts.
        logger_.error("Failed to create CGEvent tap");
        sink.ended(std::current_exception());
    }
    eventMonitor_ = std::jthread([this](std::stop_token token) { monitorLoop(token); });
    logger_.info("Prepared.");
    return assets(writer_->expectedFileURLs());
}

void InputRecorder::monitorLoop(std::stop_token token) {
    for (;;) {
        StreamItem item = StreamEnd{};
        {
            std::unique_lock lock(streamMutex_);
            streamCondition_.wait(lock, [&] { return !stream_.empty(); });
            item = std::move(stream_.front());
            stream_.pop_front();
        }
        if (auto* end = std::get_if<StreamEnd>(&item)) {
            if (end->error) {
                const auto description = platform::describeError(end->error);
                logger_.error("Event monitor stopped with error, aborting.",
                              [&] { return LogMetadata{{"error", description.debugDescription}}; });
                if (configuration_.onAbort) configuration_.onAbort(AbortSignal::interrupted(end->error));
            } else {
                logger_.info("Event tap stopped.");
            }
            return;
        }
        const auto& queued = std::get<QueuedEvent>(item);
        try {
            process(queued.event, queued.source, token);
        } catch (const CancellationError&) {
            return;
        } catch (...) {
            const auto error = std::current_exception();
            const auto description = platform::describeError(error);
            logger_.error("Event monitor stopped with error, aborting.",
                          [&] { return LogMetadata{{"error", description.debugDescription}}; });
            if (configuration_.onAbort) configuration_.onAbort(AbortSignal::interrupted(error));
            return;
        }
    }
}

bool InputRecorder::keyboardEntriesBlocked() {
    const bool locked = lockWatcher_ && lockWatcher_->isLocked().value_or(false);
    if (locked && !wasLocked_) logger_.info("Session is locked; keyboard entries are dropped until it is unlocked.");
    if (!locked && wasLocked_) {
        logger_.info("Session is unlocked; keyboard entries are recorded again.",
                     [&] { return LogMetadata{{"droppedEntries", std::to_string(droppedWhileLocked_)}}; });
        droppedWhileLocked_ = 0;
    }
    wasLocked_ = locked;
    if (locked) ++droppedWhileLocked_;
    return locked;
}

void InputRecorder::process(const CGEvent& event, EventSource source, const std::stop_token& token) {
    if (isTapDisabled(event.type)) return;
    recordingTimeline_.update();
    // Before the first interval nothing can be kept, and there is no start to
    // catch up from.
    if (recordingTimeline_.recordingIntervals.empty()) return;
    const auto& first = recordingTimeline_.recordingIntervals.front();
    const double moment = static_cast<double>(event.timestamp) / 1e9;
    if (!configuration_.useTimeline && !(first.recordFrom <= moment && moment < first.recordUntil)) return;
    const CMTime eventTime(static_cast<int64_t>(event.timestamp), kNanoseconds);

    catchUpOnCursor(lastEventTimestamp_.value_or(nanosecondsTime(first.recordFrom)), eventTime, token);

    const OVTime time = nanosecondTime(configuration_.useTimeline ? moment : moment - first.recordFrom);
    const auto mask = platform::CGEventMaskBit(event.type);
    if (mask & kMouseTypes) {
        const auto cursor = fetchCursorObservation(eventTime, token);
        const auto mouse = makeMouseEvent(*mouseEventType(event), time, event.location, event.flags,
                                          mouseButton(event), cursor.cursorType, eventTime, token);
        OVMouseEvent withSource = mouse;
        withSource.targetsCurrentProcess = source == EventSource::localMonitor;
        appendEvent(withSource);
    } else if (mask & kKeyPressTypes) {
        if (!keyboardEntriesBlocked()) appendEvent(keyboardEvent(event, time));
    } else if (mask & kModifiersChangedTypes) {
        if (!keyboardEntriesBlocked()) appendEvent(OVInputModifiersChangedEvent{time, toOVInputModifierSet(event.flags)});
    } else {
        logger_.warning("Unknown CGEvent type.",
                        [&] { return LogMetadata{{"CGEventType", std::to_string(static_cast<uint32_t>(event.type))}}; });
        return;
    }
    lastEventTimestamp_ = eventTime;
}

OVMouseEvent InputRecorder::makeMouseEvent(OVMouseEventType type, const OVTime& time, platform::CGPoint location,
                                           platform::CGEventFlags flags, std::optional<OVMouseButton> button,
                                           OVCursorType cursorType, const CMTime& at, const std::stop_token& token) {
    const auto rect = fetchRecordingRectObservation(at, token).rect;
    OVMouseEvent e;
    e.mouseEventType = type;
    e.time = time;
    e.modifiers = toOVInputModifierSet(flags);
    e.x = (location.x - rect.origin.x) / rect.size.width;
    e.y = (location.y - rect.origin.y) / rect.size.height;
    e.button = button;
    e.cursorType = cursorType;
    e.targetsCurrentProcess = false;
    return e;
}

void InputRecorder::catchUpOnCursor(const CMTime& after, const CMTime& untilIncluding, const std::stop_token& token) {
    if (recordingTimeline_.recordingIntervals.empty()) return;
    const double recordFrom = recordingTimeline_.recordingIntervals.front().recordFrom;
    for (const auto& observation : configuration_.cursorTimeline->observations(after, untilIncluding)) {
        // The observation's own time, by the rule of the events: host time for
        // the retimer to map once, or the offset from the start written as is.
        const double seconds = observation.timestamp.seconds();
        const OVTime time = nanosecondTime(configuration_.useTimeline ? seconds : seconds - recordFrom);
        appendEvent(makeMouseEvent(OVMouseEventType::cursorChanged, time, observation.location, observation.flags,
                                   std::nullopt, observation.cursorType, observation.timestamp, token));
    }
}

void InputRecorder::appendEvent(const OVInputEvent& event) {
    if (!configuration_.useTimeline) {
        writer_->write(event.json());
        return;
    }
    for (auto& result : retimer_.retime(event, event.time().seconds)) {
        using Retimer = RecordingTimelineBoundedEventRetimer<OVInputEvent>;
        if (const auto* gap = std::get_if<Retimer::Discontinuation>(&result))
            writer_->write(OVInputEvent(OVDiscontinuationEvent{nanosecondTime(gap->seconds)}).json());
        else {
            const auto& retimed = std::get<Retimer::Retimed>(result);
            writer_->write(retimed.item.withTime(nanosecondTime(retimed.seconds)).json());
        }
    }
}

CursorTimeline::Observation InputRecorder::fetchCursorObservation(const CMTime& time, const std::stop_token& token) {
    const auto& timeline = *configuration_.cursorTimeline;
    return fetch<CursorTimeline::Observation, CursorTimeline::BeforeFirstCapture, CursorTimeline::Found,
                 CursorTimeline::AfterLastCapture>([&] { return timeline.cursor(time); }, kCursorTexts, logger_, token);
}

RecordingRectTimeline::Observation InputRecorder::fetchRecordingRectObservation(const CMTime& time,
                                                                                const std::stop_token& token) {
    // The rectangle timeline answers with a kind; the fetch reads the cases
    // of the cursor timeline's shape.
    using Observation = RecordingRectTimeline::Observation;
    struct Before {
        Observation firstAvailableObservation;
    };
    struct Found {
        Observation observation;
    };
    struct After {
        Observation lastAvailableObservation;
    };
    struct Empty {};
    using Result = std::variant<Before, Found, After, Empty>;
    const auto& timeline = *configuration_.recordingRectTimeline;
    return fetch<Observation, Before, Found, After>(
        [&]() -> Result {
            const auto result = timeline.recordingRect(time);
            using Kind = RecordingRectTimeline::QueryResult::Kind;
            switch (result.kind) {
                case Kind::beforeFirstCapture: return Before{*result.observation};
                case Kind::found: return Found{*result.observation};
                case Kind::afterLastCapture: return After{*result.observation};
                case Kind::emptyTimeline: break;
            }
            return Empty{};
        },
        kRectTexts, logger_, token);
}

void InputRecorder::cancel() {
    // The feed first, so that the monitor sees the end of the stream after the
    // last event and handles every event that came before it.
    if (feed_) {
        feed_->stop();
        feed_.reset();
    }
    {
        std::lock_guard lock(streamMutex_);
        stream_.emplace_back(StreamEnd{});
    }
    streamCondition_.notify_all();
    if (eventMonitor_.joinable()) eventMonitor_.join();
    lockWatcher_.reset();
}

std::vector<OVBundleInfo::FileAsset> InputRecorder::finish() {
    logger_.trace("Finishing.");
    // The monitor reads the timeline until it has ended.
    cancel();
    recordingTimeline_.update();
    if (!recordingTimeline_.recordingIntervals.empty() && writer_) {
        const auto& first = recordingTimeline_.recordingIntervals.front();
        const auto& last = recordingTimeline_.recordingIntervals.back();
        std::stop_source never;
        catchUpOnCursor(lastEventTimestamp_.value_or(nanosecondsTime(first.recordFrom)),
                        nanosecondsTime(last.recordUntil), never.get_token());
    }
    std::vector<std::filesystem::path> urls;
    if (writer_) urls = writer_->close();
    if (droppedWhileLocked_ > 0)
        logger_.info("Keyboard entries were dropped while the session was locked.",
                     [&] { return LogMetadata{{"droppedEntries", std::to_string(droppedWhileLocked_)}}; });
    logger_.info("Finished.");
    return assets(urls);
}

}  // namespace ov
