#pragma once
// A one-token gate that serialises an operation across threads: enter() takes
// the token or waits for it, exit() hands it on. Waiters get the token in the
// order in which they arrived.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

#include "output/ov_logger.h"

namespace ov {

class TokenBucket {
public:
    explicit TokenBucket(Logger logger);
    TokenBucket(const TokenBucket&) = delete;
    TokenBucket& operator=(const TokenBucket&) = delete;

    // Takes the token, blocking the caller while another holds it.
    void enter();
    // Gives the token back: to the longest waiter if there is one, else to the bucket.
    void exit();

    bool isFull() const;
    std::size_t waiterCount() const;

private:
    struct Waiter {
        bool resumed = false;
    };

    Logger logger_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    // full, or empty with the waiters in arrival order.
    bool full_ = true;
    std::deque<Waiter*> waiters_;
};

}  // namespace ov
