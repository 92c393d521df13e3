#pragma once
// Host-clock stamps for a stream of sample chunks whose arrival times jitter
// and whose device clock drifts against CLOCK_MONOTONIC.
//
// Two stages:
//  1. A second-order delay-locked loop follows the device's frame position
//     against host time. A chunk's observed capture time (arrival less the
//     reported latency) is an upper bound of the true one: a chunk can arrive
//     late by any amount (a busy scheduler, a loaded server), never early.
//     So the loop is not pulled by every observation (their mean lies as
//     late as the machine is busy) but once per window by the window's
//     earliest one, which lies close to the true time however loaded the
//     machine is. The loop's period per frame learns the device's true
//     rate. The loop starts wide, so that it locks within seconds, and
//     narrows to a bandwidth that averages what is left over minutes.
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
        double initialBandwidth = 0.05;
        double finalBandwidth = 0.02;
        // The loop's damping: at 1 (critically damped) an offset is taken
        // out without swinging past, so that a first estimate that was off
        // never shows as an error the other way.
        double damping = 1.0;
        // Seconds over which the bandwidth narrows from initial to final.
        double narrowingTime = 20.0;
        // How far the stamps may lie from the loop's estimate before the
        // frame-count line is slewed, in seconds.
        double deadBand = 0.0008;
        // The most the line moves per second of audio while slewing (1e-3:
        // 20 µs per 20 ms chunk, far below what anyone hears or a retimer
        // minds).
        double maxSlew = 1e-3;
        // Seconds of audio whose earliest observation makes one update.
        double window = 1.0;
        // A window whose earliest observation is earlier than the loop's
        // line counts in full up to maxError; a later one (a window in which
        // every chunk came late) only up to maxLateError.
        double maxError = 0.005;
        double maxLateError = 0.0005;
        // A device that keeps being this far off (a suspended source, a
        // server that restarted the stream) restarts the loop and the line:
        // resyncCount observations in a row, each within resyncAgreement of
        // the one before. A backlog that a stalled reader catches up on is
        // far off too, but only for a moment and by less with every chunk
        // (its chunks arrive together), so it never restarts the line.
        double resyncError = 0.25;
        int resyncCount = 3;
        double resyncAgreement = 0.005;
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
    // estimate from the first observations (the earliest of them: each is
    // an upper bound of the true time), which is better than any single one.
    // Without it the first observation is the anchor.
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
    double windowError_ = 0; // the earliest observation of the window, against the loop
    bool windowHasError_ = false;
    int farOff_ = 0;
    double farOffError_ = 0;
    int resyncs_ = 0;
    // The line: stamp of frame p = lineStartNanos_ + p / rate (+ correction).
    int64_t lineStartNanos_ = 0;
    int64_t linePosition_ = 0;
    int64_t correctionNanos_ = 0;
};

}  // namespace ov::platform
