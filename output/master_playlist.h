#pragma once
// The master playlist that joins the audio and the video media playlist of a
// segmented recording into one stream.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace ov {

struct MasterPlaylist {
    struct Resolution {
        int32_t width = 0;
        int32_t height = 0;
    };
    // A media playlist and its peak bit rate.
    using Variant = std::pair<std::filesystem::path, int64_t>;

    std::optional<int> audioChannelsCount;
    std::optional<std::string> audioTrackName;
    std::optional<std::string> audioCodecName;
    // Kept for the owner's logs; the playlist has no place for it.
    std::optional<std::string> videoTrackName;
    std::optional<std::string> videoCodecName;
    std::optional<Resolution> videoResolution;

    // The playlist text, without a line break at the end. Fails with OVError
    // internalError when a value that the given streams need is missing; its
    // user info names every needed value, "nil" for the missing ones.
    std::string generate(const std::optional<Variant>& audio, const std::optional<Variant>& video) const;
};

}  // namespace ov
