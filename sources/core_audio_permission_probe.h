#pragma once
// Whether this process may capture system audio, found by listening: a
// capture that lacks the permission may still start and deliver silence, so
// the answer is what comes out of it.
//
// First the whole output is read for up to 0.5 s; any non-zero sample answers
// yes. Otherwise the self probe plays a muted test tone and reads this
// process's own playback for up to 0.5 s. Its monitor is post-volume and so
// reads zeros on Linux: frames arriving at all is the answer there. Nothing
// audible is ever played.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "output/ov_logger.h"

namespace ov {

namespace CoreAudioPermissionProbe {

// Throws the platform's error when the sound server can't be reached or
// refuses the streams.
bool probe();

// A RIFF image: mono 16-bit PCM at 44100 Hz; silent, or a sine of the
// frequency at 16383 peak.
std::vector<uint8_t> generateWAVData(int durationSamples, double toneFrequency, bool silent);

// True when a buffer of at least one sample holds a value of magnitude above 0.
bool containsNonZeroSamples(const float* samples, size_t count);

}  // namespace CoreAudioPermissionProbe

// Tells interested parties when the system-audio permission changes. On Linux
// that permission is "a sound server accepts us", polled every 0.1 s while
// anyone is registered.
class AudioCapturePermissionMonitor : public std::enable_shared_from_this<AudioCapturePermissionMonitor> {
public:
    static std::shared_ptr<AudioCapturePermissionMonitor> shared();
    // A monitor over any status reader (0 authorized, 1 denied, 2 undetermined); for tests.
    static std::shared_ptr<AudioCapturePermissionMonitor> make(std::function<int()> readStatus);
    ~AudioCapturePermissionMonitor();

    class Registration {
    public:
        Registration() = default;
        Registration(std::weak_ptr<AudioCapturePermissionMonitor> monitor, uint64_t key)
            : monitor_(std::move(monitor)), key_(key) {}
        Registration(Registration&& other) noexcept { *this = std::move(other); }
        Registration& operator=(Registration&& other) noexcept;
        ~Registration() { cancel(); }
        void cancel();

    private:
        std::weak_ptr<AudioCapturePermissionMonitor> monitor_;
        uint64_t key_ = 0;
    };

    // The callback runs on the main queue. The first registration starts polling.
    [[nodiscard]] Registration registerCallback(std::function<void()> callback);
    // Calls every callback now (on the caller's thread).
    void triggerSiblingUpdate();
    bool isPolling() const;

private:
    explicit AudioCapturePermissionMonitor(std::function<int()> readStatus) : readStatus_(std::move(readStatus)) {}
    void remove(uint64_t key);

    std::function<int()> readStatus_;
    mutable std::mutex mutex_;
    std::map<uint64_t, std::function<void()>> callbacks_;
    uint64_t nextKey_ = 1;
    std::optional<std::jthread> task_;
    Logger logger_{"AudioCapturePermissionMonitor"};
};

}  // namespace ov
