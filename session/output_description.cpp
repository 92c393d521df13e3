#include "session/output_description.h"

namespace ov {

OutputDescription OutputDescription::multipleStreams(std::filesystem::path directoryURL, std::string filenamePrefix,
                                                     SegmentCallback segmentCallback) {
    if (!segmentCallback) segmentCallback = [](const std::filesystem::path&) {};
    return {MultipleStreams{std::move(directoryURL), std::move(filenamePrefix), std::move(segmentCallback)}};
}

std::string withoutLastExtension(const std::string& filename) {
    const auto dot = filename.rfind('.');
    if (dot == std::string::npos || dot == 0) return filename;
    return filename.substr(0, dot);
}

std::string sideFilename(const ScreenRecordingOutputOptions& options, const std::string& fallbackFilename,
                         const std::string& extension) {
    if (const auto* single = options.asSingleFile())
        return withoutLastExtension(single->filename.value_or(fallbackFilename)) + "." + extension;
    const auto* segmented = options.asSegmented();
    return segmented->filenamePrefix.value_or(withoutLastExtension(fallbackFilename)) + "." + extension;
}

std::shared_ptr<OutputAssetWriters> makeOutputAssetWriters(const OutputDescription& output,
                                                           const MasterPlaylist& playlist,
                                                           double audioSegmentDuration, double videoSegmentDuration,
                                                           const Logger& logger,
                                                           const std::function<LogMetadata()>& streamReadyMetadata) {
    logger.info("Setting up AssetWriter.");
    if (const auto* single = output.asSingleFile()) {
        auto writers = std::make_shared<SingleFileOutputAssetWriters>(single->url, logger);
        logger.info("AssetWriter for single file output ready.");
        return writers;
    }
    const auto* streams = output.asMultipleStreams();
    auto writers = std::make_shared<MultipleStreamsOutputAssetWriters>(
        streams->directoryURL, streams->filenamePrefix, streams->segmentCallback, audioSegmentDuration,
        videoSegmentDuration, playlist, logger);
    if (streamReadyMetadata) logger.info("AssetWriter for stream output ready.", streamReadyMetadata);
    else logger.info("AssetWriter for stream output ready.");
    return writers;
}

}  // namespace ov
