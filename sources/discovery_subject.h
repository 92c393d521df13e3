#pragma once
// The current list of a discovery and its subscribers: the value a late
// subscriber sees first, then every later one, with unbounded buffering.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace ov {

template <class T>
class DiscoverySubject {
public:
    class Subscription {
    public:
        // Ending a subscription (cancel, or dropping it) runs its end handler once.
        ~Subscription() { end(); }

        // The next list, or absent after the time-out or once cancelled.
        std::optional<std::vector<T>> next(std::chrono::milliseconds timeout) {
            std::unique_lock lock(mutex_);
            cv_.wait_for(lock, timeout, [&] { return !queue_.empty() || cancelled_; });
            if (queue_.empty()) return std::nullopt;
            auto value = std::move(queue_.front());
            queue_.pop_front();
            return value;
        }
        void cancel() {
            {
                std::lock_guard lock(mutex_);
                cancelled_ = true;
            }
            cv_.notify_all();
            end();
        }
        // Runs when the subscription ends; set before it is handed out.
        void setEndHandler(std::function<void()> handler) {
            std::lock_guard lock(mutex_);
            endHandler_ = std::move(handler);
        }
        bool isCancelled() const {
            std::lock_guard lock(mutex_);
            return cancelled_;
        }

    private:
        friend class DiscoverySubject;
        void push(const std::vector<T>& value) {
            {
                std::lock_guard lock(mutex_);
                if (cancelled_) return;
                queue_.push_back(value);
            }
            cv_.notify_all();
        }
        void end() {
            std::function<void()> handler;
            {
                std::lock_guard lock(mutex_);
                handler = std::move(endHandler_);
                endHandler_ = nullptr;
            }
            if (handler) handler();
        }
        mutable std::mutex mutex_;
        std::condition_variable cv_;
        std::deque<std::vector<T>> queue_;
        bool cancelled_ = false;
        std::function<void()> endHandler_;
    };

    std::vector<T> value() const {
        std::lock_guard lock(mutex_);
        return value_;
    }

    void send(std::vector<T> value) {
        std::vector<std::shared_ptr<Subscription>> live;
        {
            std::lock_guard lock(mutex_);
            value_ = std::move(value);
            for (auto it = subscribers_.begin(); it != subscribers_.end();) {
                if (auto s = it->lock(); s && !s->isCancelled()) {
                    live.push_back(std::move(s));
                    ++it;
                } else {
                    it = subscribers_.erase(it);
                }
            }
            for (auto& s : live) s->push(value_);
        }
    }

    // Yields the current value first.
    std::shared_ptr<Subscription> subscribe() {
        auto subscription = std::make_shared<Subscription>();
        std::lock_guard lock(mutex_);
        subscription->push(value_);
        subscribers_.push_back(subscription);
        return subscription;
    }

    size_t subscriberCount() const {
        std::lock_guard lock(mutex_);
        size_t n = 0;
        for (const auto& weak : subscribers_)
            if (auto s = weak.lock(); s && !s->isCancelled()) ++n;
        return n;
    }

private:
    mutable std::mutex mutex_;
    std::vector<T> value_;
    std::vector<std::weak_ptr<Subscription>> subscribers_;
};

}  // namespace ov
