#pragma once
// CGInterop: the typed layer over the window server's display and window
// lists (platform/cg_window_list.h), with the rules for a display's friendly
// name.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/cg_geometry.h"
#include "platform/cg_window_list.h"

namespace ov::CGInterop {

using platform::CGRect;
using platform::CGSize;

// "Dell Display", "LG UltraFine", ... by the EDID maker and product numbers;
// absent for makers without a name here.
std::optional<std::string> vendorSerialName(uint32_t vendorNumber, uint32_t modelNumber);

struct Display {
    uint32_t displayID = 0;
    uint32_t mirrorsDisplay = 0;
    bool isMain = false;
    bool isActive = false;
    bool isBuiltin = false;
    CGRect bounds;
    double rotation = 0;
    CGSize screenSize;
    uint32_t modelNumber = 0, serialNumber = 0, unitNumber = 0, vendorNumber = 0;
    // The screen showing this display and its name; absent with no screen.
    std::optional<std::string> screenName;

    static Display from(const platform::CGDisplayInfo& info);
    // The display with this id among the active ones; absent when it can't
    // be read. The null id logs a critical line.
    static std::optional<Display> make(uint32_t displayID);
    // The active displays by id, ascending. Throws the platform's error.
    static std::vector<Display> getActiveDisplays();
    // The ids of the active displays that contain the point.
    static std::vector<uint32_t> getActiveDisplays(platform::CGPoint containing);

    // "Display #<id>", replaced by the vendor's name, replaced by the
    // screen's own name; a display without a screen that mirrors a readable
    // one gets " (mirror of <its name>)"; "Sidecar Display (AirPlay)" is
    // shown as "iPad Sidecar". `others` are the displays a mirror is looked
    // up in.
    std::string displayName(const std::vector<Display>& others) const;
};

struct Window {
    uint32_t number = 0;
    CGRect bounds;
    int32_t layer = 0;
    std::optional<std::string> name;
    std::optional<bool> isOnscreen;
    int32_t ownerPID = 0;
    std::optional<std::string> ownerName;
    int32_t sharingState = 0;
    double alpha = 1;
    int64_t memoryUsage = 0;

    // Absent for an entry that lacks a mandatory field (number, bounds,
    // layer, sharing state, alpha, memory usage, owner id).
    static std::optional<Window> parse(const platform::CGWindowEntry& entry);
    // Front to back; entries that don't parse are skipped; a read that fails
    // gives an empty list.
    static std::vector<Window> getWindows(platform::CGWindowListOption option);
    static std::vector<Window> getWindows(const std::vector<uint32_t>& ids);

    friend bool operator==(const Window&, const Window&) = default;
};

}  // namespace ov::CGInterop
