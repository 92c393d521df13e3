#pragma once
// Feeds an asset writer input without ever dropping a sample: what the input
// can't take yet waits in an unbounded buffer and goes first at the next append.

#include <memory>

#include "output/ov_logger.h"
#include "platform/av_asset_writer.h"
#include "platform/cm_sample_buffer.h"
#include "output/unbounded_backpressure_buffer.h"

namespace ov {

class AVAssetWriterInputBufferAdaptor {
public:
    AVAssetWriterInputBufferAdaptor(std::shared_ptr<platform::AVAssetWriterInput> assetWriterInput, Logger logger);

    // Called from one queue, one call at a time.
    void append(platform::CMSampleBuffer sampleBuffer);

    const UnboundedBackpressureBuffer<platform::CMSampleBuffer>& unboundedBackpressureBuffer() const {
        return unboundedBackpressureBuffer_;
    }
    UnboundedBackpressureBuffer<platform::CMSampleBuffer>& unboundedBackpressureBuffer() {
        return unboundedBackpressureBuffer_;
    }
    const std::shared_ptr<platform::AVAssetWriterInput>& assetWriterInput() const { return assetWriterInput_; }

private:
    UnboundedBackpressureBuffer<platform::CMSampleBuffer> unboundedBackpressureBuffer_;
    Logger logger_;
    std::shared_ptr<platform::AVAssetWriterInput> assetWriterInput_;
};

}  // namespace ov
