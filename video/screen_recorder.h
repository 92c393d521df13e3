#pragma once
// ScreenRecorder: one screen source (a display, a window, a window's area of
// its display) into one video track and, when asked, the system's audio of
// that source into one audio track, through one screen stream (two for a
// window based crop with audio). Every frame's screen rectangle goes into a
// RecordingRectTimeline for the input recorder of the same item.
//
// The static builders turn a schema item into a content filter from a fresh
// snapshot of the shareable content; they run again on updateFilter().

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "output/output_asset_writers.h"
#include "output/ov_logger.h"
#include "platform/av_asset_writer.h"
#include "platform/key_value_observing.h"
#include "platform/sc_content_filter.h"
#include "platform/sc_shareable_content.h"
#include "platform/sc_stream.h"
#include "session/abort_signal.h"
#include "session/output_description.h"
#include "session/recorder.h"
#include "session/schema_items.h"
#include "timing/recording_rect_timeline.h"
#include "timing/stable_recording_timeline.h"
#include "video/codec_aligned_video_size.h"
#include "video/record_mode.h"

namespace ov {

// Whether the volume of a recording's output has no room left: the
// opportunistic capacity is 0. A volume that can't be read counts as not low.
bool isVolumeLowOnDiskSpace(const OutputDescription& outputDescription, const Logger& logger);

// The display that holds most of `rect`; none when no display holds any of it.
std::optional<platform::SCDisplay> displayContaining(const std::vector<platform::SCDisplay>& displays,
                                                     const platform::CGRect& rect);

class ScreenRecorder final : public Recorder, public FilterUpdatingRecorder {
public:
    using FilterFunction = std::function<platform::SCContentFilter()>;

    // What a display filter shows. Schema items only build excludingApplications.
    struct DisplayFilterOptions {
        enum class Kind { includingWindows, excludingWindows, includingApplications, excludingApplications };
        Kind kind = Kind::excludingApplications;
        std::vector<int32_t> processIDs;
        std::vector<platform::CGWindowID> windowIDs;

        // From an item's exclude options and one snapshot.
        static DisplayFilterOptions make(const std::set<ScreenRecordingExcludeOptions>& excludeOptions,
                                         const platform::SCShareableContent& content, const Logger& logger);
    };

    struct DisplayFilter {
        platform::SCContentFilter filter;
        platform::SCDisplay display;
        std::optional<platform::CGRect> crop;
    };
    struct WindowFilter {
        platform::SCContentFilter filter;
        platform::CGRect windowFrame;
        platform::SCDisplay display;
    };

    // ---- Content filters.
    // The windows of the screen recording indicator in a snapshot (may hold
    // one window twice); warns when asked for and none is found.
    static std::vector<platform::SCWindow> indicatorWindows(const platform::SCShareableContent& content,
                                                            const Logger& logger);
    static platform::SCContentFilter createDisplayFilter(const platform::SCDisplay& display,
                                                         const DisplayFilterOptions& options,
                                                         const platform::SCShareableContent& content);
    // Fresh snapshot; displayUnavailable for an unknown id; the crop clamped.
    static DisplayFilter createDisplayFilter(uint32_t displayID,
                                             const std::set<ScreenRecordingExcludeOptions>& excludeOptions,
                                             const std::optional<platform::CGRect>& crop, const Logger& logger);
    // The crop (display-local points) cut to the display; configurationFailed
    // when nothing is left.
    static platform::CGRect clamp(const platform::CGRect& crop, const platform::SCDisplay& display,
                                  const Logger& logger);
    static WindowFilter createDesktopIndependentWindowFilter(uint32_t windowID, const Logger& logger);
    static DisplayFilter createWindowBasedCropFilter(uint32_t windowID, const Logger& logger);
    static platform::SCContentFilter createWindowBasedCropAudioFilter(uint32_t windowID, const Logger& logger);

    // A display's points-to-pixels scale from its mode; 2.0 with a warning
    // when the mode can't be read.
    static double displayScale(uint32_t displayID, const Logger& logger);

