#include "platform/av_asset_writer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <deque>
#include <filesystem>
#include <map>
#include <thread>
#include <stdexcept>

#include "platform/av_audio_pcm_buffer.h"
#include "platform/cv_pixel_buffer.h"
#include "foundation/platform_error.h"

namespace ov::platform {

namespace {

constexpr std::size_t videoQueueLimit = 8;
constexpr std::size_t audioQueueLimit = 64;

std::string errorDomainName() { return "Orvane.AVAssetWriter"; }

const AVSettingsDictionary& compressionOf(const AVSettingsDictionary& settings) {
    static const AVSettingsDictionary none = AVSettingsDictionary::object();
    if (settings.is_object() && settings.contains(AVVideoCompressionPropertiesKey) &&
        settings[AVVideoCompressionPropertiesKey].is_object())
        return settings[AVVideoCompressionPropertiesKey];
    return none;
}

// FFmpeg's own chatter goes nowhere; failures reach callers as errors.
void quietLibraries() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_ERROR); });
}

std::string avErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

[[noreturn]] void fail(const std::string& what, int code = 0) {
    throw PlatformError(errorDomainName(), code, what + (code ? ": " + avErrorText(code) : std::string()));
}

void check(int code, const char* what) {
    if (code < 0) fail(what, code);
}

template <class T>
T setting(const AVSettingsDictionary& settings, const char* key, T fallback) {
    if (!settings.is_object() || !settings.contains(key) || settings[key].is_null()) return fallback;
    try {
        return settings[key].get<T>();
    } catch (...) {
        return fallback;
    }
}

// Exact: (time - origin) in units of 1/rate, rounded to the nearest unit.
int64_t ticksSince(const CMTime& time, const CMTime& origin, int64_t rate) {
    const CMTime delta = time - origin;
    return static_cast<int64_t>(std::llround(delta.seconds() * double(rate)));
}

AVPixelFormat pixelFormatOf(OSType type) {
    switch (type) {
        case kCVPixelFormatType_32BGRA: return AV_PIX_FMT_BGRA;
        case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
        case kCVPixelFormatType_420YpCbCr8BiPlanarFullRange: return AV_PIX_FMT_NV12;
        case kCVPixelFormatType_420YpCbCr8Planar: return AV_PIX_FMT_YUV420P;
        case kCVPixelFormatType_422YpCbCr8_yuvs: return AV_PIX_FMT_YUYV422;
        default: return AV_PIX_FMT_NONE;
    }
}

AVSampleFormat sampleFormatOf(const AVAudioFormat& format) {
    const bool planar = !format.isInterleaved() && format.channelCount() > 1;
    switch (format.commonFormat()) {
        case AVAudioCommonFormat::pcmFormatFloat32: return planar ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_FLT;
        case AVAudioCommonFormat::pcmFormatFloat64: return planar ? AV_SAMPLE_FMT_DBLP : AV_SAMPLE_FMT_DBL;
        case AVAudioCommonFormat::pcmFormatInt16: return planar ? AV_SAMPLE_FMT_S16P : AV_SAMPLE_FMT_S16;
        case AVAudioCommonFormat::pcmFormatInt32: return planar ? AV_SAMPLE_FMT_S32P : AV_SAMPLE_FMT_S32;
        default: return AV_SAMPLE_FMT_NONE;
    }
}

}  // namespace

std::string AVAssetSegmentReport::debugDescription() const {
    std::string text = "AVAssetSegmentReport(";
    for (size_t i = 0; i < trackReports.size(); ++i) {
        const auto& t = trackReports[i];
        text += fmt::format("{}{} earliestPTS:{:.6f} duration:{:.6f}", i ? ", " : "",
                            t.mediaType == AVMediaType::audio ? "audio" : "video",
                            t.earliestPresentationTimeStamp.seconds(), t.duration.seconds());
    }
    return text + ")";
}

// ---- The encoder side ---------------------------------------------------------------------------

struct EncoderTrack {
    AVMediaType mediaType = AVMediaType::video;
    AVCodecContext* encoder = nullptr;
    AVStream* stream = nullptr;
    AVFrame* frame = nullptr;
    AVPacket* packet = nullptr;
    // Video.
    SwsContext* scaler = nullptr;
    int scalerWidth = 0, scalerHeight = 0;
    AVPixelFormat scalerFormat = AV_PIX_FMT_NONE;
    double keyframeInterval = 2.0;
    std::optional<int64_t> nextKeyframePts;
    int64_t lastVideoPts = -1;
    // Audio.
    SwrContext* resampler = nullptr;
    AVAudioFifo* fifo = nullptr;
    int inputRate = 0, inputChannels = 0;
    AVSampleFormat inputFormat = AV_SAMPLE_FMT_NONE;
    int64_t samplesQueued = 0;   // output samples put into the fifo so far
    int64_t samplesEncoded = 0;  // output samples handed to the encoder
    bool audioStarted = false;
    // Packets wait for the next one to learn their duration.
    AVPacket* heldPacket = nullptr;
    // The fragment being built, for segment reports.
    std::optional<int64_t> fragmentFirstPts;
    int64_t fragmentEndPts = 0;
    bool finished = false;

    ~EncoderTrack() {
        avcodec_free_context(&encoder);
        av_frame_free(&frame);
        av_packet_free(&packet);
        av_packet_free(&heldPacket);
        sws_freeContext(scaler);
        swr_free(&resampler);
        if (fifo) av_audio_fifo_free(fifo);
    }
};

