#pragma once
// A JSON array that grows event by event and is a valid array on disk after
// every commit.
//
// The hot file holds "[", line feed, the elements separated by "," and a line
// feed, and the footer: line feed, "]". The comma belongs to the start of the
// next element, so the element before the footer never has one; each write
// replaces the footer by the new element and a fresh footer. The target is
// published by a commit timer on the writer's queue and at close().

#include <filesystem>
#include <string>
#include <vector>

#include "output/atomic_file_writer.h"
#include "output/commit_timer.h"
#include "output/ov_logger.h"
#include "output/output_json_writer.h"
#include "platform/dispatch_queue.h"

namespace ov {

class StreamingJSONWriter final : public OutputJSONWriter {
public:
    static constexpr std::string_view fileHeader = "[\n";
    static constexpr std::string_view lineEnding = ",\n";
    static constexpr std::string_view fileFooter = "\n]";

    // Creates the file as an empty array and commits it at once; a commit
    // follows every `commitInterval` seconds while anything changed. Fails
    // when the file writer can't be made or the first commit fails.
    // `mode`: the file's permissions (see AtomicFileWriter).
    StreamingJSONWriter(std::filesystem::path fileUrl, double commitInterval, const Logger& logger,
                        unsigned mode = 0644);
    ~StreamingJSONWriter() override;
    StreamingJSONWriter(const StreamingJSONWriter&) = delete;
    StreamingJSONWriter& operator=(const StreamingJSONWriter&) = delete;

    using OutputJSONWriter::write;
    // Returns once the bytes are in the hot file (not yet on disk). An encoder
    // failure leaves the file as it was; a write failure passes on, and the
    // partial element is cut off again before anything is published.
    void writeJSON(const nlohmann::json& event) override;
    // Stops the timer, commits a last time, removes the hot file. A failing
    // commit passes on and leaves the hot file.
    std::vector<std::filesystem::path> close() override;
    std::vector<std::filesystem::path> expectedFileURLs() const override { return {fileUrl_}; }

private:
    void commitFromTimer();
    void commitOnQueue();
    void restoreFooterOnQueue();

    Logger logger_;
    std::filesystem::path fileUrl_;
    AtomicFileWriter fileWriter_;
    // Touched on the queue only.
    std::string lineStart_;
    uint64_t contentOffset_ = 0;
    // Set when a failed write may have left bytes other than the footer
    // after contentOffset_.
    bool tailDirty_ = false;
    uint64_t writeCount_ = 0;
    uint64_t committedWriteCount_ = 0;
    CommitTimer commitTask_;
    // Last, so that it is destroyed first: its thread may be running a timer
    // block that uses the members above.
    platform::DispatchQueue queue_{"StreamingJSONWriter"};
};

}  // namespace ov
