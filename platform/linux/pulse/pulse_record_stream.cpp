#include "platform/linux/pulse/pulse_record_stream.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}
#include <fmt/format.h>
#include <pulse/pulseaudio.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <algorithm>
#include <future>
#include <limits>
#include <thread>
#include <vector>

#include "foundation/platform_error.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cm_clock.h"
#include "platform/cm_sample_buffer.h"
#include "platform/linux/capture_clock_filter.h"
#include "platform/os_log.h"

namespace ov::platform {

namespace {

constexpr const char* errorDomain = "Orvane.PulseAudio";
// How long stop() waits for the main loop to end before abandoning it.
constexpr auto teardownLimit = std::chrono::milliseconds(1000);

OSLog& log() {
    static OSLog instance(OSLog::defaultSubsystem, "PulseRecordStream");
    return instance;
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

struct PulseRecordStream::State {
    PulseRecordStreamOptions options;
    CaptureProducerSink sink;
    pa_threaded_mainloop* loop = nullptr;
    pa_context* context = nullptr;
    pa_stream* stream = nullptr;
    SwrContext* resampler = nullptr;
    // Set by stop(); read under the main loop's lock before every delivery.
    std::atomic<bool> closed{false};
    bool failureTold = false;

    uint32_t inRate = 0, inChannels = 0, chunkFrames = 0;
    int64_t outRate = 0;
    std::vector<float> pending;  // interleaved source frames not yet delivered
    int64_t outputPosition = 0;
    CaptureClockFilter filter{48000};
    int resyncsLogged = 0;
    // The first chunks wait until the line can be anchored. An observation
    // is an upper bound of a chunk's capture time (it can only have arrived
    // late, never early), so the line goes through the earliest of them, not
    // through a typical one. And the wait is counted in host time, not in
    // chunks: a source may open with a backlog (a pipe that filled while
    // nobody recorded, a server that caught up after a stall) that arrives
    // in one burst, where every observation is as late as the burst's end;
    // only chunks that arrive at the pace of capture after it pin the line.
    struct Held {
        std::shared_ptr<AVAudioPCMBuffer> pcm;
        int64_t position;
        int64_t observedNanos;
    };
    static constexpr int64_t warmupNanos = 150'000'000;
    static constexpr size_t warmupMinimumChunks = 4;
    std::vector<Held> held;
    int64_t firstArrivalNanos = -1;
    bool seeded = false;

    State(PulseRecordStreamOptions o, CaptureProducerSink s)
        : options(std::move(o)),
          sink(std::move(s)),
          inRate(options.sourceRate),
          inChannels(options.sourceChannels),
          outRate(std::llround(options.format.sampleRate())),
          filter(double(std::llround(options.format.sampleRate()))) {
        chunkFrames = std::max<uint32_t>(1, uint32_t(std::lround(inRate * options.chunkDuration)));
    }

    ~State() { swr_free(&resampler); }

    void fail(int code, const std::string& text, const std::string& debug) {
        if (failureTold || closed) return;
        failureTold = true;
        log().error(fmt::format("Record stream of {} failed: {}", options.source, debug));
        if (sink.failed) sink.failed(std::make_exception_ptr(PlatformError(errorDomain, code, text, debug)));
    }

    void failFromContext(const char* what) {
        const int code = context ? pa_context_errno(context) : PA_ERR_UNKNOWN;
        fail(code, "The microphone is no longer available.",
             fmt::format("{} on {}: {}", what, options.source, pa_strerror(code)));
    }

    static void onContextState(pa_context* context, void* opaque) {
        auto* self = static_cast<State*>(opaque);
        switch (pa_context_get_state(context)) {
            case PA_CONTEXT_READY: self->openStream(); break;
            case PA_CONTEXT_FAILED:
            case PA_CONTEXT_TERMINATED: self->failFromContext("The sound server connection ended"); break;
            default: break;
        }
    }

    static void onStreamState(pa_stream* stream, void* opaque) {
        auto* self = static_cast<State*>(opaque);
        switch (pa_stream_get_state(stream)) {
            // A source that is unloaded kills its record streams.
            case PA_STREAM_FAILED:
            case PA_STREAM_TERMINATED: self->failFromContext("The record stream ended"); break;
            default: break;
        }
    }

    static void onRead(pa_stream* stream, size_t, void* opaque) { static_cast<State*>(opaque)->read(stream); }

    void openStream() {
        pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, inRate, uint8_t(inChannels)};
        pa_channel_map map;
        pa_channel_map_init_extend(&map, inChannels, PA_CHANNEL_MAP_DEFAULT);
        stream = pa_stream_new(context, "Microphone", &spec, &map);
        if (!stream) return failFromContext("pa_stream_new");
        pa_stream_set_state_callback(stream, &State::onStreamState, this);
        pa_stream_set_read_callback(stream, &State::onRead, this);
        pa_buffer_attr attr{};
        attr.maxlength = uint32_t(-1);
        attr.tlength = attr.prebuf = attr.minreq = uint32_t(-1);
        attr.fragsize = chunkFrames * inChannels * uint32_t(sizeof(float));
        // DONT_MOVE: a recording of one microphone must not quietly continue
        // from another when its source goes; it is told instead.
        const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING |
                                             PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_DONT_MOVE);
        if (pa_stream_connect_record(stream, options.source.c_str(), &attr, flags) < 0)
            failFromContext("pa_stream_connect_record");
    }

