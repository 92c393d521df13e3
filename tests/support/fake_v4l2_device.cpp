#include "support/fake_v4l2_device.h"

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace ov::testing {

namespace fs = std::filesystem;

namespace {

const char* requestName(unsigned long request) {
    switch (request) {
        case VIDIOC_QUERYCAP: return "VIDIOC_QUERYCAP";
        case VIDIOC_ENUM_FMT: return "VIDIOC_ENUM_FMT";
        case VIDIOC_ENUM_FRAMESIZES: return "VIDIOC_ENUM_FRAMESIZES";
        case VIDIOC_ENUM_FRAMEINTERVALS: return "VIDIOC_ENUM_FRAMEINTERVALS";
        case VIDIOC_G_FMT: return "VIDIOC_G_FMT";
        case VIDIOC_S_FMT: return "VIDIOC_S_FMT";
        case VIDIOC_S_PARM: return "VIDIOC_S_PARM";
        case VIDIOC_REQBUFS: return "VIDIOC_REQBUFS";
        case VIDIOC_QUERYBUF: return "VIDIOC_QUERYBUF";
        case VIDIOC_QBUF: return "VIDIOC_QBUF";
        case VIDIOC_DQBUF: return "VIDIOC_DQBUF";
        case VIDIOC_STREAMON: return "VIDIOC_STREAMON";
        case VIDIOC_STREAMOFF: return "VIDIOC_STREAMOFF";
        default: return "VIDIOC_?";
    }
}

void copyText(uint8_t* out, size_t size, const std::string& text) {
    std::memset(out, 0, size);
    std::memcpy(out, text.data(), std::min(size - 1, text.size()));
}

}  // namespace

struct FakeV4L2Io::Node {
    std::string name;
    FakeV4L2Device device;
    bool unplugged = false;
    std::vector<int> fds;
    v4l2_pix_format format{};
    std::optional<v4l2_pix_format> lastSet;
    std::optional<v4l2_fract> timePerFrame;
    int streamingFd = -1;
    int streamOns = 0;
    uint64_t generation = 0;
    std::vector<std::vector<uint8_t>> buffers;
    std::deque<uint32_t> queued;
    std::deque<FakeV4L2Frame> frames;
    uint32_t sequence = 0;
};

FakeV4L2Io::FakeV4L2Io(fs::path deviceDirectory) : deviceDirectory_(std::move(deviceDirectory)) {
    fs::create_directories(deviceDirectory_);
}

FakeV4L2Io::~FakeV4L2Io() {
    {
        std::lock_guard lock(mutex_);
        closing_ = true;
    }
    wake_.notify_all();
    for (auto& thread : generators_) thread.join();
    for (auto& [fd, name] : descriptors_) ::close(fd);
}

void FakeV4L2Io::addDevice(const std::string& name, FakeV4L2Device device) {
    std::lock_guard lock(mutex_);
    auto node = std::make_unique<Node>();
    node->name = name;
    node->device = std::move(device);
    if (!node->device.formats.empty() && !node->device.formats[0].sizes.empty()) {
        node->format.pixelformat = node->device.formats[0].pixelFormat;
        node->format.width = node->device.formats[0].sizes[0].width;
        node->format.height = node->device.formats[0].sizes[0].height;
    }
    nodes_[name] = std::move(node);
    std::ofstream(deviceDirectory_ / name).put('\0');
}

void FakeV4L2Io::unplug(const std::string& name) {
    std::lock_guard lock(mutex_);
    auto& node = *nodes_.at(name);
    node.unplugged = true;
    fs::remove(deviceDirectory_ / name);
    const uint64_t one = 1;
    for (int fd : node.fds) [[maybe_unused]] auto n = ::write(fd, &one, sizeof one);
    wake_.notify_all();
}

void FakeV4L2Io::pushFrame(const std::string& name, FakeV4L2Frame frame) {
    std::lock_guard lock(mutex_);
    auto& node = *nodes_.at(name);
    node.frames.push_back(std::move(frame));
    updateReadiness(node);
}

void FakeV4L2Io::setFailure(const std::string& name, unsigned long request, int error) {
    std::lock_guard lock(mutex_);
    nodes_.at(name)->device.failures[request] = error;
}

std::vector<std::string> FakeV4L2Io::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}
void FakeV4L2Io::clearCalls() {
    std::lock_guard lock(mutex_);
    calls_.clear();
}
int FakeV4L2Io::openDescriptors() const {
    std::lock_guard lock(mutex_);
    return int(descriptors_.size());
}
size_t FakeV4L2Io::mappings() const {
    std::lock_guard lock(mutex_);
    return mappings_.size();
}
int FakeV4L2Io::streamOnCount(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return nodes_.at(name)->streamOns;
}
std::optional<v4l2_pix_format> FakeV4L2Io::lastFormat(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return nodes_.at(name)->lastSet;
}
std::optional<v4l2_fract> FakeV4L2Io::lastTimePerFrame(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return nodes_.at(name)->timePerFrame;
}

