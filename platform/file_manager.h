#pragma once
// File-system operations on whole items, the stand-in for the platform's file
// manager. Failures are the C library's errors as PlatformError.

#include <filesystem>

namespace ov::platform {

class FileHandle;

class FileManager {
public:
    // True when any directory entry, even a dangling link, has the name.
    static bool fileExists(const std::filesystem::path& path);

    // Copies the whole content of an open file into a new file at
    // `destination`, which must not exist, and flushes it to the disk. A
    // reflinking file system shares the blocks instead of copying them; others
    // copy inside the kernel. On failure no file is left at `destination`.
    static void copyItem(const FileHandle& source, const std::filesystem::path& destination);

    // Puts `item` in the place of `target` in one atomic step (a reader sees
    // the old file or the new one, never neither) and makes the new name
    // durable. `item` must lie in the same directory; afterwards it is gone.
    static void replaceItemAt(const std::filesystem::path& target, const std::filesystem::path& item);

    // Removes a file; a missing file is not an error.
    static void removeItem(const std::filesystem::path& path);

    // Flushes a directory's entries to the disk.
    static void synchronizeDirectory(const std::filesystem::path& directory);
};

}  // namespace ov::platform
