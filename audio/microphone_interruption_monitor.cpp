#include "audio/microphone_interruption_monitor.h"

#include <fmt/format.h>

#include <chrono>

#include "foundation/platform_error.h"
#include "platform/cm_clock.h"
#include "session/abort_signal.h"

namespace ov {

MicrophoneInterruptionMonitor::MicrophoneInterruptionMonitor(std::string microphoneID, std::string microphoneName,
                                                             Logger logger, AbortFunction onAbort, double stallTimeout)
    : microphoneID_(std::move(microphoneID)),
      microphoneName_(std::move(microphoneName)),
      logger_(std::move(logger)),
      onAbort_(std::move(onAbort)),
      stallTimeout_(stallTimeout) {}

MicrophoneInterruptionMonitor::~MicrophoneInterruptionMonitor() { disarm(); }

void MicrophoneInterruptionMonitor::noteSample() {
    lastSampleNanos_.store(int64_t(platform::hostTimeNanosecondsNow()), std::memory_order_relaxed);
}

OVError MicrophoneInterruptionMonitor::stallError() const {
    return OVError(OVError::Code::noAudioSamplesReceived,
                   fmt::format("Microphone {} delivered no samples for {:.1f} s.", microphoneID_, stallTimeout_),
                   "No audio from microphone '" + microphoneName_ + "' anymore, make sure it's unmuted and powered on.",
                   {{"microphoneID", microphoneID_}});
}

OVError MicrophoneInterruptionMonitor::runtimeErrorFor(const std::exception_ptr& error) const {
    const auto underlying = platform::describeError(error);
    // Asking the platform anew tells a device that is gone from one that failed.
    bool gone = false;
    try {
        auto device = platform::AVCaptureDevice::device(microphoneID_);
        gone = !device || !device->isConnected();
    } catch (const std::exception&) {
    }
    return OVError(OVError::Code::microphoneUnavailable,
                   fmt::format("Microphone {} stopped: {}", microphoneID_, underlying.debugDescription),
                   gone ? "Can't record microphone '" + microphoneName_ + "' because it is not connected anymore."
                        : "Can't record microphone '" + microphoneName_ + "' because it stopped with an error.",
                   {{"microphoneID", microphoneID_}, {"underlyingError", underlying.debugDescription}});
}

void MicrophoneInterruptionMonitor::runtimeError(std::exception_ptr error) {
    logger_.error("Capture session reported a runtime error.",
                  [&] { return LogMetadata{{"error", platform::describeError(error).debugDescription}}; });
    {
        std::lock_guard lock(mutex_);
        if (disarmed_ || told_) return;
        if (!armed_) {
            if (!earlyError_) earlyError_ = error;
            return;
        }
    }
    report(std::make_exception_ptr(runtimeErrorFor(error)), "Microphone stopped with a runtime error, aborting.");
}

void MicrophoneInterruptionMonitor::arm() {
    std::exception_ptr early;
    {
        std::lock_guard lock(mutex_);
        if (armed_ || disarmed_) return;
        armed_ = true;
        early = earlyError_;
        if (lastSampleNanos_.load() == 0) noteSample();
        // An abort handler that finishes the recording at once runs on the
        // watcher, which then outlives its disarm: it keeps the monitor
        // alive until it has returned (when a shared pointer owns it).
        watcher_ = std::thread([this, keep = weak_from_this().lock()] { watch(); });
    }
    if (early) report(std::make_exception_ptr(runtimeErrorFor(early)), "Microphone stopped with a runtime error, aborting.");
}

void MicrophoneInterruptionMonitor::disarm() {
    {
        std::lock_guard lock(mutex_);
        disarmed_ = true;
    }
    wake_.notify_all();
    if (!watcher_.joinable()) return;
    // An abort handler that stops the recording at once runs on the watcher.
    if (watcher_.get_id() == std::this_thread::get_id())
        watcher_.detach();
    else
        watcher_.join();
}

void MicrophoneInterruptionMonitor::report(std::exception_ptr error, const char* what) {
    {
        std::lock_guard lock(mutex_);
        if (disarmed_ || told_) return;
        told_ = true;
    }
    logger_.error(what, [&] { return LogMetadata{{"error", platform::describeError(error).debugDescription}}; });
    if (onAbort_) onAbort_(AbortSignal::interrupted(error));
}

void MicrophoneInterruptionMonitor::watch() {
    const auto check = std::chrono::milliseconds(100);
    std::unique_lock lock(mutex_);
    while (!disarmed_ && !told_) {
        wake_.wait_for(lock, check);
        if (disarmed_ || told_) break;
        const double silentFor =
            double(int64_t(platform::hostTimeNanosecondsNow()) - lastSampleNanos_.load()) * 1e-9;
        if (silentFor < stallTimeout_) continue;
        lock.unlock();
        report(std::make_exception_ptr(stallError()), "Microphone stopped delivering samples, aborting.");
        lock.lock();
    }
}

}  // namespace ov
