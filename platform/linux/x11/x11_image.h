#pragma once
// Pictures out of the X server: MIT-SHM GetImage into a memfd segment shared
// with the server (plain GetImage when the server has no MIT-SHM), and a pool
// of pixel buffers that frames are copied into, so that a steady stream of
// frames costs neither page faults nor zero-filling.

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/cv_pixel_buffer.h"
#include "platform/linux/x11/x11_connection.h"

namespace ov::platform::x11 {

class X11ImageGrabber {
public:
    // Without shared memory every picture travels through the socket
    // (the fallback, and the peer of the benchmark).
    explicit X11ImageGrabber(std::shared_ptr<X11Connection> connection, bool useSharedMemory = true);
    ~X11ImageGrabber();
    X11ImageGrabber(const X11ImageGrabber&) = delete;
    X11ImageGrabber& operator=(const X11ImageGrabber&) = delete;

    // Reads a rectangle of a drawable (depth 24 or 32, ZPixmap) as 4 bytes per
    // pixel, rows of width × 4 bytes. Valid until the next grab. Null when the
    // server refused (the drawable went, the rectangle left it).
    const uint8_t* grab(xcb_drawable_t drawable, int16_t x, int16_t y, uint16_t width, uint16_t height,
                        Deadline deadline);
    bool usesSharedMemory() const { return segment_ != 0; }

private:
    void ensureCapacity(size_t bytes, Deadline deadline);
    void releaseSegment();

    std::shared_ptr<X11Connection> connection_;
    uint32_t segment_ = 0;
    uint8_t* memory_ = nullptr;
    size_t capacity_ = 0;
    bool shmFailed_ = false;
    std::vector<uint8_t> fallback_;
};

// Reuses BGRA buffers that no sample holds any more. A buffer is free when
// the pool holds its only reference; the pool grows when all are taken, so a
// slow consumer never stalls capture, and shrinks back to `keep` spares.
class PixelBufferPool {
public:
    explicit PixelBufferPool(size_t keep = 10) : keep_(keep) {}
    std::shared_ptr<CVPixelBuffer> take(size_t width, size_t height);
    size_t size() const;

private:
    mutable std::mutex mutex_;
    size_t keep_;
    std::vector<std::shared_ptr<CVPixelBuffer>> buffers_;
};

// Copies a grabbed picture (4 bytes per pixel, X byte undefined) into a
// BGRA buffer at (x, y), setting alpha to opaque.
void copyOpaque(const uint8_t* source, size_t sourceStride, size_t width, size_t height, CVPixelBuffer& target,
                size_t x = 0, size_t y = 0);

}  // namespace ov::platform::x11
