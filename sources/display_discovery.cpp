#include "sources/display_discovery.h"

#include <algorithm>

#include "platform/capture_platform.h"
#include "sources/machine_model.h"
#include "sources/ov_user_preferred.h"

namespace ov {

using platform::CapturePlatform;

// ---- OVDisplay

std::string OVDisplay::localizedName() const {
    std::lock_guard lock(fieldMutex_);
    return localizedName_;
}
bool OVDisplay::isMain() const {
    std::lock_guard lock(fieldMutex_);
    return isMain_;
}
platform::CGRect OVDisplay::frame() const {
    std::lock_guard lock(fieldMutex_);
    return frame_;
}
OVDisplay::Availability OVDisplay::availability() const {
    std::lock_guard lock(fieldMutex_);
    return availability_;
}

namespace {
template <class T>
bool assign(std::mutex& mutex, T& field, const T& value) {
    std::lock_guard lock(mutex);
    if (field == value) return false;
    field = value;
    return true;
}
}  // namespace

bool OVDisplay::setLocalizedName(const std::string& value) { return assign(fieldMutex_, localizedName_, value); }
bool OVDisplay::setIsMain(bool value) { return assign(fieldMutex_, isMain_, value); }
bool OVDisplay::setFrame(const platform::CGRect& value) {
    std::lock_guard lock(fieldMutex_);
    if (platform::CGRectEqualToRect(frame_, value)) return false;
    frame_ = value;
    return true;
}
bool OVDisplay::setAvailability(Availability value) { return assign(fieldMutex_, availability_, value); }

std::vector<std::shared_ptr<OVDisplay>> OVDisplay::displays() { return DisplayDiscovery::shared()->current(); }
std::shared_ptr<DiscoverySubject<std::shared_ptr<OVDisplay>>::Subscription> OVDisplay::updates() {
    return DisplayDiscovery::shared()->updates();
}
std::shared_ptr<OVDisplay> OVDisplay::preferred() { return DisplayDiscovery::shared()->getPreferred(); }

// ---- DisplayDiscovery

namespace {

bool isDesktopFamily(const std::optional<MacDeviceFamily>& family) {
    return !family || *family == MacDeviceFamily::iMac || *family == MacDeviceFamily::macmini ||
           *family == MacDeviceFamily::macPro || *family == MacDeviceFamily::macStudio;
}

}  // namespace

DisplayAvailability DisplayDiscovery::goneBuiltInAvailability(const std::optional<std::string>& modelID,
                                                              std::optional<bool> portableChassis) {
    if (modelID && (modelID->rfind("MacBook", 0) == 0 || !isDesktopFamily(MacModelSpecs::deviceFamily(*modelID))))
        return DisplayAvailability::lidClosed;
    // Other makers' portables say so in their firmware's chassis type.
    if (portableChassis.value_or(false)) return DisplayAvailability::lidClosed;
    return DisplayAvailability::notConnected;
}

std::string DisplayDiscovery::symbolName(bool isBuiltIn, const std::optional<std::string>& modelID,
                                         std::optional<bool> portableChassis) {
    if (!isBuiltIn) return "display";
    if (MacModelSpecs::isT2MacBook(modelID)) return "macbook";
    if (modelID && modelID->rfind("MacBook", 0) == 0) return "macbook.gen1";
    if (portableChassis.value_or(false)) return "macbook.gen1";
    if (!modelID) return "desktopcomputer";
    return isDesktopFamily(MacModelSpecs::deviceFamily(*modelID)) ? "desktopcomputer" : "macbook.gen1";
}

std::shared_ptr<DisplayDiscovery> DisplayDiscovery::make() {
    std::shared_ptr<DisplayDiscovery> discovery(new DisplayDiscovery());
    discovery->start();
    return discovery;
}

std::shared_ptr<DisplayDiscovery> DisplayDiscovery::shared() {
    static auto discovery = [] {
        auto d = make();
        std::weak_ptr<DisplayDiscovery> weak = d;
        OVUserPreferred::setTriggerUpdate(OVUserPreferred::Kind::display, [weak] {
            if (auto self = weak.lock()) self->triggerUpdate();
        });
        return d;
    }();
    return discovery;
}

void DisplayDiscovery::start() {
    std::vector<CGInterop::Display> displays;
    try {
        displays = CGInterop::Display::getActiveDisplays();
    } catch (const std::exception& e) {
        logger_.error([&] { return std::string("Failed to get active displays: ") + e.what(); });
    }
    logger_.debug("Starting with inital displays");
    updateDisplays(displays);
    // Reconfiguration notices come on a platform thread: read there, update on the main queue.
    std::weak_ptr<DisplayDiscovery> weak = std::static_pointer_cast<DisplayDiscovery>(shared_from_this());
    try {
        reconfigurations_ = CapturePlatform::shared()->observeDisplayReconfigurations([weak](const std::string&) {
            auto self = weak.lock();
            if (!self) return;
            std::vector<CGInterop::Display> displays;
            try {
                displays = CGInterop::Display::getActiveDisplays();
            } catch (const std::exception& e) {
                self->logger_.warning([&] { return std::string("Failed to get active displays: ") + e.what(); });
                return;
            }
            self->onMain([displays](auto& discovery) {
                static_cast<DisplayDiscovery&>(discovery).updateDisplays(displays);
            });
        });
    } catch (const std::exception&) {
        // No platform: nothing to observe.
    }
}

void DisplayDiscovery::update() {
    std::vector<CGInterop::Display> displays;
    try {
        displays = CGInterop::Display::getActiveDisplays();
    } catch (const std::exception& e) {
        logger_.warning([&] { return std::string("Failed to get active displays: ") + e.what(); });
        return;
    }
    updateDisplays(displays);
}

void DisplayDiscovery::updateDisplays(const std::vector<CGInterop::Display>& disps) {
    DiscoveryNoticeList<OVDisplay> notices;
    {
        std::lock_guard lock(mutex_);
        logger_.debug("Update displays", [&] {
            std::string text = "[";
            for (const auto& d : disps) {
                if (text.size() > 1) text += ", ";
                text += std::to_string(d.displayID);
            }
            return LogMetadata{{"disps", text + "]"}};
        });
        std::optional<std::string> modelID;
        std::optional<bool> portable;
        try {
            const auto platform = CapturePlatform::shared();
            modelID = platform->machineModel();
            portable = platform->isPortableChassis();
        } catch (const std::exception&) {
        }
        const DisplayAvailability goneBuiltIn = goneBuiltInAvailability(modelID, portable);

        bool changed = false;
        for (const auto& d : disps) {
            if (all_.count(d.displayID)) continue;
            all_[d.displayID] = std::make_shared<OVDisplay>(d.displayID, d.serialNumber, d.isBuiltin,
                                                            symbolName(d.isBuiltin, modelID, portable));
            changed = true;
        }
        for (auto& [id, display] : all_) {
            const auto found = std::find_if(disps.begin(), disps.end(), [&, id = id](const auto& d) { return d.displayID == id; });
            if (found != disps.end()) {
                if (display->setLocalizedName(found->displayName(disps))) notices.add(display, "localizedName");
                if (display->setIsMain(found->isMain)) notices.add(display, "isMain");
                if (display->setFrame(found->bounds)) notices.add(display, "frame");
                if (display->setAvailability(DisplayAvailability::available)) notices.add(display, "availability");
            } else {
                const auto gone = display->isBuiltIn ? goneBuiltIn : DisplayAvailability::notConnected;
                if (display->setAvailability(gone)) notices.add(display, "availability");
            }
        }
        changed = changed || !notices.empty();
        if (changed) {
            std::vector<std::shared_ptr<OVDisplay>> published;
            for (const auto& d : disps) published.push_back(all_.at(d.displayID));
            std::sort(published.begin(), published.end(), [](const auto& a, const auto& b) { return a->id < b->id; });
            const size_t count = published.size();
            publish(std::move(published));
            logger_.info([&] { return "Updating " + std::to_string(count) + " displays"; });
        }
    }
    notices.tell();
}

std::shared_ptr<OVDisplay> DisplayDiscovery::getPreferred() const {
    const auto published = current();
    for (uint32_t id : OVUserPreferred::shared().displayIDs())
        for (const auto& display : published)
            if (display->id == id && display->availability() == DisplayAvailability::available) return display;
    for (const auto& display : published)
        if (display->isMain()) return display;
    return nullptr;
}

}  // namespace ov
