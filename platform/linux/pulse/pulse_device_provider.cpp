#include "platform/linux/pulse/pulse_device_provider.h"

#include <pulse/pulseaudio.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <tuple>
#include <thread>

#include "platform/av_audio_pcm_buffer.h"
#include "platform/cm_clock.h"
#include "platform/dispatch_queue.h"
#include "platform/linux/pulse/pulse_record_stream.h"
#include "platform/os_log.h"

namespace ov::platform {

namespace {

constexpr auto connectTimeout = std::chrono::milliseconds(1500);
constexpr const char* applicationName = "Orvane";

std::string property(pa_proplist* list, const char* key) {
    const char* value = list ? pa_proplist_gets(list, key) : nullptr;
    return value ? value : "";
}

PulseSourceInfo sourceInfoOf(const pa_source_info& info) {
    PulseSourceInfo source;
    source.name = info.name ? info.name : "";
    source.description = info.description ? info.description : source.name;
    source.driver = info.driver ? info.driver : "";
    source.bus = property(info.proplist, "device.bus");
    source.rate = info.sample_spec.rate;
    source.channels = info.sample_spec.channels;
    source.isMonitor = info.monitor_of_sink != PA_INVALID_INDEX;
    source.isSuspended = info.state == PA_SOURCE_SUSPENDED;
    return source;
}

// One short-lived connection: list the sources and go (no handler, so nobody
// needs to hear of changes).
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
        self->sources.push_back(sourceInfoOf(*info));
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
          rate_(info.rate),
          channels_(info.channels) {}

    // Applies the server's view; called with no lock held, since observers of
    // the device hear each change.
    void update(bool present, bool suspended) {
        if (isConnected() != present) setConnected(present);
        if (present && isSuspended() != suspended) setSuspended(suspended);
    }
    std::shared_ptr<const CMClock> synchronizationClock() const override { return nullptr; }
    std::unique_ptr<CaptureProducer> startProducing(const CaptureProducerRequest& request,
                                                    CaptureProducerSink sink) override {
        if (request.mediaType != AVMediaType::audio || !isConnected())
            throw PlatformError("Orvane.PulseAudio", 1, "The microphone is not available.",
                                debugDescription() + " can't deliver this media");
        PulseRecordStreamOptions options;
        options.source = uniqueID();
        options.sourceRate = rate_;
        options.sourceChannels = channels_;
        options.format = request.audioFormat.value_or(*AVAudioFormat::standard(rate_, channels_));
        return std::make_unique<PulseRecordStream>(std::move(options), std::move(sink));
    }

private:
    uint32_t rate_, channels_;
};

}  // namespace

// The long-lived connection of a watching provider, its device objects and
// its handler. Server callbacks run on the main-loop thread; everything that
// may call out (the handler, device observers) runs on the events queue.
struct PulseDeviceProvider::Impl : std::enable_shared_from_this<Impl> {
    enum class Status { idle, connecting, ready, down };

    std::mutex mutex;  // known, handler, status fields below
    std::map<std::string, AVCaptureDeviceRef> known;
    std::map<std::string, bool> lastSeen;  // name -> suspended, as last told
    std::function<void()> handler;
    bool loggedUnavailable = false;

    pa_threaded_mainloop* loop = nullptr;  // while watching
    pa_context* context = nullptr;         // under the loop's lock
    std::atomic<Status> status{Status::idle};
    std::atomic<bool> stopping{false};
    std::atomic<bool> refreshQueued{false};
    std::chrono::milliseconds backoff{100};
    std::unique_ptr<DispatchQueue> events;

    OSLog& log() {
        static OSLog instance(OSLog::defaultSubsystem, "PulseAudio");
        return instance;
    }

    // ---- Device objects.

