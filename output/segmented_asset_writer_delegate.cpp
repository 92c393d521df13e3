#include "output/segmented_asset_writer_delegate.h"

#include <fmt/format.h>

#include <cmath>
#include <utility>

#include "platform/file_handle.h"
#include "platform/file_manager.h"
#include "foundation/platform_error.h"
#include "foundation/ov_error.h"

namespace ov {
namespace {

std::string errorText(const std::exception_ptr& error) { return platform::describeError(error).debugDescription; }

}  // namespace

int64_t OVBoxedSegmentData::length() const { return data_ ? static_cast<int64_t>(data_->size()) : 0; }

void OVBoxedSegmentData::writeToURL(const std::filesystem::path& url, bool atomically) const {
    const std::string_view bytes =
        data_ ? std::string_view(reinterpret_cast<const char*>(data_->data()), data_->size()) : std::string_view();
    if (!atomically) {
        platform::FileManager::removeItem(url);
        auto file = platform::FileHandle::createNew(url);
        file.write(bytes);
        file.close();
        return;
    }
    // Beside the target, so the rename stays on one file system.
    auto temporary = url;
    temporary += ".partial";
    platform::FileManager::removeItem(temporary);
    try {
        auto file = platform::FileHandle::createNew(temporary);
        file.write(bytes);
        file.synchronize();
        file.close();
        platform::FileManager::replaceItemAt(url, temporary);
    } catch (...) {
        try {
            platform::FileManager::removeItem(temporary);
        } catch (...) {
        }
        throw;
    }
}

void OVAssetWriterDelegateObjcImpl::didOutputSegmentData(platform::AVAssetWriter&,
                                                         std::shared_ptr<const std::vector<uint8_t>> segmentData,
                                                         platform::AVAssetSegmentType segmentType,
                                                         const platform::AVAssetSegmentReport* segmentReport) {
    if (auto delegate = delegate_.lock())
        delegate->assetWriterDidOutputSegmentData(OVBoxedSegmentData(std::move(segmentData)), segmentType,
                                                  segmentReport);
}

SegmentedAssetWriterDelegate::SegmentedAssetWriterDelegate(std::filesystem::path directoryURL,
                                                           std::string filenamePrefix,
                                                           std::shared_ptr<platform::DispatchQueue> segmentCallbackQueue,
                                                           SegmentCallback segmentCallback,
                                                           std::shared_ptr<platform::AVAssetWriter> assetWriter,
                                                           Logger logger)
    : directoryURL_(std::move(directoryURL)),
      filenamePrefix_(std::move(filenamePrefix)),
      segmentCallbackQueue_(std::move(segmentCallbackQueue)),
      segmentCallback_(std::move(segmentCallback)),
      assetWriter_(assetWriter),
      logger_(std::move(logger)) {}

int64_t SegmentedAssetWriterDelegate::segmentCount() const {
    std::lock_guard lock(mutex_);
    return segmentCount_;
}

std::shared_ptr<MediaPlaylistWriter> SegmentedAssetWriterDelegate::playlistWriter() const {
    std::lock_guard lock(mutex_);
    return playlistWriter_;
}

std::string SegmentedAssetWriterDelegate::segmentFilename(std::string_view filenamePrefix, int64_t segmentCount,
                                                          platform::AVAssetSegmentType segmentType) {
    return fmt::format("{}-{:04d}.{}", filenamePrefix, segmentCount,
                       segmentType == platform::AVAssetSegmentType::initialization ? "mp4" : "m4s");
}

void SegmentedAssetWriterDelegate::assetWriterDidOutputSegmentData(
    const OVBoxedSegmentData& segmentData, platform::AVAssetSegmentType segmentType,
    const platform::AVAssetSegmentReport* segmentReport) {
    const std::string filename = segmentFilename(filenamePrefix_, segmentCount(), segmentType);
    const auto url = directoryURL_ / filename;
    logger_.debug([&] {
        return fmt::format("Did output segment data: {}, segmentType:{}, segmentReport:{}", segmentData.length(),
                           static_cast<int>(segmentType),
                           segmentReport ? segmentReport->debugDescription() : std::string("nil"));
    });
    logger_.debug([&] { return "Writing segment data: " + url.string(); });
    try {
        segmentData.writeToURL(url, true);
    } catch (...) {
        // A segment that isn't stored is neither listed nor announced, and the
        // writer fails with the file system's error: a recording that can't
        // store its media must end and say why, not go on with holes.
        const auto error = std::current_exception();
        logger_.error([&] { return "Error writing segment data: " + errorText(error); });
        {
            std::lock_guard lock(mutex_);
            ++segmentCount_;
        }
        std::rethrow_exception(error);
    }
    updatePlaylist(filename, segmentData.length(), segmentType, segmentReport);
    std::exception_ptr publicationFailure;
    {
        std::lock_guard lock(mutex_);
        ++segmentCount_;
        publicationFailure = std::exchange(publicationFailure_, nullptr);
    }
    // A stored segment that no playlist can list is lost all the same.
    if (publicationFailure) std::rethrow_exception(publicationFailure);
    // Announced once listed: a host that hears of a segment can play up to it,
    // whatever happens to the process next.
    if (segmentCallback_) segmentCallbackQueue_->async([callback = segmentCallback_, url] { callback(url); });
}

void SegmentedAssetWriterDelegate::updatePlaylist(const std::string& filename, int64_t segmentDataByteCount,
                                                  platform::AVAssetSegmentType segmentType,
                                                  const platform::AVAssetSegmentReport* segmentReport) {
    switch (segmentType) {
        case platform::AVAssetSegmentType::initialization: {
            if (auto existing = playlistWriter()) {
                logger_.warning(
                    "Playlist writer was already initialized while initialization segment arrived, overwriting with "
                    "a new playlist writer.",
                    [&] { return LogMetadata{{"playlist", existing->url().filename().string()}}; });
            }
            const auto writer = assetWriter_.lock();
            const double interval = writer ? writer->preferredOutputSegmentInterval().seconds() : 0;
            const auto targetDuration = static_cast<int64_t>(std::ceil(interval));
            const auto playlistURL = directoryURL_ / (filenamePrefix_ + ".m3u8");
            try {
                auto playlist = std::make_shared<MediaPlaylistWriter>(playlistURL);
                {
                    std::lock_guard lock(mutex_);
                    playlistWriter_ = playlist;
                }
                playlist->writeInitializationSegment(filename, targetDuration);
                logger_.debug([&] { return "Created playlist writer at " + playlistURL.string(); });
            } catch (...) {
                const auto error = std::current_exception();
                logger_.error("Error creating media playlist writer",
                              [&] { return LogMetadata{{"error", errorText(error)}}; });
            }
            return;
        }
        case platform::AVAssetSegmentType::separable: {
            if (!segmentReport || segmentReport->trackReports.empty()) {
                logger_.warning("Missing segmentReport or trackReport to calculate duration, dropping segment.", [&] {
                    return LogMetadata{
                        {"segmentReport", segmentReport ? "true" : "false"},
                        {"trackReports", std::to_string(segmentReport ? segmentReport->trackReports.size() : 0)}};
                });
                return;
            }
            if (segmentReport->trackReports.size() > 1) {
                logger_.warning("Got multiple track reports, using the first one ignoring all others.", [&] {
                    return LogMetadata{{"trackReports", std::to_string(segmentReport->trackReports.size())}};
                });
            }
            const auto& trackReport = segmentReport->trackReports.front();
            const auto playlist = playlistWriter();
            if (!playlist) {
                logger_.warning("No playlist writer available to append segment to, dropping segment.",
                                [&] { return LogMetadata{{"segmentCount", std::to_string(segmentCount())}}; });
                return;
            }
            MediaPlaylistWriter::Segment segment{filename, trackReport.earliestPresentationTimeStamp,
                                                 trackReport.duration, segmentDataByteCount, std::nullopt};
            try {
                playlist->writeSegment(segment);
            } catch (...) {
                const auto error = std::current_exception();
                logger_.error("Error appending to media playlist writer",
                              [&] { return LogMetadata{{"error", errorText(error)}}; });
                std::lock_guard lock(mutex_);
                publicationFailure_ = error;
                return;
            }
            logger_.debug([&] { return "Appending " + filename + ": " + segment.earliestPTS.logDescription(); });
            return;
        }
    }
    logger_.warning("Received unknown segment type.",
                    [&] { return LogMetadata{{"segmentType", std::to_string(static_cast<int>(segmentType))}}; });
}

std::shared_ptr<MediaPlaylistWriter> SegmentedAssetWriterDelegate::writePlaylist() {
    const auto playlist = playlistWriter();
    if (!playlist) {
        logger_.error("Unable to write playlist, playlist writer was never created.",
                      [&] { return LogMetadata{{"segmentCount", std::to_string(segmentCount())}}; });
        throw OVError(OVError::Code::internalError, "Unable to write playlist, playlist writer was never created.");
    }
    playlist->close();
    return playlist;
}

}  // namespace ov