FakeV4L2Io::Node* FakeV4L2Io::nodeOf(int fd) {
    auto it = descriptors_.find(fd);
    return it == descriptors_.end() ? nullptr : nodes_.at(it->second).get();
}

// The streaming descriptor is readable exactly while a frame can be dequeued.
void FakeV4L2Io::updateReadiness(Node& node) {
    if (node.streamingFd < 0) return;
    uint64_t value;
    [[maybe_unused]] auto drained = ::read(node.streamingFd, &value, sizeof value);
    if (!node.frames.empty() && !node.queued.empty()) {
        const uint64_t one = 1;
        [[maybe_unused]] auto n = ::write(node.streamingFd, &one, sizeof one);
    }
}

int FakeV4L2Io::open(const std::string& path, int) {
    std::lock_guard lock(mutex_);
    const std::string name = fs::path(path).filename().string();
    calls_.push_back("open " + name);
    auto it = nodes_.find(name);
    if (it == nodes_.end() || it->second->unplugged || fs::path(path).parent_path() != deviceDirectory_) {
        errno = ENOENT;
        return -1;
    }
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    descriptors_[fd] = name;
    it->second->fds.push_back(fd);
    return fd;
}

int FakeV4L2Io::close(int fd) {
    std::lock_guard lock(mutex_);
    Node* node = nodeOf(fd);
    if (!node) {
        errno = EBADF;
        return -1;
    }
    calls_.push_back("close " + node->name);
    if (node->streamingFd == fd) {
        node->streamingFd = -1;
        node->buffers.clear();
        node->queued.clear();
        ++node->generation;
    }
    std::erase(node->fds, fd);
    descriptors_.erase(fd);
    ::close(fd);
    return 0;
}

