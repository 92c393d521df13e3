#pragma once
// The window server's own lists, as discovery reads them: the active
// displays with their identity (EDID numbers, connector, physical size), the
// window list front to back as loosely typed entries, and the running
// applications. Unlike shareable content these are cheap reads meant for
// polling; a backend fills them from the same sources.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/cg_geometry.h"
#include "platform/sc_shareable_content.h"

namespace ov::platform {

struct CGDisplayInfo {
    CGDirectDisplayID displayID = 0;
    // The display this one shows the same picture as; 0 if none.
    CGDirectDisplayID mirrorsDisplay = 0;
    bool isMain = false;
    bool isActive = true;
    bool isBuiltin = false;
    // Global points, top-left origin.
    CGRect bounds;
    // Degrees: 0, 90, 180, 270.
    double rotation = 0;
    // Millimetres; zero when unknown.
    CGSize screenSize;
    uint32_t vendorNumber = 0, modelNumber = 0, serialNumber = 0, unitNumber = 0;
    // The screen's own name (the monitor's product name, else the name the
    // display server gives it); absent when the display has no screen.
    std::optional<std::string> screenName;
};

// One window of the window list; a field the server did not report is
// absent, as a missing key of a window dictionary would be.
struct CGWindowEntry {
    std::optional<uint32_t> number;
    std::optional<CGRect> bounds;
    std::optional<int32_t> layer;
    std::optional<std::string> name;
    std::optional<bool> isOnscreen;
    std::optional<int32_t> ownerPID;
    std::optional<std::string> ownerName;
    std::optional<int32_t> sharingState;
    std::optional<double> alpha;
    std::optional<int64_t> memoryUsage;
};

struct RunningApplicationInfo {
    int32_t processIdentifier = 0;
    std::optional<std::string> localizedName;
    std::optional<std::string> bundleIdentifier;
};

// Option of the window list read.
enum class CGWindowListOption { all = 0, onScreenOnly = 1 };

// The same read off a shareable content snapshot, for backends with no
// cheaper way: the display at the origin is main, every window has sharing
// state 1, alpha 1 and four bytes a point, and windows without an owner have
// no owner id.
std::vector<CGDisplayInfo> displayInfos(const SCShareableContent& content);
std::vector<CGWindowEntry> windowEntries(const SCShareableContent& content);
std::vector<RunningApplicationInfo> runningApplicationInfos(const SCShareableContent& content);

// The DMI chassis type says portable (laptop, notebook, sub-notebook,
// convertible, detachable, ...); absent when it can't be read.
std::optional<bool> dmiChassisIsPortable();

}  // namespace ov::platform
