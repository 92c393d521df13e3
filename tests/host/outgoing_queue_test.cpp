// The way out to the host, over a real pipe: lines whole and in order,
// streamed data dropped oldest first while nobody reads, nothing else lost,
// and no sender stuck when the reader has gone.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "host/outgoing_queue.h"

namespace ov::host {
namespace {

using namespace std::chrono_literals;

struct Pipe {
    Pipe() {
        EXPECT_EQ(::pipe(fds), 0);
        ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
    }
    ~Pipe() {
        closeReader();
        ::close(fds[1]);
    }
    void closeReader() {
        if (fds[0] >= 0) ::close(fds[0]);
        fds[0] = -1;
    }
    // Reads until nothing arrives for a while.
    std::vector<std::string> readLines() {
        std::string text;
        char buffer[65536];
        for (;;) {
            pollfd p{fds[0], POLLIN, 0};
            if (::poll(&p, 1, 300) <= 0) break;
            const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
            if (n <= 0) break;
            text.append(buffer, size_t(n));
        }
        std::vector<std::string> lines;
        size_t start = 0;
        for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
            lines.push_back(text.substr(start, nl - start));
        EXPECT_EQ(start, text.size()) << "a line was cut";
        return lines;
    }
    int fds[2] = {-1, -1};
};

TEST(OutgoingQueue, WritesEveryLineWholeAndInOrder) {
    Pipe pipe;
    OutgoingQueue queue(pipe.fds[1], 1 << 20);
    queue.send("first", OutgoingQueue::Kind::callback);
    queue.send("second", OutgoingQueue::Kind::streamData);
    queue.send("third", OutgoingQueue::Kind::response);  // returns once written
    EXPECT_TRUE(queue.flush(1s));
    EXPECT_EQ(pipe.readLines(), (std::vector<std::string>{"first", "second", "third"}));
    EXPECT_EQ(queue.droppedCount(), 0u);
}

TEST(OutgoingQueue, ANonReadingHostLosesTheOldestStreamDataAndNothingElse) {
    Pipe pipe;
    std::atomic<int> startReports{0}, caughtUpReports{0};
    std::atomic<uint64_t> reportedTotal{0};
    const size_t limit = 32 * 1024;
    OutgoingQueue queue(pipe.fds[1], limit, [&](uint64_t dropped, bool caughtUp) {
        if (caughtUp) {
            ++caughtUpReports;
            reportedTotal += dropped;  // each episode reports its own count
        } else {
            ++startReports;
        }
    });
    const std::string payload(1000, 'x');
    // Far more than the pipe and the allowance hold; none of these sends may wait.
    for (int i = 0; i < 2000; ++i) {
        queue.send("s" + std::to_string(i) + " " + payload, OutgoingQueue::Kind::streamData);
        if (i % 500 == 0) queue.send("c" + std::to_string(i), OutgoingQueue::Kind::callback);
    }
    EXPECT_LE(queue.queuedStreamDataBytes(), limit);
    EXPECT_GT(queue.droppedCount(), 1500u);
    // One report as dropping starts; the writer may catch up for a moment
    // (the pipe takes 64 KiB) and start a second episode, but not many.
    EXPECT_GE(startReports, 1);
    EXPECT_LE(startReports, 3);

    const auto lines = pipe.readLines();
    std::vector<int> stream;
    std::vector<std::string> callbacks;
    for (const auto& line : lines) {
        if (line[0] == 'c') callbacks.push_back(line);
        else stream.push_back(std::stoi(line.substr(1)));
    }
    EXPECT_EQ(callbacks, (std::vector<std::string>{"c0", "c500", "c1000", "c1500"}));
    ASSERT_FALSE(stream.empty());
    EXPECT_TRUE(std::is_sorted(stream.begin(), stream.end()));
    EXPECT_EQ(stream.back(), 1999) << "the newest data is kept";
    EXPECT_EQ(stream.size() + queue.droppedCount(), 2000u);
    EXPECT_TRUE(queue.flush(1s));
    EXPECT_EQ(caughtUpReports, startReports.load()) << "every episode ends with its count";
    EXPECT_EQ(reportedTotal, queue.droppedCount());
}

TEST(OutgoingQueue, SendersGoOnWhenTheHostHasClosedItsEnd) {
    ::signal(SIGPIPE, SIG_IGN);  // as orvane-rpc does: a write then fails with EPIPE
    Pipe pipe;
    pipe.closeReader();
    OutgoingQueue queue(pipe.fds[1], 1 << 20);
    const std::string big(200000, 'y');
    for (int i = 0; i < 20; ++i) queue.send(big, OutgoingQueue::Kind::callback);
    queue.send("answer", OutgoingQueue::Kind::response);  // would wait forever on a host that is not gone
    EXPECT_TRUE(queue.flush(1s));
}

}  // namespace
}  // namespace ov::host