struct AVAssetWriterCore {
    std::function<void(const std::string&)> notify;
    struct Job {
        enum class Kind { sample, finishInput, finishWriting } kind = Kind::sample;
        int input = -1;
        std::optional<CMSampleBuffer> sample;
        std::function<void()> completion;
    };

    AVAssetWriter* owner = nullptr;
    std::mutex mutex;
    std::condition_variable cv;
    std::condition_variable finishedCv;
    // Offline inputs wait here for room in their queue.
    std::condition_variable roomCv;
    std::deque<Job> jobs;
    std::vector<size_t> pending;
    std::vector<size_t> limits;
    AVAssetWriterStatus status = AVAssetWriterStatus::unknown;
    std::exception_ptr error;
    std::vector<std::function<void(std::exception_ptr)>> errorObservers;
    std::optional<CMTime> sessionStart;
    std::optional<CMTime> sessionEnd;
    bool stopThread = false;
    std::thread thread;

    // Encoder thread only.
    AVFormatContext* format = nullptr;
    AVIOContext* io = nullptr;
    std::vector<std::unique_ptr<EncoderTrack>> tracks;
    bool segmented = false;
    std::weak_ptr<AVAssetWriterDelegate> delegate;
    std::vector<uint8_t> segmentBytes;
    double segmentInterval = 6;
    int64_t nextSegmentIndex = 1;
    bool headerWritten = false;

    ~AVAssetWriterCore() {
        {
            std::lock_guard lock(mutex);
            stopThread = true;
        }
        cv.notify_all();
        if (thread.joinable()) thread.join();
        tracks.clear();
        if (format) {
            if (!segmented && format->pb) avio_closep(&format->pb);
            avformat_free_context(format);
        }
        if (io) {
            av_freep(&io->buffer);
            avio_context_free(&io);
        }
    }

    void setError(std::exception_ptr e) {
        std::vector<std::function<void(std::exception_ptr)>> observers;
        {
            std::lock_guard lock(mutex);
            if (error) return;
            error = e;
            status = AVAssetWriterStatus::failed;
            observers = errorObservers;
            for (auto& p : pending) p = 0;
            jobs.erase(std::remove_if(jobs.begin(), jobs.end(), [](const Job& j) { return j.kind == Job::Kind::sample; }),
                       jobs.end());
        }
        cv.notify_all();
        roomCv.notify_all();
        for (auto& o : observers) o(e);
        if (notify) {
            notify("status");
            notify("error");
        }
    }

    bool failed() {
        std::lock_guard lock(mutex);
        return error != nullptr;
    }

    void run() {
        for (;;) {
            Job job;
            {
                std::unique_lock lock(mutex);
                cv.wait(lock, [&] { return stopThread || !jobs.empty(); });
                if (jobs.empty()) return;
                job = std::move(jobs.front());
                jobs.pop_front();
            }
            try {
                if (!failed()) {
                    if (job.kind == Job::Kind::sample) encodeSample(job.input, *job.sample);
                    if (job.kind == Job::Kind::finishInput) finishTrack(*tracks[job.input]);
                    if (job.kind == Job::Kind::finishWriting) finishAll();
                }
            } catch (...) {
                setError(std::current_exception());
            }
            if (job.kind == Job::Kind::sample) {
                std::lock_guard lock(mutex);
                if (pending[job.input] > 0) --pending[job.input];
            }
            roomCv.notify_all();
            if (job.kind == Job::Kind::finishWriting) {
                {
                    std::lock_guard lock(mutex);
                    if (!error) status = AVAssetWriterStatus::completed;
                }
                if (notify) notify("status");
                if (job.completion) job.completion();
                finishedCv.notify_all();
            }
        }
    }

    // ---- Opening.

    static int writeSegmentBytes(void* opaque, uint8_t* data, int size) {
        auto* core = static_cast<AVAssetWriterCore*>(opaque);
        core->segmentBytes.insert(core->segmentBytes.end(), data, data + size);
        return size;
    }

    void open(const std::string& url, AVFileType fileType,
              const std::vector<std::shared_ptr<AVAssetWriterInput>>& inputs) {
        quietLibraries();
        // A writer nobody gave an input (the video half of an audio-only
        // segmented recording) produces nothing, and that is no failure.
        if (inputs.empty()) return;
        const char* muxer = segmented ? "mp4"
                            : fileType == AVFileType::mp4 ? "mp4"
                            : fileType == AVFileType::m4a ? "ipod"
                                                          : "mov";
        check(avformat_alloc_output_context2(&format, nullptr, muxer, segmented ? nullptr : url.c_str()),
              "Can't create the container");
        for (auto& input : inputs) tracks.push_back(openTrack(*input));

        AVDictionary* options = nullptr;
        if (segmented) {
            // One track per segment writer; fragments are cut by us at segment bounds.
            av_dict_set(&options, "movflags", "+frag_custom+empty_moov+default_base_moof+write_colr", 0);
            const int bufferSize = 64 * 1024;
            auto* buffer = static_cast<uint8_t*>(av_malloc(bufferSize));
            io = avio_alloc_context(buffer, bufferSize, 1, this, nullptr, &writeSegmentBytes, nullptr);
            if (!io) fail("Can't create the segment stream");
            format->pb = io;
            format->flags |= AVFMT_FLAG_CUSTOM_IO;
        } else {
            if (std::filesystem::exists(url))
                throw PlatformError(errorDomainName(), EEXIST, "The output file already exists: " + url);
            // Fragments of about a second keep the file playable if the process dies;
            // the movie header waits for the first fragment so that it can carry
            // the audio priming as an edit list.
            av_dict_set(&options, "movflags", "+delay_moov+default_base_moof+write_colr", 0);
            av_dict_set(&options, "frag_duration", "1000000", 0);
            check(avio_open(&format->pb, url.c_str(), AVIO_FLAG_WRITE), "Can't create the output file");
            // Each finished fragment goes to the file at once, not when a buffer fills.
            format->flush_packets = 1;
        }
        const int r = avformat_write_header(format, &options);
        av_dict_free(&options);
        check(r, "Can't write the container header");
        headerWritten = true;
        if (segmented) {
            avio_flush(io);
            emitSegment(AVAssetSegmentType::initialization, nullptr);
        }
    }