    // Brings the device objects to the server's list; the microphones, and
    // whether the list changed from what observers were last told (`told`:
    // this answer is what they are told now).
    std::pair<std::vector<AVCaptureDeviceRef>, bool> apply(const std::vector<PulseSourceInfo>& sources,
                                                           bool told = true) {
        std::vector<AVCaptureDeviceRef> out;
        std::vector<std::tuple<AVCaptureDeviceRef, bool, bool>> updates;
        bool changed = false;
        {
            std::lock_guard lock(mutex);
            std::map<std::string, bool> seen;
            for (const auto& source : sources) {
                if (source.isMonitor) continue;
                auto& device = known[source.name];
                if (!device) device = std::make_shared<PulseMicrophone>(source);
                seen[source.name] = source.isSuspended;
                updates.emplace_back(device, true, source.isSuspended);
                out.push_back(device);
            }
            for (auto& [name, device] : known)
                if (!seen.count(name)) updates.emplace_back(device, false, false);
            changed = seen != lastSeen;
            if (told) lastSeen = std::move(seen);
        }
        for (auto& [device, present, suspended] : updates)
            static_cast<PulseMicrophone&>(*device).update(present, suspended);
        return {out, changed};
    }

    void notify() {
        std::function<void()> h;
        {
            std::lock_guard lock(mutex);
            h = handler;
        }
        if (h) h();
    }

    // ---- The watch.

    void startWatching() {
        loop = pa_threaded_mainloop_new();
        events = std::make_unique<DispatchQueue>("PulseDeviceProvider.Events");
        pa_threaded_mainloop_start(loop);
        connect();
    }

    void stopWatching() {
        stopping = true;
        if (!loop) return;
        // No context after this, so no callback can reach the events queue.
        pa_threaded_mainloop_lock(loop);
        dropContext();
        pa_threaded_mainloop_unlock(loop);
        events.reset();  // waits for a block in progress; drops pending reconnects
        pa_threaded_mainloop_stop(loop);
        pa_threaded_mainloop_free(loop);
        loop = nullptr;
    }

    // Under the loop's lock.
    void dropContext() {
        if (!context) return;
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
        context = nullptr;
    }

