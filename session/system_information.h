#pragma once
// What the log says about the machine and the process when a recording is
// prepared: enough to tell apart "slow machine", "hot machine" and "old build"
// when a recording went wrong on someone else's desk.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace ov {

class Logger;

struct SystemInformation {
    // The board's product name from the firmware tables, absent on machines that don't tell.
    std::optional<std::string> modelIdentifier;
    // The distribution's name and version, then the kernel's release.
    std::string operatingSystem;
    // Seconds since boot on the monotonic clock (time asleep not counted).
    double systemUptime = 0;
    int processorCount = 0;
    int activeProcessorCount = 0;
    uint64_t physicalMemory = 0;  // bytes
    // The firmware's platform profile is "low-power".
    bool isLowPowerModeEnabled = false;
    // "nominal", "fair", "serious" or "critical", from the hottest thermal zone
    // against its own trip points.
    std::string thermalState = "nominal";
};

struct AppInformation {
    std::string processName;
    int processIdentifier = 0;
    // We ship no application bundle: an absent value is "-".
    std::string bundleIdentifier = "-";
    std::string bundleName;
    std::string buildNumber;
    std::string shortVersionString;
};

// Where the readers look; tests point them at a directory of their own.
struct SystemInformationSources {
    std::filesystem::path osRelease = "/etc/os-release";
    std::filesystem::path dmiDirectory = "/sys/devices/virtual/dmi/id";
    std::filesystem::path deviceTreeModel = "/sys/firmware/devicetree/base/model";
    std::filesystem::path platformProfile = "/sys/firmware/acpi/platform_profile";
    std::filesystem::path thermalDirectory = "/sys/class/thermal";
};

SystemInformation currentSystemInformation(const SystemInformationSources& sources = {});
AppInformation currentAppInformation();

// The thermal state of one zone: its temperature against its trip points
// (passive: "fair", hot: "serious", critical: "critical"). Values in millidegrees.
std::string thermalStateOfZone(const std::filesystem::path& zoneDirectory);

// "System information" and "App information" at debug level, the values as metadata.
void logSystemInformation(const Logger& logger, const SystemInformation& info = currentSystemInformation());
void logAppInformation(const Logger& logger, const AppInformation& info = currentAppInformation());

}  // namespace ov
