#include "platform/file_manager.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "platform/file_handle.h"
#include "foundation/platform_error.h"

namespace ov::platform {
namespace {

// copy_file_range and FICLONE are refused with these where the file system or
// kernel can't serve them; the plain read and write loop still can.
bool unsupported(int err) {
    return err == ENOSYS || err == EXDEV || err == EINVAL || err == EOPNOTSUPP || err == ENOTTY ||
           err == EBADF;
}

void copyWithReadWrite(int from, int to, uint64_t size) {
    std::vector<char> buffer(1 << 20);
    uint64_t offset = 0;
    while (offset < size) {
        const ssize_t n = ::pread(from, buffer.data(), buffer.size(), static_cast<off_t>(offset));
        if (n < 0) {
            if (errno == EINTR) continue;
            throw PlatformError::posix(errno, "pread");
        }
        if (n == 0) break;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::pwrite(to, buffer.data() + done, static_cast<size_t>(n - done),
                                       static_cast<off_t>(offset) + done);
            if (w < 0) {
                if (errno == EINTR) continue;
                throw PlatformError::posix(errno, "pwrite");
            }
            done += w;
        }
        offset += static_cast<uint64_t>(n);
    }
}

// Copies [0, size) and tells whether the kernel did it; false means nothing
// was copied and the caller should fall back.
bool copyInKernel(int from, int to, uint64_t size) {
    if (::ioctl(to, FICLONE, from) == 0) return true;
    loff_t inOffset = 0, outOffset = 0;
    while (static_cast<uint64_t>(inOffset) < size) {
        const ssize_t n = ::copy_file_range(from, &inOffset, to, &outOffset,
                                            static_cast<size_t>(size - static_cast<uint64_t>(inOffset)), 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (inOffset == 0 && unsupported(errno)) return false;
            throw PlatformError::posix(errno, "copy_file_range");
        }
        if (n == 0) break;  // the source shrank under us: copy what there is
    }
    return true;
}

}  // namespace

bool FileManager::fileExists(const std::filesystem::path& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

void FileManager::copyItem(const FileHandle& source, const std::filesystem::path& destination) {
    const uint64_t size = source.size();
    // The copy keeps the source's permissions: a private file stays private
    // through the intermediate file to its target.
    mode_t mode = 0644;
    struct stat st {};
    if (::fstat(source.fileDescriptor(), &st) == 0) mode = st.st_mode & 07777;
    const int to = ::open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (to < 0) throw PlatformError::posix(errno, "open " + destination.string());
    FileHandle out(to);
    try {
        if (!copyInKernel(source.fileDescriptor(), to, size)) copyWithReadWrite(source.fileDescriptor(), to, size);
        out.synchronize();
        out.close();
    } catch (...) {
        ::unlink(destination.c_str());
        throw;
    }
}

void FileManager::replaceItemAt(const std::filesystem::path& target, const std::filesystem::path& item) {
    // rename() swaps the name in one step, so unlike a copy-and-swap there is no
    // moment without a target and no backup copy is needed.
    if (::rename(item.c_str(), target.c_str()) != 0) throw PlatformError::posix(errno, "rename " + item.string());
    synchronizeDirectory(target.has_parent_path() ? target.parent_path() : std::filesystem::path("."));
}

void FileManager::removeItem(const std::filesystem::path& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw PlatformError::posix(errno, "unlink " + path.string());
}

void FileManager::synchronizeDirectory(const std::filesystem::path& directory) {
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) throw PlatformError::posix(errno, "open " + directory.string());
    FileHandle dir(fd);
    dir.synchronize();
}

}  // namespace ov::platform
