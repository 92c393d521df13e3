#include "output/streaming_json_writer.h"

#include "foundation/platform_error.h"

namespace ov {

StreamingJSONWriter::StreamingJSONWriter(std::filesystem::path fileUrl, double commitInterval, const Logger& logger,
                                         unsigned mode)
    : logger_(logger.with("StreamingJSONWriter")),
      fileUrl_(std::move(fileUrl)),
      fileWriter_(fileUrl_, mode),
      commitTask_(queue_, std::chrono::nanoseconds(static_cast<int64_t>(commitInterval * 1e9)),
                  [this] { commitFromTimer(); }) {
    queue_.sync([this] {
        fileWriter_.truncate(contentOffset_);
        fileWriter_.fileHandle().write(fileHeader);
        contentOffset_ = fileWriter_.fileHandle().offsetInFile();
        fileWriter_.fileHandle().write(fileFooter);
        fileWriter_.synchronize();
    });
    commitTask_.start();
}

StreamingJSONWriter::~StreamingJSONWriter() {
    if (commitTask_.cancel()) logger_.warning("Deallocated without closing commitTask first.");
}

void StreamingJSONWriter::writeJSON(const nlohmann::json& event) {
    queue_.sync([&] {
        // Encode first: a value the encoder refuses changes nothing.
        std::string bytes = lineStart_;
        bytes += event.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
        const uint64_t elementEnd = contentOffset_ + bytes.size();
        bytes += fileFooter;
        auto& handle = fileWriter_.fileHandle();
        try {
            if (tailDirty_) {
                handle.truncate(contentOffset_);
                tailDirty_ = false;
            }
            // The element overwrites the old footer and always reaches past
            // it, so one write at the content offset replaces truncate and
            // two appends.
            handle.write(bytes, contentOffset_);
        } catch (...) {
            tailDirty_ = true;
            // Best effort; if the footer can't be put back now, the next
            // write or commit does it before anything is published.
            try {
                restoreFooterOnQueue();
            } catch (...) {
            }
            throw;
        }
        contentOffset_ = elementEnd;
        lineStart_ = lineEnding;
        ++writeCount_;
    });
}

void StreamingJSONWriter::restoreFooterOnQueue() {
    auto& handle = fileWriter_.fileHandle();
    handle.truncate(contentOffset_);
    handle.write(fileFooter, contentOffset_);
    tailDirty_ = false;
}

void StreamingJSONWriter::commitOnQueue() {
    // Never publish a cut element: the last whole element and the footer first.
    if (tailDirty_) restoreFooterOnQueue();
    const uint64_t count = writeCount_;
    fileWriter_.synchronize();
    committedWriteCount_ = count;
}

void StreamingJSONWriter::commitFromTimer() {
    // An unchanged file needs no new copy: the target already holds it.
    if (writeCount_ != committedWriteCount_) {
        try {
            commitOnQueue();
        } catch (const std::exception& error) {
            logger_.error("Timer failed to commit streaming JSON to file.", [&] {
                return LogMetadata{{"error", platform::describeError(error).debugDescription}};
            });
        }
    }
}

std::vector<std::filesystem::path> StreamingJSONWriter::close() {
    logger_.debug("Closing streaming JSON file.");
    commitTask_.cancel();
    queue_.sync([this] {
        if (tailDirty_) restoreFooterOnQueue();
        fileWriter_.close();
    });
    logger_.debug("Closed streaming JSON file successfully.");
    return {fileUrl_};
}

}  // namespace ov
