#pragma once
// An open file, the stand-in for the platform's file handle: positional and
// sequential writes, truncation, flushing to disk and closing. Every failure is
// the C library's error as a PlatformError. A closed handle fails every call
// with EBADF, so that a late write can never land in whatever file reuses the
// descriptor number.

#include <cstdint>
#include <filesystem>
#include <string_view>

namespace ov::platform {

class FileHandle {
public:
    // A closed handle.
    FileHandle() = default;
    // Takes ownership of an open descriptor.
    explicit FileHandle(int fd) : fd_(fd) {}
    ~FileHandle();
    FileHandle(FileHandle&& other) noexcept;
    FileHandle& operator=(FileHandle&& other) noexcept;
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    // Creates a new, empty file open for reading and writing; fails when
    // anything exists at the path.
    // Fails when the file exists. `mode` before the umask.
    static FileHandle createNew(const std::filesystem::path& path, unsigned mode = 0644);
    static FileHandle openForReading(const std::filesystem::path& path);

    bool isOpen() const { return fd_ >= 0; }
    int fileDescriptor() const { return fd_; }

    // The present offset, as sequential writes move it.
    uint64_t offsetInFile() const;
    uint64_t size() const;

    // Writes all the bytes at the present offset and moves past them.
    void write(std::string_view bytes);
    // Writes all the bytes at `offset`; the present offset stays.
    void write(std::string_view bytes, uint64_t offset);
    // Cuts the file at `offset` and moves the present offset there.
    void truncate(uint64_t atOffset);
    // Flushes the file's data and size to the disk.
    void synchronize();
    void close();

private:
    int checkedFd(const char* operation) const;
    int fd_ = -1;
};

}  // namespace ov::platform
