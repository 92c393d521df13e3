#include "output/av_asset_writer_input_buffer_adaptor.h"

#include <string>

namespace ov {

AVAssetWriterInputBufferAdaptor::AVAssetWriterInputBufferAdaptor(
    std::shared_ptr<platform::AVAssetWriterInput> assetWriterInput, Logger logger)
    : unboundedBackpressureBuffer_(
          "UnboundedBufferBackpressureHandler",
          [input = assetWriterInput](const platform::CMSampleBuffer& sampleBuffer) {
              using Result = UnboundedBackpressureBuffer<platform::CMSampleBuffer>::HandlerResult;
              if (!input->isReadyForMoreMediaData()) return Result::notReadyForItem;
              // A refused append shows in the writer's error, which the
              // recorder observes; retrying the sample would not help.
              (void)input->append(sampleBuffer);
              return Result::handledItem;
          }),
      logger_(std::move(logger)),
      assetWriterInput_(std::move(assetWriterInput)) {}

void AVAssetWriterInputBufferAdaptor::append(platform::CMSampleBuffer sampleBuffer) {
    const auto itemsBuffered = unboundedBackpressureBuffer_.append(std::move(sampleBuffer));
    if (itemsBuffered >= 1)
        logger_.debug("Experiencing backpressure, buffering.",
                      [&] { return LogMetadata{{"itemsBuffered", std::to_string(itemsBuffered)}}; });
}

}  // namespace ov
