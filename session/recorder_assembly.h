#pragma once
// Which internal recorders a schema item makes, with which output and names.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "output/ov_logger.h"
#include "session/abort_signal.h"
#include "session/output_description.h"
#include "session/recorder.h"
#include "session/schema_items.h"
#include "timing/recording_rect_timeline.h"

namespace ov {

class StableRecordingTimeline;

// What every recorder of a recording is given at construction.
struct RecorderAssemblyContext {
    std::filesystem::path bundleURL;
    std::shared_ptr<StableRecordingTimeline> recordingTimeline;
    bool useTimeline = true;
    int audioSegmentDuration = 6;  // seconds
    int videoSegmentDuration = 2;  // seconds
    std::optional<double> keyframeIntervalDuration;
    Logger logger{"Conductor"};
    AbortFunction onAbort;
    // Shared by every copy: an item's screen recorder and input recorder meet
    // at its entry.
    std::shared_ptr<RecordingRectTimelines> recordingRectTimelines = std::make_shared<RecordingRectTimelines>();
};

// The file name an item's output takes when its options name none.
// System audio without exactly one included application draws a new ShortID.
std::string fallbackFilename(const InternalSchemaItem& item);

// The kind of an item as a host names it ("display", "microphone", ...).
std::string itemKindName(const InternalSchemaItem& item);

// The output description of a screen item's JSON side file: the side-file
// name derived from the video's options is the fallback for the side file's
// own options.
OutputDescription screenSideFileDescription(const ScreenRecordingOutputOptions& videoOptions,
                                            const JSONOutputOptions& sideFileOptions,
                                            const std::filesystem::path& bundleURL,
                                            const std::string& videoFallbackFilename, const std::string& extension);

// The recorders of one item, in the order their item kind lists them. Fails
// with OVError configurationNotSupported when the item asks for what this
// system can't do.
std::vector<std::shared_ptr<Recorder>> createRecorders(const InternalSchemaItem& item,
                                                       const RecorderAssemblyContext& context);

// A recorder for a kind of source that this build cannot capture yet: it fails
// at prepare with configurationNotSupported naming the kind, so a recording
// that asks for it fails before it starts and never silently drops a source.
class UnsupportedSourceRecorder final : public Recorder {
public:
    UnsupportedSourceRecorder(std::string id, std::string kind, Logger logger)
        : id_(std::move(id)), kind_(std::move(kind)), logger_(std::move(logger)) {}
    std::string id() const override { return id_; }
    std::vector<OVBundleInfo::FileAsset> prepare() override;
    std::vector<OVBundleInfo::FileAsset> finish() override { return {}; }

private:
    std::string id_;
    std::string kind_;
    Logger logger_;
};

}  // namespace ov
