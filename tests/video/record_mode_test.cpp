// Video sizes and record modes: the arithmetic every video recorder shares.
#include <gtest/gtest.h>

#include "platform/av_asset_writer.h"
#include "platform/sc_stream_configuration.h"
#include "support/log_capture.h"
#include "video/codec_aligned_video_size.h"
#include "video/record_mode.h"

namespace ov {
namespace {

using platform::CGSize;

TEST(CodecAlignedVideoSize, KeepsTheAspectFitsTheMaximumAndRoundsDownToEvenSides) {
    // A 3024×1964 point display at scale 2 within the HEVC limit is taken whole.
    EXPECT_EQ(codecAlignedVideoSize(CGSize{3024, 1964}, 2, {7680, 4320}), (VideoDimensions{6048, 3928}));
    // Within 1920×1080 the height binds: shrink 3928/1080, width 1662.9 truncated.
    EXPECT_EQ(codecAlignedVideoSize(CGSize{3024, 1964}, 2, {1920, 1080}), (VideoDimensions{1662, 1080}));
    // Odd sides lose their last pixel, never gain one.
    EXPECT_EQ(codecAlignedVideoSize(CGSize{801, 601}, 1, {4096, 2304}), (VideoDimensions{800, 600}));
    // Smaller than the maximum: never enlarged.
    EXPECT_EQ(codecAlignedVideoSize(CGSize{640, 480}, 1, {1920, 1080}), (VideoDimensions{640, 480}));
    // The result never exceeds an odd maximum.
    const auto odd = codecAlignedVideoSize(CGSize{5000, 5000}, 1, {1001, 1001});
    EXPECT_EQ(odd, (VideoDimensions{1000, 1000}));
}

TEST(RecordMode, CodecAndColourSpaceMakeTheModeAndP3WithH264FallsBackWithOneWarning) {
    testing::LogCapture log;
    EXPECT_EQ(makeRecordMode(OVColorSpace::sRGB, OVVideoCodec::h264, log.logger), RecordMode::h264SRGB);
    EXPECT_EQ(makeRecordMode(OVColorSpace::sRGB, OVVideoCodec::hevc, log.logger), RecordMode::hevcSRGB);
    EXPECT_EQ(makeRecordMode(OVColorSpace::displayP3, OVVideoCodec::hevc, log.logger), RecordMode::hevcDisplayP3);
    EXPECT_TRUE(log.lines().empty());

    EXPECT_EQ(makeRecordMode(OVColorSpace::displayP3, OVVideoCodec::h264, log.logger), RecordMode::h264SRGB);
    auto line = log.single();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, OVLogLevel::warning);
    EXPECT_EQ(line->message, "Cannot record Display P3 with H.264 video codec. Falling back to sRGB color space instead.");
}

TEST(RecordMode, WhatEachModeAsksOfCaptureAndEncoder) {
    using namespace platform;
    EXPECT_EQ(codecLimit(RecordMode::h264SRGB), (VideoDimensions{4096, 2304}));
    EXPECT_EQ(codecLimit(RecordMode::hevcSRGB), (VideoDimensions{7680, 4320}));
    EXPECT_EQ(capturePixelFormat(RecordMode::h264SRGB), kCVPixelFormatType_32BGRA);
    EXPECT_EQ(capturePixelFormat(RecordMode::hevcDisplayP3), kCVPixelFormatType_ARGB2101010LEPacked);
    EXPECT_STREQ(captureColorSpaceName(RecordMode::hevcSRGB), kCGColorSpaceSRGB);
    EXPECT_STREQ(captureColorSpaceName(RecordMode::hevcDisplayP3), kCGColorSpaceDisplayP3);
    EXPECT_EQ(videoColorProperties(RecordMode::h264SRGB)[AVVideoColorPrimariesKey], AVVideoColorPrimaries_ITU_R_709_2);
    const auto p3 = videoColorProperties(RecordMode::hevcDisplayP3);
    EXPECT_EQ(p3[AVVideoColorPrimariesKey], AVVideoColorPrimaries_P3_D65);
    EXPECT_EQ(p3[AVVideoTransferFunctionKey], AVVideoTransferFunction_ITU_R_709_2);
    EXPECT_EQ(p3[AVVideoYCbCrMatrixKey], AVVideoYCbCrMatrix_ITU_R_709_2);
    EXPECT_STREQ(playlistVideoCodecName(RecordMode::h264SRGB), "avc1.42e00a");
    EXPECT_STREQ(playlistVideoCodecName(RecordMode::hevcDisplayP3), "hvc1.1.1.L150.00");
}

}  // namespace
}  // namespace ov
