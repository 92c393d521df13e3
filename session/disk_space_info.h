#pragma once
// The capacity of the volume that holds a path, read when a recording starts
// or aborts, so that a log shows whether a full disk played a part.

#include <cstdint>
#include <filesystem>
#include <optional>

namespace ov {

class Logger;

struct DiskSpaceInfo {
    int64_t total = 0;
    int64_t available = 0;
    // Room for data the user asked for, and for data that could be recreated.
    // Linux keeps no purgeable store that would tell the two apart, so both are
    // the space an unprivileged writer can use now (statvfs f_bavail); the root
    // reserve (f_bfree - f_bavail) is left out because a recording can't use it.
    std::optional<int64_t> availableForImportantUsage;
    std::optional<int64_t> availableForOpportunisticUsage;
};

// Reads the figures afresh (nothing is cached). Fails with OVError
// fileOperationFailed, "Can't access disk space info", when the volume can't be asked.
DiskSpaceInfo getDiskSpaceInfo(const std::filesystem::path& url);

// One debug line with the four figures, as sizes for people in the message and
// as plain byte counts in the metadata ("-" for an absent one). Never fails: a
// volume that can't be asked gives an error line instead.
void logDiskSpaceInfo(const Logger& logger, const std::filesystem::path& url);
void logDiskSpaceInfo(const Logger& logger, const DiskSpaceInfo& info);

}  // namespace ov