    std::unique_ptr<EncoderTrack> openTrack(AVAssetWriterInput& input) {
        auto track = std::make_unique<EncoderTrack>();
        track->mediaType = input.mediaType();
        const auto& settings = input.outputSettings();
        track->packet = av_packet_alloc();
        track->frame = av_frame_alloc();
        if (input.mediaType() == AVMediaType::audio) {
            const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
            if (!codec) fail("No AAC encoder");
            auto* enc = track->encoder = avcodec_alloc_context3(codec);
            enc->sample_rate = setting<int>(settings, AVSampleRateKey, 48000);
            const int channels = std::max(1, setting<int>(settings, AVNumberOfChannelsKey, 1));
            av_channel_layout_default(&enc->ch_layout, channels);
            enc->sample_fmt = AV_SAMPLE_FMT_FLTP;
            enc->bit_rate = setting<int64_t>(settings, AVEncoderBitRateKey, 64000 * std::min(channels, 2));
            enc->time_base = AVRational{1, enc->sample_rate};
            enc->profile = FF_PROFILE_AAC_LOW;
            if (format->oformat->flags & AVFMT_GLOBALHEADER) enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
            check(avcodec_open2(enc, codec, nullptr), "Can't open the AAC encoder");
            track->fifo = av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, channels, enc->frame_size * 4);
        } else {
            const std::string codecName = setting<std::string>(settings, AVVideoCodecKey, AVVideoCodecTypeH264);
            const bool hevc = codecName == AVVideoCodecTypeHEVC;
            const auto colors = settings.is_object() && settings.contains(AVVideoColorPropertiesKey)
                                    ? settings[AVVideoColorPropertiesKey]
                                    : AVSettingsDictionary::object();
            const bool p3 = setting<std::string>(colors, AVVideoColorPrimariesKey, AVVideoColorPrimaries_ITU_R_709_2) ==
                            AVVideoColorPrimaries_P3_D65;
            const AVCodec* codec = avcodec_find_encoder_by_name(hevc ? "libx265" : "libx264");
            if (!codec) fail(std::string("No encoder for ") + codecName);
            auto* enc = track->encoder = avcodec_alloc_context3(codec);
            enc->width = setting<int>(settings, AVVideoWidthKey, 0);
            enc->height = setting<int>(settings, AVVideoHeightKey, 0);
            if (enc->width <= 0 || enc->height <= 0) fail("Video settings need a width and a height");
            // Encoders want even sizes for 4:2:0.
            enc->width &= ~1;
            enc->height &= ~1;
            enc->time_base = AVRational{1, 90000};
            // Only the encoder's level choice uses the rate; frames carry their own times.
            const int expectedRate = std::max(1, int(std::lround(setting<double>(
                compressionOf(settings), AVVideoExpectedSourceFrameRateKey, 30.0))));
            enc->framerate = AVRational{expectedRate, 1};
            enc->pix_fmt = hevc && p3 ? AV_PIX_FMT_YUV420P10LE : AV_PIX_FMT_YUV420P;
            enc->color_primaries = p3 ? AVCOL_PRI_SMPTE432 : AVCOL_PRI_BT709;
            enc->color_trc = AVCOL_TRC_BT709;
            enc->colorspace = AVCOL_SPC_BT709;
            enc->color_range = AVCOL_RANGE_MPEG;
            enc->max_b_frames = 0;
            enc->gop_size = 100000;  // keyframes are forced by time, below
            const auto compression = settings.is_object() && settings.contains(AVVideoCompressionPropertiesKey)
                                         ? settings[AVVideoCompressionPropertiesKey]
                                         : AVSettingsDictionary::object();
            const int64_t bitRate = setting<int64_t>(compression, AVVideoAverageBitRateKey, 0);
            track->keyframeInterval = setting<double>(compression, AVVideoMaxKeyFrameIntervalDurationKey, 2.0);
            if (track->keyframeInterval <= 0) track->keyframeInterval = 2.0;
            if (segmented) track->keyframeInterval = std::min(track->keyframeInterval, segmentInterval);
            if (format->oformat->flags & AVFMT_GLOBALHEADER) enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
            AVDictionary* options = nullptr;
            // Real time on two cores at 1080p30 with room to spare: the fast
            // presets, no lookahead and no reordering (zerolatency).
            av_dict_set(&options, "preset", hevc ? "ultrafast" : "veryfast", 0);
            av_dict_set(&options, "tune", "zerolatency", 0);
            if (hevc) {
                av_dict_set(&options, "x265-params", "log-level=error:bframes=0", 0);
                if (p3) av_dict_set(&options, "profile", "main10", 0);
            } else {
                av_dict_set(&options, "forced-idr", "1", 0);
            }
            if (bitRate > 0) {
                enc->bit_rate = bitRate;
                enc->rc_max_rate = bitRate * 2;
                enc->rc_buffer_size = int(bitRate * 2);
            } else {
                av_dict_set(&options, "crf", "23", 0);
            }
            const int r = avcodec_open2(enc, codec, &options);
            av_dict_free(&options);
            check(r, hevc ? "Can't open the HEVC encoder" : "Can't open the H.264 encoder");
        }
        track->stream = avformat_new_stream(format, nullptr);
        if (!track->stream) fail("Can't add a track");
        check(avcodec_parameters_from_context(track->stream->codecpar, track->encoder), "Can't describe the track");
        track->stream->time_base = track->encoder->time_base;
        if (track->mediaType == AVMediaType::video && setting<std::string>(settings, AVVideoCodecKey, "") == AVVideoCodecTypeHEVC)
            track->stream->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');
        return track;
    }

    // ---- Encoding.

    void encodeSample(int index, const CMSampleBuffer& sample) {
        auto& track = *tracks[index];
        CMTime start, end;
        {
            std::lock_guard lock(mutex);
            if (!sessionStart) return;  // samples before the session are not written
            start = *sessionStart;
            end = sessionEnd.value_or(kCMTimePositiveInfinity);
        }
        if (track.finished) return;
        if (track.mediaType == AVMediaType::video)
            encodeVideo(track, sample, start, end);
        else
            encodeAudio(track, sample, start, end);
    }

    void encodeVideo(EncoderTrack& track, const CMSampleBuffer& sample, const CMTime& start,
                     const CMTime& end) {
        const auto& image = sample.imageBuffer();
        if (!image) return;
        const CMTime pts = sample.presentationTimeStamp();
        if (pts < start || pts >= end) return;
        const int64_t ticks = ticksSince(pts, start, 90000);
        if (ticks <= track.lastVideoPts) return;  // the container needs increasing times
        const AVPixelFormat source = pixelFormatOf(image->pixelFormatType());
        if (source == AV_PIX_FMT_NONE) fail("Unsupported pixel format");
        auto* enc = track.encoder;
        if (!track.scaler || track.scalerWidth != int(image->width()) || track.scalerHeight != int(image->height()) ||
            track.scalerFormat != source) {
            sws_freeContext(track.scaler);
            track.scaler = sws_getContext(int(image->width()), int(image->height()), source, enc->width, enc->height,
                                          enc->pix_fmt, SWS_BILINEAR, nullptr, nullptr, nullptr);
            if (!track.scaler) fail("Can't convert the frame");
            // RGB in, limited-range YCbCr out with the BT.709 matrix.
            const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
            const bool sourceFull = source == AV_PIX_FMT_BGRA ||
                                    image->pixelFormatType() == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
            sws_setColorspaceDetails(track.scaler, bt709, sourceFull ? 1 : 0, bt709, 0, 0, 1 << 16, 1 << 16);
            track.scalerWidth = int(image->width());
            track.scalerHeight = int(image->height());
            track.scalerFormat = source;
        }
        AVFrame* frame = track.frame;
        av_frame_unref(frame);
        frame->format = enc->pix_fmt;
        frame->width = enc->width;
        frame->height = enc->height;
        check(av_frame_get_buffer(frame, 0), "Can't allocate a frame");
        const uint8_t* planes[4] = {};
        int strides[4] = {};
        const size_t planeCount = std::max<size_t>(1, image->planeCount());
        for (size_t p = 0; p < planeCount && p < 4; ++p) {
            planes[p] = image->baseAddressOfPlane(p);
            strides[p] = int(image->bytesPerRowOfPlane(p));
        }
        sws_scale(track.scaler, planes, strides, 0, int(image->height()), frame->data, frame->linesize);
        frame->pts = ticks;
        frame->color_primaries = enc->color_primaries;
        frame->color_trc = enc->color_trc;
        frame->colorspace = enc->colorspace;
        frame->color_range = enc->color_range;
        frame->pict_type = AV_PICTURE_TYPE_NONE;
        const int64_t keyInterval = std::llround(track.keyframeInterval * 90000);
        const std::optional<int64_t> boundary = segmentBoundaryTicks(ticks, 90000);
        if (!track.nextKeyframePts || ticks >= *track.nextKeyframePts || boundary) {
            frame->pict_type = AV_PICTURE_TYPE_I;
            frame->key_frame = 1;
            track.nextKeyframePts = ticks + keyInterval;
        }
        track.lastVideoPts = ticks;
        check(avcodec_send_frame(enc, frame), "Can't encode a video frame");
        drainEncoder(track, std::nullopt);
    }

    // Segment bounds come every interval from the start of the session.
    std::optional<int64_t> segmentBoundaryTicks(int64_t ticks, int64_t rate) {
        if (!segmented) return std::nullopt;
        const int64_t bound = std::llround(double(nextSegmentIndex) * segmentInterval * double(rate));
        if (ticks >= bound) return bound;
        return std::nullopt;
    }

    void encodeAudio(EncoderTrack& track, const CMSampleBuffer& sample, const CMTime& start,
                     const CMTime& end) {
        auto pcm = sample.audioPCMBuffer();
        if (!pcm || pcm->frameLength() == 0) return;
        auto* enc = track.encoder;
        const auto& format = pcm->format();
        const AVSampleFormat inputFormat = sampleFormatOf(format);
        if (inputFormat == AV_SAMPLE_FMT_NONE) fail("Unsupported audio sample format");
        const int inputRate = int(std::lround(format.sampleRate()));
        const int inputChannels = int(format.channelCount());
        if (!track.resampler || track.inputRate != inputRate || track.inputChannels != inputChannels ||
            track.inputFormat != inputFormat) {
            swr_free(&track.resampler);
            AVChannelLayout inLayout;
            av_channel_layout_default(&inLayout, inputChannels);
            // More input channels than output ones are mixed down by the resampler.
            check(swr_alloc_set_opts2(&track.resampler, &enc->ch_layout, AV_SAMPLE_FMT_FLTP, enc->sample_rate,
                                      &inLayout, inputFormat, inputRate, 0, nullptr),
                  "Can't convert the audio");
            check(swr_init(track.resampler), "Can't convert the audio");
            track.inputRate = inputRate;
            track.inputChannels = inputChannels;
            track.inputFormat = inputFormat;
        }
        // Where this buffer belongs on the output's sample clock.
        const int64_t rate = enc->sample_rate;
        const int64_t at = ticksSince(sample.presentationTimeStamp(), start, rate);
        const int64_t inputFrames = pcm->frameLength();
        const uint8_t* inputs[AV_NUM_DATA_POINTERS] = {};
        for (uint32_t b = 0; b < format.bufferCount() && b < AV_NUM_DATA_POINTERS; ++b) inputs[b] = pcm->bufferData(b);
        const int capacity = swr_get_out_samples(track.resampler, int(inputFrames)) + 16;
        AVFrame* converted = av_frame_alloc();
        converted->format = AV_SAMPLE_FMT_FLTP;
        converted->nb_samples = capacity;
        av_channel_layout_copy(&converted->ch_layout, &enc->ch_layout);
        int r = av_frame_get_buffer(converted, 0);
        if (r < 0) {
            av_frame_free(&converted);
            fail("Can't allocate audio", r);
        }
        const int produced = swr_convert(track.resampler, converted->data, capacity, inputs, int(inputFrames));
        if (produced < 0) {
            av_frame_free(&converted);
            fail("Can't convert the audio", produced);
        }
        int skip = 0;
        if (!track.audioStarted) {
            // Audio that starts after the session starts is preceded by
            // silence, and audio before it is cut: both tracks start together.
            track.audioStarted = true;
            if (at > 0) writeSilence(track, at);
            if (at < 0) skip = int(std::min<int64_t>(-at, produced));
        }
        int count = produced - skip;
        const int64_t endSamples = end.isNumeric() ? ticksSince(end, start, rate) : INT64_MAX;
        if (track.samplesQueued + count > endSamples) count = int(std::max<int64_t>(0, endSamples - track.samplesQueued));
        if (count > 0) {
            void* planes[AV_NUM_DATA_POINTERS] = {};
            for (int c = 0; c < enc->ch_layout.nb_channels; ++c)
                planes[c] = converted->data[c] + size_t(skip) * sizeof(float);
            av_audio_fifo_write(track.fifo, planes, count);
            track.samplesQueued += count;
        }
        av_frame_free(&converted);
        encodeFifo(track, false);
    }

    void writeSilence(EncoderTrack& track, int64_t samples) {
        const int channels = track.encoder->ch_layout.nb_channels;
        std::vector<float> zeros(size_t(std::min<int64_t>(samples, 48000)), 0.0f);
        std::vector<void*> planes(size_t(channels), zeros.data());
        while (samples > 0) {
            const int n = int(std::min<int64_t>(samples, int64_t(zeros.size())));
            av_audio_fifo_write(track.fifo, planes.data(), n);
            track.samplesQueued += n;
            samples -= n;
        }
    }

    void encodeFifo(EncoderTrack& track, bool flush) {
        auto* enc = track.encoder;
        const int frameSize = enc->frame_size;
        while (av_audio_fifo_size(track.fifo) >= frameSize || (flush && av_audio_fifo_size(track.fifo) > 0)) {
            const int n = std::min(frameSize, av_audio_fifo_size(track.fifo));
            AVFrame* frame = track.frame;
            av_frame_unref(frame);
            frame->format = AV_SAMPLE_FMT_FLTP;
            frame->nb_samples = n;
            frame->sample_rate = enc->sample_rate;
            av_channel_layout_copy(&frame->ch_layout, &enc->ch_layout);
            check(av_frame_get_buffer(frame, 0), "Can't allocate audio");
            av_audio_fifo_read(track.fifo, reinterpret_cast<void**>(frame->data), n);
            frame->pts = track.samplesEncoded;
            track.samplesEncoded += n;
            const std::optional<int64_t> boundary = segmentBoundaryTicks(frame->pts, enc->sample_rate);
            check(avcodec_send_frame(enc, frame), "Can't encode audio");
            drainEncoder(track, boundary);
        }
    }

    void drainEncoder(EncoderTrack& track, std::optional<int64_t> /*boundary*/) {
        for (;;) {
            const int r = avcodec_receive_packet(track.encoder, track.packet);
            if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
            check(r, "Can't encode");
            writePacket(track, track.packet);
        }
    }

    // Packets are written one behind, so that each gets the distance to the
    // next as its duration; the last one gets the distance to the session's end.
    void writePacket(EncoderTrack& track, AVPacket* packet) {
        if (track.mediaType == AVMediaType::audio) {
            // The encoder's packets carry their own durations; no need to wait.
            packet->stream_index = track.stream->index;
            maybeCutSegment(track, packet->pts, packet->flags & AV_PKT_FLAG_KEY);
            noteFragment(track, packet->pts, packet->pts + packet->duration);
            av_packet_rescale_ts(packet, track.encoder->time_base, track.stream->time_base);
            check(av_write_frame(format, packet), "Can't write audio");
            return;
        }
        if (track.heldPacket) {
            track.heldPacket->duration = std::max<int64_t>(1, packet->pts - track.heldPacket->pts);
            flushHeld(track);
        }
        track.heldPacket = av_packet_clone(packet);
        av_packet_unref(packet);
    }

    void flushHeld(EncoderTrack& track) {
        AVPacket* held = track.heldPacket;
        track.heldPacket = nullptr;
        held->stream_index = track.stream->index;
        maybeCutSegment(track, held->pts, held->flags & AV_PKT_FLAG_KEY);
        noteFragment(track, held->pts, held->pts + held->duration);
        av_packet_rescale_ts(held, track.encoder->time_base, track.stream->time_base);
        const int r = av_write_frame(format, held);
        av_packet_free(&held);
        check(r, "Can't write video");
    }

    void noteFragment(EncoderTrack& track, int64_t pts, int64_t endPts) {
        if (!track.fragmentFirstPts) track.fragmentFirstPts = pts;
        track.fragmentEndPts = std::max(track.fragmentEndPts, endPts);
    }

    // Cuts a segment before the first packet at or past the next bound: for
    // video that packet is the keyframe forced there.
    void maybeCutSegment(EncoderTrack& track, int64_t pts, bool isKey) {
        if (!segmented) return;
        const int64_t rate = track.encoder->time_base.den;
        const auto bound = segmentBoundaryTicks(pts, rate);
        if (!bound || (track.mediaType == AVMediaType::video && !isKey)) return;
        if (track.fragmentFirstPts) cutSegment();
        while (segmentBoundaryTicks(pts, rate)) ++nextSegmentIndex;
    }

    void cutSegment() {
        AVAssetSegmentReport report;
        bool any = false;
        for (auto& t : tracks) {
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
        check(av_write_frame(format, nullptr), "Can't write a segment");
        avio_flush(io);
        emitSegment(AVAssetSegmentType::separable, &report);
    }

    void emitSegment(AVAssetSegmentType type, const AVAssetSegmentReport* report) {
        auto data = std::make_shared<std::vector<uint8_t>>();
        data->swap(segmentBytes);
        if (data->empty()) return;
        std::shared_ptr<AVAssetWriterDelegate> target;
        {
            std::lock_guard lock(mutex);
            target = delegate.lock();
        }
        if (target) target->didOutputSegmentData(*owner, std::move(data), type, report);
    }

    void finishTrack(EncoderTrack& track) {
        if (track.finished) return;
        track.finished = true;
        if (track.mediaType == AVMediaType::audio) encodeFifo(track, true);
        check(avcodec_send_frame(track.encoder, nullptr), "Can't flush the encoder");
        drainEncoder(track, std::nullopt);
        if (track.heldPacket) {
            std::optional<CMTime> start, end;
            {
                std::lock_guard lock(mutex);
                start = sessionStart;
                end = sessionEnd;
            }
            int64_t duration = 3000;  // a thirtieth of a second without a known end
            if (start && end && end->isNumeric()) {
                const int64_t endTicks = ticksSince(*end, *start, 90000);
                if (endTicks > track.heldPacket->pts) duration = endTicks - track.heldPacket->pts;
            }
            track.heldPacket->duration = duration;
            flushHeld(track);
        }
    }

    void finishAll() {
        if (!headerWritten) return;
        for (auto& t : tracks) finishTrack(*t);
        if (segmented) {
            cutSegment();
            // The trailer of a fragmented stream adds nothing a segment needs.
            segmentBytes.clear();
            av_write_trailer(format);
            segmentBytes.clear();
        } else {
            check(av_write_trailer(format), "Can't finish the file");
            avio_closep(&format->pb);
        }
    }
};

