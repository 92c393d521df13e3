#pragma once
// The narrow face of the echo-cancelling library: 10 ms mono float frames in
// [-1, 1], reference ("render") and microphone ("capture") one frame at a time.
//
// Two engines stand behind it, chosen when the build is configured: the AEC3
// line of webrtc-audio-processing (1.x) where a distribution has it, and the
// 0.3 line's classic canceller (Debian 12). The 0.3 canceller cancels best
// when the reference reaches it a little before its echo, so every caller
// that aligns the two streams subtracts referenceLeadSamples() from the delay
// it measured.
#include <memory>
#include <string>

namespace ov {

struct EchoCancelEngineOptions {
    // Stronger suppression of what the linear filter leaves.
    bool enforceSuppression = false;
    // The caller aligns the streams itself; the engine estimates no delay of its own.
    bool useExternalDelay = false;
};

class EchoCancelEngine {
public:
    virtual ~EchoCancelEngine() = default;

    // Null when the library refuses the rate.
    static std::unique_ptr<EchoCancelEngine> create(int sampleRate, EchoCancelEngineOptions options);

    // One frame of sampleRate / 100 samples.
    virtual void analyzeRender(const float* frame) = 0;
    // One frame in, one frame out; in and out may be the same memory.
    virtual void processCapture(const float* in, float* out) = 0;

    virtual std::string name() const = 0;
    // How far ahead of its echo the reference should reach the engine.
    virtual int referenceLeadSamples() const = 0;
};

// The engine this build uses, by name ("webrtc-apm-0.3 classic AEC" or "webrtc-apm-1 AEC3").
std::string echoCancelEngineName();

}  // namespace ov