    void read(pa_stream* s) {
        const int64_t now = int64_t(hostTimeNanosecondsNow());
        while (pa_stream_readable_size(s) > 0) {
            const void* data = nullptr;
            size_t bytes = 0;
            if (pa_stream_peek(s, &data, &bytes) < 0) return failFromContext("pa_stream_peek");
            if (bytes == 0) break;
            const size_t samples = bytes / sizeof(float);
            if (data) {
                const auto* floats = static_cast<const float*>(data);
                pending.insert(pending.end(), floats, floats + samples);
            } else {
                // A hole in the server's buffer: time passed without samples.
                pending.insert(pending.end(), samples, 0.0f);
            }
            pa_stream_drop(s);
        }
        // Everything read so far was captured up to the stream's latency ago;
        // the first waiting frame that much earlier again.
        pa_usec_t latency = 0;
        int negative = 0;
        if (pa_stream_get_latency(s, &latency, &negative) < 0 || negative) latency = 0;
        const int64_t waiting = int64_t(pending.size() / inChannels);
        const int64_t firstObserved = now - int64_t(latency) * 1000 - waiting * 1'000'000'000 / inRate;
        size_t offset = 0;
        int64_t chunkIndex = 0;
        while ((pending.size() - offset) / inChannels >= chunkFrames) {
            deliver(pending.data() + offset, firstObserved + chunkIndex * int64_t(chunkFrames) * 1'000'000'000 / inRate,
                    now);
            offset += size_t(chunkFrames) * inChannels;
            ++chunkIndex;
        }
        pending.erase(pending.begin(), pending.begin() + std::ptrdiff_t(offset));
    }

