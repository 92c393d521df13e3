#include "sources/core_audio_permission_probe.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>

#include "foundation/ov_error.h"
#include "foundation/platform_error.h"
#include "platform/capture_platform.h"
#include "platform/dispatch_queue.h"
#include "platform/system_audio_listener.h"

namespace ov {

namespace CoreAudioPermissionProbe {

namespace {

constexpr double listenSeconds = 0.5;
constexpr int wavRate = 44100;

Logger& probeLogger() {
    static Logger logger("CoreAudioPermissionProbe");
    return logger;
}

void put32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void put16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}
void putText(std::vector<uint8_t>& out, const char* text) { out.insert(out.end(), text, text + 4); }

// The PCM samples of a generateWAVData image.
std::vector<int16_t> samplesOf(const std::vector<uint8_t>& wav) {
    std::vector<int16_t> samples((wav.size() - 44) / 2);
    std::memcpy(samples.data(), wav.data() + 44, samples.size() * 2);
    return samples;
}

}  // namespace

std::vector<uint8_t> generateWAVData(int durationSamples, double toneFrequency, bool silent) {
    const uint32_t dataSize = static_cast<uint32_t>(std::max(durationSamples, 0)) * 2;
    std::vector<uint8_t> out;
    out.reserve(44 + dataSize);
    putText(out, "RIFF");
    put32(out, 36 + dataSize);
    putText(out, "WAVE");
    putText(out, "fmt ");
    put32(out, 16);
    put16(out, 1);
    put16(out, 1);
    put32(out, wavRate);
    put32(out, wavRate * 2);
    put16(out, 2);
    put16(out, 16);
    putText(out, "data");
    put32(out, dataSize);
    for (int n = 0; n < durationSamples; ++n) {
        const auto sample = silent ? int16_t{0}
                                   : static_cast<int16_t>(std::sin(2.0 * M_PI * toneFrequency * n / wavRate) * 16383.0);
        put16(out, static_cast<uint16_t>(sample));
    }
    return out;
}

bool containsNonZeroSamples(const float* samples, size_t count) {
    if (!samples || count == 0) return false;
    float largest = 0;
    for (size_t i = 0; i < count; ++i) largest = std::max(largest, std::fabs(samples[i]));
    return largest > 0.0f;
}

bool probe() {
    auto listener = platform::makeSystemAudioListener();
    std::atomic<bool> heard{false};
    listener->listenToSystemOutput(listenSeconds, [&](const float* samples, size_t count) {
        if (containsNonZeroSamples(samples, count)) heard = true;
        return heard.load();
    });
    if (heard) return true;

    probeLogger().info("No system audio detected, probing with test tone to determine audio capture permission.");
    const auto tone = generateWAVData(8820, 440.0, false);
    std::atomic<bool> delivered{false};
    listener->listenToOwnMutedPlayback(samplesOf(tone), wavRate, listenSeconds, [&](const float*, size_t count) {
        if (count > 0) delivered = true;
        return delivered.load();
    });
    return delivered;
}

}  // namespace CoreAudioPermissionProbe

// ---- AudioCapturePermissionMonitor ------------------------------------------------------------------

std::shared_ptr<AudioCapturePermissionMonitor> AudioCapturePermissionMonitor::make(std::function<int()> readStatus) {
    return std::shared_ptr<AudioCapturePermissionMonitor>(new AudioCapturePermissionMonitor(std::move(readStatus)));
}

std::shared_ptr<AudioCapturePermissionMonitor> AudioCapturePermissionMonitor::shared() {
    static auto monitor = make([] { return platform::CapturePlatform::shared()->audioCaptureAccessStatus(); });
    return monitor;
}

AudioCapturePermissionMonitor::~AudioCapturePermissionMonitor() {
    if (task_) {
        task_->request_stop();
        if (task_->get_id() == std::this_thread::get_id()) task_->detach();
        else task_->join();
    }
}

AudioCapturePermissionMonitor::Registration AudioCapturePermissionMonitor::registerCallback(
    std::function<void()> callback) {
    std::lock_guard lock(mutex_);
    const uint64_t key = nextKey_++;
    callbacks_[key] = std::move(callback);
    if (!task_) {
        logger_.info("Starting audio capture permission monitoring.");
        std::weak_ptr<AudioCapturePermissionMonitor> weak = weak_from_this();
        task_.emplace([weak, read = readStatus_, logger = logger_](std::stop_token stop) {
            int last;
            try {
                last = read();
            } catch (const std::exception& e) {
                logger.info([&] { return std::string("Stopping audio capture permission monitoring, error: ") + e.what(); });
                return;
            }
            while (true) {
                std::mutex sleepMutex;
                std::unique_lock sleepLock(sleepMutex);
                std::condition_variable_any wake;
                wake.wait_for(sleepLock, stop, std::chrono::milliseconds(100), [] { return false; });
                if (stop.stop_requested()) return;
                if (weak.expired()) {
                    logger.info("Stopping audio capture permission monitoring, object no longer exists.");
                    return;
                }
                int now;
                try {
                    now = read();
                } catch (const std::exception& e) {
                    logger.info([&] { return std::string("Stopping audio capture permission monitoring, error: ") + e.what(); });
                    return;
                }
                if (now == last) continue;
                last = now;
                platform::DispatchQueue::main().async([weak] {
                    auto self = weak.lock();
                    if (!self) return;
                    std::map<uint64_t, std::function<void()>> callbacks;
                    {
                        std::lock_guard lock(self->mutex_);
                        callbacks = self->callbacks_;
                    }
                    for (auto& [key, callback] : callbacks) callback();
                });
            }
        });
    }
    return Registration(weak_from_this(), key);
}

void AudioCapturePermissionMonitor::remove(uint64_t key) {
    std::optional<std::jthread> ending;
    {
        std::lock_guard lock(mutex_);
        callbacks_.erase(key);
        if (!callbacks_.empty() || !task_) return;
        ending = std::move(task_);
        task_.reset();
    }
    ending->request_stop();
    if (ending->get_id() == std::this_thread::get_id()) ending->detach();
}

void AudioCapturePermissionMonitor::triggerSiblingUpdate() {
    std::map<uint64_t, std::function<void()>> callbacks;
    {
        std::lock_guard lock(mutex_);
        callbacks = callbacks_;
    }
    for (auto& [key, callback] : callbacks) callback();
}

bool AudioCapturePermissionMonitor::isPolling() const {
    std::lock_guard lock(mutex_);
    return task_.has_value();
}

AudioCapturePermissionMonitor::Registration& AudioCapturePermissionMonitor::Registration::operator=(
    Registration&& other) noexcept {
    if (this != &other) {
        cancel();
        monitor_ = std::move(other.monitor_);
        key_ = std::exchange(other.key_, 0);
    }
    return *this;
}

void AudioCapturePermissionMonitor::Registration::cancel() {
    if (key_ == 0) return;
    if (auto monitor = monitor_.lock()) monitor->remove(key_);
    key_ = 0;
}

}  // namespace ov
