#include "platform/cm_format_description.h"

#include <cmath>

#include <fmt/format.h>

#include "platform/double_description.h"

namespace ov::platform {

namespace {

bool sameASBD(const AudioStreamBasicDescription& a, const AudioStreamBasicDescription& b) {
    return a.mSampleRate == b.mSampleRate && a.mFormatID == b.mFormatID && a.mFormatFlags == b.mFormatFlags &&
           a.mBytesPerPacket == b.mBytesPerPacket && a.mFramesPerPacket == b.mFramesPerPacket &&
           a.mBytesPerFrame == b.mBytesPerFrame && a.mChannelsPerFrame == b.mChannelsPerFrame &&
           a.mBitsPerChannel == b.mBitsPerChannel;
}

std::string sampleFormatName(const AudioStreamBasicDescription& d) {
    const char* kind = (d.mFormatFlags & kAudioFormatFlagIsFloat)           ? "float"
                       : (d.mFormatFlags & kAudioFormatFlagIsSignedInteger) ? "int"
                                                                            : "uint";
    return fmt::format("{}{}", kind, d.mBitsPerChannel);
}

}  // namespace

CMFormatDescriptionRef CMFormatDescription::makeAudio(const AudioStreamBasicDescription& d) {
    if (!(d.mSampleRate > 0) || !std::isfinite(d.mSampleRate) || d.mChannelsPerFrame == 0 || d.mFormatID == 0)
        return nullptr;
    if (d.mFormatID == kAudioFormatLinearPCM) {
        const bool nonInterleaved = d.mFormatFlags & kAudioFormatFlagIsNonInterleaved;
        const uint32_t channelsPerBuffer = nonInterleaved ? 1 : d.mChannelsPerFrame;
        const uint64_t minimumBytes = uint64_t{channelsPerBuffer} * ((d.mBitsPerChannel + 7) / 8);
        if (d.mBitsPerChannel == 0 || d.mFramesPerPacket != 1 || d.mBytesPerPacket != d.mBytesPerFrame ||
            d.mBytesPerFrame < minimumBytes)
            return nullptr;
    }
    auto description = std::shared_ptr<CMFormatDescription>(new CMFormatDescription());
    description->mediaType_ = kCMMediaType_Audio;
    description->mediaSubType_ = d.mFormatID;
    description->asbd_ = d;
    return description;
}

CMFormatDescriptionRef CMFormatDescription::makeVideo(FourCharCode codecType, CMVideoDimensions dimensions,
                                                      std::map<std::string, std::string> extensions,
                                                      CMTime frameDuration) {
    if (dimensions.width <= 0 || dimensions.height <= 0 || codecType == 0) return nullptr;
    auto description = std::shared_ptr<CMFormatDescription>(new CMFormatDescription());
    description->mediaType_ = kCMMediaType_Video;
    description->mediaSubType_ = codecType;
    description->dimensions_ = dimensions;
    description->extensions_ = std::move(extensions);
    description->frameDuration_ = frameDuration;
    return description;
}

CMFormatDescriptionRef CMFormatDescription::makeForImageBuffer(const CVPixelBuffer& pixelBuffer,
                                                               std::map<std::string, std::string> extensions) {
    return makeVideo(pixelBuffer.pixelFormatType(),
                     {static_cast<int32_t>(pixelBuffer.width()), static_cast<int32_t>(pixelBuffer.height())},
                     std::move(extensions));
}

std::optional<std::string> CMFormatDescription::extension(const std::string& key) const {
    auto it = extensions_.find(key);
    if (it == extensions_.end()) return std::nullopt;
    return it->second;
}

bool CMFormatDescription::matchesImageBuffer(const CVPixelBuffer& pixelBuffer) const {
    return mediaType_ == kCMMediaType_Video && mediaSubType_ == pixelBuffer.pixelFormatType() &&
           dimensions_.width == static_cast<int32_t>(pixelBuffer.width()) &&
           dimensions_.height == static_cast<int32_t>(pixelBuffer.height());
}

bool CMFormatDescription::operator==(const CMFormatDescription& other) const {
    if (mediaType_ != other.mediaType_ || mediaSubType_ != other.mediaSubType_) return false;
    if (asbd_.has_value() != other.asbd_.has_value()) return false;
    if (asbd_ && !sameASBD(*asbd_, *other.asbd_)) return false;
    return dimensions_ == other.dimensions_ && extensions_ == other.extensions_ &&
           CMTimeCompare(frameDuration_, other.frameDuration_) == 0;
}

std::string CMFormatDescription::description() const {
    if (mediaType_ == kCMMediaType_Audio && asbd_) {
        const auto& d = *asbd_;
        std::string text = fmt::format("audio {} {} Hz {} ch", fourCharCodeString(d.mFormatID),
                                       doubleDescription(d.mSampleRate), d.mChannelsPerFrame);
        if (d.mFormatID == kAudioFormatLinearPCM)
            text += fmt::format(" {} {}", sampleFormatName(d),
                                (d.mFormatFlags & kAudioFormatFlagIsNonInterleaved) ? "non-interleaved" : "interleaved");
        return text;
    }
    return fmt::format("{} {} {}x{}", mediaType_ == kCMMediaType_Video ? "video" : fourCharCodeString(mediaType_),
                       fourCharCodeString(mediaSubType_), dimensions_.width, dimensions_.height);
}

bool CMFormatDescriptionEqual(const CMFormatDescriptionRef& lhs, const CMFormatDescriptionRef& rhs) {
    if (!lhs || !rhs) return !lhs && !rhs;
    return lhs == rhs || *lhs == *rhs;
}

}  // namespace ov::platform
