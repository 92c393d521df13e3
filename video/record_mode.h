#pragma once
// How a video recorder encodes: codec and colour space together, and what
// each choice asks of capture and of the encoder. Shared by every recorder
// that writes video (screens, cameras, devices).

#include <string>

#include "output/ov_logger.h"
#include "platform/av_capture_output.h"
#include "platform/cv_pixel_buffer.h"
#include "session/schema_options.h"
#include "video/codec_aligned_video_size.h"

namespace ov {

enum class RecordMode { h264SRGB, hevcSRGB, hevcDisplayP3 };

// The mode of an item's codec and colour space. Display P3 can't be carried
// by our H.264 path: it falls back to sRGB after a warning, logged by this
// call (so once per recorder that calls it once).
RecordMode makeRecordMode(OVColorSpace colorSpace, OVVideoCodec videoCodec, const Logger& logger);

bool isHEVC(RecordMode mode);
// "h264SRGB", ...: for logs.
std::string_view caseName(RecordMode mode);

// AVVideoColorPropertiesKey's value: Rec. 709 transfer and matrix, with P3-D65
// primaries for Display P3 and Rec. 709 ones otherwise.
platform::AVSettingsDictionary videoColorProperties(RecordMode mode);

// The largest frame the encoder takes: 7680×4320 for HEVC, 4096×2304 for H.264.
VideoDimensions codecLimit(RecordMode mode);

// The pixel format and colour space a capture delivers for the mode.
platform::OSType capturePixelFormat(RecordMode mode);
const char* captureColorSpaceName(RecordMode mode);

// AVVideoCodecKey's value, and the codec as a master playlist names it.
const char* videoCodecType(RecordMode mode);
const char* playlistVideoCodecName(RecordMode mode);

}  // namespace ov
