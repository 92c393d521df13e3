#include "video/record_mode.h"

#include "platform/av_asset_writer.h"
#include "platform/sc_stream_configuration.h"

namespace ov {

RecordMode makeRecordMode(OVColorSpace colorSpace, OVVideoCodec videoCodec, const Logger& logger) {
    if (videoCodec == OVVideoCodec::hevc)
        return colorSpace == OVColorSpace::displayP3 ? RecordMode::hevcDisplayP3 : RecordMode::hevcSRGB;
    if (colorSpace == OVColorSpace::displayP3)
        logger.warning("Cannot record Display P3 with H.264 video codec. Falling back to sRGB color space instead.");
    return RecordMode::h264SRGB;
}

bool isHEVC(RecordMode mode) { return mode != RecordMode::h264SRGB; }

std::string_view caseName(RecordMode mode) {
    switch (mode) {
        case RecordMode::h264SRGB: return "h264SRGB";
        case RecordMode::hevcSRGB: return "hevcSRGB";
        case RecordMode::hevcDisplayP3: return "hevcDisplayP3";
    }
    return "unknown";
}

platform::AVSettingsDictionary videoColorProperties(RecordMode mode) {
    using namespace platform;
    return {{AVVideoTransferFunctionKey, AVVideoTransferFunction_ITU_R_709_2},
            {AVVideoYCbCrMatrixKey, AVVideoYCbCrMatrix_ITU_R_709_2},
            {AVVideoColorPrimariesKey,
             mode == RecordMode::hevcDisplayP3 ? AVVideoColorPrimaries_P3_D65 : AVVideoColorPrimaries_ITU_R_709_2}};
}

VideoDimensions codecLimit(RecordMode mode) { return isHEVC(mode) ? VideoDimensions{7680, 4320} : VideoDimensions{4096, 2304}; }

platform::OSType capturePixelFormat(RecordMode mode) {
    return mode == RecordMode::hevcDisplayP3 ? platform::kCVPixelFormatType_ARGB2101010LEPacked
                                             : platform::kCVPixelFormatType_32BGRA;
}

const char* captureColorSpaceName(RecordMode mode) {
    return mode == RecordMode::hevcDisplayP3 ? platform::kCGColorSpaceDisplayP3 : platform::kCGColorSpaceSRGB;
}

const char* videoCodecType(RecordMode mode) {
    return isHEVC(mode) ? platform::AVVideoCodecTypeHEVC : platform::AVVideoCodecTypeH264;
}

const char* playlistVideoCodecName(RecordMode mode) { return isHEVC(mode) ? "hvc1.1.1.L150.00" : "avc1.42e00a"; }

}  // namespace ov
