#pragma once
// The media playlist of one segmented stream, valid on disk at every moment.
//
// The file is a final part (header and every settled entry) followed by a tail
// that is rewritten with each segment: the newest entry with its provisional
// duration and the end tag. Each segment is published as soon as it is given,
// with its reported duration; its length as the distance to the next start is
// settled when that one arrives. Each commit replaces the published file in
// one step, so a reader (or a recording killed at any moment) sees a whole
// playlist of every whole segment.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "output/atomic_file_writer.h"
#include "platform/cm_time.h"
#include "platform/dispatch_queue.h"

namespace ov {

class MediaPlaylistWriter {
public:
    struct Segment {
        std::string filename;
        platform::CMTime earliestPTS;
        platform::CMTime decodeDuration;
        int64_t byteCount = 0;
        std::optional<std::string> title;

        // "#EXTINF:<seconds>,<title>", the file name, and an empty line. The
        // duration is the distance to the next segment's start where that is
        // known, else the reported decode duration.
        std::string lines(const std::optional<platform::CMTime>& nextEarliestPTS) const;
    };

    // Fails with the failure of AtomicFileWriter (a file exists at the URL, say).
    explicit MediaPlaylistWriter(const std::filesystem::path& url);
    MediaPlaylistWriter(const MediaPlaylistWriter&) = delete;
    MediaPlaylistWriter& operator=(const MediaPlaylistWriter&) = delete;

    const std::filesystem::path& url() const { return url_; }

    // Each of these runs on the writer's queue and waits for it; a file
    // failure comes back to the caller.
    void writeInitializationSegment(const std::string& filename, int64_t targetDuration);
    void writeSegment(const Segment& segment);
    // Settles the last segment and publishes the final playlist.
    void close();

    // The highest byte rate of any one segment, truncated; 0 without segments.
    int64_t peakBytesPerSecond();

private:
    void writeProvisional(const Segment& segment);
    void writeSegmentWithFooter(const Segment& current, const Segment* next);

    platform::DispatchQueue queue_{"MediaPlaylistWriter"};
    AtomicFileWriter fileWriter_;
    std::vector<Segment> segments_;
    std::filesystem::path url_;
    // Everything before this offset is final.
    uint64_t contentOffset_ = 0;
};

}  // namespace ov
