#include "platform/linux/pulse/pulse_device_provider.h"

#include <pulse/pulseaudio.h>
#include <pulse/simple.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/av_audio_pcm_buffer.h"
#include "platform/cm_clock.h"
#include "platform/os_log.h"

namespace ov::platform {

namespace {

constexpr auto connectTimeout = std::chrono::milliseconds(1500);
constexpr const char* applicationName = "Orvane";

std::string property(pa_proplist* list, const char* key) {
    const char* value = list ? pa_proplist_gets(list, key) : nullptr;
    return value ? value : "";
}

// One short-lived connection: list the sources and go. Sources come and go
// rarely; asking anew on each call keeps the list true without a subscription.
struct SourceQuery {
    pa_threaded_mainloop* loop = nullptr;
    pa_context* context = nullptr;
    std::vector<PulseSourceInfo> sources;
    bool done = false;

    ~SourceQuery() {
        if (loop) pa_threaded_mainloop_stop(loop);
        if (context) {
            pa_context_disconnect(context);
            pa_context_unref(context);
        }
        if (loop) pa_threaded_mainloop_free(loop);
    }

    static void onState(pa_context*, void* self) {
        pa_threaded_mainloop_signal(static_cast<SourceQuery*>(self)->loop, 0);
    }
    static void onSource(pa_context*, const pa_source_info* info, int eol, void* opaque) {
        auto* self = static_cast<SourceQuery*>(opaque);
        if (eol || !info) {
            self->done = true;
            pa_threaded_mainloop_signal(self->loop, 0);
            return;
        }
        PulseSourceInfo source;
        source.name = info->name ? info->name : "";
        source.description = info->description ? info->description : source.name;
        source.driver = info->driver ? info->driver : "";
        source.bus = property(info->proplist, "device.bus");
        source.rate = info->sample_spec.rate;
        source.channels = info->sample_spec.channels;
        source.isMonitor = info->monitor_of_sink != PA_INVALID_INDEX;
        source.isSuspended = info->state == PA_SOURCE_SUSPENDED;
        self->sources.push_back(std::move(source));
    }
};

}  // namespace

std::vector<PulseSourceInfo> listPulseSources(std::string* unavailableReason) {
    SourceQuery q;
    q.loop = pa_threaded_mainloop_new();
    q.context = pa_context_new(pa_threaded_mainloop_get_api(q.loop), applicationName);
    pa_context_set_state_callback(q.context, &SourceQuery::onState, &q);
    if (pa_context_connect(q.context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        if (unavailableReason) *unavailableReason = pa_strerror(pa_context_errno(q.context));
        return {};
    }
    pa_threaded_mainloop_lock(q.loop);
    pa_threaded_mainloop_start(q.loop);
    const auto deadline = std::chrono::steady_clock::now() + connectTimeout;
    for (;;) {
        const auto state = pa_context_get_state(q.context);
        if (state == PA_CONTEXT_READY) break;
        if (!PA_CONTEXT_IS_GOOD(state) || std::chrono::steady_clock::now() > deadline) {
            if (unavailableReason)
                *unavailableReason = PA_CONTEXT_IS_GOOD(state) ? "the sound server did not answer in time"
                                                              : pa_strerror(pa_context_errno(q.context));
            pa_threaded_mainloop_unlock(q.loop);
            return {};
        }
        // Signalled on every state change; the deadline is checked on each.
        pa_threaded_mainloop_unlock(q.loop);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        pa_threaded_mainloop_lock(q.loop);
    }
    pa_operation* op = pa_context_get_source_info_list(q.context, &SourceQuery::onSource, &q);
    while (!q.done && std::chrono::steady_clock::now() < deadline + connectTimeout) {
        pa_threaded_mainloop_unlock(q.loop);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        pa_threaded_mainloop_lock(q.loop);
    }
    if (op) pa_operation_unref(op);
    pa_threaded_mainloop_unlock(q.loop);
    return q.sources;
}

namespace {

class PulseCaptureProducer final : public CaptureProducer {
public:
    PulseCaptureProducer(std::string source, AVAudioFormat format, CaptureProducerSink sink)
        : source_(std::move(source)), format_(format), sink_(std::move(sink)) {
        thread_ = std::thread([this] { run(); });
    }
    ~PulseCaptureProducer() override { stop(); }
    void stop() override {
        stopping_ = true;
        if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
    }

private:
    void run() {
        const uint32_t rate = uint32_t(format_.sampleRate());
        const uint32_t channels = format_.channelCount();
        pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, rate, uint8_t(channels)};
        // About 20 ms per fragment, so that streaming to a host is live.
        const uint32_t frames = std::max<uint32_t>(1, rate / 50);
        pa_buffer_attr attr{};
        attr.maxlength = uint32_t(-1);
        attr.fragsize = frames * channels * sizeof(float);
        int error = 0;
        pa_simple* stream = pa_simple_new(nullptr, applicationName, PA_STREAM_RECORD, source_.c_str(), "Microphone",
                                          &spec, nullptr, &attr, &error);
        if (!stream) {
            if (sink_.failed)
                sink_.failed(std::make_exception_ptr(PlatformError(
                    "Orvane.PulseAudio", error, "The microphone can't be opened: " + std::string(pa_strerror(error)),
                    "pa_simple_new on " + source_ + ": " + pa_strerror(error))));
            return;
        }
        std::vector<float> interleaved(size_t(frames) * channels);
        std::optional<int64_t> firstFrameNanos;
        int64_t framesDelivered = 0;
        while (!stopping_) {
            if (pa_simple_read(stream, interleaved.data(), interleaved.size() * sizeof(float), &error) < 0) {
                if (!stopping_ && sink_.failed)
                    sink_.failed(std::make_exception_ptr(PlatformError(
                        "Orvane.PulseAudio", error, "The microphone stopped delivering.", pa_strerror(error))));
                break;
            }
            if (!firstFrameNanos) {
                // The buffer's last frame was captured the stream's latency ago.
                const pa_usec_t latency = pa_simple_get_latency(stream, &error);
                const int64_t now = int64_t(hostTimeNanosecondsNow());
                firstFrameNanos = now - int64_t(latency) * 1000 - int64_t(frames) * 1'000'000'000 / rate;
            }
            auto pcm = AVAudioPCMBuffer::make(format_, frames);
            pcm->setFrameLength(frames);
            for (uint32_t c = 0; c < channels; ++c)
                for (uint32_t i = 0; i < frames; ++i) pcm->floatChannelData()[c][i] = interleaved[size_t(i) * channels + c];
            // Exact from the first buffer on: the start plus the frames so far.
            const CMTime start = hostTimeFromNanoseconds(uint64_t(*firstFrameNanos)) + CMTime(framesDelivered, int32_t(rate));
            framesDelivered += frames;
            if (sink_.output) sink_.output(CMSampleBuffer::makeAudio(*pcm, start));
        }
        pa_simple_free(stream);
    }

    std::string source_;
    AVAudioFormat format_;
    CaptureProducerSink sink_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

class PulseMicrophone final : public AVCaptureDevice {
public:
    explicit PulseMicrophone(const PulseSourceInfo& info)
        : AVCaptureDevice(
              Identity{info.name, info.driver.empty() ? "PulseAudio" : info.driver, info.description, "PulseAudio",
                       AVCaptureDeviceTypeExternal,
                       info.bus == "usb"         ? kAVCaptureDeviceTransportTypeUSB
                       : info.bus == "bluetooth" ? kAVCaptureDeviceTransportTypeBluetooth
                       : info.bus.empty()        ? kAVCaptureDeviceTransportTypeVirtual
                                                 : kAVCaptureDeviceTransportTypeBuiltIn,
                       {AVMediaType::audio}},
              {std::make_shared<AVCaptureDeviceFormat>(
                  AVAudioFormat::standard(info.rate, info.channels)->formatDescription())},
              0),
          format_(*AVAudioFormat::standard(info.rate, info.channels)) {}

    void update(const PulseSourceInfo& info, bool present) {
        if (isConnected() != present) setConnected(present);
        if (isSuspended() != info.isSuspended) setSuspended(info.isSuspended);
    }
    std::shared_ptr<const CMClock> synchronizationClock() const override { return nullptr; }
    std::unique_ptr<CaptureProducer> startProducing(const CaptureProducerRequest& request,
                                                    CaptureProducerSink sink) override {
        if (request.mediaType != AVMediaType::audio || !isConnected())
            throw PlatformError("Orvane.PulseAudio", 1, "The microphone is not available.",
                                debugDescription() + " can't deliver this media");
        return std::make_unique<PulseCaptureProducer>(uniqueID(), format_, std::move(sink));
    }

private:
    AVAudioFormat format_;
};

}  // namespace

std::vector<AVCaptureDeviceRef> PulseDeviceProvider::devices() const {
    std::string reason;
    const auto sources = listPulseSources(&reason);
    std::vector<AVCaptureDeviceRef> out;
    std::lock_guard lock(mutex_);
    if (sources.empty() && !reason.empty() && !loggedUnavailable_) {
        loggedUnavailable_ = true;
        OSLog(OSLog::defaultSubsystem, "PulseAudio").info("No sound server: no microphones. " + reason);
    }
    std::map<std::string, bool> present;
    for (const auto& source : sources) {
        if (source.isMonitor) continue;
        auto& device = known_[source.name];
        if (!device) device = std::make_shared<PulseMicrophone>(source);
        static_cast<PulseMicrophone&>(*device).update(source, true);
        present[source.name] = true;
        out.push_back(device);
    }
    for (auto& [name, device] : known_)
        if (!present.count(name)) static_cast<PulseMicrophone&>(*device).update(PulseSourceInfo{}, false);
    return out;
}

void PulseDeviceProvider::setDevicesChangedHandler(std::function<void()> handler) {
    std::lock_guard lock(mutex_);
    changed_ = std::move(handler);
}

}  // namespace ov::platform
