#include "timing/token_bucket.h"

namespace ov {

TokenBucket::TokenBucket(Logger logger) : logger_(std::move(logger)) {}

void TokenBucket::enter() {
    std::unique_lock lock(mutex_);
    if (full_) {
        full_ = false;
        return;
    }
    // The waiter lives on this stack frame until exit() has resumed it.
    Waiter waiter;
    waiters_.push_back(&waiter);
    cv_.wait(lock, [&] { return waiter.resumed; });
}

void TokenBucket::exit() {
    {
        std::lock_guard lock(mutex_);
        if (!full_) {
            if (waiters_.empty()) {
                full_ = true;
            } else {
                // The token passes straight to the first waiter; the bucket stays empty.
                waiters_.front()->resumed = true;
                waiters_.pop_front();
                cv_.notify_all();
            }
            return;
        }
    }
    logger_.log(OVLogLevel::critical, "TokenBucket in invalid state during exit.");
}

bool TokenBucket::isFull() const {
    std::lock_guard lock(mutex_);
    return full_;
}

std::size_t TokenBucket::waiterCount() const {
    std::lock_guard lock(mutex_);
    return waiters_.size();
}

}  // namespace ov
