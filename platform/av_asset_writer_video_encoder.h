#pragma once
// The writer's video encoder: H.264 (libx264) or HEVC (libx265) with the
// recorders' real-time settings, keyframes forced by time, colour tags of
// BT.709 or Display P3. Times are 90 kHz ticks from the session start.
// Encoder thread only.

#include <cstdint>
#include <optional>

#include "platform/av_asset_writer_pixel_conversion.h"
#include "platform/av_asset_writer_support.h"
#include "platform/av_capture_output.h"

extern "C" {
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
}

namespace ov::platform {
class CVPixelBuffer;
}

namespace ov::platform::writer {

class VideoEncoder {
public:
    static constexpr int kTimescale = 90000;

    // Throws the writer's error when the encoder can't be opened. Keyframes
    // come at most `segmentInterval` apart where one is given.
    VideoEncoder(const AVSettingsDictionary& settings, bool globalHeader, std::optional<double> segmentInterval);
    ~VideoEncoder();
    VideoEncoder(const VideoEncoder&) = delete;
    VideoEncoder& operator=(const VideoEncoder&) = delete;

    AVCodecContext* context() const { return encoder_; }
    int timescale() const { return kTimescale; }
    // The sample entry the container should use ("hvc1" for HEVC), or 0.
    uint32_t codecTag() const;

    // Encodes `image` shown at `ticks`. Pictures not after the previous one are
    // dropped (the container needs increasing times). `forceKeyframe` makes
    // this picture a keyframe (a segment starts here).
    void encode(const CVPixelBuffer& image, int64_t ticks, bool forceKeyframe, const PacketSink& sink);
    // No more pictures: the encoder's last packets.
    void flush(const PacketSink& sink);

private:
    AVCodecContext* encoder_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    bool hevc_ = false;
    double keyframeInterval_ = 2.0;
    std::optional<int64_t> nextKeyframeTicks_;
    int64_t lastTicks_ = -1;
    PixelConverter converter_;
};

}  // namespace ov::platform::writer
