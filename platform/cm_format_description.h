#pragma once
// CMFormatDescription: what kind of samples a sample buffer holds. Audio
// descriptions carry the stream's basic description (rate, channels, sample
// format, layout); video descriptions carry the pixel format or codec as the
// media subtype, the picture's dimensions and, where known, a frame duration.
// Descriptions are immutable and shared; two are equal when every field is.

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/cm_time.h"
#include "platform/core_audio_types.h"
#include "platform/cv_pixel_buffer.h"

namespace ov::platform {

using CMMediaType = FourCharCode;
inline constexpr CMMediaType kCMMediaType_Audio = OV_FOURCC('s', 'o', 'u', 'n');
inline constexpr CMMediaType kCMMediaType_Video = OV_FOURCC('v', 'i', 'd', 'e');

struct CMVideoDimensions {
    int32_t width = 0;
    int32_t height = 0;
    bool operator==(const CMVideoDimensions&) const = default;
};

class CMFormatDescription;
using CMFormatDescriptionRef = std::shared_ptr<const CMFormatDescription>;

class CMFormatDescription {
public:
    // Extension keys of video descriptions that writers turn into colour tags.
    static constexpr const char* kColorPrimaries = "ColorPrimaries";
    static constexpr const char* kTransferFunction = "TransferFunction";
    static constexpr const char* kYCbCrMatrix = "YCbCrMatrix";

    // An audio description. Fails (null) without a positive sample rate, a
    // format or a channel, and for linear PCM whose sizes do not add up.
    static CMFormatDescriptionRef makeAudio(const AudioStreamBasicDescription& description);
    // A video description of `codecType` (a pixel format for raw pictures).
    // Fails (null) for non-positive dimensions.
    static CMFormatDescriptionRef makeVideo(FourCharCode codecType, CMVideoDimensions dimensions,
                                            std::map<std::string, std::string> extensions = {},
                                            CMTime frameDuration = kCMTimeInvalid);
    // The description of raw pictures like `pixelBuffer`.
    static CMFormatDescriptionRef makeForImageBuffer(const CVPixelBuffer& pixelBuffer,
                                                     std::map<std::string, std::string> extensions = {});

    CMMediaType mediaType() const { return mediaType_; }
    FourCharCode mediaSubType() const { return mediaSubType_; }
    // Present for audio descriptions only.
    const std::optional<AudioStreamBasicDescription>& audioStreamBasicDescription() const { return asbd_; }
    // Zero for audio descriptions.
    CMVideoDimensions dimensions() const { return dimensions_; }
    // Invalid unless the source said.
    CMTime frameDuration() const { return frameDuration_; }
    const std::map<std::string, std::string>& extensions() const { return extensions_; }
    std::optional<std::string> extension(const std::string& key) const;

    bool matchesImageBuffer(const CVPixelBuffer& pixelBuffer) const;

    bool operator==(const CMFormatDescription& other) const;

    // "audio lpcm 48000 Hz 2 ch float32 interleaved", "video BGRA 1920x1080": for logs.
    std::string description() const;

private:
    CMFormatDescription() = default;

    CMMediaType mediaType_ = 0;
    FourCharCode mediaSubType_ = 0;
    std::optional<AudioStreamBasicDescription> asbd_;
    CMVideoDimensions dimensions_;
    CMTime frameDuration_;
    std::map<std::string, std::string> extensions_;
};

// Equal descriptions, or both absent.
bool CMFormatDescriptionEqual(const CMFormatDescriptionRef& lhs, const CMFormatDescriptionRef& rhs);

}  // namespace ov::platform
