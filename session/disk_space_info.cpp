#include "session/disk_space_info.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>

#include "foundation/ov_error.h"

namespace ov {

DiskSpaceInfo getDiskSpaceInfo(const std::filesystem::path& url) {
    struct statvfs volume {};
    if (::statvfs(url.c_str(), &volume) != 0) {
        const int error = errno;
        throw OVError(OVError::Code::fileOperationFailed, "Can't access disk space info", std::nullopt,
                      {{"path", url.string()}, {"errno", std::strerror(error)}});
    }
    const auto bytes = [&](fsblkcnt_t blocks) {
        return static_cast<int64_t>(blocks) * static_cast<int64_t>(volume.f_frsize);
    };
    DiskSpaceInfo info;
    info.total = bytes(volume.f_blocks);
    info.available = bytes(volume.f_bavail);
    info.availableForImportantUsage = info.available;
    info.availableForOpportunisticUsage = info.available;
    return info;
}

}  // namespace ov

#include "output/ov_logger.h"
#include "platform/byte_count_formatter.h"

namespace ov {

void logDiskSpaceInfo(const Logger& logger, const DiskSpaceInfo& info) {
    const auto forPeople = [](std::optional<int64_t> bytes) {
        return bytes ? platform::formatByteCount(*bytes, platform::ByteCountStyle::file) : std::string("-");
    };
    const auto plain = [](std::optional<int64_t> bytes) { return bytes ? std::to_string(*bytes) : std::string("-"); };
    logger.debug(
        [&] {
            return "Disk space information. total: " + forPeople(info.total) + ", available: " +
                   forPeople(info.available) + ", availableForImportantUsage: " +
                   forPeople(info.availableForImportantUsage) + ", availableForOpportunisticUsage: " +
                   forPeople(info.availableForOpportunisticUsage);
        },
        [&] {
            // The keys, misspelling included, are part of the log format.
            return LogMetadata{{"total", plain(info.total)},
                               {"available", plain(info.available)},
                               {"availableImportant", plain(info.availableForImportantUsage)},
                               {"availableOppertunistic", plain(info.availableForOpportunisticUsage)}};
        });
}

void logDiskSpaceInfo(const Logger& logger, const std::filesystem::path& url) {
    try {
        logDiskSpaceInfo(logger, getDiskSpaceInfo(url));
    } catch (const std::exception& e) {
        const std::string error = platform::describeError(e).debugDescription;
        logger.error("Could not log disk space info", [&] {
            return LogMetadata{{"error", error}, {"url", url.string()}};
        });
    } catch (...) {
        logger.error("Could not log disk space info", [&] {
            return LogMetadata{{"error", "unknown error"}, {"url", url.string()}};
        });
    }
}

}  // namespace ov
