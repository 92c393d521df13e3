// The content filters of the screen recorder: which display, which
// applications and windows, which crop, from a fresh snapshot each time.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "foundation/ov_error.h"
#include "session/source_diagnostics.h"
#include "video/screen_recorder.h"
#include "video/shareable_content.h"

namespace ov {

using platform::CGRect;
using platform::SCContentFilter;
using platform::SCDisplay;
using platform::SCRunningApplication;
using platform::SCShareableContent;
using platform::SCWindow;

namespace {

std::string rectText(const CGRect& r) {
    return fmt::format("({}, {}, {}, {})", r.origin.x, r.origin.y, r.size.width, r.size.height);
}
std::string sizeText(const platform::CGSize& s) { return fmt::format("{}x{}", s.width, s.height); }

OVError unavailable(OVError::Code code, const std::string& text) { return OVError(code, text, text); }

SCShareableContent snapshot(ShareableContentError::Case timeoutError, const Logger& logger) {
    return ShareableContent::getContentWithRestart(true, timeoutError, logger);
}

// The window of the snapshot, its display, or the failures that say why not.
std::pair<SCWindow, SCDisplay> findWindow(const SCShareableContent& content, uint32_t windowID, const Logger& logger) {
    const auto& windows = content.windows();
    auto it = std::find_if(windows.begin(), windows.end(), [&](const SCWindow& w) { return w.windowID == windowID; });
    if (it == windows.end()) {
        logger.error("Can't find window for given ID.", [&] { return LogMetadata{{"windowID", std::to_string(windowID)}}; });
        throwCantFindWindow(windowID, logger);
        throw unavailable(OVError::Code::windowUnavailable, "Can't find window with ID: " + std::to_string(windowID));
    }
    auto display = displayContaining(content.displays(), it->frame);
    if (!display) {
        logger.error("Can't find display for window.", [&] {
            std::string displays;
            for (const auto& d : content.displays()) displays += (displays.empty() ? "" : " / ") + d.description();
            return LogMetadata{{"windowID", std::to_string(windowID)}, {"displays", displays}};
        });
        throw unavailable(OVError::Code::displayUnavailable, "Can't find display for window: " + std::to_string(windowID));
    }
    return {*it, *display};
}

bool sameOwner(const std::optional<SCRunningApplication>& a, const std::optional<SCRunningApplication>& b) {
    if (!a || !b) return !a && !b;
    return a->processID == b->processID;
}

}  // namespace

std::optional<SCDisplay> displayContaining(const std::vector<SCDisplay>& displays, const CGRect& rect) {
    const double area = rect.size.width * rect.size.height;
    std::vector<std::pair<double, const SCDisplay*>> shares;
    for (const auto& display : displays) {
        const CGRect common = platform::CGRectIntersection(rect, display.frame);
        const double share =
            platform::CGRectIsNull(common) || area <= 0 ? 0.0 : common.size.width * common.size.height / area;
        if (share > 0.0) shares.emplace_back(share, &display);
    }
    if (shares.empty()) return std::nullopt;
    std::stable_sort(shares.begin(), shares.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    return *shares.front().second;
}

std::vector<SCWindow> ScreenRecorder::indicatorWindows(const SCShareableContent& content, const Logger& logger) {
    std::optional<int32_t> controlCenterPID;
    for (const auto& application : content.applications())
        if (application.bundleIdentifier == "com.apple.controlcenter") {
            controlCenterPID = application.processID;
            break;
        }
    const auto ownedByControlCenter = [&](const SCWindow& w) {
        if (!w.owningApplication) return !controlCenterPID;
        return controlCenterPID && w.owningApplication->processID == *controlCenterPID;
    };
    const auto untitled = [](const SCWindow& w) { return !w.title || w.title->empty(); };

    std::vector<SCWindow> found;
    for (const auto& w : content.windows())
        if (ownedByControlCenter(w) && w.title == std::optional<std::string>("AudioVideoModule")) found.push_back(w);
    if (!found.empty()) {
        const SCWindow first = found.front();
        if (auto home = displayContaining(content.displays(), first.frame)) {
            for (const auto& display : content.displays()) {
                if (display.displayID == home->displayID) continue;
                for (const auto& w : content.windows()) {
                    if (!ownedByControlCenter(w) || !untitled(w) || w.windowID <= first.windowID) continue;
                    if (platform::CGRectContainsPoint(display.frame, w.frame.origin)) {
                        found.push_back(w);
                        break;
                    }
                }
            }
        }
    }
    for (const auto& w : content.windows()) {
        const double width = w.frame.size.width, height = w.frame.size.height;
        if (ownedByControlCenter(w) && untitled(w) && width > 300 && width < 400 && height > 100 && height < 400)
            found.push_back(w);
    }
    if (found.empty()) logger.warning("Requesting to exclude screen recording indicator window(s), could not find any.");
    return found;
}

ScreenRecorder::DisplayFilterOptions ScreenRecorder::DisplayFilterOptions::make(
    const std::set<ScreenRecordingExcludeOptions>& excludeOptions, const SCShareableContent& content,
    const Logger& logger) {
    DisplayFilterOptions options;
    options.kind = Kind::excludingApplications;
    bool indicator = false;
    for (const auto& option : excludeOptions) {
        switch (option.kind) {
            case ScreenRecordingExcludeOptions::Kind::processID: options.processIDs.push_back(option.pid); break;
            case ScreenRecordingExcludeOptions::Kind::currentProcess: options.processIDs.push_back(getpid()); break;
            case ScreenRecordingExcludeOptions::Kind::screenRecordingIndicator: indicator = true; break;
        }
    }
    if (indicator) {
        for (const auto& w : indicatorWindows(content, logger)) {
            const bool ofListedProcess =
                w.owningApplication && std::find(options.processIDs.begin(), options.processIDs.end(),
                                                 w.owningApplication->processID) != options.processIDs.end();
            if (!ofListedProcess) options.windowIDs.push_back(w.windowID);
        }
    }
    return options;
}

SCContentFilter ScreenRecorder::createDisplayFilter(const SCDisplay& display, const DisplayFilterOptions& options,
                                                    const SCShareableContent& content) {
    std::vector<SCRunningApplication> applications;
    for (const auto& application : content.applications())
        if (std::find(options.processIDs.begin(), options.processIDs.end(), application.processID) !=
            options.processIDs.end())
            applications.push_back(application);
    std::vector<SCWindow> windows;
    for (const auto& window : content.windows())
        if (std::find(options.windowIDs.begin(), options.windowIDs.end(), window.windowID) != options.windowIDs.end())
            windows.push_back(window);
    using Kind = DisplayFilterOptions::Kind;
    switch (options.kind) {
        case Kind::includingWindows: return SCContentFilter::displayIncludingWindows(display, windows);
        case Kind::excludingWindows: return SCContentFilter::displayExcludingWindows(display, windows);
        case Kind::includingApplications:
            return SCContentFilter::displayIncludingApplications(display, applications, windows);
        case Kind::excludingApplications:
            return SCContentFilter::displayExcludingApplications(display, applications, windows);
    }
    return SCContentFilter::displayExcludingApplications(display, applications, windows);
}

ScreenRecorder::DisplayFilter ScreenRecorder::createDisplayFilter(
    uint32_t displayID, const std::set<ScreenRecordingExcludeOptions>& excludeOptions,
    const std::optional<CGRect>& crop, const Logger& logger) {
    const auto content = snapshot(ShareableContentError::Case::timeoutRecordDisplay, logger);
    const auto& displays = content.displays();
    auto it = std::find_if(displays.begin(), displays.end(), [&](const SCDisplay& d) { return d.displayID == displayID; });
    if (it == displays.end()) {
        logger.error("Can't find display for given ID.", [&] { return LogMetadata{{"displayID", std::to_string(displayID)}}; });
        throwCantFindDisplay(displayID, logger);
        throw unavailable(OVError::Code::displayUnavailable, "Can't find display with ID: " + std::to_string(displayID));
    }
    const auto options = DisplayFilterOptions::make(excludeOptions, content, logger);
    DisplayFilter result{createDisplayFilter(*it, options, content), *it, std::nullopt};
    if (crop) result.crop = clamp(*crop, *it, logger);
    return result;
}

CGRect ScreenRecorder::clamp(const CGRect& crop, const SCDisplay& display, const Logger& logger) {
    const platform::CGSize size = display.frame.size;
    const CGRect adjusted = platform::CGRectIntersection(crop, {{0, 0}, size});
    if (platform::CGRectIsEmpty(adjusted)) {
        logger.error("Crop resulted in an empty area.", [&] {
            return LogMetadata{{"displayID", std::to_string(display.displayID)},
                               {"displaySize", sizeText(size)},
                               {"crop", rectText(crop)}};
        });
        throw OVError(OVError::Code::configurationFailed, std::string("Crop falls outside display bounds."),
                      std::string("Crop falls outside display bounds."));
    }
    if (!platform::CGRectEqualToRect(adjusted, crop))
        logger.info("Adjusted crop to fall inside display bounds.", [&] {
            return LogMetadata{{"displayID", std::to_string(display.displayID)},
                               {"displaySize", sizeText(size)},
                               {"crop", rectText(crop)},
                               {"adjustedCrop", rectText(adjusted)}};
        });
    return adjusted;
}

ScreenRecorder::WindowFilter ScreenRecorder::createDesktopIndependentWindowFilter(uint32_t windowID,
                                                                                  const Logger& logger) {
    const auto content = snapshot(ShareableContentError::Case::timeoutRecordWindow, logger);
    auto [window, display] = findWindow(content, windowID, logger);
    return {SCContentFilter(window), window.frame, display};
}

ScreenRecorder::DisplayFilter ScreenRecorder::createWindowBasedCropFilter(uint32_t windowID, const Logger& logger) {
    const auto content = snapshot(ShareableContentError::Case::timeoutRecordWindow, logger);
    auto [window, display] = findWindow(content, windowID, logger);
    const auto& owner = window.owningApplication;
    std::vector<SCWindow> kept;
    for (const auto& w : content.windows())
        if (w.windowID != windowID && sameOwner(w.owningApplication, owner)) kept.push_back(w);
    std::vector<SCRunningApplication> excluded;
    for (const auto& application : content.applications())
        if (!owner || application.processID != owner->processID) excluded.push_back(application);
    auto filter = SCContentFilter::displayExcludingApplications(display, excluded, kept);
    const CGRect crop = platform::CGRectOffset(window.frame, -display.frame.origin.x, -display.frame.origin.y);
    return {std::move(filter), display, clamp(crop, display, logger)};
}

SCContentFilter ScreenRecorder::createWindowBasedCropAudioFilter(uint32_t windowID, const Logger& logger) {
    const auto content = snapshot(ShareableContentError::Case::timeoutRecordWindow, logger);
    auto [window, display] = findWindow(content, windowID, logger);
    if (!window.owningApplication) {
        logger.error("Window has no owning application.", [&] { return LogMetadata{{"windowID", std::to_string(windowID)}}; });
        throw unavailable(OVError::Code::windowUnavailable, "Window has no owning application: " + std::to_string(windowID));
    }
    return SCContentFilter::displayIncludingApplications(display, {*window.owningApplication}, {});
}

double ScreenRecorder::displayScale(uint32_t displayID, const Logger& logger) {
    const auto mode = platform::CGDisplayCopyDisplayMode(displayID);
    if (!mode || platform::CGDisplayModeGetWidth(*mode) <= 0) {
        logger.warning("Unable to copy display mode, assuming a scale factor of 2x.",
                       [&] { return LogMetadata{{"display", std::to_string(displayID)}}; });
        return 2.0;
    }
    return double(platform::CGDisplayModeGetPixelWidth(*mode)) / double(platform::CGDisplayModeGetWidth(*mode));
}

}  // namespace ov
