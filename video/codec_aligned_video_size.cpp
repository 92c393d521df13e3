#include "video/codec_aligned_video_size.h"

#include <algorithm>
#include <cmath>

namespace ov {

VideoDimensions codecAlignedVideoSize(const platform::CGSize& source, double scaleFactor, VideoDimensions maxSize) {
    const double w = source.width * scaleFactor;
    const double h = source.height * scaleFactor;
    const double shrink = std::max({w / maxSize.width, h / maxSize.height, 1.0});
    const auto even = [](double side) { return static_cast<int32_t>(std::trunc(side)) & ~int32_t{1}; };
    return {even(w / shrink), even(h / shrink)};
}

}  // namespace ov
