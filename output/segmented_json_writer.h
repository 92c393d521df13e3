#pragma once
// The segmented sister of StreamingJSONWriter: events are held in memory and,
// every segment interval, written as one finished JSON array in a file of its
// own ("<prefix>-0000.json", "-0001", ...). A streaming index file
// ("<prefix>.index.json") lists the segments in order, and each finished
// segment is announced through a callback once its file is complete and its
// name is in the index.
//
// An interval without events makes no file and uses no number. A failed flush
// keeps its events, its line start and its number, so the next flush tries
// the same file again (and a hot file left by the failed attempt makes that
// fail with "File already exists at ", keeping the events in memory).
// Segment cadence is wall-clock from construction, not recording time.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "output/commit_timer.h"
#include "output/ov_logger.h"
#include "output/output_json_writer.h"
#include "output/segment_callback.h"
#include "output/streaming_json_writer.h"
#include "platform/dispatch_queue.h"

namespace ov {

class SegmentedJSONWriter final : public OutputJSONWriter {
public:
    // Without a callback queue, one labelled "SegmentedJSONWriterQueue" is
    // made. Fails as StreamingJSONWriter's construction does. `mode` is the
    // permission of every file written (see AtomicFileWriter).
    SegmentedJSONWriter(std::filesystem::path directoryURL, std::string filenamePrefix, double segmentInterval,
                        std::shared_ptr<platform::DispatchQueue> segmentCallbackQueue, SegmentCallback segmentCallback,
                        const Logger& logger, unsigned mode = 0644);
    ~SegmentedJSONWriter() override;
    SegmentedJSONWriter(const SegmentedJSONWriter&) = delete;
    SegmentedJSONWriter& operator=(const SegmentedJSONWriter&) = delete;

    using OutputJSONWriter::write;
    void writeJSON(const nlohmann::json& event) override;
    // Stops the timer, flushes the rest (a failure passes on) and closes the
    // index; returns the index file's URL alone.
    std::vector<std::filesystem::path> close() override;
    std::vector<std::filesystem::path> expectedFileURLs() const override { return {indexURL_}; }

    // The next segment number (tests).
    int currentSegmentIndex() const;
    // Runs a flush now, as the timer does; a failure passes on (tests).
    void flushNow();

private:
    void flushSegment();

    Logger logger_;
    std::filesystem::path directoryURL_;
    std::string filenamePrefix_;
    std::filesystem::path indexURL_;
    unsigned mode_;
    std::unique_ptr<StreamingJSONWriter> indexFile_;
    std::shared_ptr<platform::DispatchQueue> segmentCallbackQueue_;
    SegmentCallback segmentCallback_;
    // Touched on the queue only.
    int currentSegmentIndex_ = 0;
    std::vector<std::string> pendingEvents_;
    std::string lineStart_;
    CommitTimer segmentTask_;
    // Last, so that it is destroyed first: its thread may be running a timer
    // block that uses the members above.
    platform::DispatchQueue queue_{"SegmentedJSONWriter"};
};

}  // namespace ov
