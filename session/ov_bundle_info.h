#pragma once
// The description of a recording's bundle: which files it made and how long it
// lasted. It is "orvane.json" at the top of the bundle and travels to the host
// inside a recording result.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "foundation/json_coding.h"
#include "session/ov_recorder_types.h"

namespace ov {

struct OVBundleInfo {
    enum class FileAssetType { screen, webcam, audio, mouse, systemAudio, appleDevice, topWindow };

    struct Size {
        double width = 0;
        double height = 0;
        bool operator==(const Size&) const = default;
    };

    struct FileAsset {
        FileAssetType type = FileAssetType::screen;
        // The last path component; the file lies directly in the bundle folder.
        std::string filename;
        std::optional<std::vector<std::string>> related;
        std::optional<Size> recordingSize;
        std::optional<double> recordingScale;
        std::optional<Size> videoDimensions;
        bool operator==(const FileAsset&) const = default;
    };

    int version = 1;
    std::vector<FileAsset> files;
    // Seconds of recording; paused stretches don't count.
    double duration = 0;

    bool operator==(const OVBundleInfo&) const = default;

    // Version 1, no files, no duration: the result of a recording that never started.
    static OVBundleInfo empty() { return {}; }

    // The JSON of the protocol: keys in field order, absent optionals give no key.
    coding::Json toJSON() const;
    static OVBundleInfo fromJSON(const coding::Json& json);

    // The text of "orvane.json": pretty printed, keys sorted at every level, and
    // non-finite numbers as the strings "+infinity", "-infinity" and "NaN".
    std::string bundleFileText() const;
};

const char* fileAssetTypeName(OVBundleInfo::FileAssetType type);

// Writes "orvane.json" into the result's bundle. The file is replaced as a whole
// (written beside it and renamed over it), so a reader never sees half of it.
// Fails with the file system's error.
void writeBundleDescription(const OVRecorderResult& result);

}  // namespace ov

template <>
struct ov::coding::Decodable<ov::OVBundleInfo> {
    static ov::OVBundleInfo decode(const Decoder& d);
};
