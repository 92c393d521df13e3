#pragma once
// Where a recorder writes: one file, or a directory of segments with a name
// prefix and a callback per finished segment.

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <variant>

#include "output/master_playlist.h"
#include "output/ov_logger.h"
#include "output/output_asset_writers.h"
#include "session/schema_options.h"

namespace ov {

struct OutputDescription {
    struct SingleFile {
        std::filesystem::path url;
    };
    struct MultipleStreams {
        std::filesystem::path directoryURL;
        std::string filenamePrefix;
        SegmentCallback segmentCallback;  // never empty: a no-op when none was given
    };

    std::variant<SingleFile, MultipleStreams> kind;

    static OutputDescription singleFile(std::filesystem::path url) { return {SingleFile{std::move(url)}}; }
    static OutputDescription multipleStreams(std::filesystem::path directoryURL, std::string filenamePrefix,
                                             SegmentCallback segmentCallback);

    const SingleFile* asSingleFile() const { return std::get_if<SingleFile>(&kind); }
    const MultipleStreams* asMultipleStreams() const { return std::get_if<MultipleStreams>(&kind); }
};

// "a.b.mov" -> "a.b": the name without its last extension.
std::string withoutLastExtension(const std::string& filename);

// The output description of an item's options: the given name or prefix, else
// the fallback name (without its extension, for a prefix).
template <class Options>
OutputDescription outputDescription(const Options& options, const std::filesystem::path& bundleURL,
                                    const std::string& fallbackFilename) {
    if (const auto* single = options.asSingleFile())
        return OutputDescription::singleFile(bundleURL / single->filename.value_or(fallbackFilename));
    const auto* segmented = options.asSegmented();
    return OutputDescription::multipleStreams(
        bundleURL, segmented->filenamePrefix.value_or(withoutLastExtension(fallbackFilename)),
        segmented->segmentCallback);
}

// The name of a JSON side file of a screen recording ("input-events.json",
// "top-windows.json"): the video's name or prefix without its extension, a dot,
// and the extension. A prefix keeps any dots it has.
std::string sideFilename(const ScreenRecordingOutputOptions& options, const std::string& fallbackFilename,
                         const std::string& extension);

// The writers of a recorder's output: one file, or segments with their master
// playlist, whose tracks the recorder names. Logs what every recorder logs
// around it; `streamReadyMetadata` adds the recorder's own keys to the
// segmented case's "ready" line.
std::shared_ptr<OutputAssetWriters> makeOutputAssetWriters(const OutputDescription& output,
                                                           const MasterPlaylist& playlist,
                                                           double audioSegmentDuration, double videoSegmentDuration,
                                                           const Logger& logger,
                                                           const std::function<LogMetadata()>& streamReadyMetadata = {});

}  // namespace ov
