#include "platform/av_capture_session.h"

#include <algorithm>
#include <future>
#include <stdexcept>
#include <thread>

#include "platform/os_log.h"

namespace ov::platform {

namespace {
// Runtime errors are told on one queue of their own, never on a producer's
// thread, so that a handler may stop the session that reports to it.
DispatchQueue& notificationQueue() {
    static DispatchQueue queue("AVCaptureSession.NotificationQueue");
    return queue;
}
}  // namespace

AVCaptureSession::~AVCaptureSession() {
    std::vector<std::unique_ptr<CaptureProducer>> producers;
    std::shared_ptr<Gate> gate;
    {
        std::lock_guard lock(mutex_);
        producers.swap(producers_);
        gate = std::move(gate_);
    }
    stopProducers(std::move(producers), gate);
}

void AVCaptureSession::stopProducers(std::vector<std::unique_ptr<CaptureProducer>> producers,
                                     const std::shared_ptr<Gate>& gate) {
    // Closing the gate first means nothing new reaches a delegate, whatever
    // the producers do next. A sink holds the gate only to hand a sample on.
    if (gate) {
        std::unique_lock lock(gate->mutex);
        gate->open = false;
    }
    if (producers.empty()) return;
    // A producer that hangs in its stop (a device that doesn't answer) must
    // not hang the session: it is left to finish, or not, on its own thread.
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    auto owned = std::make_shared<std::vector<std::unique_ptr<CaptureProducer>>>(std::move(producers));
    std::thread worker([owned, done] {
        for (auto& producer : *owned) producer->stop();
        done->set_value();
    });
    if (finished.wait_for(stopLimit) == std::future_status::ready) {
        worker.join();
        return;
    }
    worker.detach();
    OSLog(OSLog::defaultSubsystem, "AVCaptureSession")
        .error("A capture device did not stop within " + std::to_string(stopLimit.count()) +
               " ms; it is abandoned and delivers nowhere.");
}

bool AVCaptureSession::canAddInput(const std::shared_ptr<AVCaptureInput>& input) const {
    auto deviceInput = std::dynamic_pointer_cast<AVCaptureDeviceInput>(input);
    if (!deviceInput || !deviceInput->device()->isConnected()) return false;
    std::lock_guard lock(mutex_);
    for (const auto& existing : inputs_) {
        if (existing == input) return false;
        auto other = std::dynamic_pointer_cast<AVCaptureDeviceInput>(existing);
        if (other && other->device() == deviceInput->device()) return false;
    }
    return true;
}

bool AVCaptureSession::canAddOutput(const std::shared_ptr<AVCaptureOutput>& output) const {
    if (!output || !output->connections().empty()) return false;
    std::lock_guard lock(mutex_);
    return std::find(outputs_.begin(), outputs_.end(), output) == outputs_.end();
}

namespace {
bool carries(const AVCaptureDevice& device, AVMediaType mediaType) {
    return device.hasMediaType(mediaType) || device.hasMediaType(AVMediaType::muxed);
}
}  // namespace

void AVCaptureSession::addInput(const std::shared_ptr<AVCaptureInput>& input) {
    if (!canAddInput(input)) throw std::invalid_argument("AVCaptureSession can't add input " + input->description());
    auto deviceInput = std::static_pointer_cast<AVCaptureDeviceInput>(input);
    std::lock_guard lock(mutex_);
    inputs_.push_back(input);
    // Each output not yet fed takes this input's media of its type.
    for (const auto& output : outputs_) {
        if (!output->connections().empty() || !carries(*deviceInput->device(), output->mediaType())) continue;
        auto connection = std::make_shared<AVCaptureConnection>(deviceInput, output->mediaType(), output.get());
        output->attach(connection);
        connections_.push_back(connection);
    }
}

void AVCaptureSession::addOutput(const std::shared_ptr<AVCaptureOutput>& output) {
    if (!canAddOutput(output)) throw std::invalid_argument("AVCaptureSession can't add output " + output->description());
    std::lock_guard lock(mutex_);
    outputs_.push_back(output);
    for (const auto& input : inputs_) {
        auto deviceInput = std::static_pointer_cast<AVCaptureDeviceInput>(input);
        if (!carries(*deviceInput->device(), output->mediaType())) continue;
        auto connection = std::make_shared<AVCaptureConnection>(deviceInput, output->mediaType(), output.get());
        output->attach(connection);
        connections_.push_back(connection);
        break;
    }
}

std::vector<std::shared_ptr<AVCaptureInput>> AVCaptureSession::inputs() const {
    std::lock_guard lock(mutex_);
    return inputs_;
}
std::vector<std::shared_ptr<AVCaptureOutput>> AVCaptureSession::outputs() const {
    std::lock_guard lock(mutex_);
    return outputs_;
}
std::vector<std::shared_ptr<AVCaptureConnection>> AVCaptureSession::connections() const {
    std::lock_guard lock(mutex_);
    return connections_;
}

namespace {
// A sample of a device on `from` (null: the host clock) with its times on `to`.
CMSampleBuffer restamped(const CMSampleBuffer& sample, const std::shared_ptr<const CMClock>& from,
                         const std::shared_ptr<const CMClock>& to) {
    auto timing = sample.sampleTimingInfos();
    bool changed = false;
    auto move = [&](CMTime& time) {
        if (!time.isNumeric()) return;
        const CMTime host = from ? from->hostTime(time) : time;
        const CMTime moved = to ? to->clockTime(host) : host;
        changed = changed || moved != time;
        time = moved;
    };
    for (auto& entry : timing) {
        move(entry.presentationTimeStamp);
        move(entry.decodeTimeStamp);
    }
    return changed ? sample.copyWithNewTiming(std::move(timing)) : sample;
}
}  // namespace

void AVCaptureSession::startRunning() {
    const auto sessionClock = synchronizationClock();
    std::lock_guard run(runMutex_);
    std::vector<std::shared_ptr<AVCaptureConnection>> connections;
    std::vector<std::shared_ptr<AVCaptureOutput>> outputs;
    {
        std::lock_guard lock(mutex_);
        if (running_) return;
        running_ = true;
        connections = connections_;
        outputs = outputs_;
    }
    std::vector<std::unique_ptr<CaptureProducer>> started;
    std::weak_ptr<AVCaptureSession> weakSelf = weak_from_this();
    auto gate = std::make_shared<Gate>();
    for (const auto& connection : connections) {
        if (!connection->isEnabled()) continue;
        std::shared_ptr<AVCaptureOutput> output;
        for (const auto& candidate : outputs)
            if (candidate.get() == connection->output()) output = candidate;
        if (!output) continue;
        CaptureProducerSink sink;
        std::weak_ptr<AVCaptureOutput> weakOutput = output;
        std::weak_ptr<AVCaptureConnection> weakConnection = connection;
        // Every connection's samples come on the session's one clock, so that
        // devices on different clocks line up.
        auto deviceClock = connection->input()->device()->synchronizationClock();
        const bool restamp = deviceClock != sessionClock;
        sink.output = [gate, weakOutput, weakConnection, restamp, deviceClock, sessionClock](const CMSampleBuffer& sampleBuffer) {
            std::shared_lock open(gate->mutex);
            if (!gate->open) return;
            auto target = weakOutput.lock();
            auto connection = weakConnection.lock();
            if (!target || !connection || !connection->isEnabled()) return;
            target->deliver(restamp ? restamped(sampleBuffer, deviceClock, sessionClock) : sampleBuffer, connection);
        };
        sink.failed = [gate, weakSelf](std::exception_ptr error) {
            {
                std::shared_lock open(gate->mutex);
                if (!gate->open) return;
            }
            if (auto self = weakSelf.lock()) self->reportRuntimeError(error);
        };
        try {
            started.push_back(connection->input()->device()->startProducing(output->requestFor(*connection), sink));
        } catch (...) {
            reportRuntimeError(std::current_exception());
        }
    }
    std::lock_guard lock(mutex_);
    for (auto& producer : started) producers_.push_back(std::move(producer));
    gate_ = gate;
}

void AVCaptureSession::stopRunning() {
    std::lock_guard run(runMutex_);
    std::vector<std::unique_ptr<CaptureProducer>> producers;
    std::shared_ptr<Gate> gate;
    {
        std::lock_guard lock(mutex_);
        running_ = false;
        producers.swap(producers_);
        gate = std::move(gate_);
    }
    stopProducers(std::move(producers), gate);
}

bool AVCaptureSession::isRunning() const {
    std::lock_guard lock(mutex_);
    return running_;
}

std::shared_ptr<const CMClock> AVCaptureSession::synchronizationClock() const {
    std::lock_guard lock(mutex_);
    for (const auto& input : inputs_)
        if (auto deviceInput = std::dynamic_pointer_cast<AVCaptureDeviceInput>(input))
            if (auto clock = deviceInput->device()->synchronizationClock()) return clock;
    return nullptr;
}

void AVCaptureSession::setRuntimeErrorHandler(std::function<void(std::exception_ptr)> handler) {
    std::lock_guard lock(mutex_);
    runtimeErrorHandler_ = handler ? std::make_shared<std::function<void(std::exception_ptr)>>(std::move(handler))
                                   : nullptr;
}

void AVCaptureSession::reportRuntimeError(std::exception_ptr error) {
    std::shared_ptr<std::function<void(std::exception_ptr)>> handler;
    {
        std::lock_guard lock(mutex_);
        handler = runtimeErrorHandler_;
    }
    if (!handler) return;
    notificationQueue().async([handler, error] { (*handler)(error); });
}

}  // namespace ov::platform
