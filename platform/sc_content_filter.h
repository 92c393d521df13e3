#pragma once
// SCContentFilter: what a screen stream shows. The recorders build one and
// hand it to a stream without looking inside; the backends read it.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/sc_shareable_content.h"

namespace ov::platform {

class SCContentFilter {
public:
    enum class Kind {
        desktopIndependentWindow,
        displayIncludingWindows,
        displayExcludingWindows,
        displayIncludingApplications,
        displayExcludingApplications,
    };

    // One window alone, wherever it is.
    explicit SCContentFilter(SCWindow desktopIndependentWindow);
    // A display with only these windows, or without them.
    static SCContentFilter displayIncludingWindows(SCDisplay display, std::vector<SCWindow> windows);
    static SCContentFilter displayExcludingWindows(SCDisplay display, std::vector<SCWindow> windows);
    // A display with the windows of these applications (but not the excepted
    // windows), or without them (but with the excepted windows).
    static SCContentFilter displayIncludingApplications(SCDisplay display, std::vector<SCRunningApplication> applications,
                                                        std::vector<SCWindow> exceptingWindows);
    static SCContentFilter displayExcludingApplications(SCDisplay display, std::vector<SCRunningApplication> applications,
                                                        std::vector<SCWindow> exceptingWindows);

    Kind kind() const { return kind_; }
    // The display shown; for a window filter, none (display id 0).
    const SCDisplay& displayValue() const { return display_; }
    // The window of a window filter.
    const SCWindow& window() const { return window_; }
    const std::vector<SCWindow>& windows() const { return windows_; }
    const std::vector<SCRunningApplication>& applications() const { return applications_; }

    // "SCContentFilter(display: 1, excludingApplications: [123], exceptingWindows: [])": for logs.
    std::string description() const;

private:
    SCContentFilter(Kind kind, SCDisplay display, std::vector<SCWindow> windows,
                    std::vector<SCRunningApplication> applications)
        : kind_(kind), display_(display), windows_(std::move(windows)), applications_(std::move(applications)) {}

    Kind kind_;
    SCDisplay display_;
    SCWindow window_;
    std::vector<SCWindow> windows_;
    std::vector<SCRunningApplication> applications_;
};

}  // namespace ov::platform
