#include "sources/application_discovery.h"

#include <algorithm>

#include "platform/capture_platform.h"
#include "sources/cg_interop.h"
#include "sources/natural_compare.h"

namespace ov {

OVRunningApplication::Availability OVRunningApplication::availability() const {
    std::lock_guard lock(fieldMutex_);
    return availability_;
}

bool OVRunningApplication::setAvailability(Availability value) {
    std::lock_guard lock(fieldMutex_);
    if (availability_ == value) return false;
    availability_ = value;
    return true;
}

std::vector<std::shared_ptr<OVRunningApplication>> OVRunningApplication::applications(FilterOptions) {
    auto list = ApplicationDiscovery::shared()->current();
    Logger("OVRunningApplication").trace([&] { return "Reporting " + std::to_string(list.size()) + " applications."; });
    return list;
}

std::shared_ptr<DiscoverySubject<std::shared_ptr<OVRunningApplication>>::Subscription> OVRunningApplication::updates() {
    return ApplicationDiscovery::shared()->updates();
}

std::shared_ptr<ApplicationDiscovery> ApplicationDiscovery::make() {
    std::shared_ptr<ApplicationDiscovery> discovery(new ApplicationDiscovery());
    discovery->logger_.debug("Starting with inital application");
    discovery->update();
    return discovery;
}

std::shared_ptr<ApplicationDiscovery> ApplicationDiscovery::shared() {
    static auto discovery = make();
    return discovery;
}

std::vector<int32_t> ApplicationDiscovery::windowOwnerPIDs() {
    std::vector<int32_t> pids;
    for (const auto& window : CGInterop::Window::getWindows(platform::CGWindowListOption::all))
        pids.push_back(window.ownerPID);
    std::sort(pids.begin(), pids.end());
    pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    return pids;
}

std::vector<platform::RunningApplicationInfo> ApplicationDiscovery::readApplications() {
    try {
        return platform::CapturePlatform::shared()->runningApplications();
    } catch (const std::exception&) {
        return {};
    }
}

void ApplicationDiscovery::update() {
    const auto pids = windowOwnerPIDs();
    {
        std::lock_guard lock(lastReadMutex_);
        lastRead_ = pids;
    }
    updateApplications(readApplications(), pids);
}

void ApplicationDiscovery::poll() {
    auto pids = windowOwnerPIDs();
    {
        std::lock_guard lock(lastReadMutex_);
        if (lastRead_ && *lastRead_ == pids) return;
        lastRead_ = pids;
    }
    auto apps = readApplications();
    onMain([apps = std::move(apps), pids = std::move(pids)](auto& discovery) {
        static_cast<ApplicationDiscovery&>(discovery).updateApplications(apps, pids);
    });
}

void ApplicationDiscovery::updateApplications(const std::vector<platform::RunningApplicationInfo>& apps,
                                              const std::vector<int32_t>& winAppPIDs) {
    DiscoveryNoticeList<OVRunningApplication> notices;
    {
        std::lock_guard lock(mutex_);
        logger_.debug("Update applications", [&] {
            std::string names = "[", ids = "[";
            for (const auto& a : apps) {
                if (names.size() > 1) names += ", ";
                names += std::to_string(a.processIdentifier) + ":" + a.localizedName.value_or("");
            }
            for (int32_t pid : winAppPIDs) {
                if (ids.size() > 1) ids += ", ";
                ids += std::to_string(pid);
            }
            return LogMetadata{{"apps", names + "]"}, {"winAppPIDs", ids + "]"}};
        });
        bool changed = false;
        for (int32_t pid : winAppPIDs) {
            if (all_.count(pid)) continue;
            std::optional<std::string> name, bundleIdentifier;
            for (const auto& app : apps)
                if (app.processIdentifier == pid) {
                    name = app.localizedName;
                    bundleIdentifier = app.bundleIdentifier;
                    break;
                }
            all_[pid] = std::make_shared<OVRunningApplication>(pid, name, bundleIdentifier);
            changed = true;
        }
        for (auto& [id, application] : all_) {
            const bool running = std::binary_search(winAppPIDs.begin(), winAppPIDs.end(), id) ||
                                 std::find(winAppPIDs.begin(), winAppPIDs.end(), id) != winAppPIDs.end();
            const auto availability =
                running ? RunningApplicationAvailability::available : RunningApplicationAvailability::notRunning;
            if (application->setAvailability(availability)) notices.add(application, "availability");
        }
        changed = changed || !notices.empty();
        if (!changed) {
            logger_.debug("No changes");
        } else {
            std::vector<std::shared_ptr<OVRunningApplication>> list;
            for (const auto& [id, application] : all_)
                if (application->availability() == RunningApplicationAvailability::available) list.push_back(application);
            std::sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
                const int order = localizedStandardCompare(a->name.value_or(""), b->name.value_or(""));
                return order != 0 ? order < 0 : a->id < b->id;
            });
            const size_t count = list.size();
            publish(std::move(list));
            logger_.debug([&] { return "Updating " + std::to_string(count) + " applications"; });
        }
    }
    notices.tell();
}

}  // namespace ov
