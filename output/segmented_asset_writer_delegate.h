#pragma once
// Stores the segments that a segmented asset writer hands out, keeps the
// stream's media playlist current and tells the owner of each stored segment.
//
// The writer calls through a thin adapter (OVAssetWriterDelegateObjcImpl) that
// boxes the segment bytes, so the logic here sees one small interface and can
// be driven directly by tests with made-up segments.

#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "output/media_playlist_writer.h"
#include "output/ov_logger.h"
#include "platform/av_asset_writer.h"
#include "platform/dispatch_queue.h"
#include "output/segment_callback.h"

namespace ov {

// The segment's bytes as the writer gave them.
class OVBoxedSegmentData {
public:
    using Data = std::shared_ptr<const std::vector<uint8_t>>;
    explicit OVBoxedSegmentData(Data data) : data_(std::move(data)) {}
    const Data& data() const { return data_; }
    int64_t length() const;
    // Writes the bytes to the URL; atomically (a whole file or none) when asked.
    // Fails with the file system's error.
    void writeToURL(const std::filesystem::path& url, bool atomically) const;

private:
    Data data_;
};

class OVBoxingAssetWriterDelegate {
public:
    virtual ~OVBoxingAssetWriterDelegate() = default;
    virtual void assetWriterDidOutputSegmentData(const OVBoxedSegmentData& segmentData,
                                                 platform::AVAssetSegmentType segmentType,
                                                 const platform::AVAssetSegmentReport* segmentReport) = 0;
};

// Meets the writer's delegate interface and passes each call on, boxed.
class OVAssetWriterDelegateObjcImpl : public platform::AVAssetWriterDelegate {
public:
    explicit OVAssetWriterDelegateObjcImpl(std::weak_ptr<OVBoxingAssetWriterDelegate> delegate)
        : delegate_(std::move(delegate)) {}
    void didOutputSegmentData(platform::AVAssetWriter& writer, std::shared_ptr<const std::vector<uint8_t>> segmentData,
                              platform::AVAssetSegmentType segmentType,
                              const platform::AVAssetSegmentReport* segmentReport) override;

private:
    std::weak_ptr<OVBoxingAssetWriterDelegate> delegate_;
};

class SegmentedAssetWriterDelegate : public OVBoxingAssetWriterDelegate {
public:
    SegmentedAssetWriterDelegate(std::filesystem::path directoryURL, std::string filenamePrefix,
                                 std::shared_ptr<platform::DispatchQueue> segmentCallbackQueue,
                                 SegmentCallback segmentCallback, std::shared_ptr<platform::AVAssetWriter> assetWriter,
                                 Logger logger);

    const std::filesystem::path& directoryURL() const { return directoryURL_; }
    const std::string& filenamePrefix() const { return filenamePrefix_; }
    // The number of segments seen so far, initialization segments included.
    int64_t segmentCount() const;
    std::shared_ptr<MediaPlaylistWriter> playlistWriter() const;

    // "<prefix>-0007.mp4" for an initialization segment, ".m4s" for the others;
    // the count has at least four digits.
    static std::string segmentFilename(std::string_view filenamePrefix, int64_t segmentCount,
                                       platform::AVAssetSegmentType segmentType);

    // Stores the segment, lists it in the playlist, then announces it. A segment
    // that can't be stored, or whose playlist entry can't be published, fails
    // with the file system's error after logging it (the writer then fails);
    // such a segment is never listed or announced.
    void assetWriterDidOutputSegmentData(const OVBoxedSegmentData& segmentData,
                                         platform::AVAssetSegmentType segmentType,
                                         const platform::AVAssetSegmentReport* segmentReport) override;
    // Failures are logged here; a failed publication of a media segment's
    // entry is handed back to assetWriterDidOutputSegmentData.
    void updatePlaylist(const std::string& filename, int64_t segmentDataByteCount,
                        platform::AVAssetSegmentType segmentType, const platform::AVAssetSegmentReport* segmentReport);
    // Closes the playlist and gives its writer. Fails with OVError internalError
    // when no initialization segment ever came, or with the file's failure.
    std::shared_ptr<MediaPlaylistWriter> writePlaylist();

private:
    std::filesystem::path directoryURL_;
    std::string filenamePrefix_;
    std::shared_ptr<platform::DispatchQueue> segmentCallbackQueue_;
    SegmentCallback segmentCallback_;
    std::weak_ptr<platform::AVAssetWriter> assetWriter_;
    Logger logger_;
    // Segments come one at a time, but the finish reads from another thread.
    mutable std::mutex mutex_;
    int64_t segmentCount_ = 0;
    std::shared_ptr<MediaPlaylistWriter> playlistWriter_;
    std::exception_ptr publicationFailure_;
};

}  // namespace ov
