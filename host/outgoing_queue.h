#pragma once
// The way out to the host: messages wait here and one writer thread writes
// them, whole and in order, to a file descriptor (standard output).
//
// A host that stops reading must neither block the threads that produce
// messages (capture and encoder threads send callbacks) nor make memory grow
// without bound. So sending never waits for the pipe; streamed media, which
// can be a quarter of a megabyte per second, may be dropped (oldest first)
// once more than a limit of it waits; every other message is kept.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace ov::host {

class OutgoingQueue {
public:
    enum class Kind { response, callback, streamData };

    // Told, outside the queue's lock, how many stream messages were dropped
    // in one spell of a lagging host: once when dropping starts, and with the
    // spell's total once the host has caught up again.
    using DropReport = std::function<void(uint64_t dropped, bool caughtUp)>;

    OutgoingQueue(int fd, size_t streamDataLimitBytes, DropReport report = nullptr);
    // Writes what is queued (unless the host is gone) and joins the writer.
    ~OutgoingQueue();
    OutgoingQueue(const OutgoingQueue&) = delete;
    OutgoingQueue& operator=(const OutgoingQueue&) = delete;

    // Queues one message; a newline is added. Never waits for the host,
    // except for a response, which returns once it has been written (or the
    // host is gone): requests are answered one at a time.
    void send(std::string_view bytes, Kind kind);

    // Waits until everything queued so far is written or the host is gone;
    // false when the time-out passed first.
    bool flush(std::chrono::milliseconds timeout);

    uint64_t droppedCount() const;
    size_t queuedStreamDataBytes() const;

private:
    struct Entry {
        std::string line;
        Kind kind;
        uint64_t sequence;
    };
    void run();
    bool writeAll(const std::string& line);

    const int fd_;
    const size_t streamDataLimitBytes_;
    DropReport report_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Entry> entries_;
    size_t streamDataBytes_ = 0;
    uint64_t nextSequence_ = 0;
    uint64_t writtenSequence_ = 0;  // every entry below this one is out (or lost)
    uint64_t dropped_ = 0;
    uint64_t droppedSinceReport_ = 0;  // in the present spell
    bool dropping_ = false;
    bool hostGone_ = false;
    bool stopping_ = false;
    std::thread writer_;
};

}  // namespace ov::host
