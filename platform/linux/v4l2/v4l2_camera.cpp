#include "platform/linux/v4l2/v4l2_camera.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "foundation/platform_error.h"
#include "platform/jpeg_codec.h"
#include "platform/os_log.h"

namespace ov::platform {

namespace {

constexpr uint32_t kBufferCount = 4;
constexpr int64_t kAVErrorDeviceInUseByAnotherApplication = -11815;
constexpr int64_t kAVErrorDeviceWasDisconnected = -11808;
constexpr int64_t kAVErrorUnknown = -11800;

OSLog& log() {
    static OSLog instance(OSLog::defaultSubsystem, "V4L2");
    return instance;
}

// A failing system call while setting up or streaming.
struct V4L2CallError {
    std::string call;
    int error;
};

// UVC YUYV and NV12 are BT.601 video range; MJPEG is BT.601 full range (JFIF).
std::map<std::string, std::string> colorExtensions() {
    return {{CMFormatDescription::kYCbCrMatrix, "ITU_R_601_4"}};
}

}  // namespace

OSType deliveredPixelFormat(uint32_t v4l2PixelFormat) {
    switch (v4l2PixelFormat) {
        case V4L2_PIX_FMT_MJPEG: return kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
        case V4L2_PIX_FMT_YUYV: return kCVPixelFormatType_422YpCbCr8_yuvs;
        case V4L2_PIX_FMT_NV12: return kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
        default: return 0;
    }
}

// ---- One stream of a node: open, map, stream on, and a thread that dequeues.

class V4L2Camera::Stream {
public:
    using Failure = std::function<void(std::exception_ptr, bool gone)>;

    Stream(std::shared_ptr<V4L2Io> io, std::string path, Configuration configuration, std::shared_ptr<Sinks> sinks,
           Failure onFailure)
        : io_(std::move(io)),
          path_(std::move(path)),
          configuration_(configuration),
          sinks_(std::move(sinks)),
          onFailure_(std::move(onFailure)) {}
    ~Stream() { stop(); }

    // Throws V4L2CallError; what was set up is taken down again.
    void start() {
        try {
            open();
        } catch (...) {
            release();
            throw;
        }
        thread_ = std::thread([this] { run(); });
    }

    void stop() {
        if (wake_ >= 0) {
            const uint64_t one = 1;
            [[maybe_unused]] auto written = ::write(wake_, &one, sizeof one);
        }
        if (thread_.joinable()) thread_.join();
        release();
    }

private:
    void call(const char* name, unsigned long request, void* argument) {
        if (io_->ioctl(fd_, request, argument) < 0) throw V4L2CallError{name, errno};
    }

    void open() {
        fd_ = io_->open(path_, O_RDWR | O_NONBLOCK);
        if (fd_ < 0) throw V4L2CallError{"open", errno};
        v4l2_format format{};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        format.fmt.pix.width = uint32_t(configuration_.width);
        format.fmt.pix.height = uint32_t(configuration_.height);
        format.fmt.pix.pixelformat = configuration_.pixelFormat;
        format.fmt.pix.field = V4L2_FIELD_ANY;
        call("VIDIOC_S_FMT", VIDIOC_S_FMT, &format);
        // The driver may round; what it says is what it sends.
        width_ = int32_t(format.fmt.pix.width);
        height_ = int32_t(format.fmt.pix.height);
        bytesPerLine_ = format.fmt.pix.bytesperline;
        if (configuration_.frameDuration.isNumeric() && configuration_.frameDuration.value > 0) {
            v4l2_streamparm parm{};
            parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            parm.parm.capture.timeperframe.numerator = uint32_t(configuration_.frameDuration.value);
            parm.parm.capture.timeperframe.denominator = uint32_t(configuration_.frameDuration.timescale);
            // Drivers without frame rate control refuse; they run at their own rate.
            if (io_->ioctl(fd_, VIDIOC_S_PARM, &parm) < 0 && errno != ENOTTY && errno != EINVAL)
                throw V4L2CallError{"VIDIOC_S_PARM", errno};
        }
        v4l2_requestbuffers request{};
        request.count = kBufferCount;
        request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        request.memory = V4L2_MEMORY_MMAP;
        call("VIDIOC_REQBUFS", VIDIOC_REQBUFS, &request);
        requested_ = true;
        if (request.count == 0) throw V4L2CallError{"VIDIOC_REQBUFS", ENOMEM};
        for (uint32_t i = 0; i < request.count; ++i) {
            v4l2_buffer buffer{};
            buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            buffer.memory = V4L2_MEMORY_MMAP;
            buffer.index = i;
            call("VIDIOC_QUERYBUF", VIDIOC_QUERYBUF, &buffer);
            void* address = io_->mmap(buffer.length, fd_, off_t(buffer.m.offset));
            if (address == MAP_FAILED) throw V4L2CallError{"mmap", errno};
            mappings_.push_back({address, buffer.length});
        }
        for (uint32_t i = 0; i < mappings_.size(); ++i) {
            v4l2_buffer buffer{};
            buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            buffer.memory = V4L2_MEMORY_MMAP;
            buffer.index = i;
            call("VIDIOC_QBUF", VIDIOC_QBUF, &buffer);
        }
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        call("VIDIOC_STREAMON", VIDIOC_STREAMON, &type);
        streaming_ = true;
        wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wake_ < 0) throw V4L2CallError{"eventfd", errno};
    }

