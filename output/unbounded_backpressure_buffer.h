#pragma once
// An unbounded queue in front of a consumer that is sometimes not ready (an
// asset writer input, say). Items are offered oldest first; the first refusal
// stops the pass and the refused item stays at the front. Nothing is ever
// dropped: where losing data is worse than using memory, memory is the only bound.

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>

namespace ov {

template <class Element>
class UnboundedBackpressureBuffer {
public:
    enum class HandlerResult { handledItem, notReadyForItem };
    // Runs under the buffer's lock: it must not call back into the buffer.
    using Handler = std::function<HandlerResult(const Element&)>;

    UnboundedBackpressureBuffer(std::string label, Handler handler)
        : label_(std::move(label)), handler_(std::move(handler)) {}
    UnboundedBackpressureBuffer(const UnboundedBackpressureBuffer&) = delete;
    UnboundedBackpressureBuffer& operator=(const UnboundedBackpressureBuffer&) = delete;

    const std::string& label() const { return label_; }

    // Queues the item behind the waiting ones, offers as many as the handler
    // takes, and returns how many still wait.
    std::size_t append(Element item) {
        std::unique_lock lock(mutex_);
        array_.push_back(std::move(item));
        handleItemsUntilFirstFailure();
        return array_.size();
    }

    // Offers the waiting items again; returns how many still wait.
    std::size_t partialFlush() {
        std::unique_lock lock(mutex_);
        handleItemsUntilFirstFailure();
        return array_.size();
    }

    void clear() {
        std::unique_lock lock(mutex_);
        array_.clear();
    }

    std::size_t count() const {
        std::shared_lock lock(mutex_);
        return array_.size();
    }

private:
    void handleItemsUntilFirstFailure() {
        // A handler that throws leaves its item first, like a refusal; the items
        // handled before it are gone.
        while (!array_.empty()) {
            if (handler_(array_.front()) != HandlerResult::handledItem) break;
            array_.pop_front();
        }
    }

    std::string label_;
    mutable std::shared_mutex mutex_;
    std::deque<Element> array_;
    Handler handler_;
};

}  // namespace ov
