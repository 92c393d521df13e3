#pragma once
// The producer of a capture device (a camera, a microphone, a phone): what a
// backend implements so that AVCaptureDevice and AVCaptureSession can run it.
//
// Threads: a producer calls its sink from a thread of its own (one per
// running producer), one call at a time and in capture order. The sink must
// not block for long: a backend that waits on it loses samples.
//
// stop(): once it returns, no sink call is running and none follows. It
// returns within a bounded time even when the source has stalled (a source
// that does not answer is abandoned, not waited for). Destroying a producer
// stops it.

#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "platform/av_audio_format.h"
#include "platform/cm_format_description.h"
#include "platform/cm_sample_buffer.h"

namespace ov::platform {

// The kinds of media that a device delivers.
enum class AVMediaType { video, audio, muxed };
// "vide", "soun", "muxx": the platform's own names, for logs.
std::string toString(AVMediaType mediaType);

// What a running capture connection asks a device for.
struct CaptureProducerRequest {
    AVMediaType mediaType = AVMediaType::video;
    // Video: the pixel format and size wanted; 0 keeps the device's own.
    OSType pixelFormat = 0;
    int32_t width = 0;
    int32_t height = 0;
    // Audio: the PCM format wanted; absent keeps the device's own.
    std::optional<AVAudioFormat> audioFormat;
};

// Where a producer delivers, on its own thread, in capture order.
struct CaptureProducerSink {
    std::function<void(const CMSampleBuffer&)> output;
    // The device ended delivery by itself (an error, a disconnect).
    std::function<void(std::exception_ptr)> failed;
};

// A running source of samples. stop() ends delivery: once it returns, the
// sink is not called again. Destroying a producer stops it.
class CaptureProducer {
public:
    virtual ~CaptureProducer() = default;
    virtual void stop() = 0;
};

}  // namespace ov::platform
