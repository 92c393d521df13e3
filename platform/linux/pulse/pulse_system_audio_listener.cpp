// The system-audio listener of the `linux` backend, on libpulse (PulseAudio
// and PipeWire's pulse server alike). The whole output is the default sink's
// monitor, found through the server and sink information (the
// "@DEFAULT_MONITOR@" alias fails on PipeWire). The self probe plays a muted
// stream and reads the monitor of that one stream: monitors are post stream
// volume, so it reads zeros and nothing is heard, yet the server delivering
// frames at all is the answer. A server that refuses capture fails the stream.
#include <pulse/pulseaudio.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "foundation/platform_error.h"
#include "platform/system_audio_listener.h"

namespace ov::platform {
namespace {

constexpr const char* domain = "Orvane.PulseAudio";
constexpr int listenRate = 48000;

[[noreturn]] void fail(int code, const std::string& what) {
    throw PlatformError(domain, code, what + ": " + pa_strerror(code));
}

// One connection on a threaded main loop; every call below holds its lock.
class Connection {
public:
    Connection() {
        loop_ = pa_threaded_mainloop_new();
        if (!loop_) throw PlatformError(domain, PA_ERR_INTERNAL, "Can't create the sound server main loop");
        context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "orvane-probe");
        pa_context_set_state_callback(context_, [](pa_context*, void* loop) {
            pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
        }, loop_);
        if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
            const int code = pa_context_errno(context_);
            release();
            fail(code, "Can't connect to the sound server");
        }
        pa_threaded_mainloop_start(loop_);
        lock();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
        while (true) {
            const auto state = pa_context_get_state(context_);
            if (state == PA_CONTEXT_READY) break;
            if (!PA_CONTEXT_IS_GOOD(state) || std::chrono::steady_clock::now() > deadline) {
                const int code = state == PA_CONTEXT_READY ? PA_ERR_TIMEOUT : pa_context_errno(context_);
                unlock();
                release();
                fail(code ? code : PA_ERR_TIMEOUT, "Can't connect to the sound server");
            }
            waitBriefly();
        }
    }
    ~Connection() {
        unlock();
        release();
    }
    Connection(const Connection&) = delete;

    pa_context* context() const { return context_; }
    void lock() { pa_threaded_mainloop_lock(loop_); locked_ = true; }
    void unlock() {
        if (locked_) pa_threaded_mainloop_unlock(loop_);
        locked_ = false;
    }
    // Lets the loop run for about 2 ms.
    void waitBriefly() {
        unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        lock();
    }
    // Runs an operation to its end.
    void await(pa_operation* operation) {
        if (!operation) fail(pa_context_errno(context_), "Sound server request failed");
        while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING) waitBriefly();
        pa_operation_unref(operation);
    }

    std::string defaultSinkMonitor() {
        std::string sink;
        await(pa_context_get_server_info(context_, [](pa_context*, const pa_server_info* info, void* out) {
            if (info && info->default_sink_name) *static_cast<std::string*>(out) = info->default_sink_name;
        }, &sink));
        if (sink.empty()) throw PlatformError(domain, PA_ERR_NOENTITY, "The sound server has no default output");
        std::string monitor;
        await(pa_context_get_sink_info_by_name(context_, sink.c_str(), [](pa_context*, const pa_sink_info* info, int, void* out) {
            if (info && info->monitor_source_name) *static_cast<std::string*>(out) = info->monitor_source_name;
        }, &monitor));
        if (monitor.empty()) throw PlatformError(domain, PA_ERR_NOENTITY, "The default output has no monitor");
        return monitor;
    }

private:
    void release() {
        if (context_) {
            pa_threaded_mainloop_lock(loop_);
            pa_context_disconnect(context_);
            pa_context_unref(context_);
            context_ = nullptr;
            pa_threaded_mainloop_unlock(loop_);
        }
        if (loop_) {
            pa_threaded_mainloop_stop(loop_);
            pa_threaded_mainloop_free(loop_);
            loop_ = nullptr;
        }
    }
    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
    bool locked_ = false;
};

struct RecordState {
    const SystemAudioListener::BufferHandler* onBuffer;
    std::atomic<bool> done{false};
};

