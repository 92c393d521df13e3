#include "output/master_playlist.h"

#include <fmt/format.h>

#include <vector>

#include "foundation/ov_error.h"

namespace ov {
namespace {

std::string describe(const std::optional<std::string>& value) { return value.value_or("nil"); }
std::string describe(const std::optional<int>& value) { return value ? std::to_string(*value) : "nil"; }
std::string describe(const std::optional<MasterPlaylist::Resolution>& value) {
    return value ? fmt::format("{}x{}", value->width, value->height) : "nil";
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i) text += '\n';
        text += lines[i];
    }
    return text;
}

}  // namespace

std::string MasterPlaylist::generate(const std::optional<Variant>& audio, const std::optional<Variant>& video) const {
    const auto audioFailure = [&] {
        return OVError(OVError::Code::internalError, "Missing required fields for audio", std::nullopt,
                       {{"audioChannelsCount", describe(audioChannelsCount)},
                        {"audioTrackName", describe(audioTrackName)},
                        {"audioCodecName", describe(audioCodecName)}});
    };
    const auto checkVideo = [&] {
        if (!videoCodecName || !videoResolution)
            throw OVError(OVError::Code::internalError, "Missing required fields for video", std::nullopt,
                          {{"videoCodecName", describe(videoCodecName)},
                           {"videoResolution", describe(videoResolution)}});
    };

    std::vector<std::string> lines{"#EXTM3U", "#EXT-X-VERSION:6"};
    if (audio && video) {
        if (!audioChannelsCount || !audioTrackName || !audioCodecName) throw audioFailure();
        checkVideo();
        const int channels = *audioChannelsCount;
        const std::string groupID = channels == 1   ? std::string("audio-mono")
                                    : channels == 2 ? std::string("audio-stereo")
                                                    : "audio-multichannel-" + std::to_string(channels);
        const int64_t bandwidth = audio->second + video->second;
        lines.push_back(fmt::format(R"(#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="{}",NAME="{}",CHANNELS="{}",URI="{}")",
                                    groupID, *audioTrackName, channels, audio->first.filename().string()));
        // Video codec first, then audio.
        lines.push_back(fmt::format(R"(#EXT-X-STREAM-INF:BANDWIDTH={},RESOLUTION={}x{},CODECS="{},{}",AUDIO="{}")",
                                    bandwidth, videoResolution->width, videoResolution->height, *videoCodecName,
                                    *audioCodecName, groupID));
        lines.push_back(video->first.filename().string());
    } else if (video) {
        checkVideo();
        lines.push_back(fmt::format(R"(#EXT-X-STREAM-INF:BANDWIDTH={},RESOLUTION={}x{},CODECS="{}")", video->second,
                                    videoResolution->width, videoResolution->height, *videoCodecName));
        lines.push_back(video->first.filename().string());
    } else if (audio) {
        if (!audioCodecName) throw audioFailure();
        lines.push_back(fmt::format(R"(#EXT-X-STREAM-INF:BANDWIDTH={},CODECS="{}")", audio->second, *audioCodecName));
        lines.push_back(audio->first.filename().string());
    }
    return joined(lines);
}

}  // namespace ov
