#include "platform/file_handle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "foundation/platform_error.h"

namespace ov::platform {

FileHandle::~FileHandle() {
    if (fd_ >= 0) ::close(fd_);
}

FileHandle::FileHandle(FileHandle&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

FileHandle FileHandle::createNew(const std::filesystem::path& path, unsigned mode) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<mode_t>(mode));
    if (fd < 0) throw PlatformError::posix(errno, "open " + path.string());
    return FileHandle(fd);
}

FileHandle FileHandle::openForReading(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw PlatformError::posix(errno, "open " + path.string());
    return FileHandle(fd);
}

int FileHandle::checkedFd(const char* operation) const {
    if (fd_ < 0) throw PlatformError::posix(EBADF, operation);
    return fd_;
}

uint64_t FileHandle::offsetInFile() const {
    const off_t offset = ::lseek(checkedFd("lseek"), 0, SEEK_CUR);
    if (offset < 0) throw PlatformError::posix(errno, "lseek");
    return static_cast<uint64_t>(offset);
}

uint64_t FileHandle::size() const {
    struct stat st {};
    if (::fstat(checkedFd("fstat"), &st) != 0) throw PlatformError::posix(errno, "fstat");
    return static_cast<uint64_t>(st.st_size);
}

void FileHandle::write(std::string_view bytes) {
    const int fd = checkedFd("write");
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            throw PlatformError::posix(errno, "write");
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
}

void FileHandle::write(std::string_view bytes, uint64_t offset) {
    const int fd = checkedFd("pwrite");
    while (!bytes.empty()) {
        const ssize_t n = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (n < 0) {
            if (errno == EINTR) continue;
            throw PlatformError::posix(errno, "pwrite");
        }
        bytes.remove_prefix(static_cast<size_t>(n));
        offset += static_cast<uint64_t>(n);
    }
}

void FileHandle::truncate(uint64_t atOffset) {
    const int fd = checkedFd("ftruncate");
    if (::ftruncate(fd, static_cast<off_t>(atOffset)) != 0) throw PlatformError::posix(errno, "ftruncate");
    if (::lseek(fd, static_cast<off_t>(atOffset), SEEK_SET) < 0) throw PlatformError::posix(errno, "lseek");
}

void FileHandle::synchronize() {
    if (::fsync(checkedFd("fsync")) != 0) throw PlatformError::posix(errno, "fsync");
}

void FileHandle::close() {
    const int fd = std::exchange(fd_, -1);
    if (fd < 0) throw PlatformError::posix(EBADF, "close");
    // The descriptor is gone even when close reports an error; never retry it.
    if (::close(fd) != 0 && errno != EINTR) throw PlatformError::posix(errno, "close");
}

}  // namespace ov::platform
