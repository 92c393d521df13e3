#pragma once
// The writers a recorder appends to, whether its media lands in one file or
// in a stream of segments with playlists.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "output/master_playlist.h"
#include "output/ov_logger.h"
#include "output/segmented_asset_writer.h"
#include "platform/av_asset_writer.h"
#include "platform/dispatch_queue.h"
#include "output/segment_callback.h"

namespace ov {

class OutputAssetWriters {
public:
    virtual ~OutputAssetWriters() = default;
    virtual std::shared_ptr<platform::AVAssetWriter> videoAssetWriter() const = 0;
    virtual std::shared_ptr<platform::AVAssetWriter> audioAssetWriter() const = 0;
    // Fails with the writer's error, or OVError assetWriterFailed.
    virtual void startWriting() = 0;
    // Blocks until the writers have finished; gives what was produced.
    virtual std::vector<std::filesystem::path> finishWriting() = 0;
    // What a successful finish gives, known before the recording begins.
    virtual std::vector<std::filesystem::path> expectedFileURLs() const = 0;
};

// The container of a single file by its extension, compared exactly; anything
// unknown (a capitalised extension too) is a movie, after a warning.
platform::AVFileType fileTypeForURL(const std::filesystem::path& url, const Logger& logger);

class SingleFileOutputAssetWriters : public OutputAssetWriters {
public:
    // Fails with the failure of the asset writer.
    SingleFileOutputAssetWriters(const std::filesystem::path& url, Logger logger);

    const std::shared_ptr<platform::AVAssetWriter>& sharedAssetWriter() const { return sharedAssetWriter_; }
    std::shared_ptr<platform::AVAssetWriter> videoAssetWriter() const override { return sharedAssetWriter_; }
    std::shared_ptr<platform::AVAssetWriter> audioAssetWriter() const override { return sharedAssetWriter_; }
    void startWriting() override;
    std::vector<std::filesystem::path> finishWriting() override;
    std::vector<std::filesystem::path> expectedFileURLs() const override;

private:
    std::shared_ptr<platform::AVAssetWriter> sharedAssetWriter_;
};

class MultipleStreamsOutputAssetWriters : public OutputAssetWriters {
public:
    // The two segment writers get the prefixes "<prefix>-audio" and
    // "<prefix>-video"; the master playlist is "<prefix>.m3u8" in the directory.
    MultipleStreamsOutputAssetWriters(const std::filesystem::path& directoryURL, const std::string& filenamePrefix,
                                      SegmentCallback segmentCallback, double audioSegmentDuration,
                                      double videoSegmentDuration, MasterPlaylist masterPlaylist, Logger logger);

    const std::filesystem::path& masterPlaylistURL() const { return masterPlaylistURL_; }
    const std::shared_ptr<SegmentedAssetWriter>& audioSegmentWriter() const { return audioSegmentWriter_; }
    const std::shared_ptr<SegmentedAssetWriter>& videoSegmentWriter() const { return videoSegmentWriter_; }
    const MasterPlaylist& masterPlaylist() const { return masterPlaylist_; }

    std::shared_ptr<platform::AVAssetWriter> videoAssetWriter() const override;
    std::shared_ptr<platform::AVAssetWriter> audioAssetWriter() const override;
    // The audio writer first; its failure leaves the video writer unstarted.
    // Then the master playlist over the streams that started, with estimated
    // bit rates (a failure there is logged; finishWriting raises it).
    void startWriting() override;
    // Ends both writers in parallel, closes their playlists and writes the
    // master playlist again over the streams that produced segments, with
    // their measured peak rates. Playlists are replaced in one step.
    std::vector<std::filesystem::path> finishWriting() override;
    std::vector<std::filesystem::path> expectedFileURLs() const override;

private:
    std::filesystem::path masterPlaylistURL_;
    // Both streams' segment callbacks run on it, one at a time.
    std::shared_ptr<platform::DispatchQueue> segmentCallbackQueue_;
    std::shared_ptr<SegmentedAssetWriter> audioSegmentWriter_;
    std::shared_ptr<SegmentedAssetWriter> videoSegmentWriter_;
    MasterPlaylist masterPlaylist_;
    Logger logger_;
};

}  // namespace ov
