#pragma once
// CVPixelBuffer: one picture in memory, in one of a few pixel formats, with
// rows padded to an alignment (the stride is bytesPerRow, not width × bytes
// per pixel). A pixel buffer is filled by its producer and then shared, read
// only, by every sample buffer that holds it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/core_audio_types.h"

namespace ov::platform {

using OSType = uint32_t;

// Packed 8-bit B, G, R, A: screens.
inline constexpr OSType kCVPixelFormatType_32BGRA = OV_FOURCC('B', 'G', 'R', 'A');
// Two planes, Y then interleaved CbCr at half size (NV12), video or full range: encoders.
inline constexpr OSType kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange = OV_FOURCC('4', '2', '0', 'v');
inline constexpr OSType kCVPixelFormatType_420YpCbCr8BiPlanarFullRange = OV_FOURCC('4', '2', '0', 'f');
// Three planes, Y, Cb, Cr, chroma at half size (I420).
inline constexpr OSType kCVPixelFormatType_420YpCbCr8Planar = OV_FOURCC('y', '4', '2', '0');
// Packed Y0 Cb Y1 Cr (YUYV): cameras.
inline constexpr OSType kCVPixelFormatType_422YpCbCr8_yuvs = OV_FOURCC('y', 'u', 'v', 's');

// The four characters of a code, for messages ("BGRA").
std::string fourCharCodeString(FourCharCode code);

class CVPixelBuffer {
public:
    // Row starts are aligned to this many bytes, as encoders and SIMD code like.
    static constexpr size_t kRowAlignment = 64;

    // A zero-filled buffer, or null when the size is zero or too large or the
    // format is not one of the above (odd sizes are fine: chroma rounds up).
    static std::shared_ptr<CVPixelBuffer> make(size_t width, size_t height, OSType pixelFormatType);

    static bool isSupportedPixelFormat(OSType pixelFormatType);

    size_t width() const { return width_; }
    size_t height() const { return height_; }
    OSType pixelFormatType() const { return pixelFormatType_; }
    bool isPlanar() const { return planes_.size() > 1; }
    size_t planeCount() const { return isPlanar() ? planes_.size() : 0; }

    // Plane 0 for packed formats.
    size_t widthOfPlane(size_t plane) const { return planes_.at(plane).width; }
    size_t heightOfPlane(size_t plane) const { return planes_.at(plane).height; }
    size_t bytesPerRowOfPlane(size_t plane) const { return planes_.at(plane).bytesPerRow; }
    uint8_t* baseAddressOfPlane(size_t plane) { return data_.data() + planes_.at(plane).offset; }
    const uint8_t* baseAddressOfPlane(size_t plane) const { return data_.data() + planes_.at(plane).offset; }

    size_t bytesPerRow() const { return bytesPerRowOfPlane(0); }
    uint8_t* baseAddress() { return baseAddressOfPlane(0); }
    const uint8_t* baseAddress() const { return baseAddressOfPlane(0); }
    size_t dataSize() const { return data_.size(); }

private:
    struct Plane {
        size_t width, height, bytesPerRow, offset;
    };
    CVPixelBuffer(size_t width, size_t height, OSType format, std::vector<Plane> planes, size_t size);

    size_t width_;
    size_t height_;
    OSType pixelFormatType_;
    std::vector<Plane> planes_;
    std::vector<uint8_t> data_;
};

}  // namespace ov::platform