    // Takes down whatever is up, in reverse order; the node is closed last.
    void release() {
        if (fd_ >= 0) {
            if (streaming_) {
                int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
                io_->ioctl(fd_, VIDIOC_STREAMOFF, &type);
                streaming_ = false;
            }
            for (const auto& mapping : mappings_) io_->munmap(mapping.address, mapping.length);
            mappings_.clear();
            if (requested_) {
                v4l2_requestbuffers request{};
                request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
                request.memory = V4L2_MEMORY_MMAP;
                io_->ioctl(fd_, VIDIOC_REQBUFS, &request);
                requested_ = false;
            }
            io_->close(fd_);
            fd_ = -1;
        }
        if (wake_ >= 0) {
            ::close(wake_);
            wake_ = -1;
        }
    }

    void run() {
        pthread_setname_np(pthread_self(), "V4L2Capture");
        for (;;) {
            pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_, POLLIN, 0}};
            const int ready = io_->poll(fds, 2, 1000);
            if (ready < 0) {
                if (errno == EINTR) continue;
                fail(V4L2CallError{"poll", errno}, false);
                return;
            }
            if (fds[1].revents) return;
            if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
                fail(V4L2CallError{"poll", ENODEV}, true);
                return;
            }
            if (!(fds[0].revents & POLLIN)) continue;
            for (;;) {
                v4l2_buffer buffer{};
                buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
                buffer.memory = V4L2_MEMORY_MMAP;
                if (io_->ioctl(fd_, VIDIOC_DQBUF, &buffer) < 0) {
                    if (errno == EAGAIN) break;
                    if (errno == EINTR || errno == EIO) continue;  // EIO: one lost frame, the stream goes on
                    fail(V4L2CallError{"VIDIOC_DQBUF", errno}, errno == ENODEV);
                    return;
                }
                const CMSampleBuffer sample = frame(buffer);
                // Back to the driver at once: the frame was copied or decoded.
                if (io_->ioctl(fd_, VIDIOC_QBUF, &buffer) < 0 && errno == ENODEV) {
                    fail(V4L2CallError{"VIDIOC_QBUF", errno}, true);
                    return;
                }
                if (!sample.isValid()) continue;
                std::lock_guard lock(sinks_->mutex);
                for (auto& [id, sink] : sinks_->table)
                    if (sink.output) sink.output(sample);
            }
        }
    }

    CMTime presentationTime(const v4l2_buffer& buffer) const {
        if ((buffer.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC)
            return hostTimeFromNanoseconds(uint64_t(buffer.timestamp.tv_sec) * 1'000'000'000ull +
                                           uint64_t(buffer.timestamp.tv_usec) * 1000ull);
        return hostTimeNow();
    }

    CMSampleBuffer dropped(const CMSampleTimingInfo& timing, const std::string& info) {
        CMSampleBuffer::Contents contents;
        contents.formatDescription = CMFormatDescription::makeVideo(deliveredPixelFormat(configuration_.pixelFormat),
                                                                    {width_, height_}, colorExtensions());
        contents.numSamples = 1;
        contents.timing = {timing};
        contents.attachments = {{kCMSampleBufferAttachmentKey_DroppedFrameReason,
                                 kCMSampleBufferDroppedFrameReason_Discontinuity},
                                {kCMSampleBufferAttachmentKey_DroppedFrameReasonInfo, info}};
        return CMSampleBuffer::create(std::move(contents));
    }

    // The dequeued buffer as a sample, or a dropped sample.
    CMSampleBuffer frame(const v4l2_buffer& buffer) {
        const CMSampleTimingInfo timing{configuration_.frameDuration, presentationTime(buffer), kCMTimeInvalid};
        if (buffer.index >= mappings_.size()) return {};
        if (buffer.flags & V4L2_BUF_FLAG_ERROR) return dropped(timing, "The driver flagged the frame as corrupt.");
        const auto* data = static_cast<const uint8_t*>(mappings_[buffer.index].address);
        const size_t used = std::min<size_t>(buffer.bytesused, mappings_[buffer.index].length);
        std::shared_ptr<CVPixelBuffer> picture;
        const uint32_t stride = bytesPerLine_;
        switch (configuration_.pixelFormat) {
            case V4L2_PIX_FMT_MJPEG:
                picture = decoder_.decode(data, used);
                if (!picture) return dropped(timing, "The JPEG frame doesn't decode: " + decoder_.lastError());
                break;
            case V4L2_PIX_FMT_YUYV: {
                const size_t rowBytes = size_t(width_) * 2;
                const size_t lineStride = stride ? stride : rowBytes;
                if (used < lineStride * size_t(height_ - 1) + rowBytes) return dropped(timing, "The frame is truncated.");
                picture = CVPixelBuffer::make(width_, height_, kCVPixelFormatType_422YpCbCr8_yuvs);
                for (int32_t row = 0; row < height_; ++row)
                    std::memcpy(picture->baseAddress() + row * picture->bytesPerRow(), data + row * lineStride, rowBytes);
                break;
            }
            case V4L2_PIX_FMT_NV12: {
                const size_t lineStride = stride ? stride : size_t(width_);
                const size_t chromaRows = size_t(height_ + 1) / 2;
                if (used < lineStride * (size_t(height_) + chromaRows)) return dropped(timing, "The frame is truncated.");
                picture = CVPixelBuffer::make(width_, height_, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);
                for (int32_t row = 0; row < height_; ++row)
                    std::memcpy(picture->baseAddressOfPlane(0) + row * picture->bytesPerRowOfPlane(0),
                                data + row * lineStride, size_t(width_));
                const uint8_t* chroma = data + lineStride * size_t(height_);
                for (size_t row = 0; row < chromaRows; ++row)
                    std::memcpy(picture->baseAddressOfPlane(1) + row * picture->bytesPerRowOfPlane(1),
                                chroma + row * lineStride, picture->widthOfPlane(1) * 2);
                break;
            }
            default: return {};
        }
        if (!description_ || !description_->matchesImageBuffer(*picture))
            description_ = CMFormatDescription::makeForImageBuffer(*picture, colorExtensions());
        return CMSampleBuffer::makeForImageBuffer(std::move(picture), timing, description_);
    }

    void fail(const V4L2CallError& error, bool gone) {
        log().error(fmt::format("{}: {} failed while streaming: {}", path_, error.call, std::strerror(error.error)));
        auto exception = std::make_exception_ptr(PlatformError(
            "AVFoundationErrorDomain", gone ? kAVErrorDeviceWasDisconnected : kAVErrorUnknown,
            gone ? "The device was disconnected." : "The camera stopped delivering.",
            fmt::format("{} on {}: {}", error.call, path_, std::strerror(error.error))));
        onFailure_(exception, gone);
    }

    struct Mapping {
        void* address;
        size_t length;
    };
    std::shared_ptr<V4L2Io> io_;
    std::string path_;
    Configuration configuration_;
    std::shared_ptr<Sinks> sinks_;
    Failure onFailure_;
    int fd_ = -1;
    int wake_ = -1;
    bool requested_ = false;
    bool streaming_ = false;
    int32_t width_ = 0, height_ = 0;
    uint32_t bytesPerLine_ = 0;
    std::vector<Mapping> mappings_;
    std::thread thread_;
    JPEGDecoder decoder_;
    CMFormatDescriptionRef description_;
};

