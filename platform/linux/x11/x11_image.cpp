#include "platform/linux/x11/x11_image.h"

#include <sys/mman.h>
#include <unistd.h>
#include <xcb/shm.h>

#include <algorithm>
#include <cstring>

namespace ov::platform::x11 {

X11ImageGrabber::X11ImageGrabber(std::shared_ptr<X11Connection> connection, bool useSharedMemory)
    : connection_(std::move(connection)), shmFailed_(!useSharedMemory) {}

X11ImageGrabber::~X11ImageGrabber() { releaseSegment(); }

void X11ImageGrabber::releaseSegment() {
    if (segment_ && !connection_->hasError()) xcb_shm_detach(connection_->get(), segment_);
    if (memory_) ::munmap(memory_, capacity_);
    segment_ = 0;
    memory_ = nullptr;
    capacity_ = 0;
}

void X11ImageGrabber::ensureCapacity(size_t bytes, Deadline deadline) {
    if (shmFailed_ || !connection_->extensions().shmFd) {
        shmFailed_ = true;
        return;
    }
    if (bytes <= capacity_) return;
    releaseSegment();
    // Round up, so that a window growing by a few pixels doesn't re-attach.
    const size_t size = (bytes + (1u << 20) - 1) & ~size_t((1u << 20) - 1);
    const int fd = ::memfd_create("orvane-x11-grab", MFD_CLOEXEC);
    if (fd < 0) {
        shmFailed_ = true;
        return;
    }
    if (::ftruncate(fd, static_cast<off_t>(size)) != 0) {
        ::close(fd);
        shmFailed_ = true;
        return;
    }
    void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        ::close(fd);
        shmFailed_ = true;
        return;
    }
    const uint32_t segment = xcb_generate_id(connection_->get());
    // xcb sends the descriptor and closes it.
    auto cookie = xcb_shm_attach_fd_checked(connection_->get(), segment, fd, 0);
    if (!connection_->check(cookie, deadline)) {
        ::munmap(memory, size);
        shmFailed_ = true;
        return;
    }
    segment_ = segment;
    memory_ = static_cast<uint8_t*>(memory);
    capacity_ = size;
}

const uint8_t* X11ImageGrabber::grab(xcb_drawable_t drawable, int16_t x, int16_t y, uint16_t width, uint16_t height,
                                     Deadline deadline) {
    const size_t bytes = size_t(width) * height * 4;
    ensureCapacity(bytes, deadline);
    xcb_connection_t* c = connection_->get();
    if (segment_) {
        auto cookie = xcb_shm_get_image(c, drawable, x, y, width, height, ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment_, 0);
        auto reply = connection_->wait<xcb_shm_get_image_reply_t>(cookie.sequence, deadline);
        return reply ? memory_ : nullptr;
    }
    auto cookie = xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, drawable, x, y, width, height, ~0u);
    auto reply = connection_->wait<xcb_get_image_reply_t>(cookie.sequence, deadline);
    if (!reply || size_t(xcb_get_image_data_length(reply.get())) < bytes) return nullptr;
    fallback_.assign(xcb_get_image_data(reply.get()), xcb_get_image_data(reply.get()) + bytes);
    return fallback_.data();
}

std::shared_ptr<CVPixelBuffer> PixelBufferPool::take(size_t width, size_t height) {
    std::lock_guard lock(mutex_);
    // Buffers of another size are of no more use.
    std::erase_if(buffers_, [&](const auto& b) { return b.use_count() == 1 && (b->width() != width || b->height() != height); });
    for (const auto& buffer : buffers_)
        if (buffer.use_count() == 1) return buffer;
    auto buffer = CVPixelBuffer::make(width, height, kCVPixelFormatType_32BGRA);
    if (!buffer) return nullptr;
    buffers_.push_back(buffer);
    // Drop spares beyond what we keep (only free ones).
    size_t free = 0;
    for (const auto& b : buffers_) free += b.use_count() == 1;
    for (auto it = buffers_.begin(); free > keep_ && it != buffers_.end();) {
        if (it->use_count() == 1) {
            it = buffers_.erase(it);
            --free;
        } else {
            ++it;
        }
    }
    return buffer;
}

size_t PixelBufferPool::size() const {
    std::lock_guard lock(mutex_);
    return buffers_.size();
}

void copyOpaque(const uint8_t* source, size_t sourceStride, size_t width, size_t height, CVPixelBuffer& target,
                size_t x, size_t y) {
    width = std::min(width, target.width() > x ? target.width() - x : 0);
    height = std::min(height, target.height() > y ? target.height() - y : 0);
    for (size_t row = 0; row < height; ++row) {
        const auto* in = reinterpret_cast<const uint32_t*>(source + row * sourceStride);
        auto* out = reinterpret_cast<uint32_t*>(target.baseAddress() + (y + row) * target.bytesPerRow()) + x;
        for (size_t i = 0; i < width; ++i) out[i] = in[i] | 0xFF000000u;
    }
}

}  // namespace ov::platform::x11
