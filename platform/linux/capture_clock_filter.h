#pragma once
// Host-clock stamps for a stream of sample chunks whose arrival times jitter
// and whose device clock drifts against CLOCK_MONOTONIC.
//
// Two stages:
//  1. A second-order delay-locked loop follows the device's frame position
//     against host time: each chunk's observed capture time (arrival less the
//     reported latency) pulls the loop's line by a small share of its error,
//     and the loop's period per frame learns the device's true rate. The loop
//     starts wide, so that it locks within a second, and narrows to a
//     bandwidth that averages scheduling jitter away over tens of seconds.
//  2. The stamps themselves lie on the nominal frame-count line (each chunk
//     starts where the previous one ended, at the nominal rate), which
//     encoders and retimers want. Only when the loop's estimate has moved
//     further than a dead band from that line is the line slewed towards it,
//     by at most a fixed share of each chunk's length. So a stamp never jumps,
//     and a device that runs 100 ppm fast or slow stays within the dead band
//     of true time over hours.
//
// Not thread-safe: one stream's chunks, in order.

#include <cstdint>

namespace ov::platform {

class CaptureClockFilter {
public:
    struct Options {
        // Loop bandwidth at the start and after settling, in Hz.
        double initialBandwidth = 0.2;
        double finalBandwidth = 0.02;
        // Seconds over which the bandwidth narrows from initial to final.
        double narrowingTime = 20.0;
        // How far the stamps may lie from the loop's estimate before the
        // frame-count line is slewed, in seconds.
        double deadBand = 0.0008;
        // The most the line moves per second of audio while slewing (1e-3:
        // 20 µs per 20 ms chunk, far below what anyone hears or a retimer
        // minds).
        double maxSlew = 1e-3;
        // Arrivals are only ever late (a busy scheduler, a loaded server),
        // never early: an observation earlier than the loop's line counts in
        // full up to maxError, a later one only up to maxLateError, so the
        // loop follows the early edge of the arrivals rather than their
        // load-dependent mean.
        double maxError = 0.005;
        double maxLateError = 0.0005;
        // A device that keeps being this far off (a suspended source, a
        // server that restarted the stream) restarts the loop and the line.
        double resyncError = 0.25;
    };

    explicit CaptureClockFilter(double sampleRate) : CaptureClockFilter(sampleRate, Options{}) {}
    CaptureClockFilter(double sampleRate, Options options);

    // A chunk's stamp: the host time of its first frame is anchorNanos plus
    // framesSinceAnchor frames at the nominal rate. The anchor stays the same
    // from chunk to chunk unless the line is slewed or restarted, so callers
    // can build exact rational times from it.
    struct Stamp {
        int64_t anchorNanos = 0;
        int64_t framesSinceAnchor = 0;
        double seconds(double rate) const { return double(anchorNanos) * 1e-9 + double(framesSinceAnchor) / rate; }
    };

    // One chunk of `frames` frames starting at frame `position` of the stream
    // (positions only grow), whose first frame was observed to be captured at
    // `observedNanos` on the host clock.
    Stamp stamp(int64_t position, int64_t frames, int64_t observedNanos);

    // Starts the loop and the line at a known time of a frame: the caller's
    // robust estimate from the first observations (say their median), which
    // is better than any single one. Without it the first observation is
    // the anchor.
    void seed(int64_t position, int64_t nanos);

    // The loop's current estimate of the host time of frame `position`.
    double estimatedSeconds(int64_t position) const;
    // The loop's estimate of the device's rate, in frames per host second.
    double estimatedRate() const { return 1.0 / period_; }
    // How often the line was restarted (each is logged by the caller).
    int resyncCount() const { return resyncs_; }
    // The correction applied to the frame-count line so far, in seconds.
    double lineCorrection() const { return double(correctionNanos_) * 1e-9; }

private:
    void restart(int64_t position, int64_t observedNanos);

    double rate_;
    Options options_;
    bool started_ = false;
    // The loop: host time (s, relative to originNanos_) of frame basePosition_.
    int64_t originNanos_ = 0;
    int64_t basePosition_ = 0;
    double baseSeconds_ = 0;
    double period_ = 0;  // host seconds per frame
    double elapsed_ = 0; // seconds of audio since the loop started
    int farOff_ = 0;
    int resyncs_ = 0;
    // The line: stamp of frame p = lineStartNanos_ + p / rate (+ correction).
    int64_t lineStartNanos_ = 0;
    int64_t linePosition_ = 0;
    int64_t correctionNanos_ = 0;
};

}  // namespace ov::platform
