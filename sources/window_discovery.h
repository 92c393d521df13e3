#pragma once
// Windows: OVWindow items kept from the window server's list of windows,
// published front to back. The whole list is read, not only the windows on
// screen, so that a minimised window stays `notOnScreen` rather than reading
// as closed. The window server announces nothing, so
// the list is polled (every 0.1 s) while an `updates` stream is open, and
// otherwise shows what the last read found.

#include <climits>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/cg_geometry.h"
#include "session/source_lookup.h"
#include "sources/cg_interop.h"
#include "sources/discovery.h"

namespace ov {

class OVWindow : public DiscoveryItem {
public:
    using Availability = WindowAvailability;

    // Window levels, numbered as the platform's window server numbers them.
    struct Level {
        int32_t rawValue = 0;
        friend bool operator==(const Level&, const Level&) = default;

        static const Level baseWindow, minimumWindow, desktopWindow, backstopMenu, normal, floating, tornOffMenu,
            modalPanel, utilityWindow, desktopIconWindow, mainMenu, statusBar, popUpMenu, overlayWindow, helpWindow,
            draggingWindow, screenSaverWindow, screenSaver, assistiveTechHighWindow, cursorWindow, maximumWindow,
            submenu;
    };

    enum class FilterOptions { defaultOptions, allOnScreen };

    OVWindow(uint32_t id, Availability initial) : id(id), availability_(initial) {}

    const uint32_t id;

    // Observable: "title", "frame", "level", "applicationProcessID",
    // "applicationName", "insideVisibleFrame", "availability".
    std::optional<std::string> title() const;
    platform::CGRect frame() const;
    Level level() const;
    std::optional<int32_t> applicationProcessID() const;
    std::optional<std::string> applicationName() const;
    bool insideVisibleFrame() const;
    Availability availability() const;

    bool setTitle(const std::optional<std::string>& value);
    bool setFrame(const platform::CGRect& value);
    bool setLevel(Level value);
    bool setApplicationProcessID(std::optional<int32_t> value);
    bool setApplicationName(const std::optional<std::string>& value);
    bool setInsideVisibleFrame(bool value);
    bool setAvailability(Availability value);

    // The shared discovery's list filtered, and its stream filtered.
    static std::vector<std::shared_ptr<OVWindow>> windows(FilterOptions options);
    static std::shared_ptr<DiscoverySubject<std::shared_ptr<OVWindow>>::Subscription> updates();

private:
    std::optional<std::string> title_;
    platform::CGRect frame_;
    Level level_;
    std::optional<int32_t> applicationProcessID_;
    std::optional<std::string> applicationName_;
    bool insideVisibleFrame_ = false;
    Availability availability_;
};

// allOnScreen: the available ones. default: with an owner id and name, not
// the status bar's recording indicator, normal level, available.
std::vector<std::shared_ptr<OVWindow>> filtered(const std::vector<std::shared_ptr<OVWindow>>& windows,
                                                OVWindow::FilterOptions options);

class WindowDiscovery final : public Discovery<OVWindow, uint32_t> {
public:
    static constexpr auto kPollInterval = std::chrono::milliseconds(100);

    static std::shared_ptr<WindowDiscovery> shared();
    static std::shared_ptr<WindowDiscovery> make();

    // Reads the windows and updates.
    void update() override;
    void updateWindows(const std::vector<CGInterop::Window>& wins);

private:
    WindowDiscovery() : Discovery("WindowDiscovery", kPollInterval) {}
    void poll() override;

    std::mutex lastReadMutex_;
    std::optional<std::vector<CGInterop::Window>> lastRead_;
};

}  // namespace ov
