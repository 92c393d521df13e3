#include "platform/sc_stream_configuration.h"

#include <fmt/format.h>

namespace ov::platform {

std::string SCStreamConfiguration::description() const {
    std::string source = "none";
    if (sourceRect)
        source = fmt::format("({:g}, {:g}, {:g}, {:g})", sourceRect->origin.x, sourceRect->origin.y,
                             sourceRect->size.width, sourceRect->size.height);
    return fmt::format(
        "SCStreamConfiguration(width: {}, height: {}, minimumFrameInterval: {}, sourceRect: {}, scalesToFit: {}, "
        "showsCursor: {}, queueDepth: {}, pixelFormat: {}, colorSpaceName: {}, captureResolution: {}, "
        "capturesAudio: {}, sampleRate: {}, channelCount: {}, excludesCurrentProcessAudio: {})",
        width, height, minimumFrameInterval.logDescription(), source, scalesToFit, showsCursor, queueDepth,
        fourCharCodeString(pixelFormat), colorSpaceName, static_cast<int>(captureResolution), capturesAudio,
        sampleRate, channelCount, excludesCurrentProcessAudio);
}

}  // namespace ov::platform
