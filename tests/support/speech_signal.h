#pragma once
// Speech-like test signals for echo cancellation, made from a seed: voiced
// syllables (a glottal pulse train with a wandering pitch through two moving
// formant resonators), unvoiced fricatives (filtered noise) and pauses. Broad
// in spectrum and never stationary, as talk is, so a canceller can't pass on
// a tone trick. Levels are set on the active (non-pause) samples.
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace ov::testing {

class Resonator {
public:
    Resonator(double frequency, double bandwidth, double rate) { tune(frequency, bandwidth, rate); }
    void tune(double frequency, double bandwidth, double rate) {
        const double r = std::exp(-M_PI * bandwidth / rate);
        a1_ = 2 * r * std::cos(2 * M_PI * frequency / rate);
        a2_ = -r * r;
        gain_ = 1 - r;
    }
    double operator()(double x) {
        const double y = gain_ * x + a1_ * y1_ + a2_ * y2_;
        y2_ = y1_, y1_ = y;
        return y;
    }

private:
    double a1_ = 0, a2_ = 0, gain_ = 1, y1_ = 0, y2_ = 0;
};

// `seconds` of speech-like sound whose active level is `levelDbfs` (RMS).
inline std::vector<float> speechLike(double seconds, int rate, uint32_t seed, double levelDbfs) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> uniform(0, 1);
    std::normal_distribution<double> noise(0, 1);
    const auto total = static_cast<size_t>(seconds * rate);
    std::vector<double> out(total, 0.0);
    std::vector<bool> active(total, false);
    Resonator f1(500, 80, rate), f2(1500, 120, rate), fricative(4000, 2500, rate);
    double phase = 0;
    size_t at = static_cast<size_t>(uniform(random) * 0.05 * rate);
    while (at < total) {
        const bool voiced = uniform(random) < 0.8;
        const auto length = static_cast<size_t>((0.08 + 0.22 * uniform(random)) * rate);
        const double pitch0 = 95 + 120 * uniform(random), pitchSlope = (uniform(random) - 0.5) * 60;
        f1.tune(300 + 500 * uniform(random), 80, rate);
        f2.tune(900 + 1400 * uniform(random), 120, rate);
        for (size_t i = 0; i < length && at + i < total; ++i) {
            const double t = double(i) / double(length);
            const double envelope = std::sin(M_PI * t) * (0.6 + 0.4 * std::sin(2 * M_PI * 3 * t));
            double x;
            if (voiced) {
                const double pitch = pitch0 + pitchSlope * t;
                phase += pitch / rate;
                // A sharp pulse once per period: rich in harmonics.
                const double frac = phase - std::floor(phase);
                x = (frac < 0.08 ? 1.0 - frac / 0.08 : 0.0) * 6.0 + 0.02 * noise(random);
                x = f1(x) * 2.5 + f2(x) * 1.5;
            } else {
                x = fricative(noise(random)) * 1.2;
            }
            out[at + i] = envelope * x;
            active[at + i] = true;
        }
        at += length + static_cast<size_t>((0.03 + 0.25 * uniform(random)) * rate);
    }
    double sum = 0;
    size_t count = 0;
    for (size_t i = 0; i < total; ++i)
        if (active[i]) sum += out[i] * out[i], ++count;
    const double rms = std::sqrt(sum / double(std::max<size_t>(count, 1)));
    const double gain = rms > 0 ? std::pow(10.0, levelDbfs / 20) / rms : 0;
    std::vector<float> result(total);
    for (size_t i = 0; i < total; ++i) result[i] = static_cast<float>(out[i] * gain);
    return result;
}

// White noise at an RMS level.
inline std::vector<float> whiteNoise(size_t count, uint32_t seed, double levelDbfs) {
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0, std::pow(10.0, levelDbfs / 20));
    std::vector<float> out(count);
    for (auto& s : out) s = static_cast<float>(noise(random));
    return out;
}

inline double energy(const std::vector<float>& x, size_t from, size_t to) {
    double sum = 0;
    for (size_t i = from; i < std::min(to, x.size()); ++i) sum += double(x[i]) * x[i];
    return sum;
}

inline double rmsDb(const std::vector<float>& x, size_t from, size_t to) {
    const double e = energy(x, from, to);
    return 10 * std::log10(std::max(e / double(std::max<size_t>(to - from, 1)), 1e-20));
}

}  // namespace ov::testing
