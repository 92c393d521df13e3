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
    windowHasError_ = false;
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
    const double error = double(observedNanos - originNanos_) * 1e-9 - predicted;
    if (std::fabs(error) > options_.resyncError) {
        // One late chunk is a stalled scheduler, and so is a run of them that
        // catches up; several in a row that agree are a gap in the device's
        // delivery (or a clock that is simply elsewhere).
        const bool agrees = farOff_ > 0 && std::fabs(error - farOffError_) <= options_.resyncAgreement;
        farOff_ = agrees ? farOff_ + 1 : 1;
        farOffError_ = error;
        if (farOff_ >= options_.resyncCount) {
            ++resyncs_;
            restart(position, observedNanos);
            return {lineStartNanos_, 0};
        }
    } else {
        farOff_ = 0;
        // The loop's line is straight, so errors at different positions of a
        // window compare directly.
        if (!windowHasError_ || error < windowError_) windowError_ = error;
        windowHasError_ = true;
    }

    const double dt = framesSinceBase * period_;
    if (dt >= options_.window && windowHasError_) {
        // The loop, in the form used for sound-card clocks: the error moves
        // the line by b·e and its slope by c·e, with b and c from the
        // bandwidth, the damping and the time since the last update.
        const double e = std::clamp(windowError_, -options_.maxError, options_.maxLateError);
        windowHasError_ = false;
        elapsed_ += dt;
        const double progress = std::clamp(elapsed_ / options_.narrowingTime, 0.0, 1.0);
        const double bandwidth = options_.initialBandwidth *
                                 std::pow(options_.finalBandwidth / options_.initialBandwidth, progress);
        const double omega = std::min(2 * M_PI * bandwidth * dt, 0.5);
        const double b = 2 * options_.damping * omega;
        const double c = omega * omega;
        baseSeconds_ = predicted + b * e;
        basePosition_ = position;
        period_ += c * e / framesSinceBase;
        // Sound-card clocks are within a fraction of a percent of their nominal rate.
        period_ = std::clamp(period_, 0.99 / rate_, 1.01 / rate_);
    }

    // The line: frame counts give the spacing; it is slewed only when the
    // loop's estimate has left the dead band around it.
    const double estimate = baseSeconds_ + double(position - basePosition_) * period_;
    const int64_t framesOnLine = position - linePosition_;
    const double lineSeconds =
        double(lineStartNanos_ + correctionNanos_ - originNanos_) * 1e-9 + double(framesOnLine) / rate_;
    const double offset = estimate - lineSeconds;
    if (std::fabs(offset) > options_.deadBand) {
        const double excess = offset - std::copysign(options_.deadBand, offset);
        const double allowed = options_.maxSlew * double(frames) / rate_;
        correctionNanos_ += std::llround(std::clamp(excess, -allowed, allowed) * 1e9);
    }
    return {lineStartNanos_ + correctionNanos_, framesOnLine};
}

}  // namespace ov::platform
