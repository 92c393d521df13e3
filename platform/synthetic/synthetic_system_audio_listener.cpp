// The system-audio listener of the `synthetic` backend. The world's
// "systemAudio" authorization decides what a listener hears, as a process
// tap would: authorized, the world's output (a tone) and its own playback;
// otherwise the output reads as silence and its own playback delivers nothing.
#include <chrono>
#include <cmath>
#include <thread>

#include "platform/capture_platform.h"
#include "platform/system_audio_listener.h"

namespace ov::platform {
namespace {

constexpr int rate = 48000;
constexpr size_t bufferFrames = rate / 100;

bool authorized() { return CapturePlatform::shared()->audioCaptureAccessStatus() == 0; }

// 10 ms buffers on the clock until the time is up or the handler has enough.
void deliver(double seconds, bool audible, const SystemAudioListener::BufferHandler& onBuffer) {
    std::vector<float> buffer(bufferFrames);
    const auto start = std::chrono::steady_clock::now();
    for (size_t n = 0;; ++n) {
        const auto due = start + std::chrono::milliseconds(10 * (n + 1));
        if (due > start + std::chrono::duration<double>(seconds)) return;
        std::this_thread::sleep_until(due);
        for (size_t i = 0; i < bufferFrames; ++i)
            buffer[i] = audible ? 0.25f * std::sin(2 * M_PI * 440.0 * double(n * bufferFrames + i) / rate) : 0.0f;
        if (onBuffer(buffer.data(), buffer.size())) return;
    }
}

class SyntheticSystemAudioListener final : public SystemAudioListener {
public:
    void listenToSystemOutput(double seconds, const BufferHandler& onBuffer) override {
        deliver(seconds, authorized(), onBuffer);
    }
    void listenToOwnMutedPlayback(const std::vector<int16_t>&, int, double seconds, const BufferHandler& onBuffer) override {
        if (authorized()) {
            deliver(seconds, false, onBuffer);
        } else {
            std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        }
    }
};

const bool registered = [] {
    registerSystemAudioListener("synthetic", [] { return std::make_unique<SyntheticSystemAudioListener>(); });
    return true;
}();

}  // namespace
}  // namespace ov::platform
