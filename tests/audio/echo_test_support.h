#pragma once
// What the echo cancellation tests share: the 30 s scene with a known echo
// path, ERLE over its far-only windows, and mono sample buffers.
#include <cmath>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "audio/echo/echo_reference_source.h"
#include "platform/av_audio_format.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cm_sample_buffer.h"
#include "support/speech_signal.h"

namespace ov::testing {

constexpr int kRate = 48000;

// Far end 0-20 s and 26-30 s; near end 12-18 s (double talk) and 21-25 s
// (near only); the echo is the far end delayed by `delayMs` at -6 dB, with an
// optional 40 ms decaying tail; noise at -75 dBFS.
struct EchoScene {
    std::vector<float> far, near, echo, mic;
    size_t delaySamples = 0;

    // `seconds` below 30 cuts the scene short.
    static EchoScene make(double delayMs, bool tail = false, uint32_t seed = 7, int seconds = 30) {
        EchoScene s;
        const size_t n = size_t(seconds) * kRate;
        s.far = speechLike(seconds, kRate, seed, -20.0);
        for (size_t i = 20 * kRate; i < std::min(n, size_t(26 * kRate)); ++i) s.far[i] = 0;
        const auto nearVoice = speechLike(seconds, kRate, seed + 100, -26.0);
        s.near.assign(n, 0.0f);
        for (size_t i = 12 * kRate; i < std::min(n, size_t(18 * kRate)); ++i) s.near[i] = nearVoice[i];
        for (size_t i = 21 * kRate; i < std::min(n, size_t(25 * kRate)); ++i) s.near[i] = nearVoice[i];
        s.delaySamples = static_cast<size_t>(std::lround(delayMs * kRate / 1000.0));
        s.echo.assign(n, 0.0f);
        const double gain = std::pow(10.0, -6.0 / 20);
        // A decaying tail: taps every 2 ms over 40 ms, -3 dB per tap below the direct path.
        std::vector<std::pair<size_t, double>> taps{{0, 1.0}};
        if (tail)
            for (int k = 1; k <= 20; ++k) taps.push_back({static_cast<size_t>(k * kRate / 500), 0.5 * std::pow(0.7, k)});
        for (const auto& [offset, weight] : taps)
            for (size_t i = s.delaySamples + offset; i < n; ++i)
                s.echo[i] += static_cast<float>(gain * weight * s.far[i - s.delaySamples - offset]);
        const auto noise = whiteNoise(n, seed + 200, -75.0);
        s.mic.resize(n);
        for (size_t i = 0; i < n; ++i) s.mic[i] = s.near[i] + s.echo[i] + noise[i];
        return s;
    }

    // 10 log10(Σ mic² / Σ out²) over the 100 ms windows after 4 s where only
    // the far end plays and its echo is above -50 dBFS.
    double erle(const std::vector<float>& out) const {
        double micEnergy = 0, outEnergy = 0;
        const size_t window = kRate / 10;
        auto farOnly = [&](size_t from, size_t to) {
            for (size_t w = from; w + window <= to; w += window) {
                if (rmsDb(echo, w, w + window) < -50.0) continue;
                micEnergy += energy(mic, w, w + window);
                outEnergy += energy(out, w, w + window);
            }
        };
        farOnly(4 * kRate, 12 * kRate);
        farOnly(18 * kRate + kRate / 2, 20 * kRate);
        farOnly(26 * kRate + kRate / 2, 30 * kRate);
        return 10 * std::log10(micEnergy / std::max(outEnergy, 1e-20));
    }
    // Output less input level where only the near end speaks (echo tail past).
    double nearOnlyChangeDb(const std::vector<float>& out) const {
        const size_t from = 21 * kRate + kRate / 2, to = 25 * kRate;
        return rmsDb(out, from, to) - rmsDb(mic, from, to);
    }
    // Output level of the near end during double talk, against the near end alone.
    double doubleTalkNearKeptDb(const std::vector<float>& out) const {
        const size_t from = 12 * kRate + kRate / 2, to = 18 * kRate;
        return rmsDb(out, from, to) - rmsDb(near, from, to);
    }
};

inline platform::CMSampleBuffer monoBuffer(const float* samples, size_t count, double rate, const platform::CMTime& pts) {
    const auto format = platform::AVAudioFormat::standard(rate, 1);
    auto buffer = platform::AVAudioPCMBuffer::make(*format, static_cast<platform::AVAudioFrameCount>(count));
    std::copy(samples, samples + count, buffer->floatChannelData()[0]);
    buffer->setFrameLength(static_cast<platform::AVAudioFrameCount>(count));
    return platform::CMSampleBuffer::makeAudio(*buffer, pts);
}

// A reference source whose buffers the test hands to the processor itself.
class ManualReferenceSource final : public EchoReferenceSource {
public:
    double sampleRate() const override { return kRate; }
    void start(Handler) override {}
    void stopAndDrain() override {}
};

inline EchoReferenceSourceFactory manualReferenceFactory() {
    return [](const Logger&) { return std::make_unique<ManualReferenceSource>(); };
}

}  // namespace ov::testing
