#pragma once
// The narrow boundary between the V4L2 camera code and the kernel: the system
// calls it makes on a device node. Everything above it (enumeration, format
// choice, streaming, fan-out, faults) is ours and runs the same on a fake, so
// tests drive every V4L2 path on machines with no /dev/video node.
//
// Each call has the system call's contract: -1 (or MAP_FAILED) with errno set
// on failure.

#include <poll.h>
#include <sys/types.h>

#include <memory>
#include <string>

namespace ov::platform {

class V4L2Io {
public:
    virtual ~V4L2Io() = default;
    virtual int open(const std::string& path, int flags) = 0;
    virtual int close(int fd) = 0;
    virtual int ioctl(int fd, unsigned long request, void* argument) = 0;
    virtual void* mmap(size_t length, int fd, off_t offset) = 0;
    virtual int munmap(void* address, size_t length) = 0;
    virtual int poll(struct pollfd* fds, nfds_t count, int timeoutMilliseconds) = 0;
};

// The kernel's calls (ioctl retried on EINTR).
std::shared_ptr<V4L2Io> systemV4L2Io();

}  // namespace ov::platform
