// The writer's BGRA → 4:2:0 conversion through libyuv, held against libswscale
// (the writer's former path) on colour bars, and against the BT.709 matrix itself.
#include "platform/av_asset_writer_pixel_conversion.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/frame.h>
}

#include <cstdlib>
#include <memory>

#include "platform/cv_pixel_buffer.h"

namespace ov::testing {
namespace {

using platform::CVPixelBuffer;
using platform::kCVPixelFormatType_32BGRA;
using platform::writer::PixelConversionPath;
using platform::writer::PixelConverter;

struct Rgb {
    uint8_t r, g, b;
};

// Eight full-intensity bars over the top two thirds, the same bars reversed
// below them, and a grey ramp at the bottom: flat colours with hard edges.
Rgb barsAt(int x, int y, int width, int height) {
    static const Rgb bars[8] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                                {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {0, 0, 0}};
    if (y * 6 >= height * 5) {
        const auto v = uint8_t(x * 255 / std::max(1, width - 1));
        return {v, v, v};
    }
    const int bar = x * 8 / width;
    return bars[y * 3 >= height * 2 ? 7 - bar : bar];
}

std::shared_ptr<CVPixelBuffer> colourBars(int width, int height) {
    auto image = CVPixelBuffer::make(size_t(width), size_t(height), kCVPixelFormatType_32BGRA);
    for (int y = 0; y < height; ++y) {
        uint8_t* row = image->baseAddress() + size_t(y) * image->bytesPerRow();
        for (int x = 0; x < width; ++x) {
            const Rgb c = barsAt(x, y, width, height);
            row[4 * x] = c.b;
            row[4 * x + 1] = c.g;
            row[4 * x + 2] = c.r;
            row[4 * x + 3] = 255;
        }
    }
    return image;
}

struct Frame {
    AVFrame* frame = av_frame_alloc();
    Frame(int width, int height) {
        frame->format = AV_PIX_FMT_YUV420P;
        frame->width = width;
        frame->height = height;
        EXPECT_GE(av_frame_get_buffer(frame, 0), 0);
    }
    ~Frame() { av_frame_free(&frame); }
    int at(int plane, int x, int y) const { return frame->data[plane][size_t(y) * size_t(frame->linesize[plane]) + size_t(x)]; }
};

// Whether every source pixel within `radius` of the block of chroma sample
// (cx, cy) has one colour: there the sub-sampling filter can't matter.
bool flatAround(int cx, int cy, int width, int height, int radius) {
    const Rgb c = barsAt(std::min(2 * cx, width - 1), std::min(2 * cy, height - 1), width, height);
    for (int y = 2 * cy - radius; y <= 2 * cy + 1 + radius; ++y)
        for (int x = 2 * cx - radius; x <= 2 * cx + 1 + radius; ++x) {
            const Rgb o = barsAt(std::clamp(x, 0, width - 1), std::clamp(y, 0, height - 1), width, height);
            if (o.r != c.r || o.g != c.g || o.b != c.b) return false;
        }
    return true;
}

TEST(PixelConversion, LibyuvAgreesWithSwscaleOnColourBarsAtEvenAndOddSizes) {
    struct Size {
        int width, height;
    };
    for (const Size size : {Size{1920, 1080}, Size{640, 480}, Size{641, 479}, Size{1280, 721}, Size{33, 2}, Size{7, 5},
                            Size{1, 1}}) {
        SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
        const auto image = colourBars(size.width, size.height);
        Frame fast(size.width, size.height), reference(size.width, size.height);
        PixelConverter libyuv(PixelConversionPath::libyuv), swscale(PixelConversionPath::swscale);
        ASSERT_EQ(libyuv.convert(*image, *fast.frame), PixelConversionPath::libyuv);
        ASSERT_EQ(swscale.convert(*image, *reference.frame), PixelConversionPath::swscale);

        int worstLuma = 0;
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x < size.width; ++x)
                worstLuma = std::max(worstLuma, std::abs(fast.at(0, x, y) - reference.at(0, x, y)));
        EXPECT_LE(worstLuma, 2);

        // Even sizes: every chroma sample. Odd sizes: libswscale resamples
        // chroma from w to ceil(w/2) (not an exact 2:1), so its samples drift
        // by up to a pixel across the picture; compare where the colour is flat.
        const bool even = size.width % 2 == 0 && size.height % 2 == 0;
        int worstChroma = 0, compared = 0;
        for (int cy = 0; cy < (size.height + 1) / 2; ++cy)
            for (int cx = 0; cx < (size.width + 1) / 2; ++cx) {
                if (!even && !flatAround(cx, cy, size.width, size.height, 2)) continue;
                ++compared;
                for (int plane : {1, 2})
                    worstChroma = std::max(worstChroma, std::abs(fast.at(plane, cx, cy) - reference.at(plane, cx, cy)));
            }
        EXPECT_LE(worstChroma, 2);
        if (size.width >= 33) {
            EXPECT_GT(compared, 0);
        }
    }
}

TEST(PixelConversion, PureColoursLandOnTheLimitedRangeBT709Values) {
    // Y = 16 + 219·(0.2126 R + 0.7152 G + 0.0722 B); Cb, Cr = 128 + 224·(B−Y, R−Y)/(1.8556, 1.5748).
    struct Case {
        Rgb rgb;
        int y, cb, cr;
    };
    for (const Case c : {Case{{255, 0, 0}, 63, 102, 240}, Case{{0, 255, 0}, 173, 42, 26}, Case{{0, 0, 255}, 32, 240, 118},
                         Case{{255, 255, 255}, 235, 128, 128}, Case{{0, 0, 0}, 16, 128, 128},
                         Case{{128, 128, 128}, 126, 128, 128}}) {
        SCOPED_TRACE(std::to_string(c.rgb.r) + "," + std::to_string(c.rgb.g) + "," + std::to_string(c.rgb.b));
        auto image = CVPixelBuffer::make(6, 4, kCVPixelFormatType_32BGRA);
        for (size_t y = 0; y < 4; ++y)
            for (size_t x = 0; x < 6; ++x) {
                uint8_t* p = image->baseAddress() + y * image->bytesPerRow() + 4 * x;
                p[0] = c.rgb.b;
                p[1] = c.rgb.g;
                p[2] = c.rgb.r;
                p[3] = 255;
            }
        Frame out(6, 4);
        PixelConverter converter;
        ASSERT_EQ(converter.convert(*image, *out.frame), PixelConversionPath::libyuv);
        EXPECT_NEAR(out.at(0, 3, 2), c.y, 1);
        EXPECT_NEAR(out.at(1, 1, 1), c.cb, 1);
        EXPECT_NEAR(out.at(2, 1, 1), c.cr, 1);
    }
}

TEST(PixelConversion, OtherFormatsAndScalingFallBackToSwscale) {
    const auto bars = colourBars(64, 48);
    Frame smaller(32, 24);
    PixelConverter converter;
    EXPECT_EQ(converter.convert(*bars, *smaller.frame), PixelConversionPath::swscale) << "a size change scales";
    auto nv12 = CVPixelBuffer::make(64, 48, platform::kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);
    Frame same(64, 48);
    EXPECT_EQ(converter.convert(*nv12, *same.frame), PixelConversionPath::swscale);
    // And back: the scaler is remade when the source changes again.
    EXPECT_EQ(converter.convert(*bars, *same.frame), PixelConversionPath::libyuv);
}

}  // namespace
}  // namespace ov::testing