    void deliver(const float* frames, int64_t observedNanos, int64_t arrivalNanos) {
        const int capacity = swr_get_out_samples(resampler, int(chunkFrames)) + 16;
        auto pcm = AVAudioPCMBuffer::make(options.format, AVAudioFrameCount(capacity));
        if (!pcm) return;
        uint8_t* outs[AV_NUM_DATA_POINTERS] = {};
        for (uint32_t b = 0; b < options.format.bufferCount() && b < AV_NUM_DATA_POINTERS; ++b) outs[b] = pcm->bufferData(b);
        const uint8_t* ins[1] = {reinterpret_cast<const uint8_t*>(frames)};
        const int produced = swr_convert(resampler, outs, capacity, ins, int(chunkFrames));
        if (produced < 0) {
            fail(produced, "The microphone's audio can't be converted.", "swr_convert failed");
            return;
        }
        if (produced == 0) return;
        pcm->setFrameLength(AVAudioFrameCount(produced));
        // The resampler holds some frames back: the first frame out is older
        // than the end of this chunk by what came out plus what it still holds.
        const int64_t buffered = swr_get_delay(resampler, outRate);
        const int64_t observedOut = observedNanos + int64_t(chunkFrames) * 1'000'000'000 / inRate -
                                    (int64_t(produced) + buffered) * 1'000'000'000 / outRate;
        const int64_t position = outputPosition;
        outputPosition += produced;
        if (!seeded) {
            held.push_back({pcm, position, observedOut});
            if (firstArrivalNanos < 0) firstArrivalNanos = arrivalNanos;
            if (held.size() < warmupMinimumChunks || arrivalNanos - firstArrivalNanos < warmupNanos) return;
            int64_t anchor = std::numeric_limits<int64_t>::max();
            for (const auto& h : held)
                anchor = std::min(anchor, h.observedNanos - h.position * 1'000'000'000 / outRate);
            filter.seed(held.front().position, anchor + held.front().position * 1'000'000'000 / outRate);
            seeded = true;
            // The held chunks lie on the line they anchored: their own
            // observations, later than it, told all they could.
            for (const auto& h : std::exchange(held, {}))
                send(h.pcm, filter.stamp(h.position, h.pcm->frameLength(),
                                         anchor + h.position * 1'000'000'000 / outRate));
            return;
        }
        send(pcm, filter.stamp(position, produced, observedOut));
    }

    void send(const std::shared_ptr<AVAudioPCMBuffer>& pcm, const CaptureClockFilter::Stamp& stamp) {
        if (filter.resyncCount() != resyncsLogged) {
            resyncsLogged = filter.resyncCount();
            log().info(fmt::format("Capture times of {} restarted: the source skipped time.", options.source));
        }
        const CMTime start = hostTimeFromNanoseconds(uint64_t(stamp.anchorNanos)) +
                             CMTime(stamp.framesSinceAnchor, int32_t(outRate));
        if (closed || !sink.output) return;
        sink.output(CMSampleBuffer::makeAudio(*pcm, start));
    }

    // Ends the connection and the loop; never from the loop's own thread.
    void teardown() {
        pa_threaded_mainloop_lock(loop);
        if (stream) {
            pa_stream_set_read_callback(stream, nullptr, nullptr);
            pa_stream_set_state_callback(stream, nullptr, nullptr);
            pa_stream_disconnect(stream);
            pa_stream_unref(stream);
            stream = nullptr;
        }
        if (context) {
            pa_context_set_state_callback(context, nullptr, nullptr);
            pa_context_disconnect(context);
            pa_context_unref(context);
            context = nullptr;
        }
        pa_threaded_mainloop_unlock(loop);
        pa_threaded_mainloop_stop(loop);
        pa_threaded_mainloop_free(loop);
        loop = nullptr;
    }
};

PulseRecordStream::PulseRecordStream(PulseRecordStreamOptions options, CaptureProducerSink sink) {
    if (sampleFormatOf(options.format) == AV_SAMPLE_FMT_NONE)
        options.format = *AVAudioFormat::standard(options.format.sampleRate(), options.format.channelCount());
    auto state = std::make_shared<State>(std::move(options), std::move(sink));
    const auto& format = state->options.format;

    AVChannelLayout inLayout, outLayout;
    av_channel_layout_default(&inLayout, int(state->inChannels));
    av_channel_layout_default(&outLayout, int(format.channelCount()));
    int r = swr_alloc_set_opts2(&state->resampler, &outLayout, sampleFormatOf(format), int(state->outRate), &inLayout,
                                AV_SAMPLE_FMT_FLT, int(state->inRate), 0, nullptr);
    if (r >= 0) r = swr_init(state->resampler);
    if (r < 0)
        throw PlatformError(errorDomain, r, "The microphone's audio can't be converted.",
                            fmt::format("No conversion from {} Hz {} ch to {}", state->inRate, state->inChannels,
                                        format.description()));

    state->loop = pa_threaded_mainloop_new();
    state->context = pa_context_new(pa_threaded_mainloop_get_api(state->loop), "Orvane");
    if (!state->context) {
        pa_threaded_mainloop_free(state->loop);
        state->loop = nullptr;
        throw PlatformError(errorDomain, PA_ERR_INTERNAL, "The microphone can't be opened.", "pa_context_new failed");
    }
    pa_context_set_state_callback(state->context, &State::onContextState, state.get());
    if (pa_context_connect(state->context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        const int code = pa_context_errno(state->context);
        pa_context_unref(state->context);
        state->context = nullptr;
        pa_threaded_mainloop_free(state->loop);
        state->loop = nullptr;
        throw PlatformError(errorDomain, code, "The microphone can't be opened: " + std::string(pa_strerror(code)),
                            "pa_context_connect: " + std::string(pa_strerror(code)));
    }
    pa_threaded_mainloop_start(state->loop);
    state_ = std::move(state);
}

PulseRecordStream::~PulseRecordStream() { stop(); }

void PulseRecordStream::stop() {
    auto state = std::move(state_);
    if (!state) return;
    state->closed = true;
    if (!state->loop) return;
    if (pa_threaded_mainloop_in_thread(state->loop)) {
        // Stopped from its own delivery: the loop can't end itself; a helper does.
        std::thread([state] { state->teardown(); }).detach();
        return;
    }
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    std::thread worker([state, done] {
        state->teardown();
        done->set_value();
    });
    if (finished.wait_for(teardownLimit) == std::future_status::ready) {
        worker.join();
        return;
    }
    // The server or our own delivery doesn't let go; a stop must still return.
    worker.detach();
    log().error(fmt::format("Record stream of {} did not end within {} ms; abandoned.", state->options.source,
                            teardownLimit.count()));
}

}  // namespace ov::platform