    void connect() {
        pa_threaded_mainloop_lock(loop);
        if (stopping) return pa_threaded_mainloop_unlock(loop);
        dropContext();
        status = Status::connecting;
        context = pa_context_new(pa_threaded_mainloop_get_api(loop), "Orvane");
        pa_context_set_state_callback(context, &Impl::onContextState, this);
        if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) lost();
        pa_threaded_mainloop_unlock(loop);
    }

    // Under the loop's lock: the server is gone or never came.
    void lost() {
        if (status == Status::down) return;
        status = Status::down;
        pa_threaded_mainloop_signal(loop, 0);
        const auto delay = backoff;
        backoff = std::min(backoff * 2, std::chrono::milliseconds(2000));
        std::weak_ptr<Impl> weak = weak_from_this();
        events->async([weak] {
            if (auto self = weak.lock(); self && !self->stopping) {
                if (self->apply({}).second) self->notify();
            }
        });
        events->asyncAfter(delay, [weak] {
            if (auto self = weak.lock(); self && !self->stopping) self->connect();
        });
    }

    static void onContextState(pa_context* c, void* opaque) {
        auto* self = static_cast<Impl*>(opaque);
        switch (pa_context_get_state(c)) {
            case PA_CONTEXT_READY: {
                if (self->loggedUnavailable) {
                    // A server appeared after an outage was logged; a later outage is logged again.
                    self->loggedUnavailable = false;
                    self->log().info("Connected to the sound server.");
                }
                self->status = Status::ready;
                self->backoff = std::chrono::milliseconds(100);
                pa_context_set_subscribe_callback(c, &Impl::onServerEvent, self);
                if (auto* op = pa_context_subscribe(c, pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SOURCE), nullptr,
                                                    nullptr))
                    pa_operation_unref(op);
                pa_threaded_mainloop_signal(self->loop, 0);
                self->queueRefresh();
                break;
            }
            case PA_CONTEXT_FAILED:
            case PA_CONTEXT_TERMINATED:
                if (!self->loggedUnavailable) {
                    self->loggedUnavailable = true;
                    self->log().info(std::string("No sound server: no microphones until one appears. ") +
                                     pa_strerror(pa_context_errno(c)));
                }
                self->lost();
                break;
            default: break;
        }
    }

    static void onServerEvent(pa_context*, pa_subscription_event_type_t type, uint32_t, void* opaque) {
        if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SOURCE)
            static_cast<Impl*>(opaque)->queueRefresh();
    }

    // Several events in a row make one refresh.
    void queueRefresh() {
        if (refreshQueued.exchange(true)) return;
        std::weak_ptr<Impl> weak = weak_from_this();
        events->async([weak] {
            auto self = weak.lock();
            if (!self || self->stopping) return;
            self->refreshQueued = false;
            bool ok = false;
            auto sources = self->query(&ok);
            if (ok && self->apply(sources).second) self->notify();
        });
    }

    // The source list on the watch connection; never on the loop's thread.
    std::vector<PulseSourceInfo> query(bool* ok) {
        struct Query {
            std::vector<PulseSourceInfo> sources;
            static void onSource(pa_context*, const pa_source_info* info, int eol, void* opaque) {
                if (!eol && info) static_cast<Query*>(opaque)->sources.push_back(sourceInfoOf(*info));
            }
        } q;
        *ok = false;
        pa_threaded_mainloop_lock(loop);
        pa_operation* op = status == Status::ready && context
                               ? pa_context_get_source_info_list(context, &Query::onSource, &q)
                               : nullptr;
        const auto deadline = std::chrono::steady_clock::now() + connectTimeout;
        while (op && pa_operation_get_state(op) == PA_OPERATION_RUNNING &&
               std::chrono::steady_clock::now() < deadline) {
            pa_threaded_mainloop_unlock(loop);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            pa_threaded_mainloop_lock(loop);
        }
        if (op) {
            *ok = pa_operation_get_state(op) == PA_OPERATION_DONE;
            // A server that stopped answering: the callback must not outlive q.
            if (!*ok) pa_operation_cancel(op);
            pa_operation_unref(op);
        }
        pa_threaded_mainloop_unlock(loop);
        return q.sources;
    }

    std::vector<AVCaptureDeviceRef> devices() {
        // The first connection is still being made: wait for its outcome.
        const auto deadline = std::chrono::steady_clock::now() + connectTimeout;
        while (status == Status::connecting && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        bool ok = false;
        auto sources = query(&ok);
        // Asked directly, the answer is the truth whether or not it changed.
        return apply(ok ? sources : std::vector<PulseSourceInfo>{}, false).first;
    }
};

PulseDeviceProvider::PulseDeviceProvider() : impl_(std::make_shared<Impl>()) {}

PulseDeviceProvider::~PulseDeviceProvider() { impl_->stopWatching(); }

std::vector<AVCaptureDeviceRef> PulseDeviceProvider::devices() const {
    if (impl_->loop) return impl_->devices();
    std::string reason;
    const auto sources = listPulseSources(&reason);
    if (sources.empty() && !reason.empty()) {
        std::lock_guard lock(impl_->mutex);
        if (!impl_->loggedUnavailable) {
            impl_->loggedUnavailable = true;
            impl_->log().info("No sound server: no microphones. " + reason);
        }
    }
    return impl_->apply(sources, false).first;
}

void PulseDeviceProvider::setDevicesChangedHandler(std::function<void()> handler) {
    const bool watch = bool(handler);
    {
        std::lock_guard lock(impl_->mutex);
        impl_->handler = std::move(handler);
    }
    // Watching begins with the first handler and lasts for the provider's life:
    // a handler set again later finds the list current.
    if (watch && !impl_->loop && !impl_->stopping) impl_->startWatching();
}

}  // namespace ov::platform
