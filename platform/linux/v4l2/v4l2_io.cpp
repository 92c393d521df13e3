#include "platform/linux/v4l2/v4l2_io.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace ov::platform {

namespace {

class SystemV4L2Io final : public V4L2Io {
public:
    int open(const std::string& path, int flags) override { return ::open(path.c_str(), flags | O_CLOEXEC); }
    int close(int fd) override { return ::close(fd); }
    int ioctl(int fd, unsigned long request, void* argument) override {
        int result;
        do {
            result = ::ioctl(fd, request, argument);
        } while (result < 0 && errno == EINTR);
        return result;
    }
    void* mmap(size_t length, int fd, off_t offset) override {
        return ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
    }
    int munmap(void* address, size_t length) override { return ::munmap(address, length); }
    int poll(struct pollfd* fds, nfds_t count, int timeoutMilliseconds) override {
        return ::poll(fds, count, timeoutMilliseconds);
    }
};

}  // namespace

std::shared_ptr<V4L2Io> systemV4L2Io() {
    static const auto io = std::make_shared<SystemV4L2Io>();
    return io;
}

}  // namespace ov::platform
