#include "output/media_playlist_writer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace ov {
namespace {

constexpr const char* endListTag = "#EXT-X-ENDLIST";

}  // namespace

std::string MediaPlaylistWriter::Segment::lines(const std::optional<platform::CMTime>& nextEarliestPTS) const {
    const double duration = nextEarliestPTS ? (*nextEarliestPTS - earliestPTS).seconds() : decodeDuration.seconds();
    return fmt::format("#EXTINF:{:1.5f},{}\n{}\n", duration, title.value_or(""), filename);
}

MediaPlaylistWriter::MediaPlaylistWriter(const std::filesystem::path& url) : fileWriter_(url), url_(url) {}

void MediaPlaylistWriter::writeInitializationSegment(const std::string& filename, int64_t targetDuration) {
    queue_.sync([&] {
        auto& file = fileWriter_.fileHandle();
        file.write(fmt::format("#EXTM3U\n"
                               "#EXT-X-PLAYLIST-TYPE:VOD\n"
                               "#EXT-X-TARGETDURATION:{}\n"
                               "#EXT-X-VERSION:6\n"
                               "#EXT-X-MEDIA-SEQUENCE:1\n"
                               "#EXT-X-INDEPENDENT-SEGMENTS\n"
                               "#EXT-X-MAP:URI=\"{}\"\n",
                               targetDuration, filename));
        // The header alone is published; the end tag below only lives in the
        // working file until the next commit, or is published by close().
        fileWriter_.synchronize();
        contentOffset_ = file.offsetInFile();
        file.write(endListTag);
    });
}

void MediaPlaylistWriter::writeSegment(const Segment& segment) {
    queue_.sync([&] {
        // Listed at once with its reported length; its successor settles the
        // length at the distance between their starts.
        if (segments_.empty())
            writeProvisional(segment);
        else
            writeSegmentWithFooter(segments_.back(), &segment);
        segments_.push_back(segment);
    });
}

void MediaPlaylistWriter::close() {
    queue_.sync([&] {
        if (!segments_.empty()) writeSegmentWithFooter(segments_.back(), nullptr);
        fileWriter_.close();
    });
}

int64_t MediaPlaylistWriter::peakBytesPerSecond() {
    return queue_.sync([&] {
        int64_t peak = 0;
        for (const auto& segment : segments_) {
            const double seconds = segment.decodeDuration.seconds();
            if (seconds == 0 || !std::isfinite(seconds)) continue;
            const double rate = static_cast<double>(segment.byteCount) / seconds;
            if (!std::isfinite(rate)) continue;
            peak = std::max(peak, static_cast<int64_t>(rate));
        }
        return peak;
    });
}

void MediaPlaylistWriter::writeProvisional(const Segment& segment) {
    auto& file = fileWriter_.fileHandle();
    fileWriter_.truncate(contentOffset_);
    file.write(segment.lines(std::nullopt));
    file.write(endListTag);
    fileWriter_.synchronize();
}

void MediaPlaylistWriter::writeSegmentWithFooter(const Segment& current, const Segment* next) {
    auto& file = fileWriter_.fileHandle();
    fileWriter_.truncate(contentOffset_);
    file.write(current.lines(next ? std::optional(next->earliestPTS) : std::nullopt));
    contentOffset_ = file.offsetInFile();
    if (next) file.write(next->lines(std::nullopt));
    file.write(endListTag);
    fileWriter_.synchronize();
}

}  // namespace ov
