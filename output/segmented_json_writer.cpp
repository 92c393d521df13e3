#include "output/segmented_json_writer.h"

#include <fmt/format.h>

#include "foundation/platform_error.h"
#include "output/atomic_file_writer.h"

namespace ov {

SegmentedJSONWriter::SegmentedJSONWriter(std::filesystem::path directoryURL, std::string filenamePrefix,
                                         double segmentInterval,
                                         std::shared_ptr<platform::DispatchQueue> segmentCallbackQueue,
                                         SegmentCallback segmentCallback, const Logger& logger, unsigned mode)
    : logger_(logger.with("SegmentedJSONWriter")),
      directoryURL_(std::move(directoryURL)),
      filenamePrefix_(std::move(filenamePrefix)),
      indexURL_(directoryURL_ / (filenamePrefix_ + ".index.json")),
      mode_(mode),
      indexFile_(std::make_unique<StreamingJSONWriter>(indexURL_, 0.5, logger, mode)),
      segmentCallbackQueue_(segmentCallbackQueue ? std::move(segmentCallbackQueue)
                                                 : std::make_shared<platform::DispatchQueue>("SegmentedJSONWriterQueue")),
      segmentCallback_(std::move(segmentCallback)),
      segmentTask_(queue_, std::chrono::nanoseconds(static_cast<int64_t>(segmentInterval * 1e9)), [this] {
          try {
              flushSegment();
          } catch (const std::exception& error) {
              logger_.error("Failed to flush segment.", [&] {
                  return LogMetadata{{"error", platform::describeError(error).debugDescription}};
              });
          }
      }) {
    segmentTask_.start();
}

SegmentedJSONWriter::~SegmentedJSONWriter() {
    if (segmentTask_.cancel()) logger_.warning("Deallocated without closing segmentTask first.");
}

void SegmentedJSONWriter::writeJSON(const nlohmann::json& event) {
    // Encoded before the queue: a value the encoder refuses changes nothing.
    std::string bytes = event.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
    queue_.sync([&] {
        pendingEvents_.push_back(lineStart_ + bytes);
        lineStart_ = StreamingJSONWriter::lineEnding;
    });
}

void SegmentedJSONWriter::flushSegment() {
    if (pendingEvents_.empty()) {
        logger_.debug("No events to flush.");
        return;
    }
    const std::string name = fmt::format("{}-{:04d}.json", filenamePrefix_, currentSegmentIndex_);
    const auto url = directoryURL_ / name;
    logger_.debug("Flushing segment.", [&] {
        return LogMetadata{{"segment", std::to_string(currentSegmentIndex_)},
                           {"path", url.string()},
                           {"events", std::to_string(pendingEvents_.size())}};
    });
    {
        AtomicFileWriter writer(url, mode_);
        auto& handle = writer.fileHandle();
        std::string bytes(StreamingJSONWriter::fileHeader);
        for (const auto& event : pendingEvents_) bytes += event;
        bytes += StreamingJSONWriter::fileFooter;
        handle.write(bytes);
        writer.close();
    }
    indexFile_->write(nlohmann::json(name));
    segmentCallbackQueue_->async([callback = segmentCallback_, url] {
        if (callback) callback(url);
    });
    lineStart_.clear();
    pendingEvents_.clear();
    ++currentSegmentIndex_;
}

void SegmentedJSONWriter::flushNow() {
    queue_.sync([this] { flushSegment(); });
}

int SegmentedJSONWriter::currentSegmentIndex() const {
    return const_cast<platform::DispatchQueue&>(queue_).sync([this] { return currentSegmentIndex_; });
}

std::vector<std::filesystem::path> SegmentedJSONWriter::close() {
    logger_.debug("Closing segmented JSON writer.");
    segmentTask_.cancel();
    queue_.sync([this] { flushSegment(); });
    logger_.debug("Closed segmented JSON writer successfully.");
    return indexFile_->close();
}

}  // namespace ov
