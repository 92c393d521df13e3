#pragma once
// The little that error diagnostics need to know of the discovered sources: a
// source's name and availability by id. The discoveries install an
// implementation at start; until they do, nothing is found, and a caller that
// asks about a source raises its own general error.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ov {

// Cameras and microphones.
enum class CaptureDeviceAvailability { available, lidClosed, unknownSuspended, notConnected };
enum class AppleDeviceAvailability { available, notPaired, notConnected, pairedNeedsConnect, pairedNeedsReconnect };
enum class DisplayAvailability { available, lidClosed, notConnected };
enum class WindowAvailability { available, notOnScreen, closed };

// The case names, as they are logged.
std::string_view caseName(CaptureDeviceAvailability availability);
std::string_view caseName(AppleDeviceAvailability availability);
std::string_view caseName(DisplayAvailability availability);
std::string_view caseName(WindowAvailability availability);

template <class Availability>
struct NamedSource {
    std::string localizedName;
    Availability availability;
};

struct WindowSource {
    std::optional<std::string> title;
    std::optional<std::string> applicationName;
    WindowAvailability availability = WindowAvailability::available;
};

class SourceLookup {
public:
    virtual ~SourceLookup() = default;

    virtual std::optional<NamedSource<CaptureDeviceAvailability>> microphone(const std::string&) const {
        return std::nullopt;
    }
    virtual std::optional<NamedSource<CaptureDeviceAvailability>> camera(const std::string&) const {
        return std::nullopt;
    }
    // Asking about attached phones may start their discovery with device access enabled.
    virtual std::optional<NamedSource<AppleDeviceAvailability>> appleDevice(const std::string&) const {
        return std::nullopt;
    }
    virtual std::optional<NamedSource<DisplayAvailability>> display(uint32_t) const { return std::nullopt; }
    virtual std::optional<WindowSource> window(uint32_t) const { return std::nullopt; }

    // The process's lookup; one that finds nothing until another is installed.
    static std::shared_ptr<const SourceLookup> shared();
    // Installs the discoveries' lookup; null restores the empty one.
    static void setShared(std::shared_ptr<const SourceLookup> lookup);
};

}  // namespace ov
