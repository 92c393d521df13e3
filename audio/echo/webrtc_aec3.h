#pragma once
// WebRTCAEC3: mono float streams of any chunk length in, echo-cancelled
// microphone samples out. It cuts both streams into 10 ms frames, holds up to
// 500 ms of microphone audio while no reference has come yet, and logs
// through the system log. The engine behind it is EchoCancelEngine; on a
// build with the 0.3 library that is the classic canceller, not AEC3.
//
// No locks: the caller serialises every call.
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "audio/echo/echo_cancel_engine.h"

extern "C" {
// The C face of the engine. An absent handle makes the processing calls do nothing.
void* aec3_create(int64_t sample_rate, int32_t enforce_suppression, int32_t use_external_delay);
void aec3_analyze_render(void* handle, const float* samples, int32_t frame_size);
void aec3_process_capture(void* handle, const float* samples_in, float* samples_out, int32_t frame_size);
void aec3_destroy(void* handle);
}

namespace ov {

class WebRTCAEC3 {
public:
    // Throws std::logic_error when the engine refuses the rate.
    WebRTCAEC3(int sampleRate, bool enforceSuppression, bool useExternalDelay);
    ~WebRTCAEC3();
    WebRTCAEC3(const WebRTCAEC3&) = delete;
    WebRTCAEC3& operator=(const WebRTCAEC3&) = delete;

    void analyzeRender(const std::vector<float>& samples) { analyzeRender(samples.data(), samples.size()); }
    void analyzeRender(const float* samples, size_t count);
    // The samples that are ready: possibly none, possibly more than given.
    std::vector<float> processCapture(const std::vector<float>& samples) {
        return processCapture(samples.data(), samples.size());
    }
    std::vector<float> processCapture(const float* samples, size_t count);

    // A whole recording through a fresh instance, one frame of each in turn.
    // The result is as long as the mic; what is left after the last whole
    // frame both signals share is the mic's, unprocessed.
    static std::vector<float> processOffline(const std::vector<float>& mic, const std::vector<float>& reference,
                                             int sampleRate, bool enforceSuppression, bool useExternalDelay);

    int sampleRate() const { return sampleRate_; }
    int frameSize() const { return frameSize_; }
    // How far ahead of its echo the engine wants the reference (see EchoCancelEngine).
    int referenceLeadSamples() const;
    // How far ahead of its echo the build's engine wants the reference at a rate.
    static int referenceLeadSamples(int sampleRate);

    int64_t renderFrameCount() const { return renderFrameCount_; }
    int64_t captureFrameCount() const { return captureFrameCount_; }

private:
    void* handle_;
    int sampleRate_;
    int frameSize_;
    int32_t frameSizeC_;
    std::vector<float> renderBuffer_;
    std::vector<float> captureBuffer_;
    int64_t renderFrameCount_ = 0;
    int64_t captureFrameCount_ = 0;
    std::vector<float> pendingCapture_;
    std::vector<float> flushedOutput_;
    bool didLogCaptureBeforeRender_ = false;
    int64_t lastCaptureAheadWarning_ = 0;
    std::chrono::steady_clock::time_point creationTime_;
};

}  // namespace ov
