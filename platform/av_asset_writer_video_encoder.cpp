#include "platform/av_asset_writer_video_encoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cmath>
#include <string>

#include "platform/av_asset_writer.h"
#include "platform/cv_pixel_buffer.h"

namespace ov::platform::writer {

VideoEncoder::VideoEncoder(const AVSettingsDictionary& settings, bool globalHeader,
                           std::optional<double> segmentInterval) {
    const std::string codecName = setting<std::string>(settings, AVVideoCodecKey, AVVideoCodecTypeH264);
    hevc_ = codecName == AVVideoCodecTypeHEVC;
    const auto& colors = section(settings, AVVideoColorPropertiesKey);
    const bool p3 = setting<std::string>(colors, AVVideoColorPrimariesKey, AVVideoColorPrimaries_ITU_R_709_2) ==
                    AVVideoColorPrimaries_P3_D65;
    const AVCodec* codec = avcodec_find_encoder_by_name(hevc_ ? "libx265" : "libx264");
    if (!codec) fail(std::string("No encoder for ") + codecName);
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    auto* enc = encoder_ = avcodec_alloc_context3(codec);
    if (!packet_ || !frame_ || !enc) fail("Can't allocate the video encoder");
    enc->width = setting<int>(settings, AVVideoWidthKey, 0);
    enc->height = setting<int>(settings, AVVideoHeightKey, 0);
    if (enc->width <= 0 || enc->height <= 0) fail("Video settings need a width and a height");
    // Encoders want even sizes for 4:2:0.
    enc->width &= ~1;
    enc->height &= ~1;
    enc->time_base = AVRational{1, kTimescale};
    const auto& compression = section(settings, AVVideoCompressionPropertiesKey);
    // Only the encoder's level choice uses the rate; frames carry their own times.
    const int expectedRate =
        std::max(1, int(std::lround(setting<double>(compression, AVVideoExpectedSourceFrameRateKey, 30.0))));
    enc->framerate = AVRational{expectedRate, 1};
    enc->pix_fmt = hevc_ && p3 ? AV_PIX_FMT_YUV420P10LE : AV_PIX_FMT_YUV420P;
    enc->color_primaries = p3 ? AVCOL_PRI_SMPTE432 : AVCOL_PRI_BT709;
    enc->color_trc = AVCOL_TRC_BT709;
    enc->colorspace = AVCOL_SPC_BT709;
    enc->color_range = AVCOL_RANGE_MPEG;
    enc->max_b_frames = 0;
    enc->gop_size = 100000;  // keyframes are forced by time, in encode()
    const int64_t bitRate = setting<int64_t>(compression, AVVideoAverageBitRateKey, 0);
    keyframeInterval_ = setting<double>(compression, AVVideoMaxKeyFrameIntervalDurationKey, 2.0);
    if (keyframeInterval_ <= 0) keyframeInterval_ = 2.0;
    if (segmentInterval) keyframeInterval_ = std::min(keyframeInterval_, *segmentInterval);
    if (globalHeader) enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    AVDictionary* options = nullptr;
    // Real time on two cores at 1080p30 with room to spare: the fast
    // presets, no lookahead and no reordering (zerolatency).
    av_dict_set(&options, "preset", hevc_ ? "ultrafast" : "veryfast", 0);
    av_dict_set(&options, "tune", "zerolatency", 0);
    if (hevc_) {
        av_dict_set(&options, "x265-params", "log-level=error:bframes=0", 0);
        if (p3) av_dict_set(&options, "profile", "main10", 0);
    } else {
        av_dict_set(&options, "forced-idr", "1", 0);
    }
    if (bitRate > 0) {
        enc->bit_rate = bitRate;
        enc->rc_max_rate = bitRate * 2;
        enc->rc_buffer_size = int(bitRate * 2);
    } else {
        av_dict_set(&options, "crf", "23", 0);
    }
    const int r = avcodec_open2(enc, codec, &options);
    av_dict_free(&options);
    check(r, hevc_ ? "Can't open the HEVC encoder" : "Can't open the H.264 encoder");
}

VideoEncoder::~VideoEncoder() {
    avcodec_free_context(&encoder_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
}

uint32_t VideoEncoder::codecTag() const { return hevc_ ? MKTAG('h', 'v', 'c', '1') : 0; }

void VideoEncoder::encode(const CVPixelBuffer& image, int64_t ticks, bool forceKeyframe, const PacketSink& sink) {
    if (ticks <= lastTicks_) return;
    auto* enc = encoder_;
    AVFrame* frame = frame_;
    av_frame_unref(frame);
    frame->format = enc->pix_fmt;
    frame->width = enc->width;
    frame->height = enc->height;
    check(av_frame_get_buffer(frame, 0), "Can't allocate a frame");
    converter_.convert(image, *frame);
    frame->pts = ticks;
    frame->color_primaries = enc->color_primaries;
    frame->color_trc = enc->color_trc;
    frame->colorspace = enc->colorspace;
    frame->color_range = enc->color_range;
    frame->pict_type = AV_PICTURE_TYPE_NONE;
    if (!nextKeyframeTicks_ || ticks >= *nextKeyframeTicks_ || forceKeyframe) {
        frame->pict_type = AV_PICTURE_TYPE_I;
        frame->key_frame = 1;
        nextKeyframeTicks_ = ticks + std::llround(keyframeInterval_ * kTimescale);
    }
    lastTicks_ = ticks;
    check(avcodec_send_frame(enc, frame), "Can't encode a video frame");
    receivePackets(enc, packet_, sink);
}

void VideoEncoder::flush(const PacketSink& sink) {
    check(avcodec_send_frame(encoder_, nullptr), "Can't flush the encoder");
    receivePackets(encoder_, packet_, sink);
}

}  // namespace ov::platform::writer
