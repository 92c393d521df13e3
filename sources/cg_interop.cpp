#include "sources/cg_interop.h"

#include <algorithm>

#include "output/ov_logger.h"
#include "platform/capture_platform.h"

namespace ov::CGInterop {

using platform::CapturePlatform;

namespace {

const Logger& logger() {
    static const Logger instance("CGInterop");
    return instance;
}

constexpr uint32_t aapl = 1633775724;  // 'aapl'

}  // namespace

std::optional<std::string> vendorSerialName(uint32_t vendor, uint32_t model) {
    if (vendor == aapl && model == 0) return "AirPlay Display";
    if (vendor == aapl && model == 1337) return "Sidecar Display (AirPlay)";
    if (vendor == 1552) return model == 41038 ? "Built-in Retina Display" : "Apple Display";
    if (vendor == 7789 && model == 23313) return "LG UltraFine";
    if (vendor == 40557 || vendor == 7789 || vendor == 1970170734) return "LG Display";
    switch (vendor) {
        case 4268: return "Dell Display";
        case 9933: return "iiyama Display";
        case 12388: return "Eiki Display";
        case 16652: return "Philips Display";
        case 19501: return "Samsung Display";
        default: return std::nullopt;
    }
}

Display Display::from(const platform::CGDisplayInfo& info) {
    Display d;
    d.displayID = info.displayID;
    d.mirrorsDisplay = info.mirrorsDisplay;
    d.isMain = info.isMain;
    d.isActive = info.isActive;
    d.isBuiltin = info.isBuiltin;
    d.bounds = info.bounds;
    d.rotation = info.rotation;
    d.screenSize = info.screenSize;
    d.modelNumber = info.modelNumber;
    d.serialNumber = info.serialNumber;
    d.unitNumber = info.unitNumber;
    d.vendorNumber = info.vendorNumber;
    d.screenName = info.screenName;
    return d;
}

std::vector<Display> Display::getActiveDisplays() {
    std::vector<Display> displays;
    for (const auto& info : CapturePlatform::shared()->activeDisplays())
        if (info.displayID != 0) displays.push_back(from(info));
    std::sort(displays.begin(), displays.end(), [](const Display& a, const Display& b) { return a.displayID < b.displayID; });
    return displays;
}

std::vector<uint32_t> Display::getActiveDisplays(platform::CGPoint point) {
    std::vector<uint32_t> ids;
    for (const auto& display : getActiveDisplays())
        if (platform::CGRectContainsPoint(display.bounds, point)) ids.push_back(display.displayID);
    return ids;
}

std::optional<Display> Display::make(uint32_t displayID) {
    if (displayID == 0) {
        logger().log(OVLogLevel::critical, "CGInterop.Display was unexpectedly constructed with kCGNullDirectDisplay.");
        return std::nullopt;
    }
    try {
        for (const auto& display : getActiveDisplays())
            if (display.displayID == displayID) return display;
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

std::string Display::displayName(const std::vector<Display>& others) const {
    std::string name = "Display #" + std::to_string(displayID);
    if (auto vendor = vendorSerialName(vendorNumber, modelNumber)) name = *vendor;
    if (screenName) {
        name = *screenName;
    } else if (mirrorsDisplay != 0) {
        for (const auto& other : others)
            if (other.displayID == mirrorsDisplay && other.displayID != displayID) {
                name += " (mirror of " + other.displayName({}) + ")";
                break;
            }
    }
    if (name == "Sidecar Display (AirPlay)") name = "iPad Sidecar";
    return name;
}

std::optional<Window> Window::parse(const platform::CGWindowEntry& e) {
    if (!e.number || !e.bounds || !e.layer || !e.sharingState || !e.alpha || !e.memoryUsage || !e.ownerPID)
        return std::nullopt;
    Window w;
    w.number = *e.number;
    w.bounds = *e.bounds;
    w.layer = *e.layer;
    w.name = e.name;
    w.isOnscreen = e.isOnscreen;
    w.ownerPID = *e.ownerPID;
    w.ownerName = e.ownerName;
    w.sharingState = *e.sharingState;
    w.alpha = *e.alpha;
    w.memoryUsage = *e.memoryUsage;
    return w;
}

std::vector<Window> Window::getWindows(platform::CGWindowListOption option) {
    std::vector<Window> windows;
    std::vector<platform::CGWindowEntry> entries;
    try {
        entries = CapturePlatform::shared()->windowList(option);
    } catch (const std::exception& e) {
        logger().debug("Window list unavailable", [&] { return LogMetadata{{"error", e.what()}}; });
        return windows;
    }
    for (const auto& entry : entries)
        if (auto window = parse(entry)) windows.push_back(std::move(*window));
    return windows;
}

std::vector<Window> Window::getWindows(const std::vector<uint32_t>& ids) {
    auto windows = getWindows(platform::CGWindowListOption::all);
    std::vector<Window> chosen;
    for (const auto& window : windows)
        if (std::find(ids.begin(), ids.end(), window.number) != ids.end()) chosen.push_back(window);
    return chosen;
}

}  // namespace ov::CGInterop