// ---- Producers: one sink each in the camera's table.

class V4L2Producer final : public CaptureProducer {
public:
    V4L2Producer(std::weak_ptr<V4L2Camera> camera, uint64_t id) : camera_(std::move(camera)), id_(id) {}
    ~V4L2Producer() override { stop(); }
    void stop() override {
        if (stopped_.exchange(true)) return;
        if (auto camera = camera_.lock()) camera->removeSink(id_);
    }

private:
    std::weak_ptr<V4L2Camera> camera_;
    uint64_t id_;
    std::atomic<bool> stopped_{false};
};

// ---- The camera.

V4L2Camera::V4L2Camera(std::shared_ptr<V4L2Io> io, std::string nodePath, Identity identity,
                       std::vector<AVCaptureDeviceFormatRef> formats, std::vector<uint32_t> v4l2PixelFormats,
                       size_t activeFormatIndex, std::function<void()> onGone)
    : AVCaptureDevice(std::move(identity), std::move(formats), activeFormatIndex),
      io_(std::move(io)),
      v4l2PixelFormats_(std::move(v4l2PixelFormats)),
      onGone_(std::move(onGone)),
      nodePath_(std::move(nodePath)) {
    configurationObservation_ =
        observe({"activeFormat", "activeVideoMinFrameDuration"}, [this](const std::string&) { configurationChanged(); });
}

