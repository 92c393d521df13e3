#pragma once
// SCStream: a running capture of a screen filter, delivering pictures (type
// screen) and the system's audio (type audio) to outputs on queues of the
// caller's choice, in capture order.
//
// startCapture() and stopCapture() block until capture has begun or ended.
// stopCapture() on a stream that isn't capturing fails with
// SCStreamError::attemptToStopStreamState (-3808); so does a stop after the
// stream stopped by itself, which its delegate hears through
// streamDidStopWithError on an internal queue.
//
// Every screen sample carries one attachment dictionary with the frame's
// status (SCFrameStatus, as a number) and, for complete frames, the screen
// rectangle that the picture shows in global points (a CGRect dictionary),
// the content rectangle within the picture, the scale factor and the display
// time in host nanoseconds. Frames other than complete carry no picture.
//
// Screen samples never pile up: at most the configuration's queueDepth of them
// wait for (or run in) an output's handler; a newer one is dropped and
// counted, so a slow consumer costs frames, never memory or capture timing.

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/cm_clock.h"
#include "platform/cm_sample_buffer.h"
#include "platform/dispatch_queue.h"
#include "platform/sc_content_filter.h"
#include "platform/sc_stream_configuration.h"
#include "platform/capture/screen_capture_producer.h"
#include "platform/sc_stream_error.h"

namespace ov::platform {

class SCStream;


enum class SCFrameStatus : int { complete = 0, idle = 1, blank = 2, suspended = 3, started = 4, stopped = 5 };

// Keys of a screen sample's attachment dictionary.
inline constexpr const char* SCStreamFrameInfoStatus = "SCStreamUpdateFrameStatus";
inline constexpr const char* SCStreamFrameInfoScreenRect = "SCStreamUpdateFrameScreenRect";
inline constexpr const char* SCStreamFrameInfoContentRect = "SCStreamUpdateFrameContentRect";
inline constexpr const char* SCStreamFrameInfoScaleFactor = "SCStreamUpdateFrameScaleFactor";
inline constexpr const char* SCStreamFrameInfoDisplayTime = "SCStreamUpdateFrameDisplayTime";

class SCStreamOutput {
public:
    virtual ~SCStreamOutput() = default;
    virtual void stream(SCStream& stream, const CMSampleBuffer& sampleBuffer, SCStreamOutputType type) = 0;
};

class SCStreamDelegate {
public:
    virtual ~SCStreamDelegate() = default;
    // The stream ended by itself (source gone, system stop, failure).
    virtual void streamDidStopWithError(SCStream& stream, std::exception_ptr error) = 0;
};

class SCStream : public std::enable_shared_from_this<SCStream> {
public:
    static std::shared_ptr<SCStream> make(SCContentFilter filter, SCStreamConfiguration configuration,
                                          std::weak_ptr<SCStreamDelegate> delegate);
    ~SCStream();
    SCStream(const SCStream&) = delete;
    SCStream& operator=(const SCStream&) = delete;

    // Throws SCStreamError invalidParameter for a type other than screen or
    // audio, or for an output already added for that type.
    void addStreamOutput(std::shared_ptr<SCStreamOutput> output, SCStreamOutputType type,
                         std::shared_ptr<DispatchQueue> sampleHandlerQueue);
    void removeStreamOutput(const std::shared_ptr<SCStreamOutput>& output, SCStreamOutputType type);

    // Throws SCStreamError: attemptToStartStreamState when already capturing,
    // failedToStart or noCaptureSource from the backend. A stopped stream may
    // be started again.
    void startCapture();
    // Throws SCStreamError attemptToStopStreamState when not capturing.
    void stopCapture();
    void updateContentFilter(const SCContentFilter& filter);
    void updateConfiguration(const SCStreamConfiguration& configuration);

    // Present once capturing, if the backend's clock isn't the host's.
    std::shared_ptr<const CMClock> synchronizationClock() const;

    SCContentFilter filter() const;
    SCStreamConfiguration configuration() const;

    // Screen samples dropped because queueDepth of them were still waiting.
    uint64_t droppedScreenSamples() const { return droppedScreenSamples_; }

private:
    struct OutputEntry {
        std::shared_ptr<SCStreamOutput> output;
        SCStreamOutputType type;
        std::shared_ptr<DispatchQueue> queue;
        // Samples queued for the handler and not yet handled.
        std::shared_ptr<std::atomic<int32_t>> pending = std::make_shared<std::atomic<int32_t>>(0);
    };

    SCStream(SCContentFilter filter, SCStreamConfiguration configuration, std::weak_ptr<SCStreamDelegate> delegate);
    void deliver(SCStreamOutputType type, const CMSampleBuffer& sampleBuffer);
    void stoppedByItself(uint64_t generation, std::exception_ptr error);

    mutable std::mutex mutex_;
    SCContentFilter filter_;
    SCStreamConfiguration configuration_;
    std::weak_ptr<SCStreamDelegate> delegate_;
    std::vector<OutputEntry> outputs_;
    bool capturing_ = false;
    // Counts starts, so that a stop report of an earlier run is ignored.
    uint64_t generation_ = 0;
    std::shared_ptr<ScreenCaptureProducer> producer_;
    std::mutex controlMutex_;
    std::atomic<uint64_t> droppedScreenSamples_{0};
};

}  // namespace ov::platform
