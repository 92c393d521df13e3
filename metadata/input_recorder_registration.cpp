// The metadata folder's recorders, made known to the session's assembly: a
// screen item that asks for mouse or keyboard events gets a cursor recorder
// and an input recorder ahead of its screen recorder, so that their prepare
// errors come first. The input recorder reads the rectangle timeline that the
// item's screen recorder feeds, met through the assembly context.
#include "metadata/cursor_recorder.h"
#include "metadata/input_recorder.h"
#include "session/recorder_assembly.h"
#include "session/recorder_registry.h"

namespace ov {
namespace {

// Ahead of the screen recorder's factory (order 0).
constexpr int kInputRecordersOrder = -10;

template <class Item>
std::vector<std::shared_ptr<Recorder>> makeInputRecorders(const Item& item, const RecorderAssemblyContext& context) {
    const auto mode = InputRecorder::captureMode(item.mouseEvents, item.keyboardEvents);
    if (!mode) return {};
    auto cursor = std::make_shared<CursorRecorder>(item.id, context.logger);
    InputRecorder::Configuration configuration;
    configuration.id = item.id;
    configuration.logger = context.logger;
    configuration.recordingTimeline = context.recordingTimeline;
    configuration.useTimeline = context.useTimeline;
    configuration.captureMode = *mode;
    configuration.cursorTimeline = cursor->timeline();
    configuration.recordingRectTimeline =
        context.recordingRectTimelines
            ? context.recordingRectTimelines->forItem(item.id, context.logger.with("RecordingRectTimeline", item.id))
            : std::make_shared<RecordingRectTimeline>();
    configuration.output = screenSideFileDescription(item.outputOptions, item.inputEventsOutputOptions,
                                                     context.bundleURL, fallbackFilename(InternalSchemaItem(item)),
                                                     InputRecorder::fileExtension);
    configuration.onAbort = context.onAbort;
    return {cursor, std::make_shared<InputRecorder>(std::move(configuration))};
}

template <class Item>
bool registerFor() {
    return RecorderRegistry::shared().add<Item>(
        [](const Item& item, const RecorderAssemblyContext& context) { return makeInputRecorders(item, context); },
        kInputRecordersOrder);
}

const bool displayRegistered = registerFor<DisplaySchemaItem>();
const bool windowRegistered = registerFor<DesktopIndependentWindowSchemaItem>();
const bool windowCropRegistered = registerFor<WindowBasedCropSchemaItem>();

}  // namespace
}  // namespace ov
