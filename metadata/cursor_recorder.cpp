#include "metadata/cursor_recorder.h"

#include <fmt/format.h>

#include "foundation/ov_error.h"
#include "platform/capture_platform.h"
#include "platform/cm_clock.h"

namespace ov {
namespace {

[[noreturn]] void throwUnavailable(const std::string& text) {
    throw OVError(OVError::Code::inputRecordingUnavailable, text, text);
}

}  // namespace

ThrottledLogWarning createThrottledLogWarning(double rateLimit, const Logger& logger) {
    auto state = std::make_shared<std::pair<std::mutex, std::map<std::string, double>>>();
    return [state, rateLimit, logger](const std::string& key, double time, const std::string& message,
                                      LogMetadata metadata) {
        {
            std::lock_guard lock(state->first);
            auto [it, inserted] = state->second.try_emplace(key, -rateLimit);
            if (!(time - it->second > rateLimit)) return;
            it->second = time;
        }
        metadata["rateLimitedAt"] = fmt::format("{}/sec", rateLimit);
        logger.warning([&] { return message; }, [&] { return metadata; });
    };
}

CursorRecorder::CursorRecorder(std::string id, const Logger& logger, std::shared_ptr<platform::CursorSource> source)
    : id_(std::move(id)),
      logger_(logger.with("CursorRecorder", id_)),
      timeline_(std::make_shared<CursorTimeline>(logger)),
      source_(std::move(source)),
      throttledWarning_(createThrottledLogWarning(logRateLimit, logger_)) {}

CursorRecorder::~CursorRecorder() {
    if (displayLink_) displayLink_->stop();
}

void CursorRecorder::sampleNow() {
    const auto time = platform::hostTimeNow();
    const auto pointer = source_->pointer();
    if (!pointer) {
        throttledWarning_("mouseLocationNil", time.seconds(), "Skipping frame; failed to retreive mouse location.", {});
        return;
    }
    const auto cursor = source_->currentSystemCursor();
    if (!cursor) {
        throttledWarning_("cursorNil", time.seconds(), "Skipping frame; failed to retreive system cursor.", {});
        return;
    }
    if (!cursor->image || cursor->image->empty())
        throttledWarning_("cursorImageMissing", time.seconds(), "Cursor picture could not be read; frame adds nothing.", {});
    timeline_->capture(*cursor, time, *pointer);
}

std::vector<OVBundleInfo::FileAsset> CursorRecorder::prepare() {
    logger_.info("Preparing.");
    if (!source_) {
        try {
            source_ = platform::CapturePlatform::shared()->inputProvider()->makeCursorSource();
        } catch (const OVError&) {
            throw;
        } catch (const std::exception& error) {
            const auto description = platform::describeError(error);
            logger_.error("Failed to open the cursor source.", [&] {
                return LogMetadata{{"error", description.debugDescription}};
            });
            throw OVError(OVError::Code::inputRecordingUnavailable,
                          "Cursor capturing is unavailable: " + description.debugDescription,
                          std::string("Mouse cursor capturing is unavailable"));
        }
    }
    const auto duplicates = timeline_->preload(Cursor::allSystemCursors());
    logger_.debug("Preloaded system cursors.", [&] {
        std::string list;
        const auto kind = [](const Cursor& c) { return c.loadedUsingPrivateSelector ? "private" : "public"; };
        for (const auto& d : duplicates) {
            if (!list.empty()) list += ", ";
            list += "dropped: " + d.skipped.id + " (" + kind(d.skipped) + ") > existing: " + d.isDuplicateOf.id + " (" +
                    kind(d.isDuplicateOf) + ")";
        }
        return LogMetadata{{"duplicates", "[" + list + "]"}};
    });
    logger_.debug("Creating display link.", [&] { return LogMetadata{{"displayID", std::to_string(displayId_)}}; });
    std::weak_ptr<platform::CursorSource> weakSource = source_;
    displayLink_ = std::make_unique<platform::CVDisplayLink>([weakSource](uint32_t) {
        auto source = weakSource.lock();
        if (!source) return 0.0;
        auto pointer = source->pointer();
        return pointer ? source->refreshRate(pointer->location) : 0.0;
    });
    logger_.debug("Created display link.");
    if (auto r = displayLink_->setOutputHandler([this] { sampleNow(); }); r != platform::kCVReturnSuccess) {
        logger_.error("Failed to set display link output handler.", [&] { return LogMetadata{{"errorCode", std::to_string(r)}}; });
        throwUnavailable("Failed to set display link output handler. Error code: " + std::to_string(r));
    }
    if (auto r = displayLink_->setCurrentCGDisplay(displayId_); r != platform::kCVReturnSuccess) {
        logger_.error("Failed to set display link display.");
        throwUnavailable("Failed to set display link display. Display ID: " + std::to_string(displayId_) +
                         ", Error code: " + std::to_string(r));
    }
    if (auto r = displayLink_->start(); r != platform::kCVReturnSuccess) {
        logger_.error("Failed to start display link.");
        throwUnavailable("Failed to start display link. Error code: " + std::to_string(r));
    }
    logger_.info("Prepared.");
    return {};
}

void CursorRecorder::cancel() {
    if (!displayLink_) return;
    if (auto r = displayLink_->stop(); r != platform::kCVReturnSuccess && r != platform::kCVReturnDisplayLinkNotRunning)
        logger_.warning("Failed to stop display link.", [&] { return LogMetadata{{"errorCode", std::to_string(r)}}; });
}

std::vector<OVBundleInfo::FileAsset> CursorRecorder::finish() {
    cancel();
    logger_.info("Finished.");
    return {};
}

}  // namespace ov
