#pragma once
// Pictures from capture into the encoder's planar YCbCr: limited range with
// the BT.709 matrix (and 10 bits for HEVC Main10).
//
// BGRA at the encoder's size, the screen recorder's case, goes through libyuv
// (about 8 times faster than libswscale on 1080p, bench/pixel_conversion_bench.cpp).
// libyuv as Debian ships it converts RGB with the BT.601 matrix only, so its
// full-resolution BT.601 planes are turned into BT.709 here by the fixed 3×3
// map between the two matrices; chroma is filtered as libswscale's bilinear
// reduction does (pixel pairs across, 1-3-3-1 down).
// Everything else (other pixel formats, scaling, 10 bits) goes through libswscale.

#include <cstdint>
#include <vector>

extern "C" {
struct AVFrame;
struct SwsContext;
}

namespace ov::platform {
class CVPixelBuffer;
}

namespace ov::platform::writer {

enum class PixelConversionPath { libyuv, swscale };

struct I420Planes {
    uint8_t* y;
    int yStride;
    uint8_t* u;
    int uStride;
    uint8_t* v;
    int vStride;
};

// BGRA (alpha ignored) of any size, odd ones too, into 8-bit 4:2:0 of the same
// size: chroma planes are ceil(width/2) × ceil(height/2); edges repeat their
// last pixel. `scratch` is reused between calls.
void convertBGRAToI420BT709(const uint8_t* bgra, int stride, int width, int height, const I420Planes& out,
                            std::vector<uint8_t>& scratch);

class PixelConverter {
public:
    // `preferred` libyuv still falls back to libswscale where libyuv has no path.
    explicit PixelConverter(PixelConversionPath preferred = PixelConversionPath::libyuv) : preferred_(preferred) {}
    ~PixelConverter();
    PixelConverter(const PixelConverter&) = delete;
    PixelConverter& operator=(const PixelConverter&) = delete;

    // Fills `frame`, whose format, size and buffers are set, from `image`
    // (scaled to the frame's size where they differ). Throws the writer's
    // error for a pixel format it can't read. Returns the path taken.
    PixelConversionPath convert(const CVPixelBuffer& image, AVFrame& frame);

private:
    PixelConversionPath preferred_;
    SwsContext* scaler_ = nullptr;
    // What the scaler was made for.
    int scalerWidth_ = 0, scalerHeight_ = 0, scalerFormat_ = -1, scalerTarget_ = -1, scalerTargetWidth_ = 0,
        scalerTargetHeight_ = 0;
    std::vector<uint8_t> scratch_;
};

}  // namespace ov::platform::writer