    // Everything short of starting capture; throws OVError as each step fails.
    // Frames' rectangles go into `recordingRectTimeline` (the item's shared
    // one), or into a timeline of the recorder's own when none is given.
    ScreenRecorder(std::string id, OutputDescription outputDescription, FilterFunction filter,
                   FilterFunction audioFilter, std::set<ScreenRecordingExcludeOptions> excludeOptions,
                   platform::CGRect contentRect, double pointPixelScale, std::optional<platform::CGRect> cropRect,
                   platform::CMTime minimumFrameInterval, std::optional<platform::CGSize> maxVideoDimensions,
                   bool captureAudio, bool showsCursor, RecordMode mode, int audioSegmentDuration,
                   int videoSegmentDuration, std::optional<double> keyframeIntervalDuration,
                   std::shared_ptr<StableRecordingTimeline> recordingTimeline, bool useTimeline, const Logger& logger,
                   AbortFunction onAbort, std::shared_ptr<RecordingRectTimeline> recordingRectTimeline = nullptr);
    ~ScreenRecorder() override;

    std::string id() const override { return id_; }
    std::vector<OVBundleInfo::FileAsset> prepare() override;
    std::vector<OVBundleInfo::FileAsset> finish() override;
    void updateFilter() override;
    // Stops capture; never fails.
    void cancel();

    // ---- What it was set up with (tests, logs).
    const platform::CGSize& recordingSize() const { return recordingSize_; }
    const VideoDimensions& videoSize() const { return videoSize_; }
    const VideoDimensions& videoDimensions() const { return videoDimensions_; }
    const VideoDimensions& maxSize() const { return maxSize_; }
    const platform::SCStreamConfiguration& configuration() const { return configuration_; }
    const platform::AVSettingsDictionary& videoSettings() const { return videoSettings_; }
    const platform::AVSettingsDictionary& audioSettings() const { return audioSettings_; }
    const std::shared_ptr<platform::SCStream>& stream() const { return stream_; }
    const std::shared_ptr<platform::SCStream>& audioStream() const { return audioStream_; }
    const std::shared_ptr<OutputAssetWriters>& outputAssetWriters() const { return outputAssetWriters_; }
    // Handed to the input recorder of the same item.
    std::shared_ptr<RecordingRectTimeline> recordingRectTimeline() const;
    // Frames the writer's input refused (it was full), and frames it took.
    uint64_t droppedVideoFrames() const;
    uint64_t appendedVideoFrames() const;

private:
    class StreamCoordinator;
    std::vector<OVBundleInfo::FileAsset> fileAssets() const;

    std::string id_;
    Logger logger_;
    std::shared_ptr<StableRecordingTimeline> recordingTimeline_;
    bool useTimeline_;
    std::shared_ptr<platform::DispatchQueue> screenSampleBufferQueue_;
    std::shared_ptr<platform::DispatchQueue> audioSampleBufferQueue_;
    std::shared_ptr<platform::SCStream> stream_;
    std::shared_ptr<platform::SCStream> audioStream_;
    FilterFunction createFilter_;
    FilterFunction createAudioFilter_;
    std::set<ScreenRecordingExcludeOptions> excludeOptions_;
    std::shared_ptr<OutputAssetWriters> outputAssetWriters_;
    std::vector<platform::KeyValueObservation> errorObservations_;
    std::shared_ptr<StreamCoordinator> coordinator_;
    platform::CGSize recordingSize_;
    VideoDimensions videoDimensions_;

    // Beside the fields above, what the set-up computed.
    OutputDescription outputDescription_;
    VideoDimensions videoSize_;
    VideoDimensions maxSize_;
    platform::SCStreamConfiguration configuration_;
    platform::AVSettingsDictionary videoSettings_;
    platform::AVSettingsDictionary audioSettings_;
    AbortFunction onAbort_;
};

// The recorders of the screen items, in their kind's order.
struct RecorderAssemblyContext;
std::vector<std::shared_ptr<Recorder>> makeScreenRecorders(const DisplaySchemaItem& item,
                                                           const RecorderAssemblyContext& context);
std::vector<std::shared_ptr<Recorder>> makeScreenRecorders(const DesktopIndependentWindowSchemaItem& item,
                                                           const RecorderAssemblyContext& context);
std::vector<std::shared_ptr<Recorder>> makeScreenRecorders(const WindowBasedCropSchemaItem& item,
                                                           const RecorderAssemblyContext& context);

}  // namespace ov
