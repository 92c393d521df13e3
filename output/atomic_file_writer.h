#pragma once
// A side file that is always whole at its target path.
//
// Writing goes to a hot file beside the target ("foo.json~"); a commit
// (synchronize) flushes it, copies it to an intermediate file ("foo.tmp"),
// flushes that and renames it over the target, then flushes the directory. A
// reader of the target thus sees one committed version or the next, and a
// process killed at any moment leaves the last committed version. Nothing here
// cleans up after a crash: the hot file that a crash leaves behind stops the
// next writer for the same target, so that nobody overwrites it unseen.

#include <cstdint>
#include <filesystem>
#include <string>

#include "platform/file_handle.h"

namespace ov {

class AtomicFileWriter {
public:
    // Fails with OVError fileOperationFailed when the hot, intermediate or
    // target file exists already, or when the hot file can't be created.
    // `mode` is the permission of all three files (before the umask): 0600 for
    // files that only the user may read.
    explicit AtomicFileWriter(const std::filesystem::path& forWritingTo, unsigned mode = 0644);
    AtomicFileWriter(AtomicFileWriter&&) noexcept = default;
    AtomicFileWriter& operator=(AtomicFileWriter&&) noexcept = default;

    const std::filesystem::path& hotFile() const { return hotFile_; }
    const std::filesystem::path& intermediateFile() const { return intermediateFile_; }
    const std::filesystem::path& targetFile() const { return targetFile_; }
    // The name of a backup beside the target. rename() replaces the target in
    // one step, so no backup is ever made under it; the name is kept so that
    // tools that clean a bundle know it.
    const std::string& backupFileName() const { return backupFileName_; }

    // The open hot file: callers write through it directly.
    platform::FileHandle& fileHandle() { return fileHandle_; }
    const platform::FileHandle& fileHandle() const { return fileHandle_; }

    // The commit. Fails with the file system's error; the target then stays
    // at its previous version and no intermediate file is left.
    void synchronize();
    void truncate(uint64_t atOffset);
    // Commits, closes the hot file and removes it. When the commit fails the
    // hot file stays open and in place.
    void close();

    // The three paths that a writer for `target` uses.
    static std::filesystem::path hotFileFor(const std::filesystem::path& target);
    static std::filesystem::path intermediateFileFor(const std::filesystem::path& target);

private:
    std::filesystem::path hotFile_;
    std::filesystem::path intermediateFile_;
    std::filesystem::path targetFile_;
    std::string backupFileName_;
    platform::FileHandle fileHandle_;
};

}  // namespace ov
