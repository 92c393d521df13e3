// The two ways of feeding an asset writer input: buffering what it can't take
// yet, or dropping it.

#include <gtest/gtest.h>

#include <memory>

#include "output/av_asset_writer_input_buffer_adaptor.h"
#include "output/av_asset_writer_input_drop_adaptor.h"
#include "platform/av_asset_writer.h"
#include "platform/cv_pixel_buffer.h"
#include "support/log_capture.h"

namespace ov::testing {
namespace {

using platform::CMTime;

platform::CMSampleBuffer frameAt(CMTime pts) {
    auto pixels = platform::CVPixelBuffer::make(64, 48, platform::kCVPixelFormatType_32BGRA);
    return platform::CMSampleBuffer::makeForImageBuffer(pixels, {CMTime(1, 30), pts, platform::kCMTimeInvalid});
}

// An input of a writer that has not started takes nothing.
std::shared_ptr<platform::AVAssetWriterInput> idleVideoInput() {
    return platform::AVAssetWriterInput::make(platform::AVMediaType::video,
                                              {{platform::AVVideoCodecKey, platform::AVVideoCodecTypeH264},
                                               {platform::AVVideoWidthKey, 64},
                                               {platform::AVVideoHeightKey, 48}});
}

TEST(AVAssetWriterInputAdaptorsTest, TheDropAdaptorDropsWhatAnIdleInputCantTake) {
    LogCapture log;
    AVAssetWriterInputDropAdaptor adaptor(idleVideoInput(), log.logger);
    EXPECT_FALSE(adaptor.append(frameAt(CMTime(1, 2))));
    auto line = log.single();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, OVLogLevel::debug);
    EXPECT_EQ(line->message, "AVAssetWriterInput isn't ready, dropping frame.");
    EXPECT_EQ(line->metadata, (LogMetadata{{"samplePTS", CMTime(1, 2).logDescription()}}));
}

TEST(AVAssetWriterInputAdaptorsTest, TheBufferAdaptorHoldsEverySampleAnIdleInputRefuses) {
    LogCapture log;
    AVAssetWriterInputBufferAdaptor adaptor(idleVideoInput(), log.logger);
    EXPECT_EQ(adaptor.unboundedBackpressureBuffer().label(), "UnboundedBufferBackpressureHandler");
    for (int i = 0; i < 3; ++i) adaptor.append(frameAt(CMTime(i, 30)));
    EXPECT_EQ(adaptor.unboundedBackpressureBuffer().count(), 3u) << "nothing is dropped";
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].level, OVLogLevel::debug);
        EXPECT_EQ(lines[i].message, "Experiencing backpressure, buffering.");
        EXPECT_EQ(lines[i].metadata, (LogMetadata{{"itemsBuffered", std::to_string(i + 1)}}));
    }
}

}  // namespace
}  // namespace ov::testing
