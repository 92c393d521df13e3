#pragma once
// Notices that a running microphone can't go on, and says so once: the
// capture session's runtime errors (the device went away, the sound server
// died, the stream failed) and a silence of the device itself (no sample at
// all for `stallTimeout`, which a live microphone never does: it delivers
// silence as samples). Either becomes an "interrupted" abort carrying an
// OVError that names the microphone, so the recording stops with its files
// kept instead of recording nothing for the rest of its length.
//
// Armed once prepare has seen samples; disarmed when finish begins, so a stop
// of our own is never mistaken for a fault. Thread-safe: samples are noted on
// the sample queue, errors arrive on the session's notification queue, the
// stall check runs on a thread of its own.
#include <atomic>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "output/ov_logger.h"
#include "platform/av_capture_device.h"
#include "foundation/ov_error.h"
#include "session/schema_items.h"

namespace ov {

// How long a running microphone may deliver nothing before the recording is
// interrupted. Sound servers deliver every 10–40 ms; two seconds is far past
// any scheduling hiccup and short enough to lose little.
inline constexpr double microphoneStallTimeout = 2.0;

class MicrophoneInterruptionMonitor : public std::enable_shared_from_this<MicrophoneInterruptionMonitor> {
public:
    MicrophoneInterruptionMonitor(std::string microphoneID, std::string microphoneName, Logger logger,
                                  AbortFunction onAbort, double stallTimeout = microphoneStallTimeout);
    ~MicrophoneInterruptionMonitor();

    // A sample arrived (any thread).
    void noteSample();
    // The capture session reported a runtime error.
    void runtimeError(std::exception_ptr error);
    // From now on faults are told; one that came before is told at once.
    void arm();
    // No more faults are told; returns once the stall check has ended.
    void disarm();

    // The errors told (for tests and logs).
    OVError stallError() const;
    OVError runtimeErrorFor(const std::exception_ptr& error) const;

private:
    void report(std::exception_ptr error, const char* what);
    void watch();

    std::string microphoneID_;
    std::string microphoneName_;
    Logger logger_;
    AbortFunction onAbort_;
    double stallTimeout_;
    std::atomic<int64_t> lastSampleNanos_{0};

    std::mutex mutex_;
    std::condition_variable wake_;
    bool armed_ = false;
    bool disarmed_ = false;
    bool told_ = false;
    std::exception_ptr earlyError_;
    std::thread watcher_;
};

}  // namespace ov