int FakeV4L2Io::ioctl(int fd, unsigned long request, void* argument) {
    std::unique_lock lock(mutex_);
    Node* node = nodeOf(fd);
    if (!node) {
        errno = EBADF;
        return -1;
    }
    if (request != VIDIOC_DQBUF && request != VIDIOC_QBUF) calls_.push_back(std::string(requestName(request)) + " " + node->name);
    if (node->unplugged) {
        errno = ENODEV;
        return -1;
    }
    if (auto failure = node->device.failures.find(request); failure != node->device.failures.end()) {
        errno = failure->second;
        return -1;
    }
    const auto& device = node->device;
    switch (request) {
        case VIDIOC_QUERYCAP: {
            auto* cap = static_cast<v4l2_capability*>(argument);
            std::memset(cap, 0, sizeof *cap);
            copyText(cap->driver, sizeof cap->driver, device.driver);
            copyText(cap->card, sizeof cap->card, device.card);
            copyText(cap->bus_info, sizeof cap->bus_info, device.busInfo);
            cap->device_caps = device.deviceCaps;
            cap->capabilities = device.deviceCaps | V4L2_CAP_DEVICE_CAPS;
            return 0;
        }
        case VIDIOC_ENUM_FMT: {
            auto* desc = static_cast<v4l2_fmtdesc*>(argument);
            if (desc->index >= device.formats.size()) break;
            desc->pixelformat = device.formats[desc->index].pixelFormat;
            return 0;
        }
        case VIDIOC_ENUM_FRAMESIZES: {
            auto* size = static_cast<v4l2_frmsizeenum*>(argument);
            for (const auto& format : device.formats) {
                if (format.pixelFormat != size->pixel_format || size->index >= format.sizes.size()) continue;
                size->type = V4L2_FRMSIZE_TYPE_DISCRETE;
                size->discrete.width = format.sizes[size->index].width;
                size->discrete.height = format.sizes[size->index].height;
                return 0;
            }
            break;
        }
        case VIDIOC_ENUM_FRAMEINTERVALS: {
            auto* interval = static_cast<v4l2_frmivalenum*>(argument);
            for (const auto& format : device.formats) {
                if (format.pixelFormat != interval->pixel_format) continue;
                for (const auto& size : format.sizes) {
                    if (size.width != interval->width || size.height != interval->height ||
                        interval->index >= size.intervals.size())
                        continue;
                    interval->type = V4L2_FRMIVAL_TYPE_DISCRETE;
                    interval->discrete.numerator = size.intervals[interval->index].first;
                    interval->discrete.denominator = size.intervals[interval->index].second;
                    return 0;
                }
            }
            break;
        }
        case VIDIOC_G_FMT: {
            auto* format = static_cast<v4l2_format*>(argument);
            format->fmt.pix = node->format;
            return 0;
        }
        case VIDIOC_S_FMT: {
            if (node->streamingFd >= 0 && node->streamingFd != fd) {
                errno = EBUSY;
                return -1;
            }
            auto& pix = static_cast<v4l2_format*>(argument)->fmt.pix;
            pix.bytesperline = pix.pixelformat == V4L2_PIX_FMT_YUYV   ? pix.width * 2
                               : pix.pixelformat == V4L2_PIX_FMT_NV12 ? pix.width
                                                                      : 0;
            pix.sizeimage = pix.width * pix.height * 2;
            node->format = pix;
            node->lastSet = pix;
            return 0;
        }
        case VIDIOC_S_PARM: {
            node->timePerFrame = static_cast<v4l2_streamparm*>(argument)->parm.capture.timeperframe;
            return 0;
        }
        case VIDIOC_REQBUFS: {
            auto* request = static_cast<v4l2_requestbuffers*>(argument);
            if (request->count == 0) {
                node->buffers.clear();
                node->queued.clear();
                if (node->streamingFd == fd) node->streamingFd = -1;
                return 0;
            }
            if (node->streamingFd >= 0 && node->streamingFd != fd) {
                errno = EBUSY;
                return -1;
            }
            node->streamingFd = fd;
            node->buffers.assign(request->count, std::vector<uint8_t>(node->format.sizeimage + 4096));
            return 0;
        }
        case VIDIOC_QUERYBUF: {
            auto* buffer = static_cast<v4l2_buffer*>(argument);
            if (buffer->index >= node->buffers.size()) break;
            buffer->length = uint32_t(node->buffers[buffer->index].size());
            buffer->m.offset = buffer->index * 0x100000;
            return 0;
        }
        case VIDIOC_QBUF: {
            auto* buffer = static_cast<v4l2_buffer*>(argument);
            if (buffer->index >= node->buffers.size()) break;
            node->queued.push_back(buffer->index);
            updateReadiness(*node);
            return 0;
        }
        case VIDIOC_DQBUF: {
            if (node->frames.empty() || node->queued.empty()) {
                errno = EAGAIN;
                return -1;
            }
            auto* buffer = static_cast<v4l2_buffer*>(argument);
            const uint32_t index = node->queued.front();
            node->queued.pop_front();
            FakeV4L2Frame frame = std::move(node->frames.front());
            node->frames.pop_front();
            auto& storage = node->buffers[index];
            const size_t n = std::min(storage.size(), frame.bytes.size());
            std::memcpy(storage.data(), frame.bytes.data(), n);
            buffer->index = index;
            buffer->bytesused = uint32_t(n);
            buffer->sequence = node->sequence++;
            buffer->flags = frame.flags | (device.monotonicTimestamps ? V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC
                                                                      : V4L2_BUF_FLAG_TIMESTAMP_UNKNOWN);
            if (frame.timestamp) {
                buffer->timestamp = *frame.timestamp;
            } else {
                timespec now;
                clock_gettime(CLOCK_MONOTONIC, &now);
                buffer->timestamp = {now.tv_sec, now.tv_nsec / 1000};
            }
            updateReadiness(*node);
            return 0;
        }
        case VIDIOC_STREAMON: {
            ++node->streamOns;
            ++node->generation;
            if (device.generator) generators_.emplace_back([this, node, generation = node->generation] {
                generate(node, generation);
            });
            updateReadiness(*node);
            return 0;
        }
        case VIDIOC_STREAMOFF: {
            ++node->generation;
            node->frames.clear();
            wake_.notify_all();
            return 0;
        }
        default: break;
    }
    errno = EINVAL;
    return -1;
}

