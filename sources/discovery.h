#pragma once
// The shape every discovery shares: the published list (a current-value
// subject, sorted as the kind wants, never holding an item twice), the
// private table of every item ever seen (one shared object per id for the
// life of the process, updated in place), `updates` streams, `triggerUpdate`
// and, for the kinds the window server can't announce (windows,
// applications), a polling loop that runs only while an `updates` stream is
// open.
//
// Threads. Update steps run under the discovery's lock: on the main queue
// (triggerUpdate, platform notices, poll results) or, for a caller that needs
// a fresh answer now (list actions, error diagnostics), on the caller's
// thread. Item fields change only inside update steps; their observers are
// told after the step, with no lock held. The polling loop reads on a thread
// of its own and hands what changed to the main queue.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "output/ov_logger.h"
#include "platform/dispatch_queue.h"
#include "platform/key_value_observing.h"
#include "sources/discovery_subject.h"

namespace ov {

// What items share: observable fields. Observers run after the update step
// that changed the field, with no lock held, on the thread of that step.
class DiscoveryItem {
public:
    virtual ~DiscoveryItem() = default;
    platform::KeyValueObservation observe(std::vector<std::string> keys,
                                          std::function<void(const std::string& key)> callback) {
        return observers_.observe(std::move(keys), std::move(callback));
    }

    // Tells the field's observers; discoveries call it after an update step.
    void notifyChanged(const std::string& key) const { observers_.notify(key); }

protected:
    mutable std::mutex fieldMutex_;
    platform::KeyValueObservable observers_;
};

// The field changes of one update step, told once the step's lock is gone.
template <class Item>
class DiscoveryNoticeList {
public:
    void add(const std::shared_ptr<Item>& item, std::string key) { notices_.emplace_back(item, std::move(key)); }
    bool empty() const { return notices_.empty(); }
    void tell() {
        for (auto& [item, key] : notices_) item->notifyChanged(key);
        notices_.clear();
    }

private:
    std::vector<std::pair<std::shared_ptr<Item>, std::string>> notices_;
};

template <class Item, class Key>
class Discovery : public std::enable_shared_from_this<Discovery<Item, Key>> {
public:
    using ItemRef = std::shared_ptr<Item>;
    using Subject = DiscoverySubject<ItemRef>;
    using Subscription = typename Subject::Subscription;
    using Clock = std::chrono::steady_clock;

    virtual ~Discovery() { stopLoop(); }
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    // The published list.
    std::vector<ItemRef> current() const { return subject_.value(); }

    // The current list first, then every later one, unbounded. It ends when
    // cancelled or dropped; a polling discovery polls while one is open, and
    // the first one runs a fresh update before it starts the loop.
    std::shared_ptr<Subscription> updates() {
        if (pollInterval_) startLoopIfNeeded();
        auto subscription = subject_.subscribe();
        if (pollInterval_) {
            const uint64_t id = nextSubscriberID_++;
            {
                std::lock_guard lock(loopMutex_);
                loopSubscribers_.insert(id);
            }
            std::weak_ptr<Discovery> weak = this->weak_from_this();
            subscription->setEndHandler([weak, id] {
                if (auto self = weak.lock()) self->removeLoopSubscriber(id);
            });
        }
        return subscription;
    }

    // Any item ever seen, published or not.
    ItemRef item(const Key& key) const {
        std::lock_guard lock(mutex_);
        const auto it = all_.find(key);
        return it == all_.end() ? nullptr : it->second;
    }

    // One update step with fresh values, now, on the calling thread.
    virtual void update() = 0;

    // Logs "Trigger update" and runs the update step on the main queue.
    void triggerUpdate() {
        std::weak_ptr<Discovery> weak = this->weak_from_this();
        platform::DispatchQueue::main().async([weak] {
            auto self = weak.lock();
            if (!self) return;
            self->logger_.info("Trigger update");
            self->update();
        });
    }

    // Whether the polling loop runs, and how many streams keep it running.
    bool isPolling() const {
        std::lock_guard lock(loopMutex_);
        return loopThread_.joinable();
    }
    size_t loopSubscriberCount() const {
        std::lock_guard lock(loopMutex_);
        return loopSubscribers_.size();
    }

protected:
    // A discovery polls every `pollInterval` while streams are open when one is given.
    explicit Discovery(std::string category, std::optional<Clock::duration> pollInterval = std::nullopt)
        : logger_(std::move(category)), pollInterval_(pollInterval) {}

    // One pass of the polling loop, on the loop's thread: read, compare with
    // the last read, and hand a difference to the main queue.
    virtual void poll() {}

    // Runs `step` on the main queue while this discovery exists.
    template <class F>
    void onMain(F step) {
        std::weak_ptr<Discovery> weak = this->weak_from_this();
        platform::DispatchQueue::main().async([weak, step = std::move(step)]() mutable {
            if (auto self = weak.lock()) step(*self);
        });
    }

    // Publishes a list with every item's field changes told afterwards.
    void publish(std::vector<ItemRef> list) { subject_.send(std::move(list)); }

    Logger logger_;
    // Guards all_ and every update step.
    mutable std::recursive_mutex mutex_;
    std::map<Key, ItemRef> all_;
    Subject subject_;

private:
    void startLoopIfNeeded() {
        {
            std::lock_guard lock(loopMutex_);
            if (loopThread_.joinable()) return;
        }
        // The first subscriber sees what is there now, not what the last pass found.
        update();
        std::lock_guard lock(loopMutex_);
        if (loopThread_.joinable()) return;
        loop_ = std::make_shared<LoopState>();
        std::weak_ptr<Discovery> weak = this->weak_from_this();
        // The thread holds its own state and the discovery only weakly, so
        // that it may outlive a discovery released during a pass.
        loopThread_ = std::thread([loop = loop_, weak, interval = *pollInterval_] {
            std::unique_lock lock(loop->mutex);
            while (!loop->stop) {
                lock.unlock();
                {
                    auto self = weak.lock();
                    if (!self) return;
                    try {
                        self->poll();
                    } catch (const std::exception& e) {
                        self->logger_.warning("Polling failed", [&] { return LogMetadata{{"error", e.what()}}; });
                    }
                }
                lock.lock();
                loop->wake.wait_for(lock, interval, [&] { return loop->stop; });
            }
        });
    }

    void removeLoopSubscriber(uint64_t id) {
        bool last = false;
        {
            std::lock_guard lock(loopMutex_);
            loopSubscribers_.erase(id);
            last = loopSubscribers_.empty();
        }
        if (last) stopLoop();
    }

    void stopLoop() {
        std::thread thread;
        std::shared_ptr<LoopState> loop;
        {
            std::lock_guard lock(loopMutex_);
            if (!loopThread_.joinable()) return;
            thread = std::move(loopThread_);
            loop = std::move(loop_);
        }
        {
            std::lock_guard lock(loop->mutex);
            loop->stop = true;
        }
        loop->wake.notify_all();
        // Ended from inside the loop's own pass: it can't wait for itself.
        if (thread.get_id() == std::this_thread::get_id()) thread.detach();
        else thread.join();
    }

    struct LoopState {
        std::mutex mutex;
        std::condition_variable wake;
        bool stop = false;
    };

    const std::optional<Clock::duration> pollInterval_;
    mutable std::mutex loopMutex_;
    std::thread loopThread_;
    std::shared_ptr<LoopState> loop_;
    std::set<uint64_t> loopSubscribers_;
    std::atomic<uint64_t> nextSubscriberID_{0};
};

}  // namespace ov