V4L2Camera::~V4L2Camera() {
    configurationObservation_ = {};
    std::lock_guard lock(streamMutex_);
    stream_.reset();
}

std::string V4L2Camera::nodePath() const {
    std::lock_guard lock(nodeMutex_);
    return nodePath_;
}

void V4L2Camera::setPresent(bool present, const std::string& nodePath) {
    if (present) {
        std::lock_guard lock(nodeMutex_);
        nodePath_ = nodePath;
    }
    if (present) setInUseByAnotherApplication(false);
    setConnected(present);
}

size_t V4L2Camera::producerCount() const {
    std::lock_guard lock(sinks_->mutex);
    return sinks_->table.size();
}

V4L2Camera::Configuration V4L2Camera::currentConfiguration() const {
    Configuration configuration;
    const auto format = activeFormat();
    for (size_t i = 0; i < formats().size(); ++i)
        if (formats()[i] == format) configuration.pixelFormat = v4l2PixelFormats_.at(i);
    const auto dimensions = format->formatDescription()->dimensions();
    configuration.width = dimensions.width;
    configuration.height = dimensions.height;
    configuration.frameDuration = activeVideoMinFrameDuration();
    if (!configuration.frameDuration.isNumeric()) configuration.frameDuration = format->formatDescription()->frameDuration();
    return configuration;
}

namespace {
PlatformError startError(const V4L2CallError& error, const std::string& path, const std::string& device) {
    if (error.error == EBUSY)
        return PlatformError("AVFoundationErrorDomain", kAVErrorDeviceInUseByAnotherApplication,
                             "The camera is in use by another application.",
                             fmt::format("{} on {} ({}): {}", error.call, path, device, std::strerror(error.error)));
    if (error.error == ENODEV || error.error == ENOENT)
        return PlatformError("AVFoundationErrorDomain", -11814, "Cannot Record",
                             fmt::format("{} on {} ({}): {}", error.call, path, device, std::strerror(error.error)));
    return PlatformError("AVFoundationErrorDomain", kAVErrorUnknown, "The camera can't be started.",
                         fmt::format("{} on {} ({}): {}", error.call, path, device, std::strerror(error.error)));
}
}  // namespace

void V4L2Camera::startStream(const Configuration& configuration) {
    std::weak_ptr<V4L2Camera> weak = std::static_pointer_cast<V4L2Camera>(shared_from_this());
    auto stream = std::make_unique<Stream>(io_, nodePath(), configuration, sinks_,
                                           [weak](std::exception_ptr error, bool gone) {
                                               if (auto self = weak.lock()) self->streamFailed(error, gone);
                                           });
    try {
        stream->start();
    } catch (const V4L2CallError& error) {
        if (error.error == EBUSY) setInUseByAnotherApplication(true);
        log().error(fmt::format("{}: {} failed: {}", nodePath(), error.call, std::strerror(error.error)));
        throw startError(error, nodePath(), debugDescription());
    }
    log().info(fmt::format("{}: streaming {} {}x{}", nodePath(), fourCharCodeString(configuration.pixelFormat),
                           configuration.width, configuration.height));
    stream_ = std::move(stream);
    applied_ = configuration;
}

