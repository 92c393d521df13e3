#include "audio/microphone_power_meter.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

#include "foundation/platform_error.h"
#include "platform/av_capture_device.h"
#include "platform/cm_sample_buffer.h"

namespace ov {

using platform::AVAudioPCMBuffer;
using platform::CMSampleBuffer;

// ---- table and levels -----------------------------------------------------------------------------

LookupTable::LookupTable() : table_(tableSize) {
    for (int i = 0; i < tableSize; ++i) {
        const double db = i * -0.20066889632107024;
        const double amplitude = (std::pow(10.0, db * 0.05) - 0.001) * 1.001001001001001;
        const double root = std::sqrt(amplitude);
        table_[static_cast<size_t>(i)] = std::min(std::isinf(root) ? root : root * 2.2, 1.0);
    }
}

const LookupTable& LookupTable::shared() {
    static const LookupTable table;
    return table;
}

double LookupTable::valueForDecibel(double db) const {
    if (db < minDecibels) return 0.0;
    if (db >= 0.0) return 1.0;
    const auto index = static_cast<size_t>(db * scaleFactor);
    return table_[std::min(index, table_.size() - 1)];
}

namespace {

double levelValue(double linear) {
    if (!std::isfinite(linear) || linear < 1e-8) return 0.0;
    return LookupTable::shared().valueForDecibel(20.0 * std::log10(linear));
}

template <class T>
PowerLevel channelLevel(const T* data, size_t frames, size_t stride, double scale) {
    double peak = -std::numeric_limits<double>::infinity();
    double sumSquares = 0;
    for (size_t i = 0; i < frames; ++i) {
        const double v = static_cast<double>(data[i * stride]) * scale;
        peak = std::max(peak, v);
        sumSquares += v * v;
    }
    const double rms = frames ? std::sqrt(sumSquares / double(frames)) : 0.0;
    return PowerLevel{levelValue(rms), levelValue(frames ? peak : 0.0)};
}

}  // namespace

ChannelPowerLevels ChannelPowerLevels::fromBuffer(const AVAudioPCMBuffer& buffer) {
    const size_t channels = buffer.format().channelCount();
    const size_t frames = buffer.frameLength();
    const size_t stride = buffer.stride();
    const bool interleaved = buffer.format().isInterleaved();
    ChannelPowerLevels levels;
    auto each = [&](auto data, double scale) {
        for (size_t c = 0; c < channels; ++c)
            levels.channels.push_back(channelLevel(interleaved ? data[0] + c : data[c], frames, stride, scale));
    };
    if (auto f = buffer.floatChannelData()) each(f, 1.0);
    else if (auto s16 = buffer.int16ChannelData()) each(s16, 1.0 / 32767.0);
    else if (auto s32 = buffer.int32ChannelData()) each(s32, 1.0 / 2147483648.0);
    else return empty();
    if (levels.channels.empty()) return empty();
    double sum = 0;
    for (const auto& level : levels.channels) {
        sum += level.average;
        levels.peak = std::max(levels.peak, level.peak);
    }
    levels.average = sum / double(levels.channels.size());
    return levels;
}

// ---- the coordinator ------------------------------------------------------------------------------

class MicrophonePowerMeter::Coordinator final : public platform::AVCaptureAudioDataOutputSampleBufferDelegate,
                                                public std::enable_shared_from_this<Coordinator> {
public:
    explicit Coordinator(Logger logger)
        : queue(std::make_shared<platform::DispatchQueue>("MicrophoneAudioLevels.Coordinator")),
          logger_(std::move(logger)) {}

    void captureOutput(platform::AVCaptureOutput&, const CMSampleBuffer& sample, platform::AVCaptureConnection&) override {
        std::shared_ptr<AVAudioPCMBuffer> pcm;
        try {
            pcm = sample.audioPCMBuffer();
        } catch (...) {
            return;  // a buffer that doesn't convert is dropped
        }
        if (pcm && sampleBufferHandler) sampleBufferHandler(*pcm);
    }

    // Builds a session for the device; the old one stops. Under configMutex.
    void setDeviceID(const std::optional<std::string>& deviceID) {
        std::lock_guard lock(configMutex);
        if (deviceID == currentDeviceID && session) return;
        const bool wasRunning = session && session->isRunning();
        if (session) session->stopRunning();
        session.reset();
        currentDeviceID = deviceID;
        if (!deviceID) return;
        auto device = platform::AVCaptureDevice::device(*deviceID);
        if (!device) {
            logger_.error([&] { return "Could not create AVCaptureDevice for deviceID: " + *deviceID; });
            return;
        }
        std::shared_ptr<platform::AVCaptureDeviceInput> input;
        try {
            input = platform::AVCaptureDeviceInput::make(device);
        } catch (...) {
            const auto error = std::current_exception();
            logger_.error("Error creating AVCaptureDeviceInput",
                          [&] { return LogMetadata{{"error", platform::describeError(error).debugDescription}}; });
            return;
        }
        auto next = platform::AVCaptureSession::make();
        auto output = platform::AVCaptureAudioDataOutput::make();
        output->setSampleBufferDelegate(shared_from_this(), queue);
        if (!next->canAddInput(input)) {
            logger_.error("Cannot add input");
            return;
        }
        next->addInput(input);
        if (!next->canAddOutput(output)) {
            logger_.error("Can't add AVCaptureAudioDataOutput to AVCaptureSession");
            return;
        }
        next->addOutput(output);
        session = next;
        if (wasRunning || wantsRunning) session->startRunning();
    }

    void setRunning(bool running) {
        std::lock_guard lock(configMutex);
        wantsRunning = running;
        if (!session || session->isRunning() == running) return;
        if (running) session->startRunning();
        else session->stopRunning();
    }

    void stop() {
        std::lock_guard lock(configMutex);
        if (session) session->stopRunning();
        session.reset();
    }

    bool hasInput() const {
        std::lock_guard lock(configMutex);
        return session != nullptr;
    }

    std::shared_ptr<platform::DispatchQueue> queue;
    std::function<void(const AVAudioPCMBuffer&)> sampleBufferHandler;

private:
    Logger logger_;
    mutable std::mutex configMutex;
    std::shared_ptr<platform::AVCaptureSession> session;
    std::optional<std::string> currentDeviceID;
    bool wantsRunning = false;
};

// ---- the meter ------------------------------------------------------------------------------------

MicrophonePowerMeter::MicrophonePowerMeter(Logger logger) : logger_(std::move(logger)) {}

std::shared_ptr<MicrophonePowerMeter> MicrophonePowerMeter::make(Logger logger) {
    std::shared_ptr<MicrophonePowerMeter> meter(new MicrophonePowerMeter(logger));
    meter->coordinator_ = std::make_shared<Coordinator>(logger);
    std::weak_ptr<MicrophonePowerMeter> weak = meter;
    meter->coordinator_->sampleBufferHandler = [weak](const AVAudioPCMBuffer& buffer) {
        auto self = weak.lock();
        if (!self) return;
        self->update(ChannelPowerLevels::fromBuffer(buffer));
        self->restartInterruptedTask();
    };
    return meter;
}

MicrophonePowerMeter::~MicrophonePowerMeter() {
    if (coordinator_) coordinator_->stop();
}

void MicrophonePowerMeter::setDeviceID(const std::optional<std::string>& deviceID) { coordinator_->setDeviceID(deviceID); }

void MicrophonePowerMeter::updateRunning(bool running) {
    {
        std::lock_guard lock(mutex_);
        value_.audioStreamInterrupted = !running;
    }
    if (!running) ++interruptedGeneration_;
    coordinator_->setRunning(running);
}

PowerMeterValue MicrophonePowerMeter::value() const {
    std::lock_guard lock(mutex_);
    return value_;
}

bool MicrophonePowerMeter::hasInput() const { return coordinator_->hasInput(); }

void MicrophonePowerMeter::setOnChange(std::function<void(const PowerMeterValue&)> onChange) {
    std::lock_guard lock(mutex_);
    onChange_ = std::move(onChange);
}

void MicrophonePowerMeter::update(const ChannelPowerLevels& levels) {
    std::weak_ptr<MicrophonePowerMeter> weak = weak_from_this();
    platform::DispatchQueue::main().async([weak, levels] {
        auto self = weak.lock();
        if (!self) return;
        PowerMeterValue value;
        std::function<void(const PowerMeterValue&)> onChange;
        {
            std::lock_guard lock(self->mutex_);
            self->value_.levels = levels;
            if (!self->value_.everMadeAnySound) self->value_.everMadeAnySound = levels.average > 0.0;
            value = self->value_;
            onChange = self->onChange_;
        }
        if (onChange) onChange(value);
    });
}

void MicrophonePowerMeter::restartInterruptedTask() {
    const uint64_t generation = ++interruptedGeneration_;
    std::weak_ptr<MicrophonePowerMeter> weak = weak_from_this();
    platform::DispatchQueue::main().asyncAfter(std::chrono::milliseconds(500), [weak, generation] {
        auto self = weak.lock();
        if (!self || self->interruptedGeneration_.load() != generation) return;
        PowerMeterValue value;
        std::function<void(const PowerMeterValue&)> onChange;
        {
            std::lock_guard lock(self->mutex_);
            self->value_.audioStreamInterrupted = true;
            value = self->value_;
            onChange = self->onChange_;
        }
        if (onChange) onChange(value);
    });
}

}  // namespace ov
