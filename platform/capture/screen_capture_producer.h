#pragma once
// The producer of a screen capture: what a backend implements so that SCStream
// can run a content filter.
//
// Threads: the sink's output is called from the producer's own capture thread,
// one call at a time, pictures in presentation order; failed() is called at
// most once, from any thread, and no output follows it. The sink must not
// block for long.
//
// stop(): once it returns, no sink call is running and none follows; it
// returns within a bounded time even when the display server does not answer.

#include <exception>
#include <functional>
#include <memory>

#include "platform/cm_clock.h"
#include "platform/cm_sample_buffer.h"
#include "platform/sc_content_filter.h"
#include "platform/sc_stream_configuration.h"

namespace ov::platform {

enum class SCStreamOutputType : int { screen = 0, audio = 1, microphone = 2 };

// What a backend's running screen capture offers the stream.
class ScreenCaptureProducer {
public:
    virtual ~ScreenCaptureProducer() = default;
    // Once it returns, the sink is not called again.
    virtual void stop() = 0;
    virtual std::shared_ptr<const CMClock> synchronizationClock() const = 0;
    virtual void updateContentFilter(const SCContentFilter& filter) = 0;
    virtual void updateConfiguration(const SCStreamConfiguration& configuration) = 0;
};

struct ScreenCaptureSink {
    std::function<void(SCStreamOutputType, const CMSampleBuffer&)> output;
    std::function<void(std::exception_ptr)> failed;
};

}  // namespace ov::platform
