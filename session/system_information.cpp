#include "session/system_information.h"

#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <system_error>

namespace ov {

namespace {

std::optional<std::string> readFirstLine(const std::filesystem::path& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::string line;
    std::getline(in, line);
    // Device-tree strings end in a NUL; firmware fields sometimes in blanks.
    while (!line.empty() && (line.back() == '\0' || line.back() == ' ' || line.back() == '\r')) line.pop_back();
    if (line.empty()) return std::nullopt;
    return line;
}

std::optional<long long> readNumber(const std::filesystem::path& path) {
    auto line = readFirstLine(path);
    if (!line) return std::nullopt;
    try {
        return std::stoll(*line);
    } catch (...) {
        return std::nullopt;
    }
}

// A value of /etc/os-release, with its shell quoting removed.
std::optional<std::string> osReleaseValue(const std::filesystem::path& path, const std::string& key) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(key + "=", 0) != 0) continue;
        std::string value = line.substr(key.size() + 1);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
            value = value.substr(1, value.size() - 2);
        if (value.empty()) return std::nullopt;
        return value;
    }
    return std::nullopt;
}

std::optional<std::string> modelIdentifier(const SystemInformationSources& sources) {
    // PCs name the product in DMI; boards without DMI (ARM) in the device tree.
    auto product = readFirstLine(sources.dmiDirectory / "product_name");
    if (product) {
        if (auto version = readFirstLine(sources.dmiDirectory / "product_version");
            version && *version != "None" && *version != "Not Specified")
            return *product + " " + *version;
        return product;
    }
    return readFirstLine(sources.deviceTreeModel);
}

std::string operatingSystem(const SystemInformationSources& sources) {
    std::string name = osReleaseValue(sources.osRelease, "PRETTY_NAME").value_or("Linux");
    utsname u{};
    if (::uname(&u) == 0) name += std::string(", kernel ") + u.release;
    return name;
}

int severity(const std::string& state) {
    if (state == "critical") return 3;
    if (state == "serious") return 2;
    if (state == "fair") return 1;
    return 0;
}

}  // namespace

std::string thermalStateOfZone(const std::filesystem::path& zone) {
    const auto temperature = readNumber(zone / "temp");
    if (!temperature) return "nominal";
    std::string state = "nominal";
    for (int i = 0;; ++i) {
        const auto type = readFirstLine(zone / ("trip_point_" + std::to_string(i) + "_type"));
        if (!type) break;
        const auto trip = readNumber(zone / ("trip_point_" + std::to_string(i) + "_temp"));
        // A trip point of zero or below is a disabled one.
        if (!trip || *trip <= 0 || *temperature < *trip) continue;
        std::string reached = *type == "critical" ? "critical" : *type == "hot" ? "serious" : *type == "passive" ? "fair" : "nominal";
        if (severity(reached) > severity(state)) state = reached;
    }
    return state;
}

SystemInformation currentSystemInformation(const SystemInformationSources& sources) {
    SystemInformation info;
    info.modelIdentifier = modelIdentifier(sources);
    info.operatingSystem = operatingSystem(sources);
    timespec now{};
    if (::clock_gettime(CLOCK_MONOTONIC, &now) == 0)
        info.systemUptime = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
    info.processorCount = static_cast<int>(std::max(1L, ::sysconf(_SC_NPROCESSORS_CONF)));
    info.activeProcessorCount = static_cast<int>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages > 0 && pageSize > 0) info.physicalMemory = static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
    info.isLowPowerModeEnabled = readFirstLine(sources.platformProfile).value_or("") == "low-power";

    std::error_code ec;
    for (std::filesystem::directory_iterator it(sources.thermalDirectory, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().filename().string().rfind("thermal_zone", 0) != 0) continue;
        const std::string state = thermalStateOfZone(it->path());
        if (severity(state) > severity(info.thermalState)) info.thermalState = state;
    }
    return info;
}

AppInformation currentAppInformation() {
    AppInformation info;
    info.processName = readFirstLine("/proc/self/comm").value_or("orvane-rpc");
    info.processIdentifier = static_cast<int>(::getpid());
    info.bundleName = "orvane-rpc";
#ifdef ORVANE_VERSION
    info.shortVersionString = ORVANE_VERSION;
    info.buildNumber = ORVANE_VERSION;
#else
    info.shortVersionString = "-";
    info.buildNumber = "-";
#endif
    return info;
}

}  // namespace ov

#include "output/ov_logger.h"
#include "platform/byte_count_formatter.h"

namespace ov {

void logSystemInformation(const Logger& logger, const SystemInformation& info) {
    logger.debug("System information", [&] {
        return LogMetadata{
            {"modelIdentifier", info.modelIdentifier.value_or("-")},
            {"operatingSystem", info.operatingSystem},
            {"systemUptime", fmt::format("{}", info.systemUptime)},
            {"processorCount", std::to_string(info.processorCount)},
            {"activeProcessorCount", std::to_string(info.activeProcessorCount)},
            {"physicalMemory", platform::formatByteCount(static_cast<int64_t>(info.physicalMemory),
                                                         platform::ByteCountStyle::memory)},
            {"isLowPowerModeEnabled", info.isLowPowerModeEnabled ? "true" : "false"},
            {"thermalState", info.thermalState},
        };
    });
}

void logAppInformation(const Logger& logger, const AppInformation& info) {
    logger.debug("App information", [&] {
        return LogMetadata{
            {"processName", info.processName},
            {"processIdentifier", std::to_string(info.processIdentifier)},
            {"bundleIdentifier", info.bundleIdentifier},
            {"bundleName", info.bundleName},
            {"buildNumber", info.buildNumber},
            {"shortVersionString", info.shortVersionString},
        };
    });
}

}  // namespace ov
