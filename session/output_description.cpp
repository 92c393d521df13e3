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

}  // namespace ov
