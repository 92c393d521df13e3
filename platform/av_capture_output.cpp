#include "platform/av_capture_output.h"

#include <stdexcept>

#include <fmt/format.h>

#include "platform/av_audio_format.h"

namespace ov::platform {

AVAudioFormat audioFormatFromSettings(const AVSettingsDictionary& settings, const AVAudioFormat& source) {
    if (!settings.is_object()) throw std::invalid_argument("audio settings must be a dictionary");
    auto number = [&](const char* key) -> std::optional<double> {
        auto it = settings.find(key);
        if (it == settings.end()) return std::nullopt;
        if (!it->is_number()) throw std::invalid_argument(fmt::format("audio setting {} must be a number", key));
        return it->get<double>();
    };
    auto flag = [&](const char* key) -> std::optional<bool> {
        auto it = settings.find(key);
        if (it == settings.end()) return std::nullopt;
        if (!it->is_boolean()) throw std::invalid_argument(fmt::format("audio setting {} must be a boolean", key));
        return it->get<bool>();
    };
    if (auto formatID = number(AVFormatIDKey); formatID && static_cast<uint32_t>(*formatID) != kAudioFormatLinearPCM)
        throw std::invalid_argument("audio settings: only linear PCM can be delivered");

    const double sampleRate = number(AVSampleRateKey).value_or(source.sampleRate());
    const auto channels = static_cast<AVAudioChannelCount>(number(AVNumberOfChannelsKey).value_or(source.channelCount()));
    const bool interleaved = !flag(AVLinearPCMIsNonInterleaved).value_or(!source.isInterleaved());
    const bool sourceIsFloat = source.commonFormat() == AVAudioCommonFormat::pcmFormatFloat32 ||
                               source.commonFormat() == AVAudioCommonFormat::pcmFormatFloat64;
    const bool isFloat = flag(AVLinearPCMIsFloatKey).value_or(sourceIsFloat);
    const int bitDepth = static_cast<int>(number(AVLinearPCMBitDepthKey).value_or(source.streamDescription().mBitsPerChannel));

    AVAudioCommonFormat common = AVAudioCommonFormat::otherFormat;
    if (isFloat && bitDepth == 32) common = AVAudioCommonFormat::pcmFormatFloat32;
    else if (isFloat && bitDepth == 64) common = AVAudioCommonFormat::pcmFormatFloat64;
    else if (!isFloat && bitDepth == 16) common = AVAudioCommonFormat::pcmFormatInt16;
    else if (!isFloat && bitDepth == 32) common = AVAudioCommonFormat::pcmFormatInt32;
    if (common == AVAudioCommonFormat::otherFormat)
        throw std::invalid_argument(
            fmt::format("audio settings: {} {}-bit samples can't be delivered", isFloat ? "float" : "integer", bitDepth));
    auto format = AVAudioFormat::make(common, sampleRate, channels, interleaved);
    if (!format) throw std::invalid_argument("audio settings: no valid format (sample rate or channel count)");
    return *format;
}

// ---- Inputs and connections.

std::shared_ptr<AVCaptureDeviceInput> AVCaptureDeviceInput::make(AVCaptureDeviceRef device) {
    if (!device) throw std::invalid_argument("AVCaptureDeviceInput needs a device");
    if (!device->isConnected())
        throw PlatformError("AVFoundationErrorDomain", -11814, "Cannot Record",
                            device->debugDescription() + " is not connected");
    return std::shared_ptr<AVCaptureDeviceInput>(new AVCaptureDeviceInput(std::move(device)));
}

std::string AVCaptureDeviceInput::description() const {
    return fmt::format("<AVCaptureDeviceInput: {}>", device_->debugDescription());
}

std::string AVCaptureConnection::description() const {
    return fmt::format("<AVCaptureConnection: {} {} -> {}{}>", input_->device()->localizedName(), toString(mediaType_),
                       output_ ? output_->description() : "none", isEnabled() ? "" : " (disabled)");
}

// ---- Outputs.

std::shared_ptr<AVCaptureConnection> AVCaptureOutput::connection(AVMediaType mediaType) const {
    std::lock_guard lock(connectionsMutex_);
    for (const auto& connection : connections_)
        if (connection->mediaType() == mediaType) return connection;
    return nullptr;
}

std::vector<std::shared_ptr<AVCaptureConnection>> AVCaptureOutput::connections() const {
    std::lock_guard lock(connectionsMutex_);
    return connections_;
}

void AVCaptureOutput::attach(std::shared_ptr<AVCaptureConnection> connection) {
    std::lock_guard lock(connectionsMutex_);
    connections_.push_back(std::move(connection));
}

void AVCaptureOutput::detachAll() {
    std::lock_guard lock(connectionsMutex_);
    connections_.clear();
}

void AVCaptureVideoDataOutput::setSampleBufferDelegate(
    std::weak_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> delegate, std::shared_ptr<DispatchQueue> queue) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
    queue_ = std::move(queue);
}

AVSettingsDictionary AVCaptureVideoDataOutput::videoSettings() const {
    std::lock_guard lock(mutex_);
    return settings_;
}

