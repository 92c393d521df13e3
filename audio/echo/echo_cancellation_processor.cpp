#include "audio/echo/echo_cancellation_processor.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "audio/echo/echo_cancellation_utilities.h"
#include "foundation/ov_error.h"
#include "foundation/platform_error.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/av_capture_output.h"
#include "platform/cm_clock.h"
#include "timing/recording_interval_bounded_audio_stream.h"

namespace ov {

using platform::CMSampleBuffer;
using platform::CMTime;
namespace utilities = EchoCancellationUtilities;

namespace {

constexpr size_t chopperCapacity = 3;
// Below this a reference is digital silence: the Linux tap delivers silence
// when nothing plays, which must not count as something to correlate with.
constexpr double silentReferenceDb = -90.0;

std::string errorText(const std::exception_ptr& e) { return platform::describeError(e).debugDescription; }
std::string lastComponent(const std::optional<std::filesystem::path>& url) {
    return url ? url->filename().string() : std::string("none");
}
std::string modeText(EchoCancellation mode) {
    switch (mode) {
        case EchoCancellation::off: return "off";
        case EchoCancellation::aec3Online: return "aec3Online";
        case EchoCancellation::aec3Offline: return "aec3Offline";
        case EchoCancellation::aec3Both: return "aec3Both";
    }
    return "off";
}
bool cancelsOnline(EchoCancellation mode) {
    return mode == EchoCancellation::aec3Online || mode == EchoCancellation::aec3Both;
}
double nowSeconds() { return platform::hostTimeNow().seconds(); }

double levelDb(const std::vector<float>& samples) {
    double sum = 0;
    for (float s : samples) sum += double(s) * s;
    const double rms = std::max(std::sqrt(sum / double(std::max<size_t>(samples.size(), 1))), 1e-10);
    return 20.0 * std::log10(rms);
}

// The last `count` samples of `source`, zeros in front where it is shorter.
std::vector<float> tailPadded(const std::vector<float>& source, size_t end, long count) {
    std::vector<float> out(static_cast<size_t>(count), 0.0f);
    const size_t take = std::min(static_cast<size_t>(count), end);
    std::copy(source.begin() + static_cast<std::ptrdiff_t>(end - take), source.begin() + static_cast<std::ptrdiff_t>(end),
              out.end() - static_cast<std::ptrdiff_t>(take));
    return out;
}

std::vector<float> takeFront(std::vector<float>& fifo, size_t count) {
    std::vector<float> out(fifo.begin(), fifo.begin() + static_cast<std::ptrdiff_t>(count));
    fifo.erase(fifo.begin(), fifo.begin() + static_cast<std::ptrdiff_t>(count));
    return out;
}

// Mono float from a microphone buffer: float and 16/32-bit data, channels averaged.
std::vector<float> extractMonoFloat32(const CMSampleBuffer& sample, double& rate) {
    auto pcm = sample.audioPCMBuffer();
    if (!pcm || pcm->frameLength() == 0) return {};
    rate = pcm->format().sampleRate();
    const size_t frames = pcm->frameLength();
    const size_t channels = pcm->format().channelCount();
    const size_t stride = pcm->stride();
    const bool interleaved = pcm->format().isInterleaved();
    std::vector<float> out(frames, 0.0f);
    auto mix = [&](auto data, double scale) {
        for (size_t c = 0; c < channels; ++c) {
            const auto* channel = interleaved ? data[0] + c : data[c];
            for (size_t i = 0; i < frames; ++i) out[i] += static_cast<float>(channel[i * stride] * scale);
        }
        if (channels > 1)
            for (auto& s : out) s /= static_cast<float>(channels);
    };
    if (auto f = pcm->floatChannelData()) mix(f, 1.0);
    else if (auto s16 = pcm->int16ChannelData()) mix(s16, 1.0 / 32767.0);
    else if (auto s32 = pcm->int32ChannelData()) mix(s32, 1.0 / 2147483648.0);
    else return {};
    return out;
}

}  // namespace

// ---- construction ---------------------------------------------------------------------------------

EchoCancellationProcessor::EchoCancellationProcessor(EchoCancellation mode, const Logger& logger,
                                                     AbortFunction onAbort, EchoReferenceSourceFactory factory)
    : mode_(mode), logger_(logger), onAbort_(std::move(onAbort)), referenceSourceFactory_(std::move(factory)) {}

std::shared_ptr<EchoCancellationProcessor> EchoCancellationProcessor::make(
    EchoCancellation mode, std::optional<std::filesystem::path> onlineOutputURL,
    std::optional<std::filesystem::path> referenceOutputURL, std::optional<std::filesystem::path> offlineOutputURL,
    const StableRecordingTimeline& timeline, bool residualGating, const Logger& logger, AbortFunction onAbort,
    EchoReferenceSourceFactory referenceSourceFactory) {
    std::shared_ptr<EchoCancellationProcessor> processor(
        new EchoCancellationProcessor(mode, logger, std::move(onAbort), std::move(referenceSourceFactory)));
    processor->residualGatingEnabled_ = residualGating;
    processor->offlineOutputURL_ = offlineOutputURL;
    logger.info("Echo cancellation processor configured.", [&] {
        return LogMetadata{{"mode", modeText(mode)},
                           {"onlineURL", lastComponent(onlineOutputURL)},
                           {"referenceURL", lastComponent(referenceOutputURL)},
                           {"offlineURL", lastComponent(offlineOutputURL)}};
    });
    if (onlineOutputURL) {
        processor->hasOnline_ = true;
        processor->openOutput(processor->online_, *onlineOutputURL, timeline,
                              "Can't add echo cancellation audio input to asset writer.",
                              "EC online AVAssetWriter reported an error, aborting.",
                              "Couldn't start writing to echo cancellation AVAssetWriter.");
    }
    if (referenceOutputURL) {
        processor->hasReference_ = true;
        processor->openOutput(processor->reference_, *referenceOutputURL, timeline,
                              "Can't add reference sidecar audio input to asset writer.",
                              "EC reference AVAssetWriter reported an error, aborting.",
                              "Couldn't start writing to reference sidecar AVAssetWriter.");
    }
    return processor;
}

EchoCancellationProcessor::~EchoCancellationProcessor() {
    if (tap_) tap_->stopAndDrain();
}

void EchoCancellationProcessor::openOutput(Output& output, const std::filesystem::path& url,
                                           const StableRecordingTimeline& timeline, const char* cantAdd,
                                           const char* reportedError, const char* cantStart) {
    using namespace platform;
    output.url = url;
    output.writer = AVAssetWriter::make(url.string(), AVFileTypeAppleM4A);
    output.chopper = std::make_unique<RecordingTimelineBoundedAudioStream>(timeline, chopperCapacity, logger_);
    std::weak_ptr<EchoCancellationProcessor> weak = weak_from_this();
    Output* target = &output;
    output.chopper->handler = [weak, target](RecordingTimelineBoundedAudioStream::Position, const CMSampleBuffer& item) {
        auto self = weak.lock();
        if (!self) return;
        if (!target->didStartSession) {
            target->didStartSession = true;
            target->writer->startSession(item.presentationTimeStamp());
        }
        target->adaptor->append(item);
    };
    AVSettingsDictionary settings = AVSettingsDictionary::object();
    settings[AVFormatIDKey] = kAudioFormatMPEG4AAC;
    settings[AVNumberOfChannelsKey] = 1;
    settings[AVSampleRateKey] = 48000.0;
    output.input = AVAssetWriterInput::make(AVMediaType::audio, settings);
    output.input->setExpectsMediaDataInRealTime(true);
    if (!output.writer->canAdd(output.input))
        throw OVError(OVError::Code::assetWriterCreationFailed, std::string(cantAdd));
    output.writer->add(output.input);
    output.adaptor = std::make_shared<AVAssetWriterInputBufferAdaptor>(output.input, logger_);
    std::weak_ptr<AVAssetWriter> weakWriter = output.writer;
    output.errorObservation = output.writer->observe(
        {"error"}, [weakWriter, logger = logger_, onAbort = onAbort_, reportedError](const std::string&) {
            auto writer = weakWriter.lock();
            if (!writer || !writer->error()) return;
            logger.error(reportedError, [&] { return LogMetadata{{"error", errorText(writer->error())}}; });
            if (onAbort) onAbort(AbortSignal::interrupted(writer->error()));
        });
    if (!output.writer->safe_startWriting()) {
        if (auto error = output.writer->error()) std::rethrow_exception(error);
        throw OVError(OVError::Code::assetWriterFailed, std::string(cantStart));
    }
}

// ---- the reference --------------------------------------------------------------------------------

void EchoCancellationProcessor::startTap() {
    auto factory = referenceSourceFactory_ ? referenceSourceFactory_ : echoReferenceSourceFactory();
    if (!factory)
        throw OVError(OVError::Code::configurationNotSupported,
                      std::string("Echo cancellation needs system audio capture, which this build lacks."),
                      std::string("Echo cancellation is not available on this system."));
    auto tap = factory(logger_);
    if (!tap)
        throw OVError(OVError::Code::configurationNotSupported,
                      std::string("Echo cancellation needs system audio capture, which this build lacks."),
                      std::string("Echo cancellation is not available on this system."));
    {
        std::lock_guard lock(aecLock_);
        outputSampleRate_ = tap->sampleRate();
        lead_ = WebRTCAEC3::referenceLeadSamples(static_cast<int>(outputSampleRate_));
        if (cancelsOnline(mode_)) {
            ecPhase_ = ECPhase::buffering;
            bufferDurationSamples_ = static_cast<long>(3.0 * outputSampleRate_);
        }
    }
    std::weak_ptr<EchoCancellationProcessor> weak = weak_from_this();
    tap->start([weak](const float* samples, size_t count, const CMTime& pts) {
        if (auto self = weak.lock()) self->handleTapBuffer(samples, count, pts);
    });
    tap_ = std::move(tap);
    logger_.info("Echo cancellation tap started.", [&] {
        return LogMetadata{{"sampleRate", fmt::format("{}", outputSampleRate_)}, {"mode", modeText(mode_)}};
    });
}

void EchoCancellationProcessor::handleTapBuffer(const float* data, size_t count, const CMTime& pts) {
    if (!data || count == 0) return;
    std::vector<float> samples(data, data + count);
    {
        std::lock_guard lock(aecLock_);
        if (ecPhase_ == ECPhase::buffering) {
            refAccumulator_.insert(refAccumulator_.end(), samples.begin(), samples.end());
            checkCatchup();
        } else {
            feedDelayedReference(samples);
            if (needsDelayReestimation_) reestRefBuffer_.insert(reestRefBuffer_.end(), samples.begin(), samples.end());
            if (residualGatingEnabled_) {
                const float alpha = std::exp(static_cast<float>(count / outputSampleRate_) / -0.05f);
                float power = 0;
                for (float s : samples) power += s * s;
                power /= static_cast<float>(count);
                refPowerSmooth_ = alpha * refPowerSmooth_ + (1 - alpha) * power;
                lastRefPowerUpdate_ = nowSeconds();
            }
        }
    }
    writeReferenceSamples(samples, pts);
}

void EchoCancellationProcessor::feedDelayedReference(const std::vector<float>& samples) {
    const long align = alignDelay();
    if (align >= 1) {
        refDelayFIFO_.insert(refDelayFIFO_.end(), samples.begin(), samples.end());
        const long available = static_cast<long>(refDelayFIFO_.size()) - align;
        if (available >= 1) {
            auto ready = takeFront(refDelayFIFO_, static_cast<size_t>(available));
            if (aec3_) aec3_->analyzeRender(ready);
        }
    } else if (aec3_) {
        aec3_->analyzeRender(samples);
    }
}

// ---- the microphone -------------------------------------------------------------------------------

void EchoCancellationProcessor::feedMicAudio(const CMSampleBuffer& sample) {
    double micRate = 0;
    std::vector<float> samples;
    try {
        samples = extractMonoFloat32(sample, micRate);
    } catch (...) {
        return;
    }
    if (samples.empty()) return;
    if (!didSetupSampleRateConversion_) {
        didSetupSampleRateConversion_ = true;
        if (micRate != outputSampleRate_) {
            logger_.info("Mic and system audio sample rates differ, setting up resampler.", [&] {
                return LogMetadata{{"micSampleRate", fmt::format("{}", micRate)},
                                   {"tapSampleRate", fmt::format("{}", outputSampleRate_)}};
            });
            sampleRateConverter_ = platform::AVAudioConverter::make(micRate, outputSampleRate_);
            if (!sampleRateConverter_)
                logger_.error("Failed to create sample rate converter for echo cancellation.", [&] {
                    return LogMetadata{{"inputRate", fmt::format("{}", micRate)},
                                       {"outputRate", fmt::format("{}", outputSampleRate_)}};
                });
        }
    }
    if (sampleRateConverter_) {
        try {
            samples = sampleRateConverter_->convert(samples.data(), samples.size());
        } catch (...) {
            const auto error = std::current_exception();
            logger_.info("Sample rate conversion failed for echo cancellation.",
                         [&] { return LogMetadata{{"error", errorText(error)}}; });
            return;
        }
        if (samples.empty()) return;
    }
    const CMTime pts = sample.presentationTimeStamp();

    std::vector<float> output;
    float notedPower = 0;
    {
        std::lock_guard lock(aecLock_);
        if (ecPhase_ == ECPhase::buffering) {
            if (!bufferingFirstMicPTS_) bufferingFirstMicPTS_ = pts;
            micAccumulator_.insert(micAccumulator_.end(), samples.begin(), samples.end());
            checkCatchup();
            return;
        }
        if (needsDelayReestimation_) {
            reestMicBuffer_.insert(reestMicBuffer_.end(), samples.begin(), samples.end());
            checkAndPerformDelayReestimation();
        }
        if (residualGatingEnabled_ && lastRefPowerUpdate_ > 0 && nowSeconds() - lastRefPowerUpdate_ > 0.2)
            refPowerSmooth_ = 0;
        const long align = alignDelay();
        if (align >= 0) {
            if (aec3_) output = aec3_->processCapture(samples);
        } else {
            micDelayFIFO_.insert(micDelayFIFO_.end(), samples.begin(), samples.end());
            const long available = static_cast<long>(micDelayFIFO_.size()) + align;
            if (available >= 1) {
                auto ready = takeFront(micDelayFIFO_, static_cast<size_t>(available));
                if (aec3_) output = aec3_->processCapture(ready);
            }
        }
        notedPower = refPowerSmooth_;
        // A canceller made at finish, or without a catch-up, starts the file's
        // clock at this buffer less what the microphone FIFO holds back.
        if (!onlineAnchor_ && !output.empty())
            onlineAnchor_ = pts - CMTime(static_cast<int64_t>(micDelayFIFO_.size()), static_cast<int32_t>(outputSampleRate_));
    }
    if (output.empty()) return;
    if (residualGatingEnabled_) output = applyGainGate(std::move(output), notedPower);
    writeOnlineOutput(output);
}

// ---- catch-up and re-estimation (under aecLock_) ----------------------------------------------------

void EchoCancellationProcessor::checkCatchup() {
    if (ecPhase_ == ECPhase::streaming) return;
    const auto mic = static_cast<long>(micAccumulator_.size());
    if (mic < bufferDurationSamples_) return;
    if (static_cast<long>(refAccumulator_.size()) >= bufferDurationSamples_ || mic >= 2 * bufferDurationSamples_)
        performCatchup();
}

void EchoCancellationProcessor::performCatchup() {
    const auto started = std::chrono::steady_clock::now();
    const int rate = static_cast<int>(outputSampleRate_);
    if (micAccumulator_.empty()) {
        aec3_ = std::make_unique<WebRTCAEC3>(rate, false, false);
        ++cancellerGeneration_;
        ecPhase_ = ECPhase::streaming;
        micAccumulator_.clear();
        refAccumulator_.clear();
        bufferingFirstMicPTS_.reset();
        logger_.info("No mic data accumulated, using standard AEC3.");
        return;
    }
    const size_t micLength = micAccumulator_.size();
    const size_t refLength = refAccumulator_.size();
    std::vector<float> delayedRef;
    long delay = 0;
    const bool silentReference = refAccumulator_.empty() || levelDb(refAccumulator_) < silentReferenceDb;
    if (silentReference) {
        logger_.info("No reference audio, using standard AEC3 without delay estimation.");
        // The engine's lead still holds for whatever plays later.
        delayedRef = refAccumulator_.empty()
                         ? std::vector<float>(micLength, 0.0f)
                         : utilities::applyDelay(refAccumulator_, static_cast<long>(micLength) - static_cast<long>(refLength) - lead_, micLength);
    } else {
        const size_t span = std::min({static_cast<size_t>(2 * bufferDurationSamples_), refLength, micLength});
        const std::vector<float> micTail(micAccumulator_.end() - static_cast<std::ptrdiff_t>(span), micAccumulator_.end());
        const std::vector<float> refTail(refAccumulator_.end() - static_cast<std::ptrdiff_t>(span), refAccumulator_.end());
        delay = utilities::findBulkDelay(micTail, refTail, outputSampleRate_);
        const long refStartOffset = static_cast<long>(micLength) - static_cast<long>(refLength);
        const long catchupDelay = refStartOffset + delay - lead_;
        delayedRef = utilities::applyDelay(refAccumulator_, catchupDelay, micLength);
        logger_.info("Buffered EC bulk delay estimated.", [&] {
            return LogMetadata{{"delaySamples", std::to_string(delay)},
                               {"delayMs", fmt::format("{:.1f}", delay * 1000.0 / outputSampleRate_)},
                               {"refStartOffset", std::to_string(refStartOffset)},
                               {"catchupDelay", std::to_string(catchupDelay)}};
        });
        if (std::labs(delay) >= static_cast<long>(outputSampleRate_ * 0.2))
            logger_.warning("Echo delay estimate sits at the edge of the search range; the real delay may be longer.",
                            [&] { return LogMetadata{{"delaySamples", std::to_string(delay)}}; });
    }
    bulkDelay_ = delay;
    if (!refAccumulator_.empty()) {
        needsDelayReestimation_ = true;
        logger_.info("Will re-estimate delay during streaming for better accuracy.", [&] {
            return LogMetadata{{"initialDelay", std::to_string(delay)},
                               {"overlapRatio", fmt::format("{:.2f}", double(refLength) / double(std::max<size_t>(micLength, 1)))}};
        });
    }
    auto aec = std::make_unique<WebRTCAEC3>(rate, false, false);
    ++cancellerGeneration_;
    // With the microphone held back, its newest samples wait in the FIFO for
    // the reference that is still to come rather than going through now.
    const long align = alignDelay();
    const size_t hold = align < 0 ? std::min(static_cast<size_t>(-align), micLength) : 0;
    const size_t processLength = micLength - hold;
    std::vector<float> output;
    output.reserve(processLength);
    const auto frame = static_cast<size_t>(aec->frameSize());
    for (size_t at = 0; at < processLength; at += frame) {
        const size_t n = std::min(frame, processLength - at);
        aec->analyzeRender(delayedRef.data() + at, n);
        auto out = aec->processCapture(micAccumulator_.data() + at, n);
        output.insert(output.end(), out.begin(), out.end());
    }
    refDelayFIFO_.clear();
    micDelayFIFO_.clear();
    if (align >= 1) refDelayFIFO_ = tailPadded(refAccumulator_, refLength, align);
    if (align <= -1) micDelayFIFO_ = tailPadded(micAccumulator_, micLength, -align);
    if (bufferingFirstMicPTS_) onlineAnchor_ = *bufferingFirstMicPTS_;
    if (!output.empty()) writeCatchupOutput(output);
    aec3_ = std::move(aec);
    ecPhase_ = ECPhase::streaming;
    micAccumulator_.clear();
    refAccumulator_.clear();
    bufferingFirstMicPTS_.reset();
    const double elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
    logger_.info("Buffered EC catchup complete.", [&] {
        return LogMetadata{{"elapsed", fmt::format("{:.1f}ms", elapsed)},
                           {"outputSamples", std::to_string(output.size())},
                           {"micSamples", std::to_string(micLength)},
                           {"refSamples", std::to_string(refLength)},
                           {"delay", std::to_string(delay)}};
    });
}

void EchoCancellationProcessor::checkAndPerformDelayReestimation() {
    const auto needed = static_cast<size_t>(outputSampleRate_ * 5.0);
    if (reestRefBuffer_.size() < needed || reestMicBuffer_.size() < needed) return;
    if (levelDb(reestRefBuffer_) < -40.0) {
        if (reestRefBuffer_.size() > static_cast<size_t>(outputSampleRate_ * 15.0)) {
            needsDelayReestimation_ = false;
            reestRefBuffer_.clear();
            reestMicBuffer_.clear();
            logger_.info("Delay re-estimation abandoned, no reference content after 15 seconds.");
        }
        return;
    }
    const long newDelay = utilities::findBulkDelay(reestMicBuffer_, reestRefBuffer_, outputSampleRate_);
    needsDelayReestimation_ = false;
    if (newDelay == bulkDelay_) {
        reestRefBuffer_.clear();
        reestMicBuffer_.clear();
        logger_.info("Delay re-estimation confirmed current delay.",
                     [&] { return LogMetadata{{"delay", std::to_string(newDelay)}}; });
        return;
    }
    const long oldDelay = bulkDelay_;
    logger_.info("Delay re-estimated during streaming.", [&] {
        return LogMetadata{{"oldDelay", std::to_string(oldDelay)},
                           {"oldDelayMs", fmt::format("{:.1f}", oldDelay * 1000.0 / outputSampleRate_)},
                           {"newDelay", std::to_string(newDelay)},
                           {"newDelayMs", fmt::format("{:.1f}", newDelay * 1000.0 / outputSampleRate_)}};
    });
    bulkDelay_ = newDelay;
    const long align = alignDelay();
    refDelayFIFO_.clear();
    micDelayFIFO_.clear();
    if (align > 0) refDelayFIFO_ = tailPadded(reestRefBuffer_, reestRefBuffer_.size(), align);
    if (align < 0) micDelayFIFO_ = tailPadded(reestMicBuffer_, reestMicBuffer_.size(), -align);
    reestRefBuffer_.clear();
    reestMicBuffer_.clear();
    if (std::labs(newDelay - oldDelay) > static_cast<long>(outputSampleRate_ / 100)) {
        aec3_ = std::make_unique<WebRTCAEC3>(static_cast<int>(outputSampleRate_), false, false);
        ++cancellerGeneration_;
        logger_.info("Created fresh AEC3 after delay re-estimation.");
    }
}

// ---- output ---------------------------------------------------------------------------------------

std::vector<float> EchoCancellationProcessor::applyGainGate(std::vector<float> samples, float refPower) {
    const auto rate = static_cast<float>(outputSampleRate_);
    const float attack = std::exp(-1.0f / (rate * 0.002f));
    const float release = std::exp(-1.0f / (rate * 0.1f));
    float micPower = 0;
    for (float s : samples) micPower += s * s;
    micPower /= static_cast<float>(std::max<size_t>(samples.size(), 1));
    const float target = micPower < 0.0001f && refPower > 0.000001f ? 0.03f : 1.0f;
    for (auto& s : samples) {
        const float coef = target < gateGain_ ? attack : release;
        gateGain_ = gateGain_ * coef + target * (1 - coef);
        s *= gateGain_;
    }
    return samples;
}

std::optional<CMSampleBuffer> EchoCancellationProcessor::makeSampleBuffer(const std::vector<float>& samples,
                                                                          const CMTime& pts) const {
    if (samples.empty()) return std::nullopt;
    try {
        const auto format = platform::AVAudioFormat::standard(outputSampleRate_, 1);
        if (!format) return std::nullopt;
        auto buffer = platform::AVAudioPCMBuffer::make(*format, static_cast<platform::AVAudioFrameCount>(samples.size()));
        if (!buffer) return std::nullopt;
        std::copy(samples.begin(), samples.end(), buffer->floatChannelData()[0]);
        buffer->setFrameLength(static_cast<platform::AVAudioFrameCount>(samples.size()));
        return CMSampleBuffer::makeAudio(*buffer, pts);
    } catch (...) {
        return std::nullopt;
    }
}

void EchoCancellationProcessor::appendToChopper(Output& output, const CMSampleBuffer& sample, const char* failure) {
    try {
        output.chopper->append(sample);
    } catch (...) {
        const auto error = std::current_exception();
        logger_.error(failure, [&] { return LogMetadata{{"error", errorText(error)}}; });
        if (onAbort_) onAbort_(AbortSignal::interrupted(error));
    }
}

void EchoCancellationProcessor::writeCatchupOutput(const std::vector<float>& output) {
    if (!onlineAnchor_ || !hasOnline_) return;
    const auto chunk = static_cast<size_t>(outputSampleRate_) / 10;
    for (size_t offset = 0; offset < output.size(); offset += chunk) {
        const size_t count = std::min(chunk, output.size() - offset);
        const CMTime pts = *onlineAnchor_ + CMTime(onlineSamplesWritten_, static_cast<int32_t>(outputSampleRate_));
        auto sample = makeSampleBuffer(std::vector<float>(output.begin() + static_cast<std::ptrdiff_t>(offset),
                                                          output.begin() + static_cast<std::ptrdiff_t>(offset + count)),
                                       pts);
        onlineSamplesWritten_ += static_cast<int64_t>(count);
        if (!sample) {
            logger_.warning("Failed to create catchup chunk sample buffer.", [&] {
                return LogMetadata{{"offset", std::to_string(offset)}, {"count", std::to_string(count)}};
            });
            continue;
        }
        appendToChopper(online_, *sample, "Failed to append catchup output to chopper, aborting.");
    }
}

void EchoCancellationProcessor::writeOnlineOutput(const std::vector<float>& samples) {
    if (!hasOnline_ || !onlineAnchor_) return;
    const CMTime pts = *onlineAnchor_ + CMTime(onlineSamplesWritten_, static_cast<int32_t>(outputSampleRate_));
    onlineSamplesWritten_ += static_cast<int64_t>(samples.size());
    auto sample = makeSampleBuffer(samples, pts);
    if (!sample) {
        logger_.warning("Failed to create echo-cancelled sample buffer.");
        return;
    }
    appendToChopper(online_, *sample, "Failed to append EC output to chopper, aborting.");
}

void EchoCancellationProcessor::writeReferenceSamples(const std::vector<float>& samples, const CMTime& pts) {
    if (!hasReference_) return;
    auto sample = makeSampleBuffer(samples, pts);
    if (!sample) {
        logger_.warning("Failed to create reference sidecar sample buffer.");
        return;
    }
    appendToChopper(reference_, *sample, "Failed to append reference to chopper, aborting.");
}

// ---- the end --------------------------------------------------------------------------------------

void EchoCancellationProcessor::stopTap() {
    if (!tap_) return;
    tap_->stopAndDrain();
    tap_.reset();
    logger_.info("Echo cancellation tap stopped and drained.");
}

void EchoCancellationProcessor::finishOutput(Output& output, const CMTime& endTime, const char* flushed,
                                             const char* retrying, const char* noSamples, const char* finalized) {
    while (true) {
        const size_t remaining = output.adaptor->unboundedBackpressureBuffer().partialFlush();
        if (remaining == 0) {
            logger_.info(flushed);
            break;
        }
        if (auto error = output.writer->error()) std::rethrow_exception(error);
        logger_.info(retrying, [&] { return LogMetadata{{"itemsInBuffer", std::to_string(remaining)}}; });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (output.didStartSession) {
        if (endTime.isValid()) output.writer->safe_endSession(endTime);
        output.input->markAsFinished();
    } else {
        logger_.warning(noSamples);
    }
    output.writer->safe_finishWriting();
    if (auto error = output.writer->error()) std::rethrow_exception(error);
    logger_.info(finalized);
}

void EchoCancellationProcessor::finishOnline(const CMTime& endTime) {
    if (cancelsOnline(mode_)) {
        std::lock_guard lock(aecLock_);
        if (ecPhase_ == ECPhase::buffering) {
            if (!micAccumulator_.empty()) {
                const size_t micSamples = micAccumulator_.size(), refSamples = refAccumulator_.size();
                performCatchup();
                logger_.info("Forced buffered EC catchup on finish.", [&] {
                    return LogMetadata{{"micSamples", std::to_string(micSamples)},
                                       {"refSamples", std::to_string(refSamples)}};
                });
            } else {
                aec3_ = std::make_unique<WebRTCAEC3>(static_cast<int>(outputSampleRate_), false, false);
                ++cancellerGeneration_;
                ecPhase_ = ECPhase::streaming;
            }
        }
    }
    for (Output* output : {hasOnline_ ? &online_ : nullptr, hasReference_ ? &reference_ : nullptr}) {
        if (!output) continue;
        try {
            output->chopper->finish();
        } catch (const RecordingIntervalBoundedAudioStreamError&) {
        }
    }
    if (hasOnline_)
        finishOutput(online_, endTime, "Flushed all echo cancellation samples from buffer.",
                     "Couldn't flush all EC frames in buffer at once, retrying.",
                     "No echo-cancelled audio samples were received during recording.", "Echo cancellation file finalized.");
    if (hasReference_)
        finishOutput(reference_, endTime, "Flushed all reference sidecar samples from buffer.",
                     "Couldn't flush all reference sidecar frames, retrying.",
                     "No reference audio samples were received during recording.", "Reference sidecar file finalized.");
}

void EchoCancellationProcessor::runOfflinePass(const std::filesystem::path& micURL) {
    if (!offlineOutputURL_ || !hasReference_) return;
    const auto started = std::chrono::steady_clock::now();
    const auto referenceURL = reference_.url;
    logger_.info("Starting offline echo cancellation.", [&] {
        return LogMetadata{{"micURL", micURL.string()},
                           {"referenceURL", referenceURL.string()},
                           {"outputURL", offlineOutputURL_->string()},
                           {"sampleRate", fmt::format("{}", outputSampleRate_)}};
    });
    const auto mic = utilities::readAudioFileAsMono(micURL, outputSampleRate_);
    const auto ref = utilities::readAudioFileAsMono(referenceURL, outputSampleRate_);
    logger_.info("Offline EC read complete.", [&] {
        return LogMetadata{{"micSamples", std::to_string(mic.size())},
                           {"micDuration", fmt::format("{:.1f}s", mic.size() / outputSampleRate_)},
                           {"refSamples", std::to_string(ref.size())},
                           {"refDuration", fmt::format("{:.1f}s", ref.size() / outputSampleRate_)}};
    });
    if (mic.empty() || ref.empty()) {
        logger_.warning("Empty audio file, skipping offline echo cancellation pass.");
        return;
    }
    const long delay = utilities::findBulkDelay(mic, ref, outputSampleRate_);
    logger_.info("Offline EC bulk delay estimated.", [&] {
        return LogMetadata{{"delaySamples", std::to_string(delay)},
                           {"delayMs", fmt::format("{:.1f}", delay * 1000.0 / outputSampleRate_)}};
    });
    const long lead = WebRTCAEC3::referenceLeadSamples(static_cast<int>(outputSampleRate_));
    const auto alignedRef = utilities::applyDelay(ref, delay - lead, mic.size());
    const auto output = WebRTCAEC3::processOffline(mic, alignedRef, static_cast<int>(outputSampleRate_), false, false);
    utilities::writeMonoAudioFile(output, *offlineOutputURL_, outputSampleRate_);
    offlinePassCompleted_ = true;
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    logger_.info("Offline echo cancellation complete.", [&] {
        return LogMetadata{{"elapsed", fmt::format("{:.1f}s", elapsed)},
                           {"outputSamples", std::to_string(output.size())},
                           {"outputDuration", fmt::format("{:.1f}s", output.size() / outputSampleRate_)},
                           {"outputFile", offlineOutputURL_->filename().string()}};
    });
}

std::vector<OVBundleInfo::FileAsset> EchoCancellationProcessor::expectedFileAssets() const {
    std::vector<OVBundleInfo::FileAsset> assets;
    auto add = [&](const std::filesystem::path& url) {
        OVBundleInfo::FileAsset asset;
        asset.type = OVBundleInfo::FileAssetType::audio;
        asset.filename = url.filename().string();
        assets.push_back(asset);
    };
    if (hasOnline_) add(online_.url);
    if (hasReference_) add(reference_.url);
    if (offlineOutputURL_) add(*offlineOutputURL_);
    return assets;
}

std::vector<OVBundleInfo::FileAsset> EchoCancellationProcessor::completedFileAssets() const {
    auto assets = expectedFileAssets();
    if (offlineOutputURL_ && !offlinePassCompleted_) assets.pop_back();
    return assets;
}

ECPhase EchoCancellationProcessor::phase() const {
    std::lock_guard lock(aecLock_);
    return ecPhase_;
}
long EchoCancellationProcessor::bulkDelay() const {
    std::lock_guard lock(aecLock_);
    return bulkDelay_;
}
bool EchoCancellationProcessor::needsDelayReestimation() const {
    std::lock_guard lock(aecLock_);
    return needsDelayReestimation_;
}
int EchoCancellationProcessor::cancellerGeneration() const {
    std::lock_guard lock(aecLock_);
    return cancellerGeneration_;
}

// ---- file names -----------------------------------------------------------------------------------

EchoCancellationURLs echoCancellationURLs(EchoCancellation mode, const std::filesystem::path& directory,
                                          const std::optional<std::string>& singleFileName, const std::string& id) {
    EchoCancellationURLs urls;
    if (mode == EchoCancellation::off) return urls;
    const std::string stem = singleFileName ? std::filesystem::path(*singleFileName).stem().string() : "microphone-" + id;
    if (cancelsOnline(mode)) urls.online = directory / (stem + "-ec-webrtc.m4a");
    if (mode == EchoCancellation::aec3Offline || mode == EchoCancellation::aec3Both) {
        urls.reference = directory / (stem + "-ec-systemaudio.m4a");
        urls.offline = directory / (stem + "-ec-webrtc-offline.m4a");
    }
    return urls;
}

}  // namespace ov
