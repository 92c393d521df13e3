#pragma once
// The frame size an encoder gets: the source's aspect kept, within a maximum,
// both sides even. Shared by every recorder that writes video.

#include <cstdint>

#include "platform/cg_geometry.h"

namespace ov {

struct VideoDimensions {
    int32_t width = 0;
    int32_t height = 0;
    friend bool operator==(const VideoDimensions&, const VideoDimensions&) = default;
};

// source × scaleFactor, shrunk by max(w / maxWidth, h / maxHeight, 1) so that
// it fits, each side truncated and then made even by clearing its lowest bit
// (rounding down, never up, so the result never exceeds the maximum).
VideoDimensions codecAlignedVideoSize(const platform::CGSize& source, double scaleFactor, VideoDimensions maxSize);

}  // namespace ov