void FakeV4L2Io::generate(Node* node, uint64_t generation) {
    std::unique_lock lock(mutex_);
    const auto& interval = node->device.formats.empty() ? std::pair<uint32_t, uint32_t>{1, 30} : [&] {
        for (const auto& format : node->device.formats)
            for (const auto& size : format.sizes)
                if (format.pixelFormat == node->format.pixelformat && size.width == node->format.width &&
                    size.height == node->format.height)
                    return size.intervals.front();
        return std::pair<uint32_t, uint32_t>{1, 30};
    }();
    const auto period = std::chrono::nanoseconds(int64_t(interval.first) * 1'000'000'000 / interval.second);
    auto due = std::chrono::steady_clock::now() + period;
    uint64_t sequence = 0;
    while (!closing_ && node->generation == generation && !node->unplugged) {
        if (wake_.wait_until(lock, due, [&] { return closing_ || node->generation != generation; })) break;
        const auto format = node->format;
        auto generator = node->device.generator;
        lock.unlock();
        FakeV4L2Frame frame = generator(sequence++, format.pixelformat, format.width, format.height);
        // Stamped when "captured", as drivers do, not when dequeued.
        if (!frame.timestamp) {
            timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            frame.timestamp = timeval{now.tv_sec, now.tv_nsec / 1000};
        }
        lock.lock();
        if (node->generation != generation) break;
        // Like a driver: with no buffer queued the frame is lost.
        if (!node->queued.empty()) {
            node->frames.push_back(std::move(frame));
            updateReadiness(*node);
        }
        due += period;
    }
}

void* FakeV4L2Io::mmap(size_t length, int fd, off_t offset) {
    std::lock_guard lock(mutex_);
    Node* node = nodeOf(fd);
    const size_t index = size_t(offset) / 0x100000;
    if (!node || index >= node->buffers.size() || length > node->buffers[index].size()) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    calls_.push_back("mmap " + node->name);
    void* address = node->buffers[index].data();
    mappings_[address] = length;
    return address;
}

int FakeV4L2Io::munmap(void* address, size_t) {
    std::lock_guard lock(mutex_);
    if (!mappings_.erase(address)) {
        errno = EINVAL;
        return -1;
    }
    calls_.push_back("munmap");
    return 0;
}

int FakeV4L2Io::poll(struct pollfd* fds, nfds_t count, int timeoutMilliseconds) {
    int ready = ::poll(fds, count, timeoutMilliseconds);
    if (ready < 0) return ready;
    std::lock_guard lock(mutex_);
    for (nfds_t i = 0; i < count; ++i) {
        Node* node = nodeOf(fds[i].fd);
        if (node && node->unplugged) {
            if (!fds[i].revents) ++ready;
            fds[i].revents |= POLLERR;
        }
    }
    return ready;
}

std::vector<uint8_t> stripHuffmanTables(const std::vector<uint8_t>& jpeg) {
    std::vector<uint8_t> out(jpeg.begin(), jpeg.begin() + 2);
    size_t i = 2;
    while (i + 4 <= jpeg.size() && jpeg[i] == 0xFF) {
        const uint8_t marker = jpeg[i + 1];
        const size_t length = size_t(jpeg[i + 2]) << 8 | jpeg[i + 3];
        if (marker == 0xDA) break;  // the scan: the rest is entropy-coded data
        if (marker != 0xC4) out.insert(out.end(), jpeg.begin() + i, jpeg.begin() + i + 2 + length);
        i += 2 + length;
    }
    out.insert(out.end(), jpeg.begin() + i, jpeg.end());
    return out;
}

}  // namespace ov::testing