// Reads `device` (or, with a stream index, that playback stream's monitor)
// until the time is up or the handler says enough.
void record(Connection& connection, const char* device, uint32_t monitoredStream, double seconds,
            const SystemAudioListener::BufferHandler& onBuffer) {
    const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, listenRate, 1};
    pa_stream* stream = pa_stream_new(connection.context(), "orvane-probe-listen", &spec, nullptr);
    if (!stream) fail(pa_context_errno(connection.context()), "Can't create the listening stream");
    RecordState state{&onBuffer};
    pa_stream_set_read_callback(stream, [](pa_stream* s, size_t, void* userdata) {
        auto* st = static_cast<RecordState*>(userdata);
        const void* data = nullptr;
        size_t bytes = 0;
        while (pa_stream_readable_size(s) > 0 && pa_stream_peek(s, &data, &bytes) == 0 && bytes > 0) {
            if (data && !st->done && (*st->onBuffer)(static_cast<const float*>(data), bytes / sizeof(float)))
                st->done = true;
            pa_stream_drop(s);
        }
    }, &state);
    if (monitoredStream != PA_INVALID_INDEX && pa_stream_set_monitor_stream(stream, monitoredStream) < 0) {
        pa_stream_unref(stream);
        fail(pa_context_errno(connection.context()), "Can't attach to the playback stream's monitor");
    }
    pa_buffer_attr attr;
    std::memset(&attr, 0xff, sizeof attr);
    attr.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(10'000, &spec));
    if (pa_stream_connect_record(stream, device, &attr, PA_STREAM_ADJUST_LATENCY) < 0) {
        const int code = pa_context_errno(connection.context());
        pa_stream_unref(stream);
        fail(code, "Can't open the system audio stream");
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    int error = 0;
    while (!state.done && std::chrono::steady_clock::now() < deadline) {
        const auto streamState = pa_stream_get_state(stream);
        if (!PA_STREAM_IS_GOOD(streamState)) {
            error = pa_context_errno(connection.context());
            break;
        }
        connection.waitBriefly();
    }
    pa_stream_set_read_callback(stream, nullptr, nullptr);
    pa_stream_disconnect(stream);
    pa_stream_unref(stream);
    if (error) fail(error, "The sound server ended the system audio stream");
}

class PulseSystemAudioListener final : public SystemAudioListener {
public:
    void listenToSystemOutput(double seconds, const BufferHandler& onBuffer) override {
        Connection connection;
        const std::string monitor = connection.defaultSinkMonitor();
        record(connection, monitor.c_str(), PA_INVALID_INDEX, seconds, onBuffer);
    }

    void listenToOwnMutedPlayback(const std::vector<int16_t>& tone, int toneRate, double seconds,
                                  const BufferHandler& onBuffer) override {
        if (tone.empty()) throw PlatformError(domain, PA_ERR_INVALID, "No test tone to play");
        Connection connection;
        const pa_sample_spec spec{PA_SAMPLE_S16LE, static_cast<uint32_t>(toneRate), 1};
        pa_stream* player = pa_stream_new(connection.context(), "orvane-probe-tone", &spec, nullptr);
        if (!player) fail(pa_context_errno(connection.context()), "Can't create the test tone stream");
        struct Tone {
            const std::vector<int16_t>* samples;
            size_t position = 0;
        } cursor{&tone};
        pa_stream_set_write_callback(player, [](pa_stream* s, size_t bytes, void* userdata) {
            auto* t = static_cast<Tone*>(userdata);
            std::vector<int16_t> chunk(bytes / sizeof(int16_t));
            for (auto& sample : chunk) {
                sample = (*t->samples)[t->position];
                t->position = (t->position + 1) % t->samples->size();
            }
            pa_stream_write(s, chunk.data(), chunk.size() * sizeof(int16_t), nullptr, 0, PA_SEEK_RELATIVE);
        }, &cursor);
        // The server tells when the stream really plays: an idle sink takes a
        // moment (up to about a second) to start rendering, and its monitors
        // deliver nothing until it does.
        std::atomic<bool> started{false};
        pa_stream_set_started_callback(player, [](pa_stream*, void* flag) {
            static_cast<std::atomic<bool>*>(flag)->store(true);
        }, &started);
        pa_cvolume muted;
        pa_cvolume_mute(&muted, 1);
        if (pa_stream_connect_playback(player, nullptr, nullptr, PA_STREAM_START_MUTED, &muted, nullptr) < 0) {
            const int code = pa_context_errno(connection.context());
            pa_stream_unref(player);
            fail(code, "Can't play the test tone");
        }
        auto stopPlayer = [&] {
            pa_stream_set_started_callback(player, nullptr, nullptr);
            pa_stream_set_write_callback(player, nullptr, nullptr);
            pa_stream_disconnect(player);
            pa_stream_unref(player);
        };
        try {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
            while (pa_stream_get_state(player) != PA_STREAM_READY) {
                if (!PA_STREAM_IS_GOOD(pa_stream_get_state(player)) || std::chrono::steady_clock::now() > deadline)
                    fail(pa_context_errno(connection.context()), "The test tone stream failed");
                connection.waitBriefly();
            }
            const uint32_t index = pa_stream_get_index(player);
            // Some servers ignore the volume given at connect; mute it again by index.
            connection.await(pa_context_set_sink_input_mute(connection.context(), index, 1, nullptr, nullptr));
            const auto startDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
            while (!started && std::chrono::steady_clock::now() < startDeadline) connection.waitBriefly();
            record(connection, nullptr, index, seconds, onBuffer);
        } catch (...) {
            stopPlayer();
            throw;
        }
        stopPlayer();
    }
};

const bool registered = [] {
    registerSystemAudioListener("linux", [] { return std::make_unique<PulseSystemAudioListener>(); });
    return true;
}();

}  // namespace
}  // namespace ov::platform
