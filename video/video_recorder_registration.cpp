// The video folder's recorders, made known to the session's assembly: the
// screen items (a display, a window on its own, a window's area of its display).
#include "session/recorder_assembly.h"
#include "session/recorder_registry.h"
#include "timing/stable_recording_timeline.h"
#include "video/screen_recorder.h"

namespace ov {

namespace {

using platform::CGRect;
using platform::CMTime;

CMTime frameInterval(FrameInterval interval) { return CMTime(interval.count(), 1'000'000'000); }

std::shared_ptr<StableRecordingTimeline> timelineFor(const RecorderAssemblyContext& context) {
    return std::make_shared<StableRecordingTimeline>(*context.recordingTimeline);
}

// The item's rectangle timeline, which its input recorder reads.
std::shared_ptr<RecordingRectTimeline> rectTimelineFor(const std::string& itemID, const RecorderAssemblyContext& context,
                                                       const Logger& logger) {
    return context.recordingRectTimelines ? context.recordingRectTimelines->forItem(itemID, logger) : nullptr;
}

}  // namespace

std::vector<std::shared_ptr<Recorder>> makeScreenRecorders(const DisplaySchemaItem& item,
                                                           const RecorderAssemblyContext& context) {
    const Logger logger = context.logger.with("ScreenRecorder", item.id);
    const auto output = outputDescription(item.outputOptions, context.bundleURL, fallbackFilename(InternalSchemaItem(item)));
    const auto found = ScreenRecorder::createDisplayFilter(item.displayID, item.excludeOptions, item.crop, logger);
    const uint32_t displayID = item.displayID;
    const auto excludeOptions = item.excludeOptions;
    const auto crop = item.crop;
    auto filter = [displayID, excludeOptions, crop, logger] {
        return ScreenRecorder::createDisplayFilter(displayID, excludeOptions, crop, logger).filter;
    };
    const auto mode = makeRecordMode(item.colorSpace, item.outputOptions.videoCodec(), logger);
    return {std::make_shared<ScreenRecorder>(
        item.id, output, filter, nullptr, item.excludeOptions, found.display.frame,
        ScreenRecorder::displayScale(displayID, logger), found.crop, frameInterval(item.minimumFrameInterval),
        item.maxVideoDimensions, item.captureAudio, item.showsCursor, mode, context.audioSegmentDuration,
        context.videoSegmentDuration, context.keyframeIntervalDuration, timelineFor(context), context.useTimeline,
        context.logger, context.onAbort, rectTimelineFor(item.id, context, logger))};
}

std::vector<std::shared_ptr<Recorder>> makeScreenRecorders(const DesktopIndependentWindowSchemaItem& item,
                                                           const RecorderAssemblyContext& context) {
    const Logger logger = context.logger.with("ScreenRecorder", item.id);
    const auto output = outputDescription(item.outputOptions, context.bundleURL, fallbackFilename(InternalSchemaItem(item)));
    const auto found = ScreenRecorder::createDesktopIndependentWindowFilter(item.windowID, logger);
    const uint32_t windowID = item.windowID;
    auto filter = [windowID, logger] { return ScreenRecorder::createDesktopIndependentWindowFilter(windowID, logger).filter; };
    const auto mode = makeRecordMode(item.colorSpace, item.outputOptions.videoCodec(), logger);
    // The window takes the scale of the display it is on: a fixed scale would
    // double a window whose display has points equal to pixels.
    return {std::make_shared<ScreenRecorder>(
        item.id, output, filter, nullptr, std::set<ScreenRecordingExcludeOptions>{}, found.windowFrame,
        ScreenRecorder::displayScale(found.display.displayID, logger), std::nullopt,
        frameInterval(item.minimumFrameInterval), item.maxVideoDimensions, item.captureAudio, item.showsCursor, mode,
        context.audioSegmentDuration, context.videoSegmentDuration, context.keyframeIntervalDuration,
        timelineFor(context), context.useTimeline, context.logger, context.onAbort,
        rectTimelineFor(item.id, context, logger))};
}

std::vector<std::shared_ptr<Recorder>> makeScreenRecorders(const WindowBasedCropSchemaItem& item,
                                                           const RecorderAssemblyContext& context) {
    const Logger logger = context.logger.with("ScreenRecorder", item.id);
    const auto output = outputDescription(item.outputOptions, context.bundleURL, fallbackFilename(InternalSchemaItem(item)));
    const auto found = ScreenRecorder::createWindowBasedCropFilter(item.windowID, logger);
    const uint32_t windowID = item.windowID;
    auto filter = [windowID, logger] { return ScreenRecorder::createWindowBasedCropFilter(windowID, logger).filter; };
    auto audioFilter = [windowID, logger] { return ScreenRecorder::createWindowBasedCropAudioFilter(windowID, logger); };
    const auto mode = makeRecordMode(item.colorSpace, item.outputOptions.videoCodec(), logger);
    return {std::make_shared<ScreenRecorder>(
        item.id, output, filter, audioFilter, std::set<ScreenRecordingExcludeOptions>{}, found.display.frame,
        ScreenRecorder::displayScale(found.display.displayID, logger), found.crop,
        frameInterval(item.minimumFrameInterval), item.maxVideoDimensions, item.captureAudio, item.showsCursor, mode,
        context.audioSegmentDuration, context.videoSegmentDuration, context.keyframeIntervalDuration,
        timelineFor(context), context.useTimeline, context.logger, context.onAbort,
        rectTimelineFor(item.id, context, logger))};
}

namespace {

const bool displayRegistered = RecorderRegistry::shared().add<DisplaySchemaItem>(
    [](const DisplaySchemaItem& item, const RecorderAssemblyContext& context) { return makeScreenRecorders(item, context); });
const bool windowRegistered = RecorderRegistry::shared().add<DesktopIndependentWindowSchemaItem>(
    [](const DesktopIndependentWindowSchemaItem& item, const RecorderAssemblyContext& context) {
        return makeScreenRecorders(item, context);
    });
const bool windowCropRegistered = RecorderRegistry::shared().add<WindowBasedCropSchemaItem>(
    [](const WindowBasedCropSchemaItem& item, const RecorderAssemblyContext& context) {
        return makeScreenRecorders(item, context);
    });

}  // namespace
}  // namespace ov
