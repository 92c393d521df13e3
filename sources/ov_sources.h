#pragma once
// OVSources: a discovery's list as a value for user interfaces. A Source
// keeps a discovery's `updates` stream, the list it last delivered
// (`current`, written on the main queue) and the task copying one into the
// other, which holds the Source only weakly and ends with the stream or the
// Source.

#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/dispatch_queue.h"
#include "sources/application_discovery.h"
#include "sources/capture_device_discovery.h"
#include "sources/display_discovery.h"
#include "sources/window_discovery.h"

namespace ov {

template <class Value>
class OVSources {
public:
    using Ref = std::shared_ptr<Value>;
    using List = std::vector<Ref>;
    using Stream = typename DiscoverySubject<Ref>::Subscription;
    // Applied to the initial list and every later one.
    using Filter = std::function<List(const List&)>;

    class Source {
    public:
        static std::shared_ptr<Source> make(std::shared_ptr<Stream> stream, List initial, Filter filter = {}) {
            std::shared_ptr<Source> source(new Source(stream, filter ? filter(initial) : std::move(initial)));
            std::weak_ptr<Source> weak = source;
            source->task_ = std::thread([weak, stream, filter] {
                while (true) {
                    auto next = stream->next(std::chrono::milliseconds(200));
                    if (!next) {
                        if (stream->isCancelled() || weak.expired()) return;
                        continue;
                    }
                    auto self = weak.lock();
                    if (!self) return;
                    List list = filter ? filter(*next) : std::move(*next);
                    platform::DispatchQueue::main().async([weak, list = std::move(list)] {
                        if (auto self = weak.lock()) {
                            std::lock_guard lock(self->mutex_);
                            self->current_ = list;
                        }
                    });
                }
            });
            return source;
        }
        ~Source() {
            stream_->cancel();
            if (task_.get_id() == std::this_thread::get_id()) task_.detach();
            else if (task_.joinable()) task_.join();
        }
        const std::shared_ptr<Stream>& stream() const { return stream_; }
        List current() const {
            std::lock_guard lock(mutex_);
            return current_;
        }

    private:
        Source(std::shared_ptr<Stream> stream, List initial) : stream_(std::move(stream)), current_(std::move(initial)) {}
        std::shared_ptr<Stream> stream_;
        mutable std::mutex mutex_;
        List current_;
        std::thread task_;
    };

    explicit OVSources(std::shared_ptr<Source> source) : source_(std::move(source)) {}
    List wrappedValue() const { return source_->current(); }
    const std::shared_ptr<Source>& source() const { return source_; }

private:
    std::shared_ptr<Source> source_;
};

namespace sources {

// The stream of a discovery with its current list as the initial one.
template <class D>
auto sourceOf(const std::shared_ptr<D>& discovery, typename OVSources<typename D::ItemRef::element_type>::Filter filter = {}) {
    using Value = typename D::ItemRef::element_type;
    return OVSources<Value>(OVSources<Value>::Source::make(discovery->updates(), discovery->current(), std::move(filter)));
}

inline OVSources<OVCaptureSource> microphones() { return sourceOf(CaptureDeviceDiscovery::sharedMicrophones()); }
inline OVSources<OVCaptureSource> cameras(bool includeDeskView) {
    return sourceOf(CaptureDeviceDiscovery::sharedCameras(), [includeDeskView](const std::vector<OVCameraRef>& list) {
        std::vector<OVCameraRef> kept;
        for (const auto& camera : list)
            if (includeDeskView || !camera->isDeskView) kept.push_back(camera);
        return kept;
    });
}
inline OVSources<OVDisplay> displays() { return sourceOf(DisplayDiscovery::shared()); }
inline OVSources<OVWindow> windows(OVWindow::FilterOptions options) {
    return sourceOf(WindowDiscovery::shared(),
                    [options](const std::vector<std::shared_ptr<OVWindow>>& list) { return filtered(list, options); });
}
inline OVSources<OVRunningApplication> applications(OVRunningApplication::FilterOptions) {
    return sourceOf(ApplicationDiscovery::shared());
}

}  // namespace sources
}  // namespace ov
