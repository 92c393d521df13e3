#include "platform/cg_window_list.h"

#include <fstream>

#include "platform/capture_platform.h"

namespace ov::platform {

std::vector<CGDisplayInfo> displayInfos(const SCShareableContent& content) {
    std::vector<CGDisplayInfo> displays;
    uint32_t unit = 0;
    for (const auto& display : content.displays()) {
        CGDisplayInfo info;
        info.displayID = display.displayID;
        info.bounds = display.frame;
        info.isMain = display.frame.origin.x == 0 && display.frame.origin.y == 0;
        info.unitNumber = unit++;
        displays.push_back(info);
    }
    return displays;
}

std::vector<CGWindowEntry> windowEntries(const SCShareableContent& content) {
    std::vector<CGWindowEntry> entries;
    for (const auto& window : content.windows()) {
        CGWindowEntry entry;
        entry.number = window.windowID;
        entry.bounds = window.frame;
        entry.layer = window.windowLayer;
        entry.name = window.title;
        entry.isOnscreen = window.isOnScreen;
        if (window.owningApplication) {
            entry.ownerPID = window.owningApplication->processID;
            entry.ownerName = window.owningApplication->applicationName;
        }
        entry.sharingState = 1;
        entry.alpha = 1.0;
        entry.memoryUsage = static_cast<int64_t>(window.frame.size.width * window.frame.size.height * 4);
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::vector<RunningApplicationInfo> runningApplicationInfos(const SCShareableContent& content) {
    std::vector<RunningApplicationInfo> applications;
    for (const auto& application : content.applications()) {
        RunningApplicationInfo info;
        info.processIdentifier = application.processID;
        if (!application.applicationName.empty()) info.localizedName = application.applicationName;
        if (!application.bundleIdentifier.empty()) info.bundleIdentifier = application.bundleIdentifier;
        applications.push_back(std::move(info));
    }
    return applications;
}

std::optional<bool> dmiChassisIsPortable() {
    std::ifstream in("/sys/class/dmi/id/chassis_type");
    int type = 0;
    if (!(in >> type)) return std::nullopt;
    // SMBIOS: portable 8, laptop 9, notebook 10, sub-notebook 14, convertible 31, detachable 32.
    switch (type) {
        case 8: case 9: case 10: case 14: case 31: case 32: return true;
        default: return false;
    }
}

// ---- CapturePlatform defaults

std::vector<CGDisplayInfo> CapturePlatform::activeDisplays() const {
    return displayInfos(shareableContent(false, false));
}

std::vector<CGWindowEntry> CapturePlatform::windowList(CGWindowListOption option) const {
    return windowEntries(shareableContent(false, option == CGWindowListOption::onScreenOnly));
}

std::vector<RunningApplicationInfo> CapturePlatform::runningApplications() const {
    return runningApplicationInfos(shareableContent(false, false));
}

std::optional<bool> CapturePlatform::isPortableChassis() const { return std::nullopt; }

}  // namespace ov::platform
