// When a running microphone stops, the recording hears of it once, with an
// error that names the microphone; our own stops are never taken for faults.
#include "audio/microphone_interruption_monitor.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "foundation/platform_error.h"
#include "session/abort_signal.h"
#include "support/log_capture.h"

namespace ov {
namespace {

using namespace std::chrono_literals;

struct Aborts {
    std::mutex mutex;
    std::vector<AbortSignal> signals;
    AbortFunction function() {
        return [this](AbortSignal s) {
            std::lock_guard lock(mutex);
            signals.push_back(std::move(s));
        };
    }
    size_t count() {
        std::lock_guard lock(mutex);
        return signals.size();
    }
    OVError::Code firstCode() {
        std::lock_guard lock(mutex);
        try {
            std::rethrow_exception(signals.at(0).error);
        } catch (const OVError& e) {
            return e.code();
        }
    }
};

TEST(MicrophoneInterruptionMonitor, SamplesThatStopInterruptOnceAfterTheTimeOut) {
    testing::LogCapture log;
    Aborts aborts;
    MicrophoneInterruptionMonitor monitor("mic-1", "Desk Mic", log.loggerFor("test"), aborts.function(), 0.3);
    monitor.arm();
    // Samples keep it quiet however long it runs.
    for (int i = 0; i < 10; ++i) {
        monitor.noteSample();
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(aborts.count(), 0u);
    std::this_thread::sleep_for(700ms);
    ASSERT_EQ(aborts.count(), 1u);
    EXPECT_EQ(aborts.signals[0].kind, AbortSignal::Kind::interrupted);
    EXPECT_EQ(aborts.firstCode(), OVError::Code::noAudioSamplesReceived);
    EXPECT_NE(monitor.stallError().localizedDescription().find("'Desk Mic'"), std::string::npos);
    // A runtime error after the stall adds nothing: one abort per recording.
    monitor.runtimeError(std::make_exception_ptr(platform::PlatformError("x", 1, "gone", "gone")));
    EXPECT_EQ(aborts.count(), 1u);
}

TEST(MicrophoneInterruptionMonitor, AnErrorBeforeArmingIsToldWhenArmedAndNothingAfterDisarming) {
    testing::LogCapture log;
    Aborts aborts;
    MicrophoneInterruptionMonitor early("mic-1", "Desk Mic", log.loggerFor("test"), aborts.function(), 5);
    early.runtimeError(std::make_exception_ptr(platform::PlatformError("Orvane.PulseAudio", 9, "gone", "killed")));
    EXPECT_EQ(aborts.count(), 0u);
    early.arm();
    ASSERT_EQ(aborts.count(), 1u);
    EXPECT_EQ(aborts.firstCode(), OVError::Code::microphoneUnavailable);
    early.disarm();

    Aborts none;
    MicrophoneInterruptionMonitor stopped("mic-2", "Other Mic", log.loggerFor("test"), none.function(), 0.1);
    stopped.arm();
    stopped.disarm();  // finish began: silence and errors from here on are ours
    stopped.runtimeError(std::make_exception_ptr(platform::PlatformError("x", 1, "stopped", "stopped")));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(none.count(), 0u);
}

}  // namespace
}  // namespace ov
