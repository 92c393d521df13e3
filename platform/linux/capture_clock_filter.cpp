#include "platform/linux/capture_clock_filter.h"

#include <algorithm>
#include <cmath>

namespace ov::platform {

CaptureClockFilter::CaptureClockFilter(double sampleRate, Options options) : rate_(sampleRate), options_(options) {}

void CaptureClockFilter::restart(int64_t position, int64_t observedNanos) {
    started_ = true;
    originNanos_ = observedNanos;
    basePosition_ = position;
    baseSeconds_ = 0;
    period_ = 1.0 / rate_;
    elapsed_ = 0;
    farOff_ = 0;
    lineStartNanos_ = observedNanos;
    linePosition_ = position;
    correctionNanos_ = 0;
}

void CaptureClockFilter::seed(int64_t position, int64_t nanos) { restart(position, nanos); }

double CaptureClockFilter::estimatedSeconds(int64_t position) const {
    return double(originNanos_) * 1e-9 + baseSeconds_ + double(position - basePosition_) * period_;
}

CaptureClockFilter::Stamp CaptureClockFilter::stamp(int64_t position, int64_t frames, int64_t observedNanos) {
    if (!started_) {
        restart(position, observedNanos);
        return {lineStartNanos_, 0};
    }
    const double framesSinceBase = double(position - basePosition_);
    const double predicted = baseSeconds_ + framesSinceBase * period_;
    double error = double(observedNanos - originNanos_) * 1e-9 - predicted;
    if (std::fabs(error) > options_.resyncError) {
        // One late chunk is a stalled scheduler; several in a row are a gap in
        // the device's delivery (or a clock that is simply elsewhere).
        if (++farOff_ >= 3) {
            ++resyncs_;
            restart(position, observedNanos);
            return {lineStartNanos_, 0};
        }
    } else {
        farOff_ = 0;
    }
    error = std::clamp(error, -options_.maxError, options_.maxLateError);

    // The loop, in the form used for sound-card clocks: the error moves the
    // line by b·e and its slope by c·e, with b and c from the bandwidth and the
    // time since the last update.
    const double dt = framesSinceBase * period_;
    elapsed_ += dt;
    const double progress = std::clamp(elapsed_ / options_.narrowingTime, 0.0, 1.0);
    const double bandwidth = options_.initialBandwidth *
                             std::pow(options_.finalBandwidth / options_.initialBandwidth, progress);
    const double omega = std::min(2 * M_PI * bandwidth * dt, 0.5);
    const double b = std::sqrt(2.0) * omega;
    const double c = omega * omega;
    baseSeconds_ = predicted + b * error;
    basePosition_ = position;
    if (framesSinceBase > 0) period_ += c * error / framesSinceBase;
    // Sound-card clocks are within a fraction of a percent of their nominal rate.
    period_ = std::clamp(period_, 0.99 / rate_, 1.01 / rate_);

    // The line: frame counts give the spacing; it is slewed only when the
    // loop's estimate has left the dead band around it.
    const int64_t framesOnLine = position - linePosition_;
    const double lineSeconds =
        double(lineStartNanos_ + correctionNanos_ - originNanos_) * 1e-9 + double(framesOnLine) / rate_;
    const double offset = baseSeconds_ - lineSeconds;
    if (std::fabs(offset) > options_.deadBand) {
        const double excess = offset - std::copysign(options_.deadBand, offset);
        const double allowed = options_.maxSlew * double(frames) / rate_;
        correctionNanos_ += std::llround(std::clamp(excess, -allowed, allowed) * 1e9);
    }
    return {lineStartNanos_ + correctionNanos_, framesOnLine};
}

}  // namespace ov::platform
