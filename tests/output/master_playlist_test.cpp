// The master playlist's text for each combination of streams, and its failures.

#include <gtest/gtest.h>

#include "output/master_playlist.h"
#include "foundation/ov_error.h"

namespace ov::testing {
namespace {

MasterPlaylist screenValues() {
    MasterPlaylist p;
    p.audioChannelsCount = 2;
    p.audioTrackName = "System Audio";
    p.audioCodecName = "mp4a.40.2";
    p.videoTrackName = "Screen Recording";
    p.videoCodecName = "avc1.42e00a";
    p.videoResolution = MasterPlaylist::Resolution{1920, 1080};
    return p;
}

const MasterPlaylist::Variant audio{"/bundle/rec-audio.m3u8", 128000};
const MasterPlaylist::Variant video{"/bundle/rec-video.m3u8", 4000000};

template <class F>
OVError failureOf(F&& f) {
    try {
        f();
    } catch (const OVError& e) {
        return e;
    }
    ADD_FAILURE() << "expected an OVError";
    return OVError(OVError::Code::uncaughtError);
}

TEST(MasterPlaylistTest, JoinsAudioAndVideoVideoCodecFirst) {
    EXPECT_EQ(screenValues().generate(audio, video),
              "#EXTM3U\n"
              "#EXT-X-VERSION:6\n"
              "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio-stereo\",NAME=\"System Audio\",CHANNELS=\"2\","
              "URI=\"rec-audio.m3u8\"\n"
              "#EXT-X-STREAM-INF:BANDWIDTH=4128000,RESOLUTION=1920x1080,CODECS=\"avc1.42e00a,mp4a.40.2\","
              "AUDIO=\"audio-stereo\"\n"
              "rec-video.m3u8");
}

TEST(MasterPlaylistTest, NamesTheAudioGroupByChannelCount) {
    auto p = screenValues();
    const auto groupLine = [&] {
        const auto text = p.generate(audio, video);
        const auto start = text.find("GROUP-ID=\"") + 10;
        return text.substr(start, text.find('"', start) - start);
    };
    p.audioChannelsCount = 1;
    EXPECT_EQ(groupLine(), "audio-mono");
    p.audioChannelsCount = 6;
    EXPECT_EQ(groupLine(), "audio-multichannel-6");
    EXPECT_NE(p.generate(audio, video).find("CHANNELS=\"6\""), std::string::npos);
    EXPECT_NE(p.generate(audio, video).find("AUDIO=\"audio-multichannel-6\""), std::string::npos);
}

TEST(MasterPlaylistTest, SingleStreamsAndNone) {
    EXPECT_EQ(screenValues().generate(std::nullopt, video),
              "#EXTM3U\n#EXT-X-VERSION:6\n"
              "#EXT-X-STREAM-INF:BANDWIDTH=4000000,RESOLUTION=1920x1080,CODECS=\"avc1.42e00a\"\n"
              "rec-video.m3u8");
    EXPECT_EQ(screenValues().generate(audio, std::nullopt),
              "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-STREAM-INF:BANDWIDTH=128000,CODECS=\"mp4a.40.2\"\nrec-audio.m3u8");
    EXPECT_EQ(MasterPlaylist{}.generate(std::nullopt, std::nullopt), "#EXTM3U\n#EXT-X-VERSION:6");

    // Audio alone needs only its codec.
    MasterPlaylist audioOnly;
    audioOnly.audioCodecName = "mp4a.40.2";
    EXPECT_NO_THROW(audioOnly.generate(audio, std::nullopt));
    // Video alone needs no audio value.
    MasterPlaylist videoOnly;
    videoOnly.videoCodecName = "hvc1.1.1.L150.00";
    videoOnly.videoResolution = MasterPlaylist::Resolution{-1, 720};
    EXPECT_EQ(videoOnly.generate(std::nullopt, video),
              "#EXTM3U\n#EXT-X-VERSION:6\n"
              "#EXT-X-STREAM-INF:BANDWIDTH=4000000,RESOLUTION=-1x720,CODECS=\"hvc1.1.1.L150.00\"\nrec-video.m3u8");
}

TEST(MasterPlaylistTest, MissingAudioValuesFailWithAllThreeInTheUserInfo) {
    const auto check = [](MasterPlaylist p, const std::optional<MasterPlaylist::Variant>& v,
                          const OVError::UserInfo& expected) {
        const auto e = failureOf([&] { p.generate(audio, v); });
        EXPECT_EQ(e.code(), OVError::Code::internalError);
        EXPECT_EQ(e.debugDescription(), "Missing required fields for audio");
        EXPECT_EQ(e._userInfo(), expected);
    };
    auto p = screenValues();
    p.audioChannelsCount.reset();
    check(p, video, {{"audioChannelsCount", "nil"}, {"audioTrackName", "System Audio"}, {"audioCodecName", "mp4a.40.2"}});
    p = screenValues();
    p.audioTrackName.reset();
    check(p, video, {{"audioChannelsCount", "2"}, {"audioTrackName", "nil"}, {"audioCodecName", "mp4a.40.2"}});
    p = screenValues();
    p.audioCodecName.reset();
    check(p, video, {{"audioChannelsCount", "2"}, {"audioTrackName", "System Audio"}, {"audioCodecName", "nil"}});
    check(p, std::nullopt, {{"audioChannelsCount", "2"}, {"audioTrackName", "System Audio"}, {"audioCodecName", "nil"}});
}

TEST(MasterPlaylistTest, MissingVideoValuesFailWithBothInTheUserInfo) {
    const auto check = [](MasterPlaylist p, const std::optional<MasterPlaylist::Variant>& a,
                          const OVError::UserInfo& expected) {
        const auto e = failureOf([&] { p.generate(a, video); });
        EXPECT_EQ(e.code(), OVError::Code::internalError);
        EXPECT_EQ(e.debugDescription(), "Missing required fields for video");
        EXPECT_EQ(e._userInfo(), expected);
    };
    auto p = screenValues();
    p.videoCodecName.reset();
    check(p, audio, {{"videoCodecName", "nil"}, {"videoResolution", "1920x1080"}});
    check(p, std::nullopt, {{"videoCodecName", "nil"}, {"videoResolution", "1920x1080"}});
    p = screenValues();
    p.videoResolution.reset();
    check(p, audio, {{"videoCodecName", "avc1.42e00a"}, {"videoResolution", "nil"}});

    // With both streams the audio values are checked first.
    p.audioTrackName.reset();
    EXPECT_EQ(failureOf([&] { p.generate(audio, video); }).debugDescription(), "Missing required fields for audio");
    // The video track name is never needed.
    p = screenValues();
    p.videoTrackName.reset();
    EXPECT_NO_THROW(p.generate(audio, video));
}

}  // namespace
}  // namespace ov::testing
