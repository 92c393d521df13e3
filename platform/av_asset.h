#pragma once
// AVURLAsset: what a finished (or cut short) media file offers a player.

#include <filesystem>

namespace ov::platform {

class AVURLAsset {
public:
    // Whether a player can open the file (a movie, an audio file or a
    // playlist with its segments) and read at least one packet of media from
    // it. Never throws.
    static bool isPlayable(const std::filesystem::path& path);
};

}  // namespace ov::platform
