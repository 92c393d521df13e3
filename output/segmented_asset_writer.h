#pragma once
// An asset writer that hands out fragmented MPEG-4 segments instead of writing
// a file, with the delegate that stores them and keeps their playlist.

#include <filesystem>
#include <memory>
#include <string>

#include "output/segmented_asset_writer_delegate.h"
#include "platform/av_asset_writer.h"

namespace ov {

class SegmentedAssetWriter {
public:
    // segmentDuration is the preferred segment length in whole seconds.
    SegmentedAssetWriter(const std::filesystem::path& directoryURL, const std::string& filenamePrefix,
                         std::shared_ptr<platform::DispatchQueue> segmentCallbackQueue,
                         SegmentCallback segmentCallback, double segmentDuration, Logger logger);

    const std::shared_ptr<OVAssetWriterDelegateObjcImpl>& assetWriterDelegate() const { return assetWriterDelegate_; }
    const std::shared_ptr<SegmentedAssetWriterDelegate>& segmentedAssetWriterDelegate() const {
        return segmentedAssetWriterDelegate_;
    }
    const std::shared_ptr<platform::AVAssetWriter>& assetWriter() const { return assetWriter_; }

private:
    std::shared_ptr<OVAssetWriterDelegateObjcImpl> assetWriterDelegate_;
    std::shared_ptr<SegmentedAssetWriterDelegate> segmentedAssetWriterDelegate_;
    std::shared_ptr<platform::AVAssetWriter> assetWriter_;
};

}  // namespace ov