// ---- AVAssetWriterInput ------------------------------------------------------------------------

struct AVAssetWriterInput::Impl {
    std::weak_ptr<AVAssetWriterCore> core;
    int index = -1;
    std::atomic<bool> finished{false};
};

struct AVAssetWriter::Impl {
    std::shared_ptr<AVAssetWriterCore> core = std::make_shared<AVAssetWriterCore>();
    AVFileTypeProfile profile = AVFileTypeProfile::none;
    CMTime segmentInterval = kCMTimeInvalid;
    CMTime initialSegmentStart = kCMTimeZero;
    std::vector<std::shared_ptr<AVAssetWriterInput>> inputs;
    bool segmented = false;
};

AVAssetWriterInput::AVAssetWriterInput(AVMediaType mediaType, AVSettingsDictionary outputSettings)
    : mediaType_(mediaType), outputSettings_(std::move(outputSettings)), impl_(std::make_unique<Impl>()) {}

AVAssetWriterInput::~AVAssetWriterInput() = default;

std::shared_ptr<AVAssetWriterInput> AVAssetWriterInput::make(AVMediaType mediaType, AVSettingsDictionary outputSettings) {
    if (mediaType == AVMediaType::muxed) throw std::invalid_argument("A writer input is audio or video");
    if (mediaType == AVMediaType::video) {
        const auto codec = setting<std::string>(outputSettings, AVVideoCodecKey, AVVideoCodecTypeH264);
        if (codec != AVVideoCodecTypeH264 && codec != AVVideoCodecTypeHEVC)
            throw std::invalid_argument("Unknown video codec " + codec);
        const int width = setting<int>(outputSettings, AVVideoWidthKey, 0);
        const int height = setting<int>(outputSettings, AVVideoHeightKey, 0);
        if (width <= 0 || height <= 0) throw std::invalid_argument("Video output settings need a width and a height");
        if (width % 2 || height % 2) throw std::invalid_argument("4:2:0 video needs even dimensions");
    } else if (outputSettings.is_object() && outputSettings.contains(AVFormatIDKey) &&
               setting<uint32_t>(outputSettings, AVFormatIDKey, kAudioFormatMPEG4AAC) != kAudioFormatMPEG4AAC) {
        throw std::invalid_argument("Audio is written as AAC");
    }
    return std::shared_ptr<AVAssetWriterInput>(new AVAssetWriterInput(mediaType, std::move(outputSettings)));
}

