#include "video/shareable_content.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <stdexcept>

#include "platform/capture_platform.h"

namespace ov {

using platform::SCShareableContent;

ShareableContentError::ShareableContentError(Case kind)
    : PlatformError(errorDomain, static_cast<int64_t>(kind), message(kind)), kind_(kind) {}

std::string ShareableContentError::message(Case kind) {
    const char* what = "";
    switch (kind) {
        case Case::timeout: return "Cannot access ScreenCaptureKit. If this error persists, try rebooting your computer.";
        case Case::timeoutRecordWindow: what = "record window"; break;
        case Case::timeoutRecordDisplay: what = "record display"; break;
        case Case::timeoutRecordSystemAudio: what = "record system audio"; break;
        case Case::timeoutListWindows: what = "list windows"; break;
        case Case::timeoutListDisplays: what = "list displays"; break;
        case Case::timeoutListApplications: what = "list applications"; break;
    }
    return std::string("Cannot ") + what + ". If this error persists, try rebooting your computer.";
}

namespace {

std::atomic<bool> returnedOnceFlag{false};
std::mutex timingMutex;
ShareableContent::Timing currentTiming;

bool isTimeout(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const ShareableContentError& e) {
        return e.kind() == ShareableContentError::Case::timeout;
    } catch (...) {
        return false;
    }
}

}  // namespace

// The one continuation of a retrieval: settled by the first answer or the
// time-out. Only the instance's queue touches `settled`'s transitions; the
// caller waits on the condition variable.
struct ShareableContent::Retrieval {
    std::mutex mutex;
    std::condition_variable cv;
    bool started = false;
    bool settled = false;
    std::optional<std::pair<SCShareableContent, int>> content;
    std::exception_ptr error;

    void settle(std::optional<std::pair<SCShareableContent, int>> value, std::exception_ptr failure) {
        {
            std::lock_guard lock(mutex);
            if (settled) return;
            settled = true;
            content = std::move(value);
            error = failure;
        }
        cv.notify_all();
    }
    bool isSettled() {
        std::lock_guard lock(mutex);
        return settled;
    }
};

TokenBucket& ShareableContent::tokenBucket() {
    static TokenBucket bucket(Logger("ShareableContent"));
    return bucket;
}

bool ShareableContent::returnedOnce() { return returnedOnceFlag; }
void ShareableContent::resetReturnedOnce() { returnedOnceFlag = false; }

void ShareableContent::setTiming(Timing timing) {
    std::lock_guard lock(timingMutex);
    currentTiming = timing;
}

ShareableContent::Timing ShareableContent::timing() {
    std::lock_guard lock(timingMutex);
    return currentTiming;
}

ShareableContent::ShareableContent(Logger logger)
    : logger_(std::move(logger)),
      retrieval_(std::make_shared<Retrieval>()),
      queue_(std::make_shared<platform::DispatchQueue>("ShareableContent")) {}

// Timed requests not yet due are dropped with the queue; answers still out
// find the queue gone and are dropped too.
ShareableContent::~ShareableContent() = default;

std::pair<SCShareableContent, int> ShareableContent::getContentWithRetries(bool includeDesktopAndOffScreenWindows) {
    {
        std::lock_guard lock(retrieval_->mutex);
        if (retrieval_->started)
            throw std::logic_error("Calling SharableContent.getContentWithRetries() multiple times not allowed");
        retrieval_->started = true;
    }
    const Timing t = timing();
    std::weak_ptr<platform::DispatchQueue> weakQueue = queue_;
    auto retrieval = retrieval_;
    auto request = [retrieval, weakQueue, includeDesktopAndOffScreenWindows](int attempt) {
        if (retrieval->isSettled()) return;
        auto handler = [retrieval, weakQueue, attempt](std::optional<SCShareableContent> content, std::exception_ptr error) {
            auto queue = weakQueue.lock();
            if (!queue) return;
            queue->async([retrieval, attempt, content = std::move(content), error] {
                if (error)
                    retrieval->settle(std::nullopt, error);
                else
                    retrieval->settle(std::make_pair(content.value_or(SCShareableContent()), attempt), nullptr);
            });
        };
        if (includeDesktopAndOffScreenWindows)
            SCShareableContent::getShareableContent(std::move(handler));
        else
            SCShareableContent::getShareableContent(true, true, std::move(handler));
    };
    const auto after = [](double seconds) {
        return std::chrono::duration_cast<platform::DispatchQueue::Clock::duration>(std::chrono::duration<double>(seconds));
    };
    queue_->async([request] { request(1); });
    queue_->asyncAfter(after(t.secondRequest), [request] { request(2); });
    queue_->asyncAfter(after(t.thirdRequest), [request] { request(3); });
    queue_->asyncAfter(after(t.timeout), [retrieval] {
        retrieval->settle(std::nullopt, std::make_exception_ptr(ShareableContentError(ShareableContentError::Case::timeout)));
    });

    std::unique_lock lock(retrieval_->mutex);
    retrieval_->cv.wait(lock, [&] { return retrieval_->settled; });
    if (retrieval_->error) std::rethrow_exception(retrieval_->error);
    return *retrieval_->content;
}

SCShareableContent ShareableContent::getContentWithRestart(bool includeDesktopAndOffScreenWindows,
                                                           ShareableContentError::Case timeoutError,
                                                           const Logger& logger) {
    tokenBucket().enter();
    struct Exit {
        ~Exit() { tokenBucket().exit(); }
    } exit;

    logger.debug("Retrieving shareable content");
    std::exception_ptr failure;
    try {
        auto content = ShareableContent(logger).getContentWithRetries(includeDesktopAndOffScreenWindows).first;
        logger.debug("Retrieved shareable content.");
        returnedOnceFlag = true;
        return content;
    } catch (...) {
        failure = std::current_exception();
    }
    if (isTimeout(failure) && !returnedOnceFlag) {
        logger.warning("Timeout retrieving shareable content. Restarting replaykit deamon.");
        platform::CapturePlatform::shared()->restartShareableContentService();
        logger.debug("Restarted replaykit deamon. Retrying.");
        try {
            auto content = ShareableContent(logger).getContentWithRetries(includeDesktopAndOffScreenWindows).first;
            logger.debug("Retrieved shareable content after restart of replaykit deamon.");
            returnedOnceFlag = true;
            return content;
        } catch (...) {
            failure = std::current_exception();
        }
    }
    if (isTimeout(failure)) {
        logger.error("Timeout retrieving shareable content");
        throw ShareableContentError(timeoutError);
    }
    std::rethrow_exception(failure);
}

}  // namespace ov