void V4L2Camera::stopStream() {
    if (!stream_) return;
    stream_.reset();
    log().info(nodePath() + ": stream stopped and node closed");
}

std::unique_ptr<CaptureProducer> V4L2Camera::startProducing(const CaptureProducerRequest& request,
                                                            CaptureProducerSink sink) {
    if (request.mediaType != AVMediaType::video)
        throw std::invalid_argument(debugDescription() + " has no " + toString(request.mediaType) + " media");
    if (!isConnected())
        throw PlatformError("AVFoundationErrorDomain", -11814, "Cannot Record", debugDescription() + " is not connected");
    std::lock_guard lock(streamMutex_);
    const uint64_t id = nextSinkID_++;
    {
        std::lock_guard sinksLock(sinks_->mutex);
        sinks_->table.emplace(id, std::move(sink));
    }
    if (!stream_) {
        try {
            startStream(currentConfiguration());
        } catch (...) {
            std::lock_guard sinksLock(sinks_->mutex);
            sinks_->table.erase(id);
            throw;
        }
    }
    return std::make_unique<V4L2Producer>(std::static_pointer_cast<V4L2Camera>(shared_from_this()), id);
}

void V4L2Camera::removeSink(uint64_t id) {
    std::lock_guard lock(streamMutex_);
    bool empty;
    {
        std::lock_guard sinksLock(sinks_->mutex);
        sinks_->table.erase(id);
        empty = sinks_->table.empty();
    }
    if (empty) stopStream();
}

void V4L2Camera::configurationChanged() {
    const auto configuration = currentConfiguration();
    std::lock_guard lock(streamMutex_);
    if (applied_ && *applied_ == configuration) return;
    if (stream_) {
        // A new format needs new buffers: the whole stream starts again.
        log().info(nodePath() + ": format changed while streaming, restarting the stream");
        stopStream();
        try {
            startStream(configuration);
        } catch (...) {
            std::map<uint64_t, CaptureProducerSink> sinks;
            {
                std::lock_guard sinksLock(sinks_->mutex);
                sinks = sinks_->table;
            }
            for (auto& [id, sink] : sinks)
                if (sink.failed) sink.failed(std::current_exception());
        }
        return;
    }
    // Idle: tell the driver now, so that the node reports the chosen format.
    const int fd = io_->open(nodePath(), O_RDWR | O_NONBLOCK);
    if (fd < 0) return;
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = uint32_t(configuration.width);
    format.fmt.pix.height = uint32_t(configuration.height);
    format.fmt.pix.pixelformat = configuration.pixelFormat;
    format.fmt.pix.field = V4L2_FIELD_ANY;
    if (io_->ioctl(fd, VIDIOC_S_FMT, &format) < 0) {
        if (errno == EBUSY) setInUseByAnotherApplication(true);
        log().error(fmt::format("{}: VIDIOC_S_FMT failed: {}", nodePath(), std::strerror(errno)));
    } else if (configuration.frameDuration.isNumeric() && configuration.frameDuration.value > 0) {
        v4l2_streamparm parm{};
        parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        parm.parm.capture.timeperframe.numerator = uint32_t(configuration.frameDuration.value);
        parm.parm.capture.timeperframe.denominator = uint32_t(configuration.frameDuration.timescale);
        io_->ioctl(fd, VIDIOC_S_PARM, &parm);
        applied_ = configuration;
    }
    io_->close(fd);
}

void V4L2Camera::streamFailed(std::exception_ptr error, bool gone) {
    // On the capture thread: tell every producer; the stream is taken down
    // when they stop.
    if (gone) setConnected(false);
    std::map<uint64_t, CaptureProducerSink> sinks;
    {
        std::lock_guard lock(sinks_->mutex);
        sinks = sinks_->table;
    }
    for (auto& [id, sink] : sinks)
        if (sink.failed) sink.failed(error);
    if (gone && onGone_) onGone_();
}

}  // namespace ov::platform
