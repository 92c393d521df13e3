#include "audio/echo/echo_cancellation_utilities.h"

#include <fftw3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <mutex>
#include <thread>

#include "foundation/ov_error.h"
#include "platform/av_asset_writer.h"
#include "platform/av_audio_file.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/av_capture_output.h"
#include "platform/cm_sample_buffer.h"

namespace ov::EchoCancellationUtilities {

namespace {

// FFTW's planner is not thread-safe; executing a plan is.
std::mutex& plannerMutex() {
    static std::mutex mutex;
    return mutex;
}

struct FloatArray {
    explicit FloatArray(size_t n) : data(fftwf_alloc_real(n)), size(n) {}
    ~FloatArray() { fftwf_free(data); }
    FloatArray(const FloatArray&) = delete;
    float* data;
    size_t size;
};

struct ComplexArray {
    explicit ComplexArray(size_t n) : data(fftwf_alloc_complex(n)), size(n) {}
    ~ComplexArray() { fftwf_free(data); }
    ComplexArray(const ComplexArray&) = delete;
    fftwf_complex* data;
    size_t size;
};

struct Plan {
    fftwf_plan plan = nullptr;
    Plan() = default;
    explicit Plan(fftwf_plan p) : plan(p) {}
    ~Plan() {
        if (!plan) return;
        std::lock_guard lock(plannerMutex());
        fftwf_destroy_plan(plan);
    }
    Plan(const Plan&) = delete;
};

fftwf_plan planForward(int n, float* in, fftwf_complex* out) {
    std::lock_guard lock(plannerMutex());
    return fftwf_plan_dft_r2c_1d(n, in, out, FFTW_ESTIMATE);
}

fftwf_plan planInverse(int n, fftwf_complex* in, float* out) {
    std::lock_guard lock(plannerMutex());
    return fftwf_plan_dft_c2r_1d(n, in, out, FFTW_ESTIMATE);
}

// The smallest power of two above 2m - 1.
size_t transformSize(size_t m) {
    size_t n = 1;
    while (n < 2 * m) n <<= 1;
    return n;
}

// mic × conj(ref), bin by bin, into `mic`.
void crossSpectrum(fftwf_complex* mic, const fftwf_complex* ref, size_t bins) {
    for (size_t i = 0; i < bins; ++i) {
        const float mr = mic[i][0], mi = mic[i][1], rr = ref[i][0], ri = ref[i][1];
        mic[i][0] = rr * mr + ri * mi;
        mic[i][1] = rr * mi - mr * ri;
    }
}

// The winner among |c(lag)| for lags -maxLag..maxLag; ties go to the positive side.
template <class At>
int pickPeak(long maxLag, At at) {
    long best = 0;
    double bestValue = -1;
    for (long k = 0; k <= maxLag; ++k) {
        const double v = std::fabs(at(k));
        if (v > bestValue) bestValue = v, best = k;
    }
    for (long k = 1; k <= maxLag; ++k) {
        const double v = std::fabs(at(-k));
        if (v > bestValue) bestValue = v, best = -k;
    }
    return static_cast<int>(best);
}

}  // namespace

int findBulkDelayWholeFFT(const std::vector<float>& mic, const std::vector<float>& reference, double sampleRate) {
    const size_t m = std::max(mic.size(), reference.size());
    if (m == 0) return 0;
    const size_t n = transformSize(m);
    const size_t bins = n / 2 + 1;
    FloatArray micBuffer(n), refBuffer(n);
    ComplexArray micSpectrum(bins), refSpectrum(bins);
    if (!micBuffer.data || !refBuffer.data || !micSpectrum.data || !refSpectrum.data) return 0;
    std::fill(micBuffer.data, micBuffer.data + n, 0.0f);
    std::fill(refBuffer.data, refBuffer.data + n, 0.0f);
    std::copy(mic.begin(), mic.begin() + static_cast<std::ptrdiff_t>(std::min(mic.size(), n)), micBuffer.data);
    std::copy(reference.begin(), reference.begin() + static_cast<std::ptrdiff_t>(std::min(reference.size(), n)),
              refBuffer.data);
    const Plan forwardMic(planForward(static_cast<int>(n), micBuffer.data, micSpectrum.data));
    const Plan forwardRef(planForward(static_cast<int>(n), refBuffer.data, refSpectrum.data));
    // The correlation lands in the mic's time buffer, which is free by then.
    const Plan inverse(planInverse(static_cast<int>(n), micSpectrum.data, micBuffer.data));
    if (!forwardMic.plan || !forwardRef.plan || !inverse.plan) return 0;
    fftwf_execute(forwardMic.plan);
    fftwf_execute(forwardRef.plan);
    crossSpectrum(micSpectrum.data, refSpectrum.data, bins);
    fftwf_execute(inverse.plan);
    // The scale (1/N) changes no peak; c[k] for k >= 0, c[N - k] for -k.
    const long maxLag = std::min(static_cast<long>(sampleRate * 0.2), static_cast<long>(n / 2) - 1);
    const float* c = micBuffer.data;
    return pickPeak(maxLag, [&](long k) { return static_cast<double>(k >= 0 ? c[k] : c[static_cast<long>(n) + k]); });
}

int findBulkDelayBlockwise(const std::vector<float>& mic, const std::vector<float>& reference, double sampleRate) {
    const size_t m = std::max(mic.size(), reference.size());
    if (m == 0) return 0;
    // Same lag range as the whole-signal form, whose transform can't hold more than N/2.
    const long maxLag = std::min(static_cast<long>(sampleRate * 0.2), static_cast<long>(transformSize(m) / 2) - 1);
    if (maxLag < 0) return 0;
    constexpr size_t block = size_t{1} << 16;
    const size_t span = block + 2 * static_cast<size_t>(maxLag);
    size_t n = 1;
    while (n < span) n <<= 1;
    const size_t bins = n / 2 + 1;
    FloatArray micBuffer(n), refBuffer(n);
    ComplexArray micSpectrum(bins), refSpectrum(bins);
    if (!micBuffer.data || !refBuffer.data || !micSpectrum.data || !refSpectrum.data) return 0;
    const Plan forwardMic(planForward(static_cast<int>(n), micBuffer.data, micSpectrum.data));
    const Plan forwardRef(planForward(static_cast<int>(n), refBuffer.data, refSpectrum.data));
    const Plan inverse(planInverse(static_cast<int>(n), micSpectrum.data, micBuffer.data));
    if (!forwardMic.plan || !forwardRef.plan || !inverse.plan) return 0;

    // c(k) = Σ mic[i] · ref[i - k]: for each mic block starting at s, the
    // reference from s - maxLag to s + block + maxLag; a transform of at least
    // block + 2·maxLag samples makes the circular correlation exact for these lags.
    std::vector<double> sums(static_cast<size_t>(2 * maxLag + 1), 0.0);
    for (size_t s = 0; s < mic.size(); s += block) {
        const size_t count = std::min(block, mic.size() - s);
        std::fill(micBuffer.data, micBuffer.data + n, 0.0f);
        std::copy(mic.begin() + static_cast<std::ptrdiff_t>(s), mic.begin() + static_cast<std::ptrdiff_t>(s + count),
                  micBuffer.data);
        std::fill(refBuffer.data, refBuffer.data + n, 0.0f);
        bool any = false;
        for (size_t j = 0; j < count + 2 * static_cast<size_t>(maxLag); ++j) {
            const long at = static_cast<long>(s + j) - maxLag;
            if (at < 0 || at >= static_cast<long>(reference.size())) continue;
            refBuffer.data[j] = reference[static_cast<size_t>(at)];
            any = true;
        }
        if (!any) continue;
        fftwf_execute(forwardMic.plan);
        fftwf_execute(forwardRef.plan);
        crossSpectrum(micSpectrum.data, refSpectrum.data, bins);
        fftwf_execute(inverse.plan);
        // r[t] = Σ refSeg[j] · micBlock[j + t]; lag k is t = k - maxLag, never positive.
        for (long k = -maxLag; k <= maxLag; ++k) {
            const long t = k - maxLag;
            sums[static_cast<size_t>(k + maxLag)] += micBuffer.data[t == 0 ? 0 : static_cast<long>(n) + t];
        }
    }
    return pickPeak(maxLag, [&](long k) { return sums[static_cast<size_t>(k + maxLag)]; });
}

int findBulkDelay(const std::vector<float>& mic, const std::vector<float>& reference, double sampleRate) {
    const double seconds = static_cast<double>(std::max(mic.size(), reference.size())) / std::max(sampleRate, 1.0);
    return seconds > blockwiseThresholdSeconds ? findBulkDelayBlockwise(mic, reference, sampleRate)
                                               : findBulkDelayWholeFFT(mic, reference, sampleRate);
}

std::vector<float> applyDelay(const std::vector<float>& signal, long delay, size_t targetLength) {
    std::vector<float> result(targetLength, 0.0f);
    const long length = static_cast<long>(signal.size());
    const long target = static_cast<long>(targetLength);
    if (delay >= 0) {
        const long count = std::min(target - delay, length);
        for (long i = 0; i < count; ++i) result[static_cast<size_t>(i + delay)] = signal[static_cast<size_t>(i)];
    } else {
        const long count = std::min(length + delay, target);
        for (long i = 0; i < count; ++i) result[static_cast<size_t>(i)] = signal[static_cast<size_t>(i - delay)];
    }
    return result;
}

std::vector<float> readAudioFileAsMono(const std::filesystem::path& url, double targetSampleRate) {
    return platform::readAudioFileAsMonoFloat(url, targetSampleRate).samples;
}

void writeMonoAudioFile(const std::vector<float>& samples, const std::filesystem::path& url, double sampleRate) {
    using namespace platform;
    auto writer = AVAssetWriter::make(url.string(), AVFileTypeAppleM4A);
    AVSettingsDictionary settings = AVSettingsDictionary::object();
    settings[AVFormatIDKey] = kAudioFormatMPEG4AAC;
    settings[AVNumberOfChannelsKey] = 1;
    settings[AVSampleRateKey] = sampleRate;
    auto input = AVAssetWriterInput::make(AVMediaType::audio, settings);
    input->setExpectsMediaDataInRealTime(false);
    if (!writer->canAdd(input))
        throw OVError(OVError::Code::assetWriterCreationFailed, std::string("Can't add audio input to offline asset writer"));
    writer->add(input);
    if (!writer->safe_startWriting()) {
        if (auto error = writer->error()) std::rethrow_exception(error);
        throw OVError(OVError::Code::assetWriterFailed, std::string("Couldn't start writing to offline asset writer"));
    }
    writer->startSession(kCMTimeZero);
    const auto chunk = static_cast<size_t>(sampleRate);
    const auto format = AVAudioFormat::standard(sampleRate, 1);
    for (size_t offset = 0; offset < samples.size(); offset += chunk) {
        const size_t count = std::min(chunk, samples.size() - offset);
        auto buffer = format ? AVAudioPCMBuffer::make(*format, static_cast<AVAudioFrameCount>(count)) : nullptr;
        if (!buffer) throw OVError(OVError::Code::audioBufferCreationFailed, std::string("Can't create write buffer"));
        std::copy(samples.begin() + static_cast<std::ptrdiff_t>(offset),
                  samples.begin() + static_cast<std::ptrdiff_t>(offset + count), buffer->floatChannelData()[0]);
        buffer->setFrameLength(static_cast<AVAudioFrameCount>(count));
        while (!input->isReadyForMoreMediaData()) {
            if (auto error = writer->error()) std::rethrow_exception(error);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        const auto sample = CMSampleBuffer::makeAudio(
            *buffer, CMTime(static_cast<int64_t>(offset), static_cast<int32_t>(sampleRate)));
        if (!input->append(sample)) {
            if (auto error = writer->error()) std::rethrow_exception(error);
        }
    }
    input->markAsFinished();
    writer->safe_finishWriting();
    if (auto error = writer->error()) std::rethrow_exception(error);
}

}  // namespace ov::EchoCancellationUtilities
