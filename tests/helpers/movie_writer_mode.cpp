// "write-movie <path>": records synthetic video and a tone into a movie file in
// real time until it is killed, printing the seconds written so far, so that a
// test can kill it mid-recording and check what a crash leaves behind.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

#include "helpers/helper_modes.h"
#include "platform/av_asset_writer.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cv_pixel_buffer.h"

using namespace ov::platform;

static ov::testing::HelperMode movieWriterMode("write-movie", [](const std::vector<std::string>& args) {
    if (args.empty()) return 2;
    auto writer = AVAssetWriter::make(args[0], AVFileType::mov);
    auto video = AVAssetWriterInput::make(
        AVMediaType::video, {{AVVideoCodecKey, AVVideoCodecTypeH264}, {AVVideoWidthKey, 320}, {AVVideoHeightKey, 240}});
    auto audio = AVAssetWriterInput::make(
        AVMediaType::audio, {{AVFormatIDKey, kAudioFormatMPEG4AAC}, {AVSampleRateKey, 48000}, {AVNumberOfChannelsKey, 1}});
    writer->add(video);
    writer->add(audio);
    if (!writer->startWriting()) return 3;
    writer->startSession(kCMTimeZero);
    auto image = CVPixelBuffer::make(320, 240, kCVPixelFormatType_32BGRA);
    auto format = *AVAudioFormat::make(AVAudioCommonFormat::pcmFormatFloat32, 48000, 1, false);
    auto pcm = AVAudioPCMBuffer::make(format, 1600);
    pcm->setFrameLength(1600);
    std::printf("started\n");
    std::fflush(stdout);
    const auto begin = std::chrono::steady_clock::now();
    for (int64_t f = 0;; ++f) {
        for (int i = 0; i < 1600; ++i)
            pcm->floatChannelData()[0][i] = float(0.2 * std::sin(2 * M_PI * 440 * double(f * 1600 + i) / 48000));
        while (!video->append(CMSampleBuffer::makeForImageBuffer(
            image, CMSampleTimingInfo{CMTime(1, 30), CMTime(f, 30), kCMTimeInvalid})))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        while (!audio->append(CMSampleBuffer::makeAudio(*pcm, CMTime(f * 1600, 48000))))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (f % 30 == 29) {
            std::printf("written %.3f\n", double(f + 1) / 30);
            std::fflush(stdout);
        }
        std::this_thread::sleep_until(begin + std::chrono::microseconds((f + 1) * 1000000 / 30));
    }
    return 0;
});
