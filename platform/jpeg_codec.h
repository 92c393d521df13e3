#pragma once
// JPEG pictures in and out, on libjpeg-turbo's TurboJPEG API: what the preview
// server sends and what MJPEG cameras deliver.
//
// Encoding takes the pixel buffers that capture produces: 4:2:0 bi-planar in
// video or full range, 4:2:0 planar (video range), packed YUYV (video range,
// as UVC cameras send it) and BGRA. JFIF is full-range BT.601, so video-range
// luma and chroma are expanded first; otherwise blacks come out grey.
//
// Decoding gives a full-range 4:2:0 bi-planar picture ('420f') at the JPEG's
// own size, whatever its chroma subsampling. JPEGs without huffman tables (as
// UVC cameras send them) decode with the standard tables. A picture that is
// truncated or corrupt fails: libjpeg only warns for a premature end, and a
// half grey picture is worse than a dropped one.
//
// Neither object is thread-safe; each keeps its TurboJPEG handle and scratch
// memory between calls, so make one per thread.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/cv_pixel_buffer.h"

namespace ov::platform {

class JPEGEncoder {
public:
    explicit JPEGEncoder(int quality = 80);
    ~JPEGEncoder();
    JPEGEncoder(const JPEGEncoder&) = delete;
    JPEGEncoder& operator=(const JPEGEncoder&) = delete;

    // The picture as a baseline JPEG with 4:2:0 chroma, at its own size; false
    // with the reason in lastError() for formats it can't take.
    bool encode(const CVPixelBuffer& picture, std::vector<uint8_t>& jpeg);
    const std::string& lastError() const { return lastError_; }

private:
    void* handle_;
    int quality_;
    std::vector<uint8_t> y_, u_, v_;
    std::string lastError_;
};

class JPEGDecoder {
public:
    JPEGDecoder();
    ~JPEGDecoder();
    JPEGDecoder(const JPEGDecoder&) = delete;
    JPEGDecoder& operator=(const JPEGDecoder&) = delete;

    // A '420f' picture, or null with the reason in lastError().
    std::shared_ptr<CVPixelBuffer> decode(const uint8_t* data, size_t size);
    const std::string& lastError() const { return lastError_; }

private:
    void* handle_;
    std::vector<uint8_t> y_, u_, v_;
    std::string lastError_;
};

// Packed YUYV (4:2:2) to 4:2:0 bi-planar of the same range: chroma of each
// pair of rows averaged.
void convertYUYVToNV12(const CVPixelBuffer& yuyv, CVPixelBuffer& nv12);

}  // namespace ov::platform
