#include "platform/av_asset_writer_pixel_conversion.h"

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <libyuv/convert_from_argb.h>

#include <algorithm>
#include <array>

#include "platform/av_asset_writer_support.h"
#include "platform/cv_pixel_buffer.h"

namespace ov::platform::writer {
namespace {

// ---- BT.601 planes to BT.709 planes ------------------------------------------------------------
// Both are linear maps of the same RGB, so one 3×3 map on (Y−16, Cb−128, Cr−128)
// turns one into the other: T = M709 · M601⁻¹, with M the limited-range
// RGB→YCbCr matrix (219 levels of luma, 224 of chroma, out of 255).

using Matrix = std::array<std::array<double, 3>, 3>;

constexpr Matrix rgbToYCbCr(double kr, double kb) {
    const double kg = 1 - kr - kb, ys = 219.0 / 255, cs = 224.0 / 255;
    return {{{kr * ys, kg * ys, kb * ys},
             {-kr / (2 * (1 - kb)) * cs, -kg / (2 * (1 - kb)) * cs, 0.5 * cs},
             {0.5 * cs, -kg / (2 * (1 - kr)) * cs, -kb / (2 * (1 - kr)) * cs}}};
}

constexpr Matrix inverse(const Matrix& m) {
    const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                       m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                       m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    return {{{(m[1][1] * m[2][2] - m[1][2] * m[2][1]) / det, (m[0][2] * m[2][1] - m[0][1] * m[2][2]) / det,
              (m[0][1] * m[1][2] - m[0][2] * m[1][1]) / det},
             {(m[1][2] * m[2][0] - m[1][0] * m[2][2]) / det, (m[0][0] * m[2][2] - m[0][2] * m[2][0]) / det,
              (m[0][2] * m[1][0] - m[0][0] * m[1][2]) / det},
             {(m[1][0] * m[2][1] - m[1][1] * m[2][0]) / det, (m[0][1] * m[2][0] - m[0][0] * m[2][1]) / det,
              (m[0][0] * m[1][1] - m[0][1] * m[1][0]) / det}}};
}

constexpr Matrix product(const Matrix& a, const Matrix& b) {
    Matrix r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) r[i][j] += a[i][k] * b[k][j];
    return r;
}

constexpr Matrix bt601To709 = product(rgbToYCbCr(0.2126, 0.0722), inverse(rgbToYCbCr(0.299, 0.114)));

constexpr int kShift = 14;
constexpr int fixedPoint(double x) { return int(x * (1 << kShift) + (x >= 0 ? 0.5 : -0.5)); }

// Luma keeps its BT.601 value plus a chroma correction (grey is grey in both);
// chroma depends on chroma alone (the luma column of T is zero).
static_assert(fixedPoint(bt601To709[0][0]) == 1 << kShift);
static_assert(fixedPoint(bt601To709[1][0]) == 0 && fixedPoint(bt601To709[2][0]) == 0);
constexpr int kYU = fixedPoint(bt601To709[0][1]), kYV = fixedPoint(bt601To709[0][2]);
constexpr int kUU = fixedPoint(bt601To709[1][1]), kUV = fixedPoint(bt601To709[1][2]);
constexpr int kVU = fixedPoint(bt601To709[2][1]), kVV = fixedPoint(bt601To709[2][2]);

inline uint8_t clamp8(int v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

// The loops below are plain so that the compiler turns them into vector code
// (see the optimize attribute); they run over every pixel of every frame.
#define OV_VECTORIZE __attribute__((optimize("O3")))

OV_VECTORIZE void lumaRow(const uint8_t* __restrict y, const uint8_t* __restrict u, const uint8_t* __restrict v,
                          uint8_t* __restrict out, int width) {
    for (int x = 0; x < width; ++x)
        out[x] = clamp8(y[x] + ((kYU * (u[x] - 128) + kYV * (v[x] - 128) + (1 << (kShift - 1))) >> kShift));
}

// The four rows around a chroma row weighted 1, 3, 3, 1: the triangle filter
// of a 2:1 bilinear reduction centred between the row pair, as libswscale's.
OV_VECTORIZE void verticalSum(const uint8_t* __restrict r0, const uint8_t* __restrict r1,
                              const uint8_t* __restrict r2, const uint8_t* __restrict r3, int16_t* __restrict out,
                              int width) {
    for (int x = 0; x < width; ++x) out[x] = int16_t(r0[x] + 3 * (r1[x] + r2[x]) + r3[x]);
}

// One chroma row from the vertical sums: pixel pairs added (the last pixel
// twice at an odd edge), then the BT.601 → BT.709 map.
OV_VECTORIZE void chromaRow(const int16_t* __restrict su, const int16_t* __restrict sv, uint8_t* __restrict outU,
                            uint8_t* __restrict outV, int width) {
    constexpr int shift = kShift + 4, half = 1 << (shift - 1), bias = 16 * 128;
    const int pairs = width / 2;
    for (int c = 0; c < pairs; ++c) {
        const int u = su[2 * c] + su[2 * c + 1] - bias, v = sv[2 * c] + sv[2 * c + 1] - bias;
        outU[c] = clamp8(128 + ((kUU * u + kUV * v + half) >> shift));
        outV[c] = clamp8(128 + ((kVU * u + kVV * v + half) >> shift));
    }
    if (width % 2) {
        const int u = 2 * su[width - 1] - bias, v = 2 * sv[width - 1] - bias;
        outU[pairs] = clamp8(128 + ((kUU * u + kUV * v + half) >> shift));
        outV[pairs] = clamp8(128 + ((kVU * u + kVV * v + half) >> shift));
    }
}

AVPixelFormat pixelFormatOf(OSType type) {
    switch (type) {
        case kCVPixelFormatType_32BGRA: return AV_PIX_FMT_BGRA;
        case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
        case kCVPixelFormatType_420YpCbCr8BiPlanarFullRange: return AV_PIX_FMT_NV12;
        case kCVPixelFormatType_420YpCbCr8Planar: return AV_PIX_FMT_YUV420P;
        case kCVPixelFormatType_422YpCbCr8_yuvs: return AV_PIX_FMT_YUYV422;
        default: return AV_PIX_FMT_NONE;
    }
}

}  // namespace

void convertBGRAToI420BT709(const uint8_t* bgra, int stride, int width, int height, const I420Planes& out,
                            std::vector<uint8_t>& scratch) {
    if (width <= 0 || height <= 0) return;
    // A ring of four full-resolution BT.601 rows (Y, Cb, Cr each), the rows a
    // chroma row needs, and the vertical sums: small enough to stay in cache.
    const size_t w = size_t(width);
    scratch.resize(12 * w + 2 * w * sizeof(int16_t));
    const auto y601 = [&](int row) { return scratch.data() + size_t(row & 3) * w; };
    const auto u601 = [&](int row) { return scratch.data() + (4 + size_t(row & 3)) * w; };
    const auto v601 = [&](int row) { return scratch.data() + (8 + size_t(row & 3)) * w; };
    auto* sumU = reinterpret_cast<int16_t*>(scratch.data() + 12 * w);
    int16_t* sumV = sumU + w;
    int converted = -1;
    const auto convertUpTo = [&](int last) {
        while (converted < last) {
            ++converted;
            // libyuv's "ARGB" is B, G, R, A in memory: our BGRA.
            libyuv::ARGBToI444(bgra + size_t(converted) * size_t(stride), stride, y601(converted), width,
                               u601(converted), width, v601(converted), width, width, 1);
            lumaRow(y601(converted), u601(converted), v601(converted),
                    out.y + size_t(converted) * size_t(out.yStride), width);
        }
    };
    for (int c = 0; c < (height + 1) / 2; ++c) {
        const int r0 = std::max(0, 2 * c - 1), r1 = 2 * c, r2 = std::min(2 * c + 1, height - 1),
                  r3 = std::min(2 * c + 2, height - 1);
        convertUpTo(r3);
        verticalSum(u601(r0), u601(r1), u601(r2), u601(r3), sumU, width);
        verticalSum(v601(r0), v601(r1), v601(r2), v601(r3), sumV, width);
        chromaRow(sumU, sumV, out.u + size_t(c) * size_t(out.uStride), out.v + size_t(c) * size_t(out.vStride), width);
    }
}

PixelConverter::~PixelConverter() { sws_freeContext(scaler_); }

PixelConversionPath PixelConverter::convert(const CVPixelBuffer& image, AVFrame& frame) {
    const int width = int(image.width()), height = int(image.height());
    const OSType type = image.pixelFormatType();
    if (preferred_ == PixelConversionPath::libyuv && type == kCVPixelFormatType_32BGRA &&
        frame.format == AV_PIX_FMT_YUV420P && frame.width == width && frame.height == height) {
        convertBGRAToI420BT709(image.baseAddress(), int(image.bytesPerRow()), width, height,
                               {frame.data[0], frame.linesize[0], frame.data[1], frame.linesize[1], frame.data[2],
                                frame.linesize[2]},
                               scratch_);
        return PixelConversionPath::libyuv;
    }
    const AVPixelFormat source = pixelFormatOf(type);
    if (source == AV_PIX_FMT_NONE) fail("Unsupported pixel format");
    if (!scaler_ || scalerWidth_ != width || scalerHeight_ != height || scalerFormat_ != source ||
        scalerTarget_ != frame.format || scalerTargetWidth_ != frame.width || scalerTargetHeight_ != frame.height) {
        sws_freeContext(scaler_);
        scaler_ = sws_getContext(width, height, source, frame.width, frame.height, AVPixelFormat(frame.format),
                                 SWS_BILINEAR, nullptr, nullptr, nullptr);
        if (!scaler_) fail("Can't convert the frame");
        // RGB in, limited-range YCbCr out with the BT.709 matrix.
        const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
        const bool sourceFull = source == AV_PIX_FMT_BGRA || type == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
        sws_setColorspaceDetails(scaler_, bt709, sourceFull ? 1 : 0, bt709, 0, 0, 1 << 16, 1 << 16);
        scalerWidth_ = width;
        scalerHeight_ = height;
        scalerFormat_ = source;
        scalerTarget_ = frame.format;
        scalerTargetWidth_ = frame.width;
        scalerTargetHeight_ = frame.height;
    }
    const uint8_t* planes[4] = {};
    int strides[4] = {};
    const size_t planeCount = std::max<size_t>(1, image.planeCount());
    for (size_t p = 0; p < planeCount && p < 4; ++p) {
        planes[p] = image.baseAddressOfPlane(p);
        strides[p] = int(image.bytesPerRowOfPlane(p));
    }
    sws_scale(scaler_, planes, strides, 0, height, frame.data, frame.linesize);
    return PixelConversionPath::swscale;
}

}  // namespace ov::platform::writer
