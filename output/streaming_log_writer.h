#pragma once
// A recording's log file: one line per log message, appended to the hot file
// and published by a commit timer and at close(). The file has no header or
// footer; after every commit it ends with a whole line.

#include <filesystem>
#include <string>
#include <vector>

#include "output/atomic_file_writer.h"
#include "output/commit_timer.h"
#include "output/ov_logger.h"
#include "platform/dispatch_queue.h"

namespace ov {

class StreamingLogWriter {
public:
    static constexpr std::string_view lineEnding = "\n";

    // Fails when the file writer can't be made. The first commit comes with
    // the first timer tick.
    StreamingLogWriter(std::filesystem::path fileUrl, double commitInterval, const Logger& logger);
    ~StreamingLogWriter();
    StreamingLogWriter(const StreamingLogWriter&) = delete;
    StreamingLogWriter& operator=(const StreamingLogWriter&) = delete;

    // Returns once the line is in the hot file. A write failure passes on, and
    // the partial line is cut off again before anything is published.
    void write(const OVLogger::LogMessage& event);
    // All lines in order, as one write.
    void write(const std::vector<OVLogger::LogMessage>& events);
    // Stops the timer, commits a last time, removes the hot file. A failing
    // commit passes on and leaves the hot file.
    void close();

    const std::filesystem::path& fileUrl() const { return fileUrl_; }

private:
    void appendOnQueue(const std::string& lines);
    void restoreEndOnQueue();
    void commitFromTimer();

    Logger logger_;
    std::filesystem::path fileUrl_;
    AtomicFileWriter fileWriter_;
    // Touched on the queue only. endOffset_ is the end of the last whole line.
    uint64_t endOffset_ = 0;
    bool tailDirty_ = false;
    uint64_t writeCount_ = 0;
    uint64_t committedWriteCount_ = 0;
    bool hasCommitted_ = false;
    CommitTimer commitTask_;
    // Last, so that it is destroyed first: its thread may be running a timer
    // block that uses the members above.
    platform::DispatchQueue queue_{"StreamingLogWriter"};
};

}  // namespace ov
