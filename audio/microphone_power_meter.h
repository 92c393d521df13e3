#pragma once
// MicrophonePowerMeter drives a level display for a microphone outside any
// recording: its own capture session, levels between 0 and 1 on a perceptual
// scale per sample buffer, whether the device ever made a sound, and whether
// its stream has stopped (no buffer for 0.5 s).
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "output/ov_logger.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/av_capture_output.h"
#include "platform/av_capture_session.h"
#include "platform/dispatch_queue.h"

namespace ov {

// Decibels to the display scale: 300 steps from -60 dB, a square-root curve
// with a 2.2 gain, clipped to 1.
class LookupTable {
public:
    static constexpr double minDecibels = -60.0;
    static constexpr int tableSize = 300;
    static constexpr double scaleFactor = -4.983333333333333;  // 299 / -60

    static const LookupTable& shared();
    double valueForDecibel(double db) const;
    const std::vector<double>& table() const { return table_; }

private:
    LookupTable();
    std::vector<double> table_;
};

struct PowerLevel {
    double average = 0;
    double peak = 0;
    bool operator==(const PowerLevel&) const = default;
};

struct ChannelPowerLevels {
    double average = 0;
    double peak = 0;
    std::vector<PowerLevel> channels;

    static ChannelPowerLevels empty() { return {}; }
    // Float, 16-bit (÷32767) or 32-bit (÷2^31) data, per channel, over frameLength frames.
    static ChannelPowerLevels fromBuffer(const platform::AVAudioPCMBuffer& buffer);
    bool operator==(const ChannelPowerLevels&) const = default;
};

struct PowerMeterValue {
    ChannelPowerLevels levels;
    bool everMadeAnySound = false;
    bool audioStreamInterrupted = false;
};

class MicrophonePowerMeter : public std::enable_shared_from_this<MicrophonePowerMeter> {
public:
    static std::shared_ptr<MicrophonePowerMeter> make(Logger logger = Logger("MicrophonePowerMeter"));
    ~MicrophonePowerMeter();

    // The microphone to meter; none stops metering. Failures are logged and
    // leave the meter without an input.
    void setDeviceID(const std::optional<std::string>& deviceID);
    // Starts or stops capture; audioStreamInterrupted becomes !running.
    void updateRunning(bool running);

    // Written on the main queue only.
    PowerMeterValue value() const;
    bool hasInput() const;
    // Called on the main queue after every change of the value.
    void setOnChange(std::function<void(const PowerMeterValue&)> onChange);

    // The levels of one buffer reach the value through the main queue.
    void update(const ChannelPowerLevels& levels);

private:
    class Coordinator;
    explicit MicrophonePowerMeter(Logger logger);
    void restartInterruptedTask();

    Logger logger_;
    std::shared_ptr<Coordinator> coordinator_;
    mutable std::mutex mutex_;
    PowerMeterValue value_;
    std::function<void(const PowerMeterValue&)> onChange_;
    // The interrupted "task": a timed block on the main queue that only acts
    // when no later buffer restarted it.
    std::atomic<uint64_t> interruptedGeneration_{0};
};

}  // namespace ov
