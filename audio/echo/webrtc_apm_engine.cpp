// The echo-cancel engine on webrtc-audio-processing's AudioProcessing module.
//
// With the 0.3 line (Debian 12) this drives the classic AEC, not AEC3: the
// extended filter on, delay-agnostic mode off, high-pass filter, noise
// suppression and gain control off. Measured on speech with a -6 dB echo,
// the classic AEC cancels 17-22 dB with its reference placed exactly on the
// echo and 30-34 dB with the reference 40 ms ahead (echo delays 0-200 ms),
// hence the 40 ms lead. The delay is reported as 0 before every frame: 0.3
// refuses a capture frame without it (error -11) and writes silence.
//
// With the 1.x line (ORVANE_WEBRTC_APM_1) the module runs AEC3, which wants
// its reference on the echo: lead 0.
#include "audio/echo/echo_cancel_engine.h"

#include <fmt/format.h>

#include <atomic>
#include <vector>

#include "platform/os_log.h"

#if ORVANE_WEBRTC_APM_1
#include <modules/audio_processing/include/audio_processing.h>
#else
#include <webrtc/common.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#endif

namespace ov {

namespace {

const platform::OSLog& engineLog() {
    static const platform::OSLog log(platform::OSLog::defaultSubsystem, "WebRTCAEC3");
    return log;
}

// Return codes other than success are logged, spaced out so that a broken
// stream does not flood the log.
void check(int code, const char* what, std::atomic<int>& failures) {
    if (code == 0) return;
    const int n = failures.fetch_add(1) + 1;
    if (n == 1 || n % 1000 == 0)
        engineLog().error(fmt::format("{} failed with code {} ({} failures so far)", what, code, n));
}

#if ORVANE_WEBRTC_APM_1

class ApmEngine final : public EchoCancelEngine {
public:
    static std::unique_ptr<ApmEngine> make(int sampleRate, EchoCancelEngineOptions options) {
        // Create() gives a raw pointer in 1.x and a scoped_refptr later; both convert.
        rtc::scoped_refptr<webrtc::AudioProcessing> apm(webrtc::AudioProcessingBuilder().Create());
        if (!apm) return nullptr;
        webrtc::AudioProcessing::Config config;
        config.echo_canceller.enabled = true;
        config.echo_canceller.mobile_mode = false;
        config.high_pass_filter.enabled = false;
        config.noise_suppression.enabled = false;
        config.gain_controller1.enabled = false;
        config.gain_controller2.enabled = false;
        (void)options;  // the APM API of 1.x takes no AEC3 tuning; the defaults stand
        apm->ApplyConfig(config);
        const webrtc::StreamConfig stream(sampleRate, 1);
        webrtc::ProcessingConfig processing{{stream, stream, stream, stream}};
        if (apm->Initialize(processing) != 0) return nullptr;
        return std::unique_ptr<ApmEngine>(new ApmEngine(std::move(apm), sampleRate));
    }
    void analyzeRender(const float* frame) override {
        const float* src[1] = {frame};
        float* dst[1] = {scratch_.data()};
        check(apm_->ProcessReverseStream(src, stream_, stream_, dst), "ProcessReverseStream", failures_);
    }
    void processCapture(const float* in, float* out) override {
        const float* src[1] = {in};
        float* dst[1] = {out};
        check(apm_->set_stream_delay_ms(0), "set_stream_delay_ms", failures_);
        check(apm_->ProcessStream(src, stream_, stream_, dst), "ProcessStream", failures_);
    }
    std::string name() const override { return echoCancelEngineName(); }
    int referenceLeadSamples() const override { return 0; }

private:
    ApmEngine(rtc::scoped_refptr<webrtc::AudioProcessing> apm, int rate)
        : apm_(std::move(apm)), stream_(rate, 1), scratch_(static_cast<size_t>(rate / 100)) {}
    rtc::scoped_refptr<webrtc::AudioProcessing> apm_;
    webrtc::StreamConfig stream_;
    std::vector<float> scratch_;
    std::atomic<int> failures_{0};
};

#else

class ApmEngine final : public EchoCancelEngine {
public:
    static std::unique_ptr<ApmEngine> make(int sampleRate, EchoCancelEngineOptions options) {
        webrtc::Config config;
        config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
        config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(false));
        // The default of this one is on; it only acts with gain control, which stays off.
        config.Set<webrtc::ExperimentalAgc>(new webrtc::ExperimentalAgc(false));
        std::unique_ptr<webrtc::AudioProcessing> apm(webrtc::AudioProcessing::Create(config));
        if (!apm) return nullptr;
        const webrtc::StreamConfig stream(sampleRate, 1);
        webrtc::ProcessingConfig processing{{stream, stream, stream, stream}};
        if (apm->Initialize(processing) != webrtc::AudioProcessing::kNoError) return nullptr;
        if (apm->high_pass_filter()->Enable(false) != 0 || apm->noise_suppression()->Enable(false) != 0 ||
            apm->gain_control()->Enable(false) != 0)
            return nullptr;
        auto* aec = apm->echo_cancellation();
        if (aec->enable_drift_compensation(false) != 0 ||
            aec->set_suppression_level(options.enforceSuppression ? webrtc::EchoCancellation::kHighSuppression
                                                                  : webrtc::EchoCancellation::kModerateSuppression) != 0 ||
            aec->enable_metrics(true) != 0 || aec->Enable(true) != 0)
            return nullptr;
        // useExternalDelay: the streams come aligned by the caller, which is
        // what delay-agnostic mode off already means here.
        return std::unique_ptr<ApmEngine>(new ApmEngine(std::move(apm), sampleRate));
    }
    void analyzeRender(const float* frame) override {
        const float* src[1] = {frame};
        float* dst[1] = {scratch_.data()};
        check(apm_->ProcessReverseStream(src, stream_, stream_, dst), "ProcessReverseStream", failures_);
    }
    void processCapture(const float* in, float* out) override {
        const float* src[1] = {in};
        float* dst[1] = {out};
        check(apm_->set_stream_delay_ms(0), "set_stream_delay_ms", failures_);
        check(apm_->ProcessStream(src, stream_, stream_, dst), "ProcessStream", failures_);
    }
    std::string name() const override { return echoCancelEngineName(); }
    int referenceLeadSamples() const override { return stream_.sample_rate_hz() / 25; }  // 40 ms

private:
    ApmEngine(std::unique_ptr<webrtc::AudioProcessing> apm, int rate)
        : apm_(std::move(apm)), stream_(rate, 1), scratch_(static_cast<size_t>(rate / 100)) {}
    std::unique_ptr<webrtc::AudioProcessing> apm_;
    webrtc::StreamConfig stream_;
    std::vector<float> scratch_;
    std::atomic<int> failures_{0};
};

#endif

}  // namespace

std::unique_ptr<EchoCancelEngine> EchoCancelEngine::create(int sampleRate, EchoCancelEngineOptions options) {
    if (sampleRate <= 0) return nullptr;
    return ApmEngine::make(sampleRate, options);
}

std::string echoCancelEngineName() {
#if ORVANE_WEBRTC_APM_1
    return "webrtc-apm-1 AEC3";
#else
    return "webrtc-apm-0.3 classic AEC";
#endif
}

}  // namespace ov
