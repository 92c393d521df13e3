#include "output/segmented_asset_writer.h"

namespace ov {

SegmentedAssetWriter::SegmentedAssetWriter(const std::filesystem::path& directoryURL, const std::string& filenamePrefix,
                                           std::shared_ptr<platform::DispatchQueue> segmentCallbackQueue,
                                           SegmentCallback segmentCallback, double segmentDuration, Logger logger) {
    assetWriter_ = platform::AVAssetWriter::make(platform::UTType::mpeg4Movie);
    assetWriter_->setOutputFileTypeProfile(platform::AVFileTypeProfileMPEG4AppleHLS);
    assetWriter_->setPreferredOutputSegmentInterval(platform::CMTime::makeWithSeconds(segmentDuration, 1));
    assetWriter_->setInitialSegmentStartTime(platform::CMTime::makeWithSeconds(0, 1));
    segmentedAssetWriterDelegate_ = std::make_shared<SegmentedAssetWriterDelegate>(
        directoryURL, filenamePrefix, std::move(segmentCallbackQueue), std::move(segmentCallback), assetWriter_,
        std::move(logger));
    assetWriterDelegate_ = std::make_shared<OVAssetWriterDelegateObjcImpl>(segmentedAssetWriterDelegate_);
    assetWriter_->setDelegate(assetWriterDelegate_);
}

}  // namespace ov
