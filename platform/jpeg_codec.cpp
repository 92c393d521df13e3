#include "platform/jpeg_codec.h"

#include <turbojpeg.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace ov::platform {

namespace {

// Video-range (16–235 luma, 16–240 chroma) to full range, as JFIF wants.
struct RangeTables {
    std::array<uint8_t, 256> luma{};
    std::array<uint8_t, 256> chroma{};
    RangeTables() {
        for (int i = 0; i < 256; ++i) {
            luma[i] = uint8_t(std::clamp((i - 16) * 255 / 219.0 + 0.5, 0.0, 255.0));
            chroma[i] = uint8_t(std::clamp((i - 128) * 255 / 224.0 + 128.5, 0.0, 255.0));
        }
    }
};
const RangeTables& rangeTables() {
    static const RangeTables tables;
    return tables;
}

bool isVideoRange(OSType format) {
    return format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange || format == kCVPixelFormatType_420YpCbCr8Planar ||
           format == kCVPixelFormatType_422YpCbCr8_yuvs;
}

}  // namespace

JPEGEncoder::JPEGEncoder(int quality) : handle_(tjInitCompress()), quality_(quality) {}
JPEGEncoder::~JPEGEncoder() {
    if (handle_) tjDestroy(handle_);
}

bool JPEGEncoder::encode(const CVPixelBuffer& picture, std::vector<uint8_t>& jpeg) {
    if (!handle_) {
        lastError_ = "TurboJPEG compressor could not be made";
        return false;
    }
    const int width = int(picture.width());
    const int height = int(picture.height());
    const OSType format = picture.pixelFormatType();
    const auto& tables = rangeTables();
    const bool expand = isVideoRange(format);
    jpeg.resize(tjBufSize(width, height, TJSAMP_420));
    unsigned char* out = jpeg.data();
    unsigned long size = jpeg.size();
    int result = 0;
    if (format == kCVPixelFormatType_32BGRA) {
        result = tjCompress2(handle_, picture.baseAddress(), width, int(picture.bytesPerRow()), height, TJPF_BGRA, &out,
                             &size, TJSAMP_420, quality_, TJFLAG_NOREALLOC | TJFLAG_FASTDCT);
    } else {
        const int cw = (width + 1) / 2, ch = (height + 1) / 2;
        y_.resize(size_t(width) * height);
        u_.resize(size_t(cw) * ch);
        v_.resize(size_t(cw) * ch);
        if (format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange ||
            format == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange) {
            for (int row = 0; row < height; ++row) {
                const uint8_t* src = picture.baseAddressOfPlane(0) + row * picture.bytesPerRowOfPlane(0);
                uint8_t* dst = y_.data() + size_t(row) * width;
                if (expand)
                    for (int x = 0; x < width; ++x) dst[x] = tables.luma[src[x]];
                else
                    std::memcpy(dst, src, size_t(width));
            }
            for (int row = 0; row < ch; ++row) {
                const uint8_t* src = picture.baseAddressOfPlane(1) + row * picture.bytesPerRowOfPlane(1);
                uint8_t* u = u_.data() + size_t(row) * cw;
                uint8_t* v = v_.data() + size_t(row) * cw;
                for (int x = 0; x < cw; ++x) {
                    u[x] = expand ? tables.chroma[src[2 * x]] : src[2 * x];
                    v[x] = expand ? tables.chroma[src[2 * x + 1]] : src[2 * x + 1];
                }
            }
        } else if (format == kCVPixelFormatType_420YpCbCr8Planar) {
            for (int plane = 0; plane < 3; ++plane) {
                const int pw = plane ? cw : width, ph = plane ? ch : height;
                uint8_t* dst = plane == 0 ? y_.data() : plane == 1 ? u_.data() : v_.data();
                const auto& table = plane ? tables.chroma : tables.luma;
                for (int row = 0; row < ph; ++row) {
                    const uint8_t* src = picture.baseAddressOfPlane(plane) + row * picture.bytesPerRowOfPlane(plane);
                    for (int x = 0; x < pw; ++x) dst[size_t(row) * pw + x] = table[src[x]];
                }
            }
        } else if (format == kCVPixelFormatType_422YpCbCr8_yuvs) {
            // Y0 Cb Y1 Cr; chroma of two rows is averaged into one.
            for (int row = 0; row < height; ++row) {
                const uint8_t* src = picture.baseAddress() + row * picture.bytesPerRow();
                uint8_t* dst = y_.data() + size_t(row) * width;
                for (int x = 0; x < width; ++x) dst[x] = tables.luma[src[2 * x]];
            }
            for (int row = 0; row < ch; ++row) {
                const uint8_t* a = picture.baseAddress() + size_t(2 * row) * picture.bytesPerRow();
                const uint8_t* b = 2 * row + 1 < height ? a + picture.bytesPerRow() : a;
                uint8_t* u = u_.data() + size_t(row) * cw;
                uint8_t* v = v_.data() + size_t(row) * cw;
                for (int x = 0; x < cw; ++x) {
                    u[x] = tables.chroma[(a[4 * x + 1] + b[4 * x + 1] + 1) >> 1];
                    v[x] = tables.chroma[(a[4 * x + 3] + b[4 * x + 3] + 1) >> 1];
                }
            }
        } else {
            lastError_ = "pixel format " + fourCharCodeString(format) + " can't be encoded";
            return false;
        }
        const unsigned char* planes[3] = {y_.data(), u_.data(), v_.data()};
        const int strides[3] = {width, cw, cw};
        result = tjCompressFromYUVPlanes(handle_, planes, width, strides, height, TJSAMP_420, &out, &size, quality_,
                                         TJFLAG_NOREALLOC | TJFLAG_FASTDCT);
    }
    if (result != 0) {
        lastError_ = tjGetErrorStr2(handle_);
        return false;
    }
    jpeg.resize(size);
    return true;
}

