#pragma once
// The writer's container: the mov/mp4 muxer, its fragments and segments.
//
// A file is written as fragments of about a second, each on disk as soon as
// it is complete, so the file plays up to its last whole fragment whatever
// happens to the process. A failed write (a full disk) leaves the file cut back
// to that last whole fragment. A segment stream is cut by us at each interval
// from the session start and handed out as bytes, with a report of each
// track's first time and duration. Encoder thread only, apart from creation.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/av_asset_writer.h"

extern "C" {
struct AVCodecContext;
struct AVFormatContext;
struct AVIOContext;
struct AVPacket;
struct AVStream;
}

namespace ov::platform::writer {

class AssetWriterContainer {
public:
    using SegmentSink = std::function<void(std::shared_ptr<const std::vector<uint8_t>> data, AVAssetSegmentType type,
                                           const AVAssetSegmentReport* report)>;

    // A file at `path`; throws the writer's error when one exists there or
    // the container can't be made.
    static std::unique_ptr<AssetWriterContainer> file(const std::string& path, AVFileType fileType);
    // Segments of `interval` seconds handed to `sink` on the encoder thread;
    // an exception of the sink fails the write that produced the segment.
    static std::unique_ptr<AssetWriterContainer> segments(double interval, SegmentSink sink);
    ~AssetWriterContainer();
    AssetWriterContainer(const AssetWriterContainer&) = delete;
    AssetWriterContainer& operator=(const AssetWriterContainer&) = delete;

    bool segmented() const { return segmented_; }
    double segmentInterval() const { return segmentInterval_; }
    // Encoders must put their parameter sets in the track header.
    bool needsGlobalHeader() const;

    // A track for an opened encoder; tracks are numbered in the order added.
    void addTrack(AVMediaType mediaType, AVCodecContext* encoder, uint32_t codecTag = 0);
    // Opens the file (or starts the stream) and writes the header; a segment
    // stream hands out its initialization segment here.
    void writeHeader();
    bool headerWritten() const { return headerWritten_; }

    // The segment bound at or before `ticks` (in units of 1/rate from the
    // session start) that hasn't been cut yet; none for a file.
    std::optional<int64_t> segmentBoundary(int64_t ticks, int64_t rate) const;

    // A packet of `track` in its encoder's time base. Video packets wait for
    // the next one, which gives their duration.
    void write(int track, AVPacket* packet);
    // No more packets on `track`. A waiting packet lasts up to `endTicks`
    // (the encoder's time base) when that lies after it.
    void finishTrack(int track, std::optional<int64_t> endTicks);
    // The last segment, or the trailer and closing of the file.
    void finish();
    // After a failure: stop writing and leave a file cut back to its last
    // whole fragment. Safe to call more than once.
    void abandon();

private:
    struct Track;
    AssetWriterContainer() = default;
    static int writeSegmentBytes(void* opaque, uint8_t* data, int size);
    void writeNow(Track& track, AVPacket* packet);
    void cutSegment();
    void emitSegment(AVAssetSegmentType type, const AVAssetSegmentReport* report);
    void noteDurable();

    bool segmented_ = false;
    std::string path_;
    AVFormatContext* format_ = nullptr;
    AVIOContext* io_ = nullptr;
    std::vector<std::unique_ptr<Track>> tracks_;
    bool headerWritten_ = false;
    bool abandoned_ = false;
    // File: bytes on disk that end at a whole fragment; the first packet's time
    // and when the last fragment was cut.
    int64_t durableBytes_ = 0;
    static constexpr double kFragmentSeconds = 1.0;
    std::optional<double> firstPacketSeconds_;
    std::optional<double> lastFragmentSeconds_;
    // Segments.
    SegmentSink sink_;
    std::vector<uint8_t> segmentBytes_;
    double segmentInterval_ = 6;
    int64_t nextSegmentIndex_ = 1;
};

}  // namespace ov::platform::writer
