// "write-segments <dir>": records synthetic video and a tone as segmented
// output (1 s segments) in real time until it is killed, printing each
// segment file as it is announced.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

#include "helpers/helper_modes.h"
#include "output/master_playlist.h"
#include "output/output_asset_writers.h"
#include "platform/av_asset_writer.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cv_pixel_buffer.h"

using namespace ov::platform;

static ov::testing::HelperMode segmentWriterMode("write-segments", [](const std::vector<std::string>& args) {
    if (args.empty()) return 2;
    ov::MasterPlaylist playlist;
    playlist.audioChannelsCount = 1;
    playlist.audioTrackName = "Microphone";
    playlist.audioCodecName = "mp4a.40.2";
    playlist.videoCodecName = "avc1.64001f";
    playlist.videoResolution = ov::MasterPlaylist::Resolution{320, 240};
    ov::MultipleStreamsOutputAssetWriters writers(
        args[0], "rec",
        [](const std::filesystem::path& url) {
            std::printf("segment %s\n", url.filename().c_str());
            std::fflush(stdout);
        },
        1, 1, playlist, ov::Logger("SegmentWriterMode"));
    auto video = AVAssetWriterInput::make(
        AVMediaType::video, {{AVVideoCodecKey, AVVideoCodecTypeH264}, {AVVideoWidthKey, 320}, {AVVideoHeightKey, 240}});
    auto audio = AVAssetWriterInput::make(
        AVMediaType::audio, {{AVFormatIDKey, kAudioFormatMPEG4AAC}, {AVSampleRateKey, 48000}, {AVNumberOfChannelsKey, 1}});
    writers.videoAssetWriter()->add(video);
    writers.audioAssetWriter()->add(audio);
    writers.startWriting();
    writers.videoAssetWriter()->startSession(kCMTimeZero);
    writers.audioAssetWriter()->startSession(kCMTimeZero);
    auto image = CVPixelBuffer::make(320, 240, kCVPixelFormatType_32BGRA);
    auto pcm = AVAudioPCMBuffer::make(*AVAudioFormat::make(AVAudioCommonFormat::pcmFormatFloat32, 48000, 1, false), 1600);
    pcm->setFrameLength(1600);
    const auto begin = std::chrono::steady_clock::now();
    for (int64_t f = 0;; ++f) {
        for (int i = 0; i < 1600; ++i)
            pcm->floatChannelData()[0][i] = float(0.2 * std::sin(2 * M_PI * 440 * double(f * 1600 + i) / 48000));
        video->append(CMSampleBuffer::makeForImageBuffer(image, CMSampleTimingInfo{CMTime(1, 30), CMTime(f, 30), kCMTimeInvalid}));
        audio->append(CMSampleBuffer::makeAudio(*pcm, CMTime(f * 1600, 48000)));
        std::this_thread::sleep_until(begin + std::chrono::microseconds((f + 1) * 1000000 / 30));
    }
    return 0;
});