bool AVAssetWriterInput::isReadyForMoreMediaData() const {
    auto core = impl_->core.lock();
    if (!core || impl_->finished) return false;
    std::lock_guard lock(core->mutex);
    if (core->status != AVAssetWriterStatus::writing) return false;
    return core->pending[impl_->index] < core->limits[impl_->index];
}

bool AVAssetWriterInput::append(const CMSampleBuffer& sampleBuffer) {
    auto core = impl_->core.lock();
    if (!core || impl_->finished) return false;
    const bool isVideo = bool(sampleBuffer.imageBuffer());
    if (isVideo != (mediaType_ == AVMediaType::video)) return false;
    {
        std::unique_lock lock(core->mutex);
        const int index = impl_->index;
        // An offline input waits for room; a real-time one says no at once.
        if (!realTime_)
            core->roomCv.wait(lock, [&] {
                return core->status != AVAssetWriterStatus::writing || core->pending[index] < core->limits[index];
            });
        if (core->status != AVAssetWriterStatus::writing) return false;
        if (core->pending[index] >= core->limits[index]) return false;
        ++core->pending[index];
        AVAssetWriterCore::Job job;
        job.input = index;
        job.sample = sampleBuffer;
        core->jobs.push_back(std::move(job));
    }
    core->cv.notify_all();
    return true;
}

