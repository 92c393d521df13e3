#include "platform/av_asset_writer_container.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>

#include "foundation/platform_error.h"
#include "platform/av_asset_writer_support.h"

namespace ov::platform::writer {

struct AssetWriterContainer::Track {
    AVMediaType mediaType = AVMediaType::video;
    AVCodecContext* encoder = nullptr;
    AVStream* stream = nullptr;
    // Packets wait for the next one to learn their duration.
    AVPacket* heldPacket = nullptr;
    // The fragment being built, for segment reports.
    std::optional<int64_t> fragmentFirstPts;
    int64_t fragmentEndPts = 0;
    // File: a packet of this track is in the file or in the open fragment.
    bool written = false;

    ~Track() { av_packet_free(&heldPacket); }
};

std::unique_ptr<AssetWriterContainer> AssetWriterContainer::file(const std::string& path, AVFileType fileType) {
    quietLibraries();
    std::unique_ptr<AssetWriterContainer> container(new AssetWriterContainer());
    container->path_ = path;
    const char* muxer = fileType == AVFileType::mp4 ? "mp4" : fileType == AVFileType::m4a ? "ipod" : "mov";
    check(avformat_alloc_output_context2(&container->format_, nullptr, muxer, path.c_str()),
          "Can't create the container");
    return container;
}

std::unique_ptr<AssetWriterContainer> AssetWriterContainer::segments(double interval, SegmentSink sink) {
    quietLibraries();
    std::unique_ptr<AssetWriterContainer> container(new AssetWriterContainer());
    container->segmented_ = true;
    container->segmentInterval_ = interval;
    container->sink_ = std::move(sink);
    check(avformat_alloc_output_context2(&container->format_, nullptr, "mp4", nullptr), "Can't create the container");
    return container;
}

AssetWriterContainer::~AssetWriterContainer() {
    tracks_.clear();
    if (format_) {
        if (!segmented_ && format_->pb) avio_closep(&format_->pb);
        avformat_free_context(format_);
    }
    if (io_) {
        av_freep(&io_->buffer);
        avio_context_free(&io_);
    }
}

bool AssetWriterContainer::needsGlobalHeader() const { return format_->oformat->flags & AVFMT_GLOBALHEADER; }

void AssetWriterContainer::addTrack(AVMediaType mediaType, AVCodecContext* encoder, uint32_t codecTag) {
    auto track = std::make_unique<Track>();
    track->mediaType = mediaType;
    track->encoder = encoder;
    track->stream = avformat_new_stream(format_, nullptr);
    if (!track->stream) fail("Can't add a track");
    check(avcodec_parameters_from_context(track->stream->codecpar, encoder), "Can't describe the track");
    track->stream->time_base = encoder->time_base;
    if (codecTag) track->stream->codecpar->codec_tag = codecTag;
    tracks_.push_back(std::move(track));
}

int AssetWriterContainer::writeSegmentBytes(void* opaque, uint8_t* data, int size) {
    auto* container = static_cast<AssetWriterContainer*>(opaque);
    container->segmentBytes_.insert(container->segmentBytes_.end(), data, data + size);
    return size;
}

void AssetWriterContainer::writeHeader() {
    AVDictionary* options = nullptr;
    if (segmented_) {
        // One track per segment writer; fragments are cut by us at segment bounds.
        av_dict_set(&options, "movflags", "+frag_custom+empty_moov+default_base_moof+write_colr", 0);
        const int bufferSize = 64 * 1024;
        auto* buffer = static_cast<uint8_t*>(av_malloc(bufferSize));
        io_ = avio_alloc_context(buffer, bufferSize, 1, this, nullptr, &writeSegmentBytes, nullptr);
        if (!io_) {
            av_free(buffer);
            av_dict_free(&options);
            fail("Can't create the segment stream");
        }
        format_->pb = io_;
        format_->flags |= AVFMT_FLAG_CUSTOM_IO;
    } else {
        if (std::filesystem::exists(path_))
            throw PlatformError(errorDomainName(), EEXIST, "The output file already exists: " + path_);
        // Fragments of about a second keep the file playable if the process dies.
        // The movie header waits for the first fragment so that it can carry the
        // audio priming as an edit list; that fragment is cut as soon as every
        // track has a packet, so that a process killed in its first second still
        // leaves a file that plays.
        av_dict_set(&options, "movflags", "+frag_custom+delay_moov+default_base_moof+write_colr", 0);
        const int opened = avio_open(&format_->pb, path_.c_str(), AVIO_FLAG_WRITE);
        if (opened < 0) av_dict_free(&options);
        check(opened, "Can't create the output file");
        // Each finished fragment goes to the file at once, not when a buffer fills.
        format_->flush_packets = 1;
    }
    const int r = avformat_write_header(format_, &options);
    av_dict_free(&options);
    check(r, "Can't write the container header");
    headerWritten_ = true;
    noteDurable();
    if (segmented_) {
        avio_flush(io_);
        emitSegment(AVAssetSegmentType::initialization, nullptr);
    }
}

// With flush_packets every successful write leaves the file at a fragment's end.
void AssetWriterContainer::noteDurable() {
    if (!segmented_ && format_->pb && format_->pb->error >= 0) durableBytes_ = avio_tell(format_->pb);
}

std::optional<int64_t> AssetWriterContainer::segmentBoundary(int64_t ticks, int64_t rate) const {
    if (!segmented_) return std::nullopt;
    const int64_t bound = std::llround(double(nextSegmentIndex_) * segmentInterval_ * double(rate));
    if (ticks >= bound) return bound;
    return std::nullopt;
}

void AssetWriterContainer::write(int index, AVPacket* packet) {
    auto& track = *tracks_.at(size_t(index));
    if (track.mediaType == AVMediaType::audio) {
        // The encoder's packets carry their own durations; no need to wait.
        writeNow(track, packet);
        return;
    }
    if (track.heldPacket) {
        track.heldPacket->duration = std::max<int64_t>(1, packet->pts - track.heldPacket->pts);
        AVPacket* held = track.heldPacket;
        track.heldPacket = nullptr;
        struct Free {
            AVPacket* p;
            ~Free() { av_packet_free(&p); }
        } freeHeld{held};
        writeNow(track, held);
    }
    track.heldPacket = av_packet_clone(packet);
    if (!track.heldPacket) fail("Can't keep a video packet");
}

void AssetWriterContainer::writeNow(Track& track, AVPacket* packet) {
    packet->stream_index = track.stream->index;
    // Cut before the first packet at or past the next bound: for video that
    // packet is the keyframe forced there.
    const int64_t rate = track.encoder->time_base.den;
    const bool isKey = packet->flags & AV_PKT_FLAG_KEY;
    if (segmented_ && segmentBoundary(packet->pts, rate) && (track.mediaType == AVMediaType::audio || isKey)) {
        if (track.fragmentFirstPts) cutSegment();
        while (segmentBoundary(packet->pts, rate)) ++nextSegmentIndex_;
    }
    if (!track.fragmentFirstPts) track.fragmentFirstPts = packet->pts;
    track.fragmentEndPts = std::max(track.fragmentEndPts, packet->pts + packet->duration);
    const double seconds = double(packet->pts) / double(rate);
    av_packet_rescale_ts(packet, track.encoder->time_base, track.stream->time_base);
    check(av_write_frame(format_, packet),
          track.mediaType == AVMediaType::audio ? "Can't write audio" : "Can't write video");
    if (!segmented_) {
        track.written = true;
        if (!firstPacketSeconds_) firstPacketSeconds_ = seconds;
        const bool allTracks =
            std::all_of(tracks_.begin(), tracks_.end(), [](const auto& t) { return t->written; });
        if (!lastFragmentSeconds_ ? allTracks || seconds - *firstPacketSeconds_ >= kFragmentSeconds
                                  : seconds - *lastFragmentSeconds_ >= kFragmentSeconds) {
            check(av_write_frame(format_, nullptr), "Can't write a fragment");
            avio_flush(format_->pb);
            lastFragmentSeconds_ = seconds;
        }
    }
    noteDurable();
}

void AssetWriterContainer::cutSegment() {
    AVAssetSegmentReport report;
    bool any = false;
    for (auto& t : tracks_) {
        if (!t->fragmentFirstPts) continue;
        any = true;
        const int32_t scale = t->encoder->time_base.den;
        report.segmentType = AVAssetSegmentType::separable;
        report.trackReports.push_back({t->mediaType, CMTime(*t->fragmentFirstPts, scale),
                                       CMTime(t->fragmentEndPts - *t->fragmentFirstPts, scale)});
        t->fragmentFirstPts.reset();
        t->fragmentEndPts = 0;
    }
    if (!any) return;
    check(av_write_frame(format_, nullptr), "Can't write a segment");
    avio_flush(io_);
    emitSegment(AVAssetSegmentType::separable, &report);
}

void AssetWriterContainer::emitSegment(AVAssetSegmentType type, const AVAssetSegmentReport* report) {
    auto data = std::make_shared<std::vector<uint8_t>>();
    data->swap(segmentBytes_);
    if (data->empty()) return;
    if (sink_) sink_(std::move(data), type, report);
}

void AssetWriterContainer::finishTrack(int index, std::optional<int64_t> endTicks) {
    auto& track = *tracks_.at(size_t(index));
    if (!track.heldPacket) return;
    // A thirtieth of a second without a known end.
    int64_t duration = std::max<int64_t>(1, track.encoder->time_base.den / 30);
    if (endTicks && *endTicks > track.heldPacket->pts) duration = *endTicks - track.heldPacket->pts;
    track.heldPacket->duration = duration;
    AVPacket* held = track.heldPacket;
    track.heldPacket = nullptr;
    struct Free {
        AVPacket* p;
        ~Free() { av_packet_free(&p); }
    } freeHeld{held};
    writeNow(track, held);
}

void AssetWriterContainer::finish() {
    if (!headerWritten_) return;
    if (segmented_) {
        cutSegment();
        // The trailer of a fragmented stream adds nothing a segment needs.
        segmentBytes_.clear();
        av_write_trailer(format_);
        segmentBytes_.clear();
        return;
    }
    check(av_write_trailer(format_), "Can't finish the file");
    noteDurable();
    check(avio_closep(&format_->pb), "Can't finish the file");
}

void AssetWriterContainer::abandon() {
    if (abandoned_) return;
    abandoned_ = true;
    if (segmented_ || !format_ || !format_->pb) return;
    // Closing flushes what the muxer still buffers, which may be a fragment's
    // start; the cut below takes it away again.
    avio_closep(&format_->pb);
    if (headerWritten_) {
        if (::truncate(path_.c_str(), durableBytes_) != 0) {
            // Nothing more to do: the file keeps its tail, which players skip.
        }
    }
}

}  // namespace ov::platform::writer
