#include "platform/cv_pixel_buffer.h"

#include <string>

namespace ov::platform {

namespace {

size_t alignUp(size_t n, size_t alignment) { return (n + alignment - 1) / alignment * alignment; }

// Larger pictures than this are a caller's fault, not a picture.
constexpr size_t kMaxDimension = 1 << 15;

}  // namespace

std::string fourCharCodeString(FourCharCode code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        char c = static_cast<char>((code >> shift) & 0xff);
        text += (c >= 0x20 && c < 0x7f) ? c : '?';
    }
    return text;
}

bool CVPixelBuffer::isSupportedPixelFormat(OSType f) {
    return f == kCVPixelFormatType_32BGRA || f == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange ||
           f == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange || f == kCVPixelFormatType_420YpCbCr8Planar ||
           f == kCVPixelFormatType_422YpCbCr8_yuvs;
}

std::shared_ptr<CVPixelBuffer> CVPixelBuffer::make(size_t width, size_t height, OSType format) {
    if (width == 0 || height == 0 || width > kMaxDimension || height > kMaxDimension) return nullptr;
    if (!isSupportedPixelFormat(format)) return nullptr;
    // (width, height, bytes per pixel) of each plane.
    struct Shape {
        size_t w, h, bpp;
    };
    std::vector<Shape> shapes;
    const size_t cw = (width + 1) / 2, ch = (height + 1) / 2;
    if (format == kCVPixelFormatType_32BGRA)
        shapes = {{width, height, 4}};
    else if (format == kCVPixelFormatType_422YpCbCr8_yuvs)
        shapes = {{width, height, 2}};
    else if (format == kCVPixelFormatType_420YpCbCr8Planar)
        shapes = {{width, height, 1}, {cw, ch, 1}, {cw, ch, 1}};
    else
        shapes = {{width, height, 1}, {cw, ch, 2}};

    std::vector<Plane> planes;
    size_t offset = 0;
    for (const auto& s : shapes) {
        size_t bytesPerRow = alignUp(s.w * s.bpp, kRowAlignment);
        planes.push_back({s.w, s.h, bytesPerRow, offset});
        offset += bytesPerRow * s.h;
    }
    return std::shared_ptr<CVPixelBuffer>(new CVPixelBuffer(width, height, format, std::move(planes), offset));
}

CVPixelBuffer::CVPixelBuffer(size_t width, size_t height, OSType format, std::vector<Plane> planes, size_t size)
    : width_(width), height_(height), pixelFormatType_(format), planes_(std::move(planes)), data_(size, 0) {}

}  // namespace ov::platform
