#include "output/streaming_log_writer.h"

#include "foundation/platform_error.h"

namespace ov {

StreamingLogWriter::StreamingLogWriter(std::filesystem::path fileUrl, double commitInterval, const Logger& logger)
    : logger_(logger.with("StreamingLogWriter")),
      fileUrl_(std::move(fileUrl)),
      fileWriter_(fileUrl_),
      commitTask_(queue_, std::chrono::nanoseconds(static_cast<int64_t>(commitInterval * 1e9)),
                  [this] { commitFromTimer(); }) {
    commitTask_.start();
}

StreamingLogWriter::~StreamingLogWriter() {
    if (commitTask_.cancel()) logger_.warning("Deallocated without closing commitTask first.");
}

void StreamingLogWriter::write(const OVLogger::LogMessage& event) {
    std::string line = event.description();
    line += lineEnding;
    queue_.sync([&] { appendOnQueue(line); });
}

void StreamingLogWriter::write(const std::vector<OVLogger::LogMessage>& events) {
    std::string lines;
    for (const auto& event : events) {
        lines += event.description();
        lines += lineEnding;
    }
    queue_.sync([&] { appendOnQueue(lines); });
}

void StreamingLogWriter::appendOnQueue(const std::string& lines) {
    auto& handle = fileWriter_.fileHandle();
    try {
        if (tailDirty_) restoreEndOnQueue();
        handle.write(lines, endOffset_);
    } catch (...) {
        tailDirty_ = true;
        // Best effort; if the cut fails now, the next write or commit does it.
        try {
            restoreEndOnQueue();
        } catch (...) {
        }
        throw;
    }
    endOffset_ += lines.size();
    ++writeCount_;
}

void StreamingLogWriter::restoreEndOnQueue() {
    fileWriter_.truncate(endOffset_);
    tailDirty_ = false;
}

void StreamingLogWriter::commitFromTimer() {
    // An unchanged file needs no new copy once the target exists.
    if (hasCommitted_ && writeCount_ == committedWriteCount_) return;
    try {
        if (tailDirty_) restoreEndOnQueue();
        const uint64_t count = writeCount_;
        fileWriter_.synchronize();
        committedWriteCount_ = count;
        hasCommitted_ = true;
    } catch (const std::exception& error) {
        logger_.error("Timer failed to commit streaming Log to file.", [&] {
            return LogMetadata{{"error", platform::describeError(error).debugDescription}};
        });
    }
}

void StreamingLogWriter::close() {
    logger_.debug("Closing streaming Log file.");
    commitTask_.cancel();
    queue_.sync([this] {
        if (tailDirty_) restoreEndOnQueue();
        fileWriter_.close();
    });
    logger_.debug("Closed streaming Log file successfully.");
}

}  // namespace ov
