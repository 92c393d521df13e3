#pragma once
// A V4L2 camera of the `linux` backend: one video capture node.
//
// A V4L2 node streams to one opener at a time, so the camera runs one stream
// however many producers ask (the recorder's two sessions, every preview) and
// fans each frame out to all of them. The first producer opens the node and
// starts streaming; the last one to stop ends it and closes the node, so the
// camera's light goes off. A change of the active format or frame duration
// while streaming restarts the stream for every producer.
//
// Frames: MJPEG is decoded once per frame to full-range 4:2:0 ('420f'), YUYV
// is delivered as 'yuvs' and NV12 as '420v'. Times are host times: the
// kernel's monotonic buffer stamp where the driver gives one (uvcvideo does),
// else the moment of dequeueing. Frames that the driver flags as bad and
// JPEGs that don't decode are reported as dropped (a sample without a picture
// carrying the reason), never delivered.
//
// Faults: EBUSY while setting up marks the camera in use by another
// application and fails the start; ENODEV or POLLERR while streaming marks it
// disconnected, tells the provider and fails every producer.

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/av_capture_device.h"
#include "platform/linux/v4l2/v4l2_io.h"

namespace ov::platform {

// The pixel format a V4L2 format is delivered in, or 0 for formats we don't take.
OSType deliveredPixelFormat(uint32_t v4l2PixelFormat);

class V4L2Camera final : public AVCaptureDevice {
public:
    // `v4l2PixelFormats[i]` is the node's pixel format behind `formats[i]`.
    V4L2Camera(std::shared_ptr<V4L2Io> io, std::string nodePath, Identity identity,
               std::vector<AVCaptureDeviceFormatRef> formats, std::vector<uint32_t> v4l2PixelFormats,
               size_t activeFormatIndex, std::function<void()> onGone);
    ~V4L2Camera() override;

    std::shared_ptr<const CMClock> synchronizationClock() const override { return CMClock::hostTimeClock(); }
    std::optional<std::string> devicePath() const override { return nodePath(); }
    std::unique_ptr<CaptureProducer> startProducing(const CaptureProducerRequest& request,
                                                    CaptureProducerSink sink) override;

    // ---- For the provider.
    std::string nodePath() const;
    // The node came back (possibly renumbered) or went.
    void setPresent(bool present, const std::string& nodePath);

    // Producers currently fed (tests, logs).
    size_t producerCount() const;

private:
    class Stream;
    struct Configuration {
        uint32_t pixelFormat = 0;
        int32_t width = 0, height = 0;
        CMTime frameDuration;
        bool operator==(const Configuration& other) const {
            return pixelFormat == other.pixelFormat && width == other.width && height == other.height &&
                   frameDuration == other.frameDuration;
        }
    };
    Configuration currentConfiguration() const;
    void removeSink(uint64_t id);
    void configurationChanged();
    void streamFailed(std::exception_ptr error, bool gone);
    void startStream(const Configuration& configuration);
    void stopStream();

    std::shared_ptr<V4L2Io> io_;
    std::vector<uint32_t> v4l2PixelFormats_;
    std::function<void()> onGone_;
    mutable std::mutex nodeMutex_;
    std::string nodePath_;

    // Held while the stream starts, stops or restarts.
    mutable std::recursive_mutex streamMutex_;
    std::unique_ptr<Stream> stream_;
    std::optional<Configuration> applied_;
    uint64_t nextSinkID_ = 1;
    // The producers' sinks; the capture thread calls them under sinksMutex.
    struct Sinks {
        std::mutex mutex;
        std::map<uint64_t, CaptureProducerSink> table;
    };
    std::shared_ptr<Sinks> sinks_ = std::make_shared<Sinks>();
    KeyValueObservation configurationObservation_;

    friend class V4L2Producer;
};

}  // namespace ov::platform
