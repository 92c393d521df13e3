#include "output/output_asset_writers.h"

#include <algorithm>

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

// What a stream will carry, for the master playlist written before any
// segment has been measured: the configured bit rates, or the encoders'
// defaults (AAC at 64 kbit/s per channel up to two; video at a tenth of a bit
// per pixel and frame, about what the real-time presets give for screens).
int64_t estimatedBitsPerSecond(const platform::AVAssetWriter& writer) {
    int64_t total = 0;
    for (const auto& input : writer.inputs()) {
        const auto& settings = input->outputSettings();
        if (!settings.is_object()) continue;
        if (input->mediaType() == platform::AVMediaType::audio) {
            const int channels = std::max(1, settings.value(platform::AVNumberOfChannelsKey, 1));
            total += settings.value(platform::AVEncoderBitRateKey, int64_t(64000) * std::min(channels, 2));
            continue;
        }
        const auto compression = settings.value(platform::AVVideoCompressionPropertiesKey, platform::AVSettingsDictionary::object());
        const int64_t configured = compression.is_object() ? compression.value(platform::AVVideoAverageBitRateKey, int64_t(0)) : 0;
        if (configured > 0) {
            total += configured;
            continue;
        }
        const double rate = compression.is_object() ? compression.value(platform::AVVideoExpectedSourceFrameRateKey, 30.0) : 30.0;
        total += int64_t(double(settings.value(platform::AVVideoWidthKey, 0)) * settings.value(platform::AVVideoHeightKey, 0) *
                         rate / 10);
    }
    return total;
}

// Replaced in one step: a player reading it meanwhile sees the old or the new text.
void writeMasterPlaylist(const std::filesystem::path& url, const std::string& text) {
    OVBoxedSegmentData(std::make_shared<const std::vector<uint8_t>>(text.begin(), text.end())).writeToURL(url, true);
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
    // The streams are known now (each started writer has stored its
    // initialization segment and opened its playlist): the master playlist
    // goes out at once, so a recording killed at any later moment plays.
    // Its bit rates are estimates until finishWriting measures them.
    const auto variant = [](const std::shared_ptr<SegmentedAssetWriter>& writer) -> std::optional<MasterPlaylist::Variant> {
        const auto playlist = writer->segmentedAssetWriterDelegate()->playlistWriter();
        if (!playlist) return std::nullopt;
        return MasterPlaylist::Variant{playlist->url(), estimatedBitsPerSecond(*writer->assetWriter())};
    };
    const auto audio = variant(audioSegmentWriter_), video = variant(videoSegmentWriter_);
    if (!audio && !video) return;
    try {
        writeMasterPlaylist(masterPlaylistURL_, masterPlaylist_.generate(audio, video));
    } catch (...) {
        // finishWriting tries again and fails with the same error.
        const auto error = std::current_exception();
        logger_.error("Can't write the master playlist at the start, trying again at the end.", [&] {
            return LogMetadata{{"error", platform::describeError(error).debugDescription}};
        });
    }
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
    writeMasterPlaylist(masterPlaylistURL_, masterPlaylist_.generate(variant(playlists[0]), variant(playlists[1])));
    return {masterPlaylistURL_};
}

std::vector<std::filesystem::path> MultipleStreamsOutputAssetWriters::expectedFileURLs() const {
    return {masterPlaylistURL_};
}

}  // namespace ov