void AVAssetWriterInput::markAsFinished() {
    if (impl_->finished.exchange(true)) return;
    auto core = impl_->core.lock();
    if (!core) return;
    {
        std::lock_guard lock(core->mutex);
        if (core->status != AVAssetWriterStatus::writing) return;
        AVAssetWriterCore::Job job;
        job.kind = AVAssetWriterCore::Job::Kind::finishInput;
        job.input = impl_->index;
        core->jobs.push_back(std::move(job));
    }
    core->cv.notify_all();
}

// ---- AVAssetWriter -----------------------------------------------------------------------------

std::shared_ptr<AVAssetWriter> AVAssetWriter::make(const std::string& url, AVFileType fileType) {
    std::string path = url;
    if (path.rfind("file://", 0) == 0) path = path.substr(7);
    if (path.empty() || path.front() != '/')
        throw PlatformError(errorDomainName(), EINVAL, "The output URL is not a file path: " + url);
    if (std::filesystem::exists(path))
        throw PlatformError(errorDomainName(), EEXIST, "A file already exists at " + path);
    auto writer = std::shared_ptr<AVAssetWriter>(new AVAssetWriter());
    writer->outputURL_ = "file://" + path;
    writer->outputPath_ = path;
    writer->fileType_ = fileType;
    writer->impl_ = std::make_unique<Impl>();
    writer->wireCore();
    return writer;
}