void AVCaptureVideoDataOutput::setVideoSettings(AVSettingsDictionary settings) {
    if (settings.is_null()) settings = AVSettingsDictionary::object();
    if (!settings.is_object()) throw std::invalid_argument("video settings must be a dictionary");
    if (auto it = settings.find(kCVPixelBufferPixelFormatTypeKey); it != settings.end()) {
        if (!it->is_number_unsigned() || !CVPixelBuffer::isSupportedPixelFormat(it->get<uint32_t>()))
            throw std::invalid_argument("video settings: unsupported pixel format");
    }
    std::lock_guard lock(mutex_);
    settings_ = std::move(settings);
}

CaptureProducerRequest AVCaptureVideoDataOutput::requestFor(const AVCaptureConnection& connection) const {
    std::lock_guard lock(mutex_);
    CaptureProducerRequest request;
    request.mediaType = connection.mediaType();
    auto read = [&](const char* key) -> int64_t {
        auto it = settings_.find(key);
        return it != settings_.end() && it->is_number_integer() ? it->get<int64_t>() : 0;
    };
    request.pixelFormat = static_cast<OSType>(read(kCVPixelBufferPixelFormatTypeKey));
    request.width = static_cast<int32_t>(read(kCVPixelBufferWidthKey));
    request.height = static_cast<int32_t>(read(kCVPixelBufferHeightKey));
    return request;
}

void AVCaptureVideoDataOutput::deliver(const CMSampleBuffer& sampleBuffer,
                                       const std::shared_ptr<AVCaptureConnection>& connection) {
    std::weak_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> delegate;
    std::shared_ptr<DispatchQueue> queue;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_;
        queue = queue_;
    }
    if (!queue || delegate.expired()) return;
    auto inFlight = inFlight_;
    // A device that discarded a frame itself (corrupt, flagged by the driver)
    // hands a sample without a picture that carries the reason.
    if (!sampleBuffer.imageBuffer() &&
        sampleBuffer.attachments().contains(kCMSampleBufferAttachmentKey_DroppedFrameReason)) {
        queue->async([self = shared_from_this(), delegate, sampleBuffer, connection] {
            if (auto target = delegate.lock()) target->captureOutputDidDrop(*self, sampleBuffer, *connection);
        });
        return;
    }
    // A frame that finds the delegate still busy is late: it is reported as
    // dropped instead of queueing up behind the others.
    if (discardsLate_ && inFlight->load() > 0) {
        CMSampleBuffer::Contents contents;
        contents.formatDescription = sampleBuffer.formatDescription();
        contents.numSamples = 1;
        contents.timing = sampleBuffer.sampleTimingInfos();
        contents.attachments = {{kCMSampleBufferAttachmentKey_DroppedFrameReason,
                                 kCMSampleBufferDroppedFrameReason_FrameWasLate}};
        CMSampleBuffer dropped;
        try {
            dropped = CMSampleBuffer::create(std::move(contents));
        } catch (const std::exception&) {
            return;
        }
        queue->async([self = shared_from_this(), delegate, dropped, connection] {
            if (auto target = delegate.lock()) target->captureOutputDidDrop(*self, dropped, *connection);
        });
        return;
    }
    inFlight->fetch_add(1);
    queue->async([self = shared_from_this(), delegate, sampleBuffer, connection, inFlight] {
        struct Done {
            std::shared_ptr<std::atomic<int>> count;
            ~Done() { count->fetch_sub(1); }
        } done{inFlight};
        if (auto target = delegate.lock()) target->captureOutput(*self, sampleBuffer, *connection);
    });
}

void AVCaptureAudioDataOutput::setSampleBufferDelegate(
    std::weak_ptr<AVCaptureAudioDataOutputSampleBufferDelegate> delegate, std::shared_ptr<DispatchQueue> queue) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
    queue_ = std::move(queue);
}

AVSettingsDictionary AVCaptureAudioDataOutput::audioSettings() const {
    std::lock_guard lock(mutex_);
    return settings_;
}

void AVCaptureAudioDataOutput::setAudioSettings(AVSettingsDictionary settings) {
    if (settings.is_null()) settings = AVSettingsDictionary::object();
    // Checked against a typical source, so that a bad dictionary fails here
    // rather than when the session starts.
    audioFormatFromSettings(settings, *AVAudioFormat::standard(48000, 2));
    std::lock_guard lock(mutex_);
    settings_ = std::move(settings);
}

CaptureProducerRequest AVCaptureAudioDataOutput::requestFor(const AVCaptureConnection& connection) const {
    std::lock_guard lock(mutex_);
    CaptureProducerRequest request;
    request.mediaType = connection.mediaType();
    if (!settings_.empty()) {
        const auto& device = connection.input()->device();
        auto active = device->activeFormat();
        std::optional<AVAudioFormat> source;
        if (active && active->formatDescription()) source = AVAudioFormat::fromFormatDescription(*active->formatDescription());
        if (!source) source = AVAudioFormat::standard(48000, 1);
        request.audioFormat = audioFormatFromSettings(settings_, *source);
    }
    return request;
}

void AVCaptureAudioDataOutput::deliver(const CMSampleBuffer& sampleBuffer,
                                       const std::shared_ptr<AVCaptureConnection>& connection) {
    std::weak_ptr<AVCaptureAudioDataOutputSampleBufferDelegate> delegate;
    std::shared_ptr<DispatchQueue> queue;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_;
        queue = queue_;
    }
    if (!queue || delegate.expired()) return;
    queue->async([self = shared_from_this(), delegate, sampleBuffer, connection] {
        if (auto target = delegate.lock()) target->captureOutput(*self, sampleBuffer, *connection);
    });
}

}  // namespace ov::platform
