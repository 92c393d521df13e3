#pragma once
// A fixed ring of the newest items. Appending to a full ring silently drops the
// oldest item; the slots are allocated once, so the items held are all the
// memory the ring uses.
//
// Safe from any thread: reads share the lock, writes take it exclusively.

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <utility>
#include <vector>

namespace ov {

template <class Element>
class RingBuffer {
public:
    explicit RingBuffer(std::size_t capacity) : capacity_(capacity) {
        if (capacity < 1) {
            // A ring that can hold nothing is a programming error, not a runtime condition.
            std::fputs("RingBuffer: capacity must be at least 1\n", stderr);
            std::abort();
        }
        array_.resize(capacity_);
    }

    // Copies take a snapshot of the contents; the copy has a lock of its own.
    RingBuffer(const RingBuffer& other) : capacity_(other.capacity_) {
        std::shared_lock lock(other.mutex_);
        array_ = other.array_;
        current_ = other.current_;
        count_ = other.count_;
    }
    RingBuffer& operator=(const RingBuffer& other) {
        if (this == &other) return *this;
        RingBuffer copy(other);
        std::scoped_lock lock(mutex_);
        capacity_ = copy.capacity_;
        array_ = std::move(copy.array_);
        current_ = copy.current_;
        count_ = copy.count_;
        return *this;
    }

    std::size_t capacity() const { return capacity_; }

    void append(Element element) {
        std::unique_lock lock(mutex_);
        array_[current_] = std::move(element);
        current_ = (current_ + 1) % capacity_;
        count_ = std::min(count_ + 1, capacity_);
    }

    void clear() {
        std::unique_lock lock(mutex_);
        // Reset the slots in place rather than reallocating: the allocation stays fixed.
        for (auto& slot : array_) slot.reset();
        current_ = 0;
        count_ = 0;
    }

    std::size_t count() const {
        std::shared_lock lock(mutex_);
        return count_;
    }

    bool isFull() const {
        std::shared_lock lock(mutex_);
        return count_ == capacity_;
    }

    std::optional<Element> last() const {
        std::shared_lock lock(mutex_);
        if (count_ == 0) return std::nullopt;
        return array_[(capacity_ + current_ - 1) % capacity_];
    }

    // The items, oldest first. Before the ring wraps, current equals count, so
    // the same index formula starts at slot 0.
    std::vector<Element> elements() const {
        std::shared_lock lock(mutex_);
        std::vector<Element> out;
        out.reserve(count_);
        for (std::size_t i = 0; i < count_; ++i) out.push_back(*array_[(current_ + i) % count_]);
        return out;
    }

    // Calls f on each item, oldest first, under the read lock: f must not write
    // to this ring.
    template <class F>
    void forEach(F&& f) const {
        std::shared_lock lock(mutex_);
        for (std::size_t i = 0; i < count_; ++i) f(*array_[(current_ + i) % count_]);
    }

private:
    std::size_t capacity_;
    mutable std::shared_mutex mutex_;
    std::vector<std::optional<Element>> array_;
    std::size_t current_ = 0;
    std::size_t count_ = 0;
};

}  // namespace ov
