#pragma once
// Displays: OVDisplay items kept from the window server's active displays,
// updated when the platform tells of a reconfiguration and on every
// triggerUpdate(). A display that goes stays known (lidClosed for a built-in
// panel of a portable, notConnected otherwise) and leaves the published list,
// which holds the present displays sorted by id.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/cg_geometry.h"
#include "session/source_lookup.h"
#include "sources/cg_interop.h"
#include "sources/discovery.h"

namespace ov {

class OVDisplay : public DiscoveryItem {
public:
    using Availability = DisplayAvailability;

    OVDisplay(uint32_t id, uint32_t serialNumber, bool isBuiltIn, std::string symbolName)
        : id(id), serialNumber(serialNumber), isBuiltIn(isBuiltIn), symbolName(std::move(symbolName)) {}

    const uint32_t id;
    const uint32_t serialNumber;
    const bool isBuiltIn;
    // The name of a picture for the display: "display", "macbook", "macbook.gen1", "desktopcomputer".
    const std::string symbolName;

    // Observable: "localizedName", "isMain", "frame", "availability".
    std::string localizedName() const;
    bool isMain() const;
    platform::CGRect frame() const;
    Availability availability() const;

    // True when the value changed.
    bool setLocalizedName(const std::string& value);
    bool setIsMain(bool value);
    bool setFrame(const platform::CGRect& value);
    bool setAvailability(Availability value);

    // The shared discovery's list, update stream and preferred display.
    static std::vector<std::shared_ptr<OVDisplay>> displays();
    static std::shared_ptr<DiscoverySubject<std::shared_ptr<OVDisplay>>::Subscription> updates();
    static std::shared_ptr<OVDisplay> preferred();

private:
    std::string localizedName_;
    bool isMain_ = false;
    platform::CGRect frame_;
    Availability availability_ = Availability::available;
};

class DisplayDiscovery final : public Discovery<OVDisplay, uint32_t> {
public:
    static std::shared_ptr<DisplayDiscovery> shared();
    // A discovery of its own over the current capture platform (tests).
    static std::shared_ptr<DisplayDiscovery> make();

    // Reads the active displays and updates (a failed read leaves the list).
    void update() override;
    // One update step with the displays given.
    void updateDisplays(const std::vector<CGInterop::Display>& disps);
    // Stored preferred ids that are available, then the main display.
    std::shared_ptr<OVDisplay> getPreferred() const;

    // What a built-in display that went away shows: a portable's panel is
    // behind its closed lid.
    static DisplayAvailability goneBuiltInAvailability(const std::optional<std::string>& modelID,
                                                       std::optional<bool> portableChassis);
    static std::string symbolName(bool isBuiltIn, const std::optional<std::string>& modelID,
                                  std::optional<bool> portableChassis);

private:
    DisplayDiscovery() : Discovery("DisplayDiscovery") {}
    void start();

    platform::KeyValueObservation reconfigurations_;
};

}  // namespace ov
