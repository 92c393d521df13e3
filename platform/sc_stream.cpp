#include "platform/sc_stream.h"

#include "platform/capture_platform.h"

#include <algorithm>

namespace ov::platform {

namespace {
// The delegate hears of a stop on a queue of its own, never on the capture
// thread, so that it may call stopCapture() or start a new stream.
DispatchQueue& delegateQueue() {
    static DispatchQueue queue("SCStream.DelegateQueue");
    return queue;
}
}  // namespace

std::shared_ptr<SCStream> SCStream::make(SCContentFilter filter, SCStreamConfiguration configuration,
                                         std::weak_ptr<SCStreamDelegate> delegate) {
    return std::shared_ptr<SCStream>(new SCStream(std::move(filter), std::move(configuration), std::move(delegate)));
}

SCStream::SCStream(SCContentFilter filter, SCStreamConfiguration configuration, std::weak_ptr<SCStreamDelegate> delegate)
    : filter_(std::move(filter)), configuration_(std::move(configuration)), delegate_(std::move(delegate)) {}

SCStream::~SCStream() {
    std::shared_ptr<ScreenCaptureProducer> producer;
    {
        std::lock_guard lock(mutex_);
        producer = std::move(producer_);
    }
    if (producer) producer->stop();
}

void SCStream::addStreamOutput(std::shared_ptr<SCStreamOutput> output, SCStreamOutputType type,
                               std::shared_ptr<DispatchQueue> sampleHandlerQueue) {
    if (!output || !sampleHandlerQueue)
        throw SCStreamError(SCStreamError::invalidParameter, "The stream output or its queue is missing.");
    if (type != SCStreamOutputType::screen && type != SCStreamOutputType::audio)
        throw SCStreamError(SCStreamError::invalidParameter, "The stream output type isn't supported.",
                            "SCStream output type " + std::to_string(static_cast<int>(type)) + " isn't supported");
    std::lock_guard lock(mutex_);
    for (const auto& entry : outputs_)
        if (entry.output == output && entry.type == type)
            throw SCStreamError(SCStreamError::invalidParameter, "The stream output was already added.");
    outputs_.push_back({std::move(output), type, std::move(sampleHandlerQueue), std::make_shared<std::atomic<int32_t>>(0)});
}

void SCStream::removeStreamOutput(const std::shared_ptr<SCStreamOutput>& output, SCStreamOutputType type) {
    std::lock_guard lock(mutex_);
    std::erase_if(outputs_, [&](const OutputEntry& entry) { return entry.output == output && entry.type == type; });
}

void SCStream::startCapture() {
    std::lock_guard control(controlMutex_);
    uint64_t generation;
    SCContentFilter filter = this->filter();
    SCStreamConfiguration configuration = this->configuration();
    {
        std::lock_guard lock(mutex_);
        if (capturing_)
            throw SCStreamError(SCStreamError::attemptToStartStreamState, "The stream is already capturing.");
        generation = ++generation_;
        // Capturing from before the producer starts: a source that fails at
        // once reports while we are still here, and that report must count.
        capturing_ = true;
    }
    std::weak_ptr<SCStream> weakSelf = weak_from_this();
    ScreenCaptureSink sink;
    sink.output = [weakSelf](SCStreamOutputType type, const CMSampleBuffer& sampleBuffer) {
        if (auto self = weakSelf.lock()) self->deliver(type, sampleBuffer);
    };
    sink.failed = [weakSelf, generation](std::exception_ptr error) {
        if (auto self = weakSelf.lock()) self->stoppedByItself(generation, error);
    };
    std::shared_ptr<ScreenCaptureProducer> producer;
    try {
        producer = CapturePlatform::shared()->startScreenCapture(filter, configuration, std::move(sink));
    } catch (...) {
        std::lock_guard lock(mutex_);
        if (generation_ == generation) capturing_ = false;
        throw;
    }
    bool stoppedAlready;
    {
        std::lock_guard lock(mutex_);
        stoppedAlready = !capturing_ || generation_ != generation;
        if (!stoppedAlready) producer_ = producer;
    }
    // It stopped by itself before we kept it: stop (and join) it where the
    // other stops happen.
    if (stoppedAlready && producer) delegateQueue().async([producer] { producer->stop(); });
}

void SCStream::stopCapture() {
    std::lock_guard control(controlMutex_);
    std::shared_ptr<ScreenCaptureProducer> producer;
    {
        std::lock_guard lock(mutex_);
        if (!capturing_)
            throw SCStreamError(SCStreamError::attemptToStopStreamState, "The stream is not capturing.",
                                "stopCapture on a stream that is already stopped");
        capturing_ = false;
        producer = std::move(producer_);
    }
    if (producer) producer->stop();
}

void SCStream::updateContentFilter(const SCContentFilter& filter) {
    std::lock_guard control(controlMutex_);
    std::shared_ptr<ScreenCaptureProducer> producer;
    {
        std::lock_guard lock(mutex_);
        filter_ = filter;
        producer = producer_;
    }
    if (producer) producer->updateContentFilter(filter);
}

void SCStream::updateConfiguration(const SCStreamConfiguration& configuration) {
    std::lock_guard control(controlMutex_);
    std::shared_ptr<ScreenCaptureProducer> producer;
    {
        std::lock_guard lock(mutex_);
        configuration_ = configuration;
        producer = producer_;
    }
    if (producer) producer->updateConfiguration(configuration);
}

std::shared_ptr<const CMClock> SCStream::synchronizationClock() const {
    std::lock_guard lock(mutex_);
    return producer_ ? producer_->synchronizationClock() : nullptr;
}

SCContentFilter SCStream::filter() const {
    std::lock_guard lock(mutex_);
    return filter_;
}

SCStreamConfiguration SCStream::configuration() const {
    std::lock_guard lock(mutex_);
    return configuration_;
}

void SCStream::deliver(SCStreamOutputType type, const CMSampleBuffer& sampleBuffer) {
    std::vector<OutputEntry> targets;
    int32_t depth;
    {
        std::lock_guard lock(mutex_);
        depth = std::max(1, configuration_.queueDepth);
        for (const auto& entry : outputs_)
            if (entry.type == type) targets.push_back(entry);
    }
    for (auto& entry : targets) {
        // Audio is never dropped: a gap in it is heard.
        if (type == SCStreamOutputType::screen && entry.pending->load() >= depth) {
            ++droppedScreenSamples_;
            continue;
        }
        ++*entry.pending;
        entry.queue->async([self = shared_from_this(), output = entry.output, pending = entry.pending, sampleBuffer, type] {
            struct Done {
                std::atomic<int32_t>& pending;
                ~Done() { --pending; }
            } done{*pending};
            output->stream(*self, sampleBuffer, type);
        });
    }
}

void SCStream::stoppedByItself(uint64_t generation, std::exception_ptr error) {
    std::shared_ptr<ScreenCaptureProducer> producer;
    {
        std::lock_guard lock(mutex_);
        if (generation != generation_ || !capturing_) return;
        capturing_ = false;
        producer = std::move(producer_);
    }
    auto delegate = delegate_;
    // The producer reports from its own thread; it is stopped (and joined)
    // on the delegate queue, after which the delegate hears of it.
    delegateQueue().async([self = shared_from_this(), producer, delegate, error] {
        if (producer) producer->stop();
        if (auto target = delegate.lock()) target->streamDidStopWithError(*self, error);
    });
}

}  // namespace ov::platform
