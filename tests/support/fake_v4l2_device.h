#pragma once
// A V4L2 node in memory, behind the same system-call boundary as the real
// kernel, so that tests run every V4L2 path (enumeration, formats, streaming,
// fan-out, faults) on machines with no camera.
//
// FakeV4L2Io holds nodes by name ("video0") and creates an empty file of that
// name in its device directory, which is what the provider scans. A node's
// file descriptors are real eventfds, so the capture thread's poll() works;
// the fake makes them readable while a frame is ready for a queued buffer.
// Frames come from pushFrame() or, while streaming, from a generator at the
// node's frame rate. Every call is recorded by name for sequence checks.

#include <linux/videodev2.h>
#include <sys/time.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/v4l2/v4l2_io.h"

namespace ov::testing {

struct FakeV4L2Frame {
    std::vector<uint8_t> bytes;
    uint32_t flags = 0;  // e.g. V4L2_BUF_FLAG_ERROR
    std::optional<timeval> timestamp;  // default: the monotonic time of dequeueing
};

struct FakeV4L2Device {
    struct Size {
        uint32_t width = 0, height = 0;
        // Discrete intervals as numerator/denominator, fastest first or not.
        std::vector<std::pair<uint32_t, uint32_t>> intervals = {{1, 30}};
    };
    struct Format {
        uint32_t pixelFormat = V4L2_PIX_FMT_YUYV;
        std::vector<Size> sizes;
    };

    std::string driver = "uvcvideo";
    std::string card = "Fake Camera: Fake Camera";
    std::string busInfo = "usb-0000:00:14.0-1";
    uint32_t deviceCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    std::vector<Format> formats;
    bool monotonicTimestamps = true;
    // ioctl request → errno: that call fails on this node.
    std::map<unsigned long, int> failures;
    // Makes the frames while streaming (sequence, pixel format, width, height);
    // none: only pushed frames arrive.
    std::function<FakeV4L2Frame(uint64_t, uint32_t, uint32_t, uint32_t)> generator;
};

class FakeV4L2Io final : public platform::V4L2Io {
public:
    explicit FakeV4L2Io(std::filesystem::path deviceDirectory);
    ~FakeV4L2Io() override;

    void addDevice(const std::string& node, FakeV4L2Device device);
    // Unplugged: the file goes; the node's calls fail with ENODEV and its
    // descriptors poll with POLLERR.
    void unplug(const std::string& node);
    void pushFrame(const std::string& node, FakeV4L2Frame frame);
    void setFailure(const std::string& node, unsigned long request, int error);

    // "open video0", "VIDIOC_S_FMT video0", "mmap video0", ...
    std::vector<std::string> calls() const;
    void clearCalls();
    int openDescriptors() const;
    size_t mappings() const;
    int streamOnCount(const std::string& node) const;
    // The last format and frame interval the node was set to.
    std::optional<v4l2_pix_format> lastFormat(const std::string& node) const;
    std::optional<v4l2_fract> lastTimePerFrame(const std::string& node) const;

    int open(const std::string& path, int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* argument) override;
    void* mmap(size_t length, int fd, off_t offset) override;
    int munmap(void* address, size_t length) override;
    int poll(struct pollfd* fds, nfds_t count, int timeoutMilliseconds) override;

private:
    struct Node;
    Node* nodeOf(int fd);
    void updateReadiness(Node& node);
    void generate(Node* node, uint64_t generation);

    std::filesystem::path deviceDirectory_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::map<std::string, std::unique_ptr<Node>> nodes_;
    std::map<int, std::string> descriptors_;
    std::map<void*, size_t> mappings_;
    std::vector<std::string> calls_;
    std::vector<std::thread> generators_;
    bool closing_ = false;
};

// A JPEG without its huffman tables, as UVC cameras send them.
std::vector<uint8_t> stripHuffmanTables(const std::vector<uint8_t>& jpeg);

}  // namespace ov::testing