JPEGDecoder::JPEGDecoder() : handle_(tjInitDecompress()) {}
JPEGDecoder::~JPEGDecoder() {
    if (handle_) tjDestroy(handle_);
}

std::shared_ptr<CVPixelBuffer> JPEGDecoder::decode(const uint8_t* data, size_t size) {
    if (!handle_) {
        lastError_ = "TurboJPEG decompressor could not be made";
        return nullptr;
    }
    int width = 0, height = 0, subsampling = 0, colorspace = 0;
    if (tjDecompressHeader3(handle_, data, (unsigned long)size, &width, &height, &subsampling, &colorspace) != 0) {
        lastError_ = tjGetErrorStr2(handle_);
        return nullptr;
    }
    if (colorspace != TJCS_YCbCr && colorspace != TJCS_GRAY) {
        lastError_ = "JPEG colour space is neither YCbCr nor grey";
        return nullptr;
    }
    const bool gray = subsampling == TJSAMP_GRAY;
    const int cw = gray ? 0 : tjPlaneWidth(1, width, subsampling);
    const int ch = gray ? 0 : tjPlaneHeight(1, height, subsampling);
    y_.resize(size_t(width) * height);
    u_.resize(size_t(std::max(cw, 1)) * std::max(ch, 1));
    v_.resize(u_.size());
    unsigned char* planes[3] = {y_.data(), u_.data(), v_.data()};
    int strides[3] = {width, cw, cw};
    // A warning (a premature end, a corrupt entropy segment) fails too: the
    // picture would be partly grey.
    if (tjDecompressToYUVPlanes(handle_, data, (unsigned long)size, planes, width, strides, height, 0) != 0) {
        lastError_ = tjGetErrorStr2(handle_);
        return nullptr;
    }
    auto picture = CVPixelBuffer::make(size_t(width), size_t(height), kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
    if (!picture) {
        lastError_ = "picture too large";
        return nullptr;
    }
    for (int row = 0; row < height; ++row)
        std::memcpy(picture->baseAddressOfPlane(0) + row * picture->bytesPerRowOfPlane(0), y_.data() + size_t(row) * width,
                    size_t(width));
    const int ow = int(picture->widthOfPlane(1)), oh = int(picture->heightOfPlane(1));
    if (gray) {
        for (int row = 0; row < oh; ++row)
            std::memset(picture->baseAddressOfPlane(1) + row * picture->bytesPerRowOfPlane(1), 128, size_t(ow) * 2);
        return picture;
    }
    // Each 2×2 block of luma takes the chroma sample that covers its top left.
    std::vector<int> column(static_cast<size_t>(ow));
    for (int x = 0; x < ow; ++x) column[x] = std::min(cw - 1, int(int64_t(2 * x) * cw / width));
    for (int row = 0; row < oh; ++row) {
        const int sy = std::min(ch - 1, int(int64_t(2 * row) * ch / height));
        const uint8_t* u = u_.data() + size_t(sy) * cw;
        const uint8_t* v = v_.data() + size_t(sy) * cw;
        uint8_t* dst = picture->baseAddressOfPlane(1) + row * picture->bytesPerRowOfPlane(1);
        if (cw == ow) {
            for (int x = 0; x < ow; ++x) {
                dst[2 * x] = u[x];
                dst[2 * x + 1] = v[x];
            }
        } else {
            for (int x = 0; x < ow; ++x) {
                dst[2 * x] = u[column[x]];
                dst[2 * x + 1] = v[column[x]];
            }
        }
    }
    return picture;
}

void convertYUYVToNV12(const CVPixelBuffer& yuyv, CVPixelBuffer& nv12) {
    const size_t width = std::min(yuyv.width(), nv12.width());
    const size_t height = std::min(yuyv.height(), nv12.height());
    for (size_t row = 0; row < height; ++row) {
        const uint8_t* src = yuyv.baseAddress() + row * yuyv.bytesPerRow();
        uint8_t* dst = nv12.baseAddressOfPlane(0) + row * nv12.bytesPerRowOfPlane(0);
        for (size_t x = 0; x < width; ++x) dst[x] = src[2 * x];
    }
    for (size_t row = 0; row < (height + 1) / 2; ++row) {
        const uint8_t* a = yuyv.baseAddress() + 2 * row * yuyv.bytesPerRow();
        const uint8_t* b = 2 * row + 1 < height ? a + yuyv.bytesPerRow() : a;
        uint8_t* dst = nv12.baseAddressOfPlane(1) + row * nv12.bytesPerRowOfPlane(1);
        for (size_t x = 0; x < (width + 1) / 2; ++x) {
            dst[2 * x] = uint8_t((a[4 * x + 1] + b[4 * x + 1] + 1) >> 1);
            dst[2 * x + 1] = uint8_t((a[4 * x + 3] + b[4 * x + 3] + 1) >> 1);
        }
    }
}

}  // namespace ov::platform
