#pragma once
// What segmented output tells its owner: the file URL of each finished segment.

#include <filesystem>
#include <functional>

namespace ov {

using SegmentCallback = std::function<void(const std::filesystem::path& segmentURL)>;

}  // namespace ov
