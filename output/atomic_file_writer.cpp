#include "output/atomic_file_writer.h"

#include "platform/file_manager.h"
#include "foundation/platform_error.h"
#include "foundation/ov_error.h"

namespace ov {
namespace {

[[noreturn]] void throwFileOperationFailed(const std::string& debugDescription) {
    throw OVError(OVError::Code::fileOperationFailed, debugDescription);
}

}  // namespace

std::filesystem::path AtomicFileWriter::hotFileFor(const std::filesystem::path& target) {
    std::filesystem::path hot = target;
    hot += "~";
    return hot;
}

std::filesystem::path AtomicFileWriter::intermediateFileFor(const std::filesystem::path& target) {
    std::filesystem::path intermediate = target;
    intermediate.replace_extension("tmp");
    return intermediate;
}

AtomicFileWriter::AtomicFileWriter(const std::filesystem::path& forWritingTo, unsigned mode)
    : hotFile_(hotFileFor(forWritingTo)),
      intermediateFile_(intermediateFileFor(forWritingTo)),
      targetFile_(forWritingTo),
      backupFileName_(forWritingTo.filename().string() + ".bak") {
    for (const auto* path : {&hotFile_, &intermediateFile_, &targetFile_}) {
        if (platform::FileManager::fileExists(*path)) throwFileOperationFailed("File already exists at " + path->string());
    }
    try {
        fileHandle_ = platform::FileHandle::createNew(hotFile_, mode);
    } catch (const platform::PlatformError&) {
        throwFileOperationFailed("Unable to create file " + hotFile_.string());
    }
}

void AtomicFileWriter::synchronize() {
    fileHandle_.synchronize();
    platform::FileManager::copyItem(fileHandle_, intermediateFile_);
    try {
        platform::FileManager::replaceItemAt(targetFile_, intermediateFile_);
    } catch (...) {
        // A stale intermediate file would make every later commit fail.
        try {
            platform::FileManager::removeItem(intermediateFile_);
        } catch (...) {
        }
        throw;
    }
}

void AtomicFileWriter::truncate(uint64_t atOffset) { fileHandle_.truncate(atOffset); }

void AtomicFileWriter::close() {
    synchronize();
    fileHandle_.close();
    platform::FileManager::removeItem(hotFile_);
}

}  // namespace ov
