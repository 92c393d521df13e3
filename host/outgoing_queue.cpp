#include "host/outgoing_queue.h"

#include <unistd.h>

#include <cerrno>

namespace ov::host {

OutgoingQueue::OutgoingQueue(int fd, size_t streamDataLimitBytes, DropReport report)
    : fd_(fd), streamDataLimitBytes_(streamDataLimitBytes), report_(std::move(report)) {
    writer_ = std::thread([this] { run(); });
}

OutgoingQueue::~OutgoingQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    writer_.join();
}

void OutgoingQueue::send(std::string_view bytes, Kind kind) {
    std::string line;
    line.reserve(bytes.size() + 1);
    line.append(bytes);
    line.push_back('\n');

    bool startedDropping = false;
    uint64_t droppedNow = 0;
    uint64_t sequence = 0;
    {
        std::unique_lock lock(mutex_);
        if (hostGone_) return;  // nobody to tell; keep nothing
        if (kind == Kind::streamData) {
            // Oldest first, but never the one the writer is writing (it is
            // no longer in the list).
            for (auto it = entries_.begin();
                 it != entries_.end() && streamDataBytes_ + line.size() > streamDataLimitBytes_;) {
                if (it->kind != Kind::streamData) {
                    ++it;
                    continue;
                }
                streamDataBytes_ -= it->line.size();
                it = entries_.erase(it);
                ++dropped_;
                ++droppedSinceReport_;
                if (!dropping_) {
                    dropping_ = startedDropping = true;
                    droppedNow = droppedSinceReport_;
                }
            }
            if (streamDataBytes_ + line.size() > streamDataLimitBytes_) {
                // Larger than the whole allowance on its own.
                ++dropped_;
                return;
            }
            streamDataBytes_ += line.size();
        }
        sequence = nextSequence_++;
        entries_.push_back(Entry{std::move(line), kind, sequence});
    }
    changed_.notify_all();
    if (startedDropping && report_) report_(droppedNow, false);

    if (kind == Kind::response) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return writtenSequence_ > sequence || hostGone_; });
    }
}

bool OutgoingQueue::flush(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    const uint64_t target = nextSequence_;
    return changed_.wait_for(lock, timeout, [&] { return writtenSequence_ >= target || hostGone_; });
}

uint64_t OutgoingQueue::droppedCount() const {
    std::lock_guard lock(mutex_);
    return dropped_;
}

size_t OutgoingQueue::queuedStreamDataBytes() const {
    std::lock_guard lock(mutex_);
    return streamDataBytes_;
}

bool OutgoingQueue::writeAll(const std::string& line) {
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        const ssize_t n = ::write(fd_, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

void OutgoingQueue::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return !entries_.empty() || stopping_; });
        if (entries_.empty()) return;  // stopping, and everything is out
        Entry entry = std::move(entries_.front());
        entries_.pop_front();
        if (entry.kind == Kind::streamData) streamDataBytes_ -= entry.line.size();
        bool ok = true;
        if (!hostGone_) {
            lock.unlock();
            ok = writeAll(entry.line);
            lock.lock();
        }
        writtenSequence_ = entry.sequence + 1;
        if (!ok) {
            // The host closed its end: what waits can never arrive.
            hostGone_ = true;
            entries_.clear();
            streamDataBytes_ = 0;
        }
        uint64_t caughtUpAfter = 0;
        const bool caughtUp = dropping_ && streamDataBytes_ == 0;
        if (caughtUp) {
            dropping_ = false;
            caughtUpAfter = droppedSinceReport_;
            droppedSinceReport_ = 0;
        }
        changed_.notify_all();
        if (caughtUp && report_) {
            lock.unlock();
            report_(caughtUpAfter, true);
            lock.lock();
        }
    }
}

}  // namespace ov::host
