#pragma once
// AVCaptureSession: devices joined to data outputs, started and stopped as one.
//
// Adding an input and an output that carries one of its media types makes a
// connection. startRunning() asks every enabled connection's device to
// deliver; samples then reach the outputs' delegates until stopRunning().
// Both calls block until delivery has begun or ended.
//
// A device that ends delivery by itself (an error, a disconnect) is reported
// to the runtime error handler, on an internal queue, as the platform posts
// its runtime error notification; the session keeps running its other
// connections.

#include <chrono>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <mutex>
#include <vector>

#include "platform/av_capture_output.h"

namespace ov::platform {

class AVCaptureSession : public std::enable_shared_from_this<AVCaptureSession> {
public:
    static std::shared_ptr<AVCaptureSession> make() { return std::shared_ptr<AVCaptureSession>(new AVCaptureSession()); }
    ~AVCaptureSession();
    AVCaptureSession(const AVCaptureSession&) = delete;
    AVCaptureSession& operator=(const AVCaptureSession&) = delete;

    // False for an input already in this session or whose device is gone.
    bool canAddInput(const std::shared_ptr<AVCaptureInput>& input) const;
    // Throws std::invalid_argument where canAddInput is false.
    void addInput(const std::shared_ptr<AVCaptureInput>& input);
    // False for an output already in this or another session.
    bool canAddOutput(const std::shared_ptr<AVCaptureOutput>& output) const;
    void addOutput(const std::shared_ptr<AVCaptureOutput>& output);

    std::vector<std::shared_ptr<AVCaptureInput>> inputs() const;
    std::vector<std::shared_ptr<AVCaptureOutput>> outputs() const;
    std::vector<std::shared_ptr<AVCaptureConnection>> connections() const;

    // Starts delivery; a connection whose device can't start is reported to
    // the runtime error handler and the others run.
    void startRunning();
    // Ends delivery; once it returns no new sample is handed to a delegate
    // queue (samples already queued still run). Returns within a bound: a
    // producer that doesn't stop within stopLimit is abandoned (logged as an
    // error), and its samples go nowhere from then on.
    void stopRunning();
    static constexpr std::chrono::milliseconds stopLimit{2000};
    bool isRunning() const;

    // The clock of the first input whose device has one, or null; then sample
    // times are on the host time clock. Samples of devices on other clocks are
    // moved onto this one as they arrive.
    std::shared_ptr<const CMClock> synchronizationClock() const;

    // Called with each runtime error: a device stopped delivering by itself.
    void setRuntimeErrorHandler(std::function<void(std::exception_ptr)> handler);

private:
    struct Gate;
    AVCaptureSession() = default;
    void reportRuntimeError(std::exception_ptr error);
    static void stopProducers(std::vector<std::unique_ptr<CaptureProducer>> producers, const std::shared_ptr<Gate>& gate);

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<AVCaptureInput>> inputs_;
    std::vector<std::shared_ptr<AVCaptureOutput>> outputs_;
    std::vector<std::shared_ptr<AVCaptureConnection>> connections_;
    std::vector<std::unique_ptr<CaptureProducer>> producers_;
    // The running producers' gate: a sink delivers only while it is open.
    struct Gate {
        std::shared_mutex mutex;
        bool open = true;
    };
    std::shared_ptr<Gate> gate_;
    bool running_ = false;
    std::shared_ptr<std::function<void(std::exception_ptr)>> runtimeErrorHandler_;
    // Serialises startRunning and stopRunning without holding mutex_ while
    // producers start or stop, so that delivery never waits on the session.
    std::mutex runMutex_;
};

}  // namespace ov::platform
