#include "output/av_asset_writer_input_drop_adaptor.h"

namespace ov {

AVAssetWriterInputDropAdaptor::AVAssetWriterInputDropAdaptor(
    std::shared_ptr<platform::AVAssetWriterInput> assetWriterInput, Logger logger)
    : logger_(std::move(logger)), assetWriterInput_(std::move(assetWriterInput)) {}

bool AVAssetWriterInputDropAdaptor::append(const platform::CMSampleBuffer& sampleBuffer) {
    const auto metadata = [&] {
        return LogMetadata{{"samplePTS", sampleBuffer.presentationTimeStamp().logDescription()}};
    };
    if (!assetWriterInput_->isReadyForMoreMediaData()) {
        logger_.debug("AVAssetWriterInput isn't ready, dropping frame.", metadata);
        return false;
    }
    if (assetWriterInput_->append(sampleBuffer)) return true;
    logger_.warning("Failed to append to AVAssetWriterInput.", metadata);
    return false;
}

}  // namespace ov
