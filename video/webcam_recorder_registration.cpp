// The webcam recorder, made known to the session's assembly: a `webcam` item
// becomes one MovieFileRecorder.
#include "session/recorder_assembly.h"
#include "session/recorder_registry.h"
#include "video/movie_file_recorder.h"

namespace ov {
namespace {

const bool webcamRegistered = RecorderRegistry::shared().add<WebcamSchemaItem>(
    [](const WebcamSchemaItem& item, const RecorderAssemblyContext& context) -> std::vector<std::shared_ptr<Recorder>> {
        const Logger logger = context.logger.with("MovieFileRecorder", item.id);
        const RecordMode mode = makeRecordMode(OVColorSpace::sRGB, item.outputOptions.videoCodec(), logger);
        return {std::make_shared<MovieFileRecorder>(
            item.id, outputDescription(item.outputOptions, context.bundleURL, fallbackFilename(InternalSchemaItem(item))),
            item.microphoneID, item.leftAudioChannelOnly, item.audioDelay, item.cameraID, item.maxVideoDimensions,
            item.allowCaptureDevicesConfiguration, mode, context.audioSegmentDuration, context.videoSegmentDuration,
            context.keyframeIntervalDuration, context.recordingTimeline, context.useTimeline, context.logger,
            context.onAbort)};
    });

}  // namespace
}  // namespace ov
