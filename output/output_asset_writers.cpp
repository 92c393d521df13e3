#include "output/output_asset_writers.h"

#include <cerrno>
#include <fstream>

#include "foundation/platform_error.h"
#include "platform/task_group.h"
#include "foundation/ov_error.h"

namespace ov {
namespace {

// The writer's own error says more than ours, where it has one.
void startWriting(platform::AVAssetWriter& writer) {
    if (writer.safe_startWriting()) return;
    if (auto error = writer.error()) std::rethrow_exception(error);
    throw OVError(OVError::Code::assetWriterFailed, "Couldn't start writing to AVAssetWriter");
}

}  // namespace

platform::AVFileType fileTypeForURL(const std::filesystem::path& url, const Logger& logger) {
    auto extension = url.extension().string();
    if (!extension.empty()) extension.erase(0, 1);
    if (extension == "mp4") return platform::AVFileTypeMPEG4;
    if (extension == "mov") return platform::AVFileTypeQuickTimeMovie;
    if (extension == "m4a") return platform::AVFileTypeAppleM4A;
    logger.warning([&] { return "Unknown file extension " + extension + ", defaulting to .mov for AVAssetWriter"; });
    return platform::AVFileTypeQuickTimeMovie;
}

SingleFileOutputAssetWriters::SingleFileOutputAssetWriters(const std::filesystem::path& url, Logger logger)
    : sharedAssetWriter_(platform::AVAssetWriter::make(url.string(), fileTypeForURL(url, logger))) {}

void SingleFileOutputAssetWriters::startWriting() { ov::startWriting(*sharedAssetWriter_); }

std::vector<std::filesystem::path> SingleFileOutputAssetWriters::finishWriting() {
    sharedAssetWriter_->safe_finishWriting();
    return {sharedAssetWriter_->outputPath()};
}

std::vector<std::filesystem::path> SingleFileOutputAssetWriters::expectedFileURLs() const {
    return {sharedAssetWriter_->outputPath()};
}

MultipleStreamsOutputAssetWriters::MultipleStreamsOutputAssetWriters(
    const std::filesystem::path& directoryURL, const std::string& filenamePrefix, SegmentCallback segmentCallback,
    double audioSegmentDuration, double videoSegmentDuration, MasterPlaylist masterPlaylist, Logger logger)
    : masterPlaylistURL_(directoryURL / (filenamePrefix + ".m3u8")),
      segmentCallbackQueue_(std::make_shared<platform::DispatchQueue>("MultipleStreamsOutputAssetWriterQueue")),
      audioSegmentWriter_(std::make_shared<SegmentedAssetWriter>(directoryURL, filenamePrefix + "-audio",
                                                                 segmentCallbackQueue_, segmentCallback,
                                                                 audioSegmentDuration, logger)),
      videoSegmentWriter_(std::make_shared<SegmentedAssetWriter>(directoryURL, filenamePrefix + "-video",
                                                                 segmentCallbackQueue_, segmentCallback,
                                                                 videoSegmentDuration, logger)),
      masterPlaylist_(std::move(masterPlaylist)),
      logger_(std::move(logger)) {}

std::shared_ptr<platform::AVAssetWriter> MultipleStreamsOutputAssetWriters::videoAssetWriter() const {
    return videoSegmentWriter_->assetWriter();
}

std::shared_ptr<platform::AVAssetWriter> MultipleStreamsOutputAssetWriters::audioAssetWriter() const {
    return audioSegmentWriter_->assetWriter();
}

void MultipleStreamsOutputAssetWriters::startWriting() {
    ov::startWriting(*audioSegmentWriter_->assetWriter());
    ov::startWriting(*videoSegmentWriter_->assetWriter());
}

std::vector<std::filesystem::path> MultipleStreamsOutputAssetWriters::finishWriting() {
    using Playlist = std::shared_ptr<MediaPlaylistWriter>;
    const auto finish = [](const std::shared_ptr<SegmentedAssetWriter>& segmentWriter) -> Playlist {
        segmentWriter->assetWriter()->safe_finishWriting();
        const auto& delegate = segmentWriter->segmentedAssetWriterDelegate();
        // A writer without inputs never produced a segment: no playlist, no failure.
        if (!delegate->playlistWriter()) return nullptr;
        return delegate->writePlaylist();
    };
    platform::TaskGroup<Playlist> group;
    group.add([&] { return finish(audioSegmentWriter_); });
    group.add([&] { return finish(videoSegmentWriter_); });
    // Both ends have run when waitThrowing returns, whichever failed.
    const auto playlists = group.waitThrowing();

    const auto variant = [](const Playlist& playlist) -> std::optional<MasterPlaylist::Variant> {
        if (!playlist) return std::nullopt;
        return MasterPlaylist::Variant{playlist->url(), playlist->peakBytesPerSecond() * 8};
    };
    const auto text = masterPlaylist_.generate(variant(playlists[0]), variant(playlists[1]));

    std::ofstream out(masterPlaylistURL_, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) throw platform::PlatformError::posix(errno, "write " + masterPlaylistURL_.string());
    return {masterPlaylistURL_};
}

std::vector<std::filesystem::path> MultipleStreamsOutputAssetWriters::expectedFileURLs() const {
    return {masterPlaylistURL_};
}

}  // namespace ov
