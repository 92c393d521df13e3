#include "audio/echo/webrtc_aec3.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "platform/os_log.h"

extern "C" {

void* aec3_create(int64_t sample_rate, int32_t enforce_suppression, int32_t use_external_delay) {
    auto engine = ov::EchoCancelEngine::create(static_cast<int>(sample_rate),
                                               {enforce_suppression != 0, use_external_delay != 0});
    return engine.release();
}

void aec3_analyze_render(void* handle, const float* samples, int32_t) {
    if (!handle) return;
    static_cast<ov::EchoCancelEngine*>(handle)->analyzeRender(samples);
}

void aec3_process_capture(void* handle, const float* samples_in, float* samples_out, int32_t) {
    if (!handle) return;
    static_cast<ov::EchoCancelEngine*>(handle)->processCapture(samples_in, samples_out);
}

void aec3_destroy(void* handle) { delete static_cast<ov::EchoCancelEngine*>(handle); }

}  // extern "C"

namespace ov {

namespace {

const platform::OSLog& aecLog() {
    static const platform::OSLog log(platform::OSLog::defaultSubsystem, "WebRTCAEC3");
    return log;
}

const char* boolText(bool value) { return value ? "true" : "false"; }

}  // namespace

WebRTCAEC3::WebRTCAEC3(int sampleRate, bool enforceSuppression, bool useExternalDelay)
    : handle_(aec3_create(sampleRate, enforceSuppression ? 1 : 0, useExternalDelay ? 1 : 0)),
      sampleRate_(sampleRate),
      frameSize_(sampleRate / 100),
      frameSizeC_(static_cast<int32_t>(sampleRate / 100)),
      creationTime_(std::chrono::steady_clock::now()) {
    if (!handle_)
        throw std::logic_error(fmt::format("[WebRTCAEC3] Failed to create echo canceller at {} Hz", sampleRate));
    aecLog().notice(fmt::format("Created: sampleRate={} enforceSuppression={} useExternalDelay={}", sampleRate,
                                boolText(enforceSuppression), boolText(useExternalDelay)));
}

WebRTCAEC3::~WebRTCAEC3() {
    const double age = std::chrono::duration<double>(std::chrono::steady_clock::now() - creationTime_).count();
    aecLog().notice(fmt::format("Destroyed after {:.1f}s — rendered {} frames ({}ms), captured {} frames ({}ms)", age,
                                renderFrameCount_, renderFrameCount_ * 10, captureFrameCount_,
                                captureFrameCount_ * 10));
    aec3_destroy(handle_);
}

int WebRTCAEC3::referenceLeadSamples() const {
    return static_cast<EchoCancelEngine*>(handle_)->referenceLeadSamples();
}

int WebRTCAEC3::referenceLeadSamples(int sampleRate) {
    auto engine = EchoCancelEngine::create(sampleRate, {});
    return engine ? engine->referenceLeadSamples() : 0;
}

void WebRTCAEC3::analyzeRender(const float* samples, size_t count) {
    renderBuffer_.insert(renderBuffer_.end(), samples, samples + count);
    const auto frame = static_cast<size_t>(frameSize_);
    size_t consumed = 0;
    while (renderBuffer_.size() - consumed >= frame) {
        aec3_analyze_render(handle_, renderBuffer_.data() + consumed, frameSizeC_);
        consumed += frame;
        ++renderFrameCount_;
    }
    renderBuffer_.erase(renderBuffer_.begin(), renderBuffer_.begin() + static_cast<std::ptrdiff_t>(consumed));

    if (pendingCapture_.empty()) return;
    aecLog().info(fmt::format("Reference audio started; flushing {} buffered capture samples through AEC3",
                              pendingCapture_.size()));
    std::vector<float> output;
    size_t offset = 0;
    while (pendingCapture_.size() - offset >= frame) {
        const size_t at = output.size();
        output.resize(at + frame);
        aec3_process_capture(handle_, pendingCapture_.data() + offset, output.data() + at, frameSizeC_);
        offset += frame;
        ++captureFrameCount_;
    }
    captureBuffer_.insert(captureBuffer_.begin(), pendingCapture_.begin() + static_cast<std::ptrdiff_t>(offset),
                          pendingCapture_.end());
    pendingCapture_.clear();
    flushedOutput_.insert(flushedOutput_.end(), output.begin(), output.end());
}

std::vector<float> WebRTCAEC3::processCapture(const float* samples, size_t count) {
    if (renderFrameCount_ == 0) {
        pendingCapture_.insert(pendingCapture_.end(), samples, samples + count);
        if (!didLogCaptureBeforeRender_) {
            aecLog().error("Capture audio arriving before any reference audio — buffering until reference starts");
            didLogCaptureBeforeRender_ = true;
        }
        const auto limit = static_cast<size_t>(sampleRate_ / 2);
        if (pendingCapture_.size() > limit) {
            const size_t excess = pendingCapture_.size() - limit;
            pendingCapture_.erase(pendingCapture_.begin(), pendingCapture_.begin() + static_cast<std::ptrdiff_t>(excess));
            aecLog().error(fmt::format("Pending capture buffer exceeded 500ms, dropping oldest {} samples", excess));
        }
        return {};
    }
    captureBuffer_.insert(captureBuffer_.end(), samples, samples + count);
    std::vector<float> result = std::move(flushedOutput_);
    flushedOutput_.clear();
    const auto frame = static_cast<size_t>(frameSize_);
    size_t consumed = 0;
    while (captureBuffer_.size() - consumed >= frame) {
        const size_t at = result.size();
        result.resize(at + frame);
        aec3_process_capture(handle_, captureBuffer_.data() + consumed, result.data() + at, frameSizeC_);
        consumed += frame;
        ++captureFrameCount_;
    }
    captureBuffer_.erase(captureBuffer_.begin(), captureBuffer_.begin() + static_cast<std::ptrdiff_t>(consumed));
    if (captureFrameCount_ > renderFrameCount_ + 5 && captureFrameCount_ - lastCaptureAheadWarning_ >= 100) {
        aecLog().error(fmt::format("Capture is {}ms ahead of reference ({} vs {} frames)",
                                   (captureFrameCount_ - renderFrameCount_) * 10, captureFrameCount_,
                                   renderFrameCount_));
        lastCaptureAheadWarning_ = captureFrameCount_;
    }
    return result;
}

std::vector<float> WebRTCAEC3::processOffline(const std::vector<float>& mic, const std::vector<float>& reference,
                                              int sampleRate, bool enforceSuppression, bool useExternalDelay) {
    WebRTCAEC3 aec(sampleRate, enforceSuppression, useExternalDelay);
    const auto frame = static_cast<size_t>(aec.frameSize_);
    const size_t frames = std::min(mic.size(), reference.size()) / frame;
    std::vector<float> output(mic.size());
    for (size_t i = 0; i < frames; ++i) {
        aec3_analyze_render(aec.handle_, reference.data() + i * frame, aec.frameSizeC_);
        aec3_process_capture(aec.handle_, mic.data() + i * frame, output.data() + i * frame, aec.frameSizeC_);
    }
    aec.renderFrameCount_ = aec.captureFrameCount_ = static_cast<int64_t>(frames);
    std::copy(mic.begin() + static_cast<std::ptrdiff_t>(frames * frame), mic.end(),
              output.begin() + static_cast<std::ptrdiff_t>(frames * frame));
    return output;
}

}  // namespace ov
