#pragma once
// Feeds an asset writer input where a late sample is worth less than a
// dropped one (a screen frame, say).

#include <memory>

#include "output/ov_logger.h"
#include "platform/av_asset_writer.h"
#include "platform/cm_sample_buffer.h"

namespace ov {

// Feeds an asset writer input and drops what it can't take right now.
class AVAssetWriterInputDropAdaptor {
public:
    AVAssetWriterInputDropAdaptor(std::shared_ptr<platform::AVAssetWriterInput> assetWriterInput, Logger logger);

    // True when the input took the sample. False is no error here: the caller
    // decides what a dropped sample means.
    bool append(const platform::CMSampleBuffer& sampleBuffer);

    const std::shared_ptr<platform::AVAssetWriterInput>& assetWriterInput() const { return assetWriterInput_; }

private:
    Logger logger_;
    std::shared_ptr<platform::AVAssetWriterInput> assetWriterInput_;
};

}  // namespace ov
