#include "session/ov_recorder.h"

#include <fmt/format.h>

#include "foundation/platform_error.h"
#include "session/schema_validation.h"
#include "session/short_id.h"

namespace ov {

namespace {

std::string debugText(const std::exception_ptr& error) { return platform::describeError(error).debugDescription; }

std::string optionalText(const std::optional<double>& value) {
    return value ? fmt::format("{}", *value) : std::string("nil");
}

}  // namespace

OVRecorder::OVRecorder(std::vector<SchemaItem> items, std::optional<std::filesystem::path> outputDirectory,
                       std::optional<Settings> settings, AbortHandler onAbort, std::shared_ptr<OVLogger> ovLogger)
    : id_(ShortID::make()),
      schema_{std::move(outputDirectory), std::move(items)},
      logger_("OVRecorder", id_, {}, std::move(ovLogger)),
      settings_(settings.value_or(Settings{})) {
    // A bad name or delay is refused here, before a folder or a file exists.
    validateSchema(schema_);
    if (!onAbort) {
        Logger logger = logger_;
        onAbort = [logger](const AbortReason& reason) {
            logger.warning("Aborted with no abort handler set.",
                           [&] { return LogMetadata{{"reason", reason.logErrorDescription()}}; });
        };
    }
    conductor_ = Conductor::create(id_, schema_, settings_._useTimeline, settings_.audioSegmentDuration,
                                   settings_.videoSegmentDuration, settings_.keyframeIntervalDuration, logger_,
                                   std::move(onAbort));
    logger_.info("Initialized recorder", [&] {
        return LogMetadata{{"allowFrameReordering", settings_.allowFrameReordering ? "true" : "false"},
                           {"updatesUserPreferred", settings_.updatesUserPreferred ? "true" : "false"},
                           {"_useTimeline", settings_._useTimeline ? "true" : "false"},
                           {"audioSegmentDuration", std::to_string(settings_.audioSegmentDuration)},
                           {"videoSegmentDuration", std::to_string(settings_.videoSegmentDuration)},
                           {"keyframeIntervalDuration", optionalText(settings_.keyframeIntervalDuration)}};
    });
}

OVRecorder::~OVRecorder() { logger_.info("Deinitialized recorder"); }

void OVRecorder::stopIfActive(const char* why) {
    using Kind = Conductor::StateKind;
    switch (conductor_->stateKind()) {
        case Kind::initial:
        case Kind::prepareFailed:
        case Kind::stopped:
        case Kind::stopFailed:
        case Kind::aborted:
            return;
        default:
            break;
    }
    logger_.info("Stopping recording before it is dropped.", [&] { return LogMetadata{{"why", why}}; });
    try {
        (void)stop();
    } catch (...) {
        // stop() has logged the failure; the bundle holds what could be finished.
    }
}

std::string OVRecorder::debugDescription() const {
    return fmt::format("OVRecorder: {} recorder items", schema_.items.size());
}

// Runs a conductor call; a failure is logged with `failurePrefix` and its debug text, then passes on.
template <class F>
auto OVRecorder::logged(const char* failurePrefix, F&& call) -> decltype(call()) {
    try {
        return call();
    } catch (...) {
        auto error = std::current_exception();
        logger_.error([&] { return failurePrefix + debugText(error); });
        throw;
    }
}

namespace {
std::mutex userPreferredMutex;
OVRecorder::UserPreferredUpdater& userPreferredSlot() {
    static OVRecorder::UserPreferredUpdater updater;
    return updater;
}
OVRecorder::UserPreferredUpdater userPreferredUpdater() {
    std::lock_guard lock(userPreferredMutex);
    return userPreferredSlot();
}
}  // namespace

void OVRecorder::setUserPreferredUpdater(UserPreferredUpdater updater) {
    std::lock_guard lock(userPreferredMutex);
    userPreferredSlot() = std::move(updater);
}

void OVRecorder::setAbortHandler(AbortHandler handler) {
    logged("Failed to set abort handler: ", [&] { conductor_->setOnAbort(std::move(handler)); });
}

OVBundleInfo OVRecorder::prepare() {
    auto info = conductor_->prepare(ShortID::make());
    logger_.info("Prepared recorder");
    return info;
}

void OVRecorder::start() {
    logged("Failed to start: ", [&] { conductor_->start(ShortID::make()); });
    if (settings_.updatesUserPreferred) {
        if (const auto updater = userPreferredUpdater()) {
            // The recording runs whatever happens to the preference store.
            try {
                updater(schema_);
            } catch (const std::exception& e) {
                logger_.warning("Failed to update the preferred sources",
                                [&] { return LogMetadata{{"error", platform::describeError(e).debugDescription}}; });
            }
        }
    }
    logger_.info("Started recording");
}

void OVRecorder::pause() {
    logged("Failed to pause: ", [&] { conductor_->pause(); });
    logger_.info("Paused recording");
}

void OVRecorder::resume() {
    logged("Failed to resume: ", [&] { conductor_->resume(); });
    logger_.info("Resumed recording");
}

OVRecorder::Result OVRecorder::stop() {
    auto result = logged("Failed to stop: ", [&] { return conductor_->stop(ShortID::make()); });
    logger_.info("Stopped recorder");
    return result;
}

}  // namespace ov
