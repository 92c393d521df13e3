#pragma once
// Inputs, outputs and connections of a capture session.
//
// A device input stands for one device in a session. A data output hands
// every sample of its connection to a delegate on a serial queue of the
// caller's choice, in capture order. A connection joins an input's media of
// one type to the output that accepts it; the session makes connections as
// inputs and outputs are added.
//
// Delegates are held weakly: an output never keeps its recorder alive, and a
// delegate that is gone gets nothing.

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/av_capture_device.h"
#include "platform/dispatch_queue.h"

namespace ov::platform {

class AVCaptureOutput;
class AVCaptureSession;

// Settings dictionaries: string keys, property-list values.
using AVSettingsDictionary = nlohmann::json;

// Video data output settings.
inline constexpr const char* kCVPixelBufferPixelFormatTypeKey = "PixelFormatType";
inline constexpr const char* kCVPixelBufferWidthKey = "Width";
inline constexpr const char* kCVPixelBufferHeightKey = "Height";
// Audio data output settings (linear PCM only).
inline constexpr const char* AVFormatIDKey = "AVFormatIDKey";
inline constexpr const char* AVSampleRateKey = "AVSampleRateKey";
inline constexpr const char* AVNumberOfChannelsKey = "AVNumberOfChannelsKey";
inline constexpr const char* AVLinearPCMBitDepthKey = "AVLinearPCMBitDepthKey";
inline constexpr const char* AVLinearPCMIsFloatKey = "AVLinearPCMIsFloatKey";
inline constexpr const char* AVLinearPCMIsNonInterleaved = "AVLinearPCMIsNonInterleaved";

// The PCM format that audio settings ask for, filled from `source` where they
// are silent. Throws std::invalid_argument for settings that aren't linear PCM
// of a sample type that the platform can deliver (16 or 32 bit integer,
// 32 or 64 bit float).
AVAudioFormat audioFormatFromSettings(const AVSettingsDictionary& settings, const AVAudioFormat& source);

class AVCaptureInput {
public:
    virtual ~AVCaptureInput() = default;
    virtual std::string description() const = 0;
};

class AVCaptureDeviceInput final : public AVCaptureInput {
public:
    // Throws a PlatformError when the device is no longer connected.
    static std::shared_ptr<AVCaptureDeviceInput> make(AVCaptureDeviceRef device);

    const AVCaptureDeviceRef& device() const { return device_; }
    std::string description() const override;

private:
    explicit AVCaptureDeviceInput(AVCaptureDeviceRef device) : device_(std::move(device)) {}
    AVCaptureDeviceRef device_;
};

// One input's media of one type flowing into one output.
class AVCaptureConnection {
public:
    AVCaptureConnection(std::shared_ptr<AVCaptureDeviceInput> input, AVMediaType mediaType, AVCaptureOutput* output)
        : input_(std::move(input)), mediaType_(mediaType), output_(output) {}

    const std::shared_ptr<AVCaptureDeviceInput>& input() const { return input_; }
    AVMediaType mediaType() const { return mediaType_; }
    AVCaptureOutput* output() const { return output_; }
    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }
    // Enabled and its device connected.
    bool isActive() const { return enabled_ && input_->device()->isConnected(); }
    std::string description() const;

private:
    std::shared_ptr<AVCaptureDeviceInput> input_;
    AVMediaType mediaType_;
    AVCaptureOutput* output_;
    std::atomic<bool> enabled_{true};
};

class AVCaptureOutput : public std::enable_shared_from_this<AVCaptureOutput> {
public:
    virtual ~AVCaptureOutput() = default;

    // The connection that carries `mediaType` into this output, or null.
    std::shared_ptr<AVCaptureConnection> connection(AVMediaType mediaType) const;
    std::vector<std::shared_ptr<AVCaptureConnection>> connections() const;
    // The media this output takes: from devices of that type, and from muxed ones.
    virtual AVMediaType mediaType() const = 0;
    virtual std::string description() const = 0;

    // ---- For the session.
    // What the producer feeding `connection` is asked for.
    virtual CaptureProducerRequest requestFor(const AVCaptureConnection& connection) const = 0;
    // Hands a sample to the delegate on its queue.
    virtual void deliver(const CMSampleBuffer& sampleBuffer, const std::shared_ptr<AVCaptureConnection>& connection) = 0;
    void attach(std::shared_ptr<AVCaptureConnection> connection);
    void detachAll();

private:
    mutable std::mutex connectionsMutex_;
    std::vector<std::shared_ptr<AVCaptureConnection>> connections_;
};

class AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    virtual ~AVCaptureVideoDataOutputSampleBufferDelegate() = default;
    // Every sample, on the delegate queue, in capture order.
    virtual void captureOutput(AVCaptureOutput& output, const CMSampleBuffer& sampleBuffer,
                               AVCaptureConnection& connection) = 0;
    // A frame that was discarded; the buffer has no picture and carries the
    // reason in its "DroppedFrameReason" attachment.
    virtual void captureOutputDidDrop(AVCaptureOutput& /*output*/, const CMSampleBuffer& /*sampleBuffer*/,
                                      AVCaptureConnection& /*connection*/) {}
};

class AVCaptureAudioDataOutputSampleBufferDelegate {
public:
    virtual ~AVCaptureAudioDataOutputSampleBufferDelegate() = default;
    virtual void captureOutput(AVCaptureOutput& output, const CMSampleBuffer& sampleBuffer,
                               AVCaptureConnection& connection) = 0;
};

class AVCaptureVideoDataOutput final : public AVCaptureOutput {
public:
    static std::shared_ptr<AVCaptureVideoDataOutput> make() {
        return std::shared_ptr<AVCaptureVideoDataOutput>(new AVCaptureVideoDataOutput());
    }

    void setSampleBufferDelegate(std::weak_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> delegate,
                                 std::shared_ptr<DispatchQueue> queue);
    // Keys kCVPixelBufferPixelFormatTypeKey (a four-character code as a
    // number), kCVPixelBufferWidthKey, kCVPixelBufferHeightKey; empty keeps the
    // device's format.
    AVSettingsDictionary videoSettings() const;
    void setVideoSettings(AVSettingsDictionary settings);
    // When true (the default), a frame that arrives while the delegate is still
    // busy with an earlier one is dropped and reported through didDrop.
    bool alwaysDiscardsLateVideoFrames() const { return discardsLate_; }
    void setAlwaysDiscardsLateVideoFrames(bool discards) { discardsLate_ = discards; }

    AVMediaType mediaType() const override { return AVMediaType::video; }
    std::string description() const override { return "<AVCaptureVideoDataOutput>"; }
    CaptureProducerRequest requestFor(const AVCaptureConnection& connection) const override;
    void deliver(const CMSampleBuffer& sampleBuffer, const std::shared_ptr<AVCaptureConnection>& connection) override;

private:
    AVCaptureVideoDataOutput() = default;
    mutable std::mutex mutex_;
    std::weak_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> delegate_;
    std::shared_ptr<DispatchQueue> queue_;
    AVSettingsDictionary settings_ = AVSettingsDictionary::object();
    std::atomic<bool> discardsLate_{true};
    std::shared_ptr<std::atomic<int>> inFlight_ = std::make_shared<std::atomic<int>>(0);
};

class AVCaptureAudioDataOutput final : public AVCaptureOutput {
public:
    static std::shared_ptr<AVCaptureAudioDataOutput> make() {
        return std::shared_ptr<AVCaptureAudioDataOutput>(new AVCaptureAudioDataOutput());
    }

    void setSampleBufferDelegate(std::weak_ptr<AVCaptureAudioDataOutputSampleBufferDelegate> delegate,
                                 std::shared_ptr<DispatchQueue> queue);
    // Linear PCM settings (see audioFormatFromSettings); empty keeps the
    // device's format. Checked when set: std::invalid_argument for others.
    AVSettingsDictionary audioSettings() const;
    void setAudioSettings(AVSettingsDictionary settings);

    AVMediaType mediaType() const override { return AVMediaType::audio; }
    std::string description() const override { return "<AVCaptureAudioDataOutput>"; }
    CaptureProducerRequest requestFor(const AVCaptureConnection& connection) const override;
    void deliver(const CMSampleBuffer& sampleBuffer, const std::shared_ptr<AVCaptureConnection>& connection) override;

private:
    AVCaptureAudioDataOutput() = default;
    mutable std::mutex mutex_;
    std::weak_ptr<AVCaptureAudioDataOutputSampleBufferDelegate> delegate_;
    std::shared_ptr<DispatchQueue> queue_;
    AVSettingsDictionary settings_ = AVSettingsDictionary::object();
};

}  // namespace ov::platform
