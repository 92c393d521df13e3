#include "sources/discovery_source_lookup.h"

#include "session/source_lookup.h"
#include "sources/application_discovery.h"
#include "sources/capture_device_discovery.h"
#include "sources/display_discovery.h"
#include "sources/window_discovery.h"

namespace ov {

namespace {

class DiscoverySourceLookup final : public SourceLookup {
public:
    std::optional<NamedSource<CaptureDeviceAvailability>> microphone(const std::string& id) const override {
        return named(CaptureDeviceDiscovery::sharedMicrophones(), id);
    }
    std::optional<NamedSource<CaptureDeviceAvailability>> camera(const std::string& id) const override {
        return named(CaptureDeviceDiscovery::sharedCameras(), id);
    }
    std::optional<NamedSource<DisplayAvailability>> display(uint32_t id) const override {
        auto discovery = DisplayDiscovery::shared();
        discovery->update();
        const auto item = discovery->item(id);
        if (!item) return std::nullopt;
        return NamedSource<DisplayAvailability>{item->localizedName(), item->availability()};
    }
    std::optional<WindowSource> window(uint32_t id) const override {
        auto discovery = WindowDiscovery::shared();
        discovery->update();
        const auto item = discovery->item(id);
        if (!item) return std::nullopt;
        return WindowSource{item->title(), item->applicationName(), item->availability()};
    }

private:
    static std::optional<NamedSource<CaptureDeviceAvailability>> named(
        const std::shared_ptr<CaptureDeviceDiscovery>& discovery, const std::string& id) {
        discovery->update();
        const auto item = discovery->item(id);
        if (!item) return std::nullopt;
        return NamedSource<CaptureDeviceAvailability>{item->localizedName(), item->availability()};
    }
};

}  // namespace

void installDiscoverySourceLookup() { SourceLookup::setShared(std::make_shared<DiscoverySourceLookup>()); }

void startDiscoveries() {
    DisplayDiscovery::shared();
    WindowDiscovery::shared();
    ApplicationDiscovery::shared();
}

}  // namespace ov