std::shared_ptr<AVAssetWriter> AVAssetWriter::make(UTType) {
    auto writer = std::shared_ptr<AVAssetWriter>(new AVAssetWriter());
    writer->impl_ = std::make_unique<Impl>();
    writer->impl_->segmented = true;
    writer->impl_->core->segmented = true;
    writer->wireCore();
    return writer;
}

void AVAssetWriter::wireCore() {
    auto& core = *impl_->core;
    core.owner = this;
    core.notify = [this](const std::string& key) { observers_.notify(key); };
}

AVAssetWriter::~AVAssetWriter() {
    // The encoder thread ends with the core; it must not outlive this object.
    if (impl_) impl_->core.reset();
}

AVFileTypeProfile AVAssetWriter::outputFileTypeProfile() const { return impl_->profile; }
void AVAssetWriter::setOutputFileTypeProfile(AVFileTypeProfile profile) { impl_->profile = profile; }
CMTime AVAssetWriter::preferredOutputSegmentInterval() const { return impl_->segmentInterval; }
void AVAssetWriter::setPreferredOutputSegmentInterval(const CMTime& interval) { impl_->segmentInterval = interval; }
CMTime AVAssetWriter::initialSegmentStartTime() const { return impl_->initialSegmentStart; }
void AVAssetWriter::setInitialSegmentStartTime(const CMTime& time) { impl_->initialSegmentStart = time; }

std::shared_ptr<AVAssetWriterDelegate> AVAssetWriter::delegate() const {
    std::lock_guard lock(impl_->core->mutex);
    return impl_->core->delegate.lock();
}

