#pragma once
// Running applications: one OVRunningApplication per process that owns a
// window, named from the running applications the window server knows,
// published available ones only, in name order. Polled every second while an
// `updates` stream is open.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/cg_window_list.h"
#include "sources/availability.h"
#include "sources/discovery.h"

namespace ov {

class OVRunningApplication : public DiscoveryItem {
public:
    using Availability = RunningApplicationAvailability;
    enum class FilterOptions { defaultOptions };

    OVRunningApplication(int32_t id, std::optional<std::string> name, std::optional<std::string> bundleIdentifier)
        : id(id), name(std::move(name)), bundleIdentifier(std::move(bundleIdentifier)) {}

    const int32_t id;
    const std::optional<std::string> name;
    const std::optional<std::string> bundleIdentifier;

    // Observable: "availability".
    Availability availability() const;
    bool setAvailability(Availability value);

    static std::vector<std::shared_ptr<OVRunningApplication>> applications(FilterOptions options);
    static std::shared_ptr<DiscoverySubject<std::shared_ptr<OVRunningApplication>>::Subscription> updates();

private:
    Availability availability_ = Availability::available;
};

class ApplicationDiscovery final : public Discovery<OVRunningApplication, int32_t> {
public:
    static constexpr auto kPollInterval = std::chrono::seconds(1);

    static std::shared_ptr<ApplicationDiscovery> shared();
    static std::shared_ptr<ApplicationDiscovery> make();

    // Reads the running applications and every window's owner, and updates.
    void update() override;
    void updateApplications(const std::vector<platform::RunningApplicationInfo>& apps,
                            const std::vector<int32_t>& winAppPIDs);

    // The distinct owners of all windows, ascending.
    static std::vector<int32_t> windowOwnerPIDs();

private:
    ApplicationDiscovery() : Discovery("ApplicationDiscovery", kPollInterval) {}
    void poll() override;
    static std::vector<platform::RunningApplicationInfo> readApplications();

    std::mutex lastReadMutex_;
    std::optional<std::vector<int32_t>> lastRead_;
};

}  // namespace ov
