#pragma once
// SCStreamConfiguration: how a screen stream captures. A plain record; the
// defaults are the platform's.

#include <cstdint>
#include <optional>
#include <string>

#include "platform/cg_geometry.h"
#include "platform/cm_time.h"
#include "platform/cv_pixel_buffer.h"

namespace ov::platform {

enum class SCCaptureResolutionType : int { automatic = 0, best = 1, nominal = 2 };

inline constexpr OSType kCVPixelFormatType_ARGB2101010LEPacked = OV_FOURCC('l', '1', '0', 'r');
inline constexpr const char* kCGColorSpaceSRGB = "kCGColorSpaceSRGB";
inline constexpr const char* kCGColorSpaceDisplayP3 = "kCGColorSpaceDisplayP3";

struct SCStreamConfiguration {
    // Output size in pixels; 0 takes the source's own size.
    int32_t width = 0;
    int32_t height = 0;
    // The shortest time between two frames; zero or invalid: as often as the
    // source changes.
    CMTime minimumFrameInterval = kCMTimeZero;
    // The part of the source to capture, in its points; empty: all of it.
    std::optional<CGRect> sourceRect;
    bool scalesToFit = true;
    bool showsCursor = true;
    int32_t queueDepth = 8;
    OSType pixelFormat = kCVPixelFormatType_32BGRA;
    std::string colorSpaceName = kCGColorSpaceSRGB;
    SCCaptureResolutionType captureResolution = SCCaptureResolutionType::automatic;
    bool capturesAudio = false;
    int32_t sampleRate = 48000;
    int32_t channelCount = 2;
    bool excludesCurrentProcessAudio = false;

    // "SCStreamConfiguration(width: 1920, height: 1080, ...)": for logs.
    std::string description() const;
};

}  // namespace ov::platform