void AVAssetWriter::setDelegate(std::weak_ptr<AVAssetWriterDelegate> delegate) {
    std::lock_guard lock(impl_->core->mutex);
    impl_->core->delegate = std::move(delegate);
}

bool AVAssetWriter::canAdd(const std::shared_ptr<AVAssetWriterInput>& input) const {
    if (!input || input->impl_->index >= 0) return false;
    {
        std::lock_guard lock(impl_->core->mutex);
        if (impl_->core->status != AVAssetWriterStatus::unknown) return false;
    }
    // An audio file holds audio only; a segment stream holds one track.
    if (fileType_ == AVFileType::m4a && input->mediaType() != AVMediaType::audio) return false;
    if (impl_->segmented && !impl_->inputs.empty()) return false;
    return true;
}

void AVAssetWriter::add(std::shared_ptr<AVAssetWriterInput> input) {
    if (!canAdd(input)) throw std::logic_error("AVAssetWriter can't add this input");
    input->impl_->index = int(impl_->inputs.size());
    input->impl_->core = impl_->core;
    std::lock_guard lock(impl_->core->mutex);
    impl_->core->pending.push_back(0);
    impl_->core->limits.push_back(input->mediaType() == AVMediaType::video ? videoQueueLimit : audioQueueLimit);
    impl_->inputs.push_back(std::move(input));
}

std::vector<std::shared_ptr<AVAssetWriterInput>> AVAssetWriter::inputs() const { return impl_->inputs; }

bool AVAssetWriter::startWriting() {
    auto& core = *impl_->core;
    {
        std::lock_guard lock(core.mutex);
        if (core.status != AVAssetWriterStatus::unknown) throw std::logic_error("startWriting called twice");
    }
    // Without a preferred interval, a segment writer cuts every six seconds.
    const double interval = impl_->segmentInterval.isNumeric() ? impl_->segmentInterval.seconds() : 6.0;
    core.segmentInterval = std::max(0.1, interval);
    try {
        core.open(outputPath_, fileType_.value_or(AVFileType::mov), impl_->inputs);
    } catch (...) {
        fail(std::current_exception());
        return false;
    }
    {
        std::lock_guard lock(core.mutex);
        core.status = AVAssetWriterStatus::writing;
    }
    observers_.notify("status");
    core.thread = std::thread([c = &core] { c->run(); });
    return true;
}

void AVAssetWriter::fail(std::exception_ptr error) { impl_->core->setError(std::move(error)); }

void AVAssetWriter::startSession(const CMTime& sourceTime) {
    std::lock_guard lock(impl_->core->mutex);
    if (impl_->core->status != AVAssetWriterStatus::writing || impl_->core->sessionStart)
        throw std::logic_error("startSession needs a writing writer without a session");
    impl_->core->sessionStart = sourceTime;
}

void AVAssetWriter::endSession(const CMTime& sourceTime) {
    std::lock_guard lock(impl_->core->mutex);
    if (!impl_->core->sessionStart) throw std::logic_error("endSession called without a session");
    impl_->core->sessionEnd = sourceTime;
}

void AVAssetWriter::finishWriting(std::function<void()> completion) {
    auto& core = *impl_->core;
    {
        std::lock_guard lock(core.mutex);
        if (core.status == AVAssetWriterStatus::unknown)
            throw std::logic_error("finishWriting called on a writer that never started");
        if (core.status != AVAssetWriterStatus::writing || !core.thread.joinable()) {
            // Nothing more will be written; the completion still runs.
            if (completion) std::thread(std::move(completion)).detach();
            return;
        }
        for (auto& input : impl_->inputs) {
            if (input->impl_->finished.exchange(true)) continue;
            AVAssetWriterCore::Job job;
            job.kind = AVAssetWriterCore::Job::Kind::finishInput;
            job.input = input->impl_->index;
            core.jobs.push_back(std::move(job));
        }
        AVAssetWriterCore::Job job;
        job.kind = AVAssetWriterCore::Job::Kind::finishWriting;
        job.completion = std::move(completion);
        core.jobs.push_back(std::move(job));
    }
    core.cv.notify_all();
}

void AVAssetWriter::cancelWriting() {
    {
        std::lock_guard lock(impl_->core->mutex);
        impl_->core->jobs.clear();
        impl_->core->status = AVAssetWriterStatus::cancelled;
    }
    impl_->core->cv.notify_all();
    impl_->core->roomCv.notify_all();
    observers_.notify("status");
}

AVAssetWriterStatus AVAssetWriter::status() const {
    std::lock_guard lock(impl_->core->mutex);
    return impl_->core->status;
}

std::exception_ptr AVAssetWriter::error() const {
    std::lock_guard lock(impl_->core->mutex);
    return impl_->core->error;
}

namespace {

// A raised exception becomes an error named after its type.
template <class F>
auto guarded(F&& f) {
    try {
        return f();
    } catch (const PlatformError&) {
        throw;
    } catch (const std::exception& e) {
        throw PlatformError(demangledTypeName(e), 0, e.what());
    }
}

}  // namespace

bool AVAssetWriter::safe_startWriting() {
    return guarded([&] { return startWriting(); });
}

void AVAssetWriter::safe_endSession(const CMTime& sourceTime) {
    guarded([&] { endSession(sourceTime); });
}

void AVAssetWriter::safe_finishWriting() {
    guarded([&] {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        finishWriting([&] {
            std::lock_guard lock(m);
            done = true;
            cv.notify_all();
        });
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return done; });
    });
}

}  // namespace ov::platform
