#include "platform/sc_content_filter.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace ov::platform {

SCContentFilter::SCContentFilter(SCWindow desktopIndependentWindow)
    : kind_(Kind::desktopIndependentWindow), window_(std::move(desktopIndependentWindow)) {}

SCContentFilter SCContentFilter::displayIncludingWindows(SCDisplay display, std::vector<SCWindow> windows) {
    return SCContentFilter(Kind::displayIncludingWindows, display, std::move(windows), {});
}
SCContentFilter SCContentFilter::displayExcludingWindows(SCDisplay display, std::vector<SCWindow> windows) {
    return SCContentFilter(Kind::displayExcludingWindows, display, std::move(windows), {});
}
SCContentFilter SCContentFilter::displayIncludingApplications(SCDisplay display,
                                                              std::vector<SCRunningApplication> applications,
                                                              std::vector<SCWindow> exceptingWindows) {
    return SCContentFilter(Kind::displayIncludingApplications, display, std::move(exceptingWindows),
                           std::move(applications));
}
SCContentFilter SCContentFilter::displayExcludingApplications(SCDisplay display,
                                                              std::vector<SCRunningApplication> applications,
                                                              std::vector<SCWindow> exceptingWindows) {
    return SCContentFilter(Kind::displayExcludingApplications, display, std::move(exceptingWindows),
                           std::move(applications));
}

std::string SCContentFilter::description() const {
    std::vector<uint32_t> windowIDs;
    for (const auto& w : windows_) windowIDs.push_back(w.windowID);
    std::vector<int32_t> pids;
    for (const auto& a : applications_) pids.push_back(a.processID);
    switch (kind_) {
        case Kind::desktopIndependentWindow:
            return fmt::format("SCContentFilter(desktopIndependentWindow: {})", window_.windowID);
        case Kind::displayIncludingWindows:
            return fmt::format("SCContentFilter(display: {}, includingWindows: [{}])", display_.displayID,
                               fmt::join(windowIDs, ", "));
        case Kind::displayExcludingWindows:
            return fmt::format("SCContentFilter(display: {}, excludingWindows: [{}])", display_.displayID,
                               fmt::join(windowIDs, ", "));
        case Kind::displayIncludingApplications:
            return fmt::format("SCContentFilter(display: {}, includingApplications: [{}], exceptingWindows: [{}])",
                               display_.displayID, fmt::join(pids, ", "), fmt::join(windowIDs, ", "));
        case Kind::displayExcludingApplications:
            return fmt::format("SCContentFilter(display: {}, excludingApplications: [{}], exceptingWindows: [{}])",
                               display_.displayID, fmt::join(pids, ", "), fmt::join(windowIDs, ", "));
    }
    return "SCContentFilter";
}

}  // namespace ov::platform
