// The FFmpeg writer, checked the way a player sees its files: through ffprobe.
#include "platform/av_asset_writer.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <thread>

#include "platform/av_audio_pcm_buffer.h"
#include "platform/cv_pixel_buffer.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"

namespace ov::platform {
namespace {

using testing::TempDirectory;

nlohmann::json probe(const std::filesystem::path& file) { return testing::probeMedia(file); }

const nlohmann::json* streamOf(const nlohmann::json& info, const std::string& type) {
    for (const auto& s : info["streams"])
        if (s["codec_type"] == type) return &s;
    return nullptr;
}

double number(const nlohmann::json& value) { return std::stod(value.get<std::string>()); }

// A sine tone whose buffers start at exact sample positions.
CMSampleBuffer tone(AVAudioCommonFormat sampleType, int rate, int channels, bool interleaved, int64_t firstFrame,
                    int frames, const CMTime& origin) {
    auto format = *AVAudioFormat::make(sampleType, rate, AVAudioChannelCount(channels), interleaved);
    auto pcm = AVAudioPCMBuffer::make(format, AVAudioFrameCount(frames));
    pcm->setFrameLength(AVAudioFrameCount(frames));
    for (int i = 0; i < frames; ++i) {
        const double v = 0.3 * std::sin(2 * M_PI * 440.0 * double(firstFrame + i) / rate);
        for (int c = 0; c < channels; ++c) {
            const size_t at = interleaved ? size_t(i) * channels + c : size_t(i);
            const int buffer = interleaved ? 0 : c;
            if (sampleType == AVAudioCommonFormat::pcmFormatFloat32)
                pcm->floatChannelData()[buffer][at] = float(v);
            else if (sampleType == AVAudioCommonFormat::pcmFormatInt16)
                pcm->int16ChannelData()[buffer][at] = int16_t(v * 32767);
            else
                pcm->int32ChannelData()[buffer][at] = int32_t(v * 2147483647.0);
        }
    }
    return CMSampleBuffer::makeAudio(*pcm, origin + CMTime(firstFrame, rate));
}

CMSampleBuffer frame(int width, int height, const CMTime& pts, uint8_t shade) {
    auto image = CVPixelBuffer::make(size_t(width), size_t(height), kCVPixelFormatType_32BGRA);
    for (size_t y = 0; y < image->height(); ++y) {
        uint8_t* row = image->baseAddress() + y * image->bytesPerRow();
        for (size_t x = 0; x < image->width(); ++x) {
            row[x * 4 + 0] = uint8_t(x + shade);
            row[x * 4 + 1] = uint8_t(y);
            row[x * 4 + 2] = shade;
            row[x * 4 + 3] = 255;
        }
    }
    return CMSampleBuffer::makeForImageBuffer(image, CMSampleTimingInfo{CMTime(1, 30), pts, kCMTimeInvalid});
}

AVSettingsDictionary aacSettings(int rate, int channels) {
    return {{AVFormatIDKey, kAudioFormatMPEG4AAC}, {AVSampleRateKey, rate}, {AVNumberOfChannelsKey, channels}};
}

AVSettingsDictionary videoSettings(const char* codec, int width, int height, const char* primaries) {
    return {{AVVideoCodecKey, codec},
            {AVVideoWidthKey, width},
            {AVVideoHeightKey, height},
            {AVVideoCompressionPropertiesKey, {{AVVideoMaxKeyFrameIntervalDurationKey, 1.0}}},
            {AVVideoColorPropertiesKey, {{AVVideoColorPrimariesKey, primaries}}}};
}

// Appends, waiting while the input isn't ready: what an adaptor's buffer does.
void appendWaiting(AVAssetWriterInput& input, const CMSampleBuffer& sample) {
    while (!input.isReadyForMoreMediaData()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(input.append(sample));
}

TEST(AVAssetWriterFile, AudioFileHoldsEverySampleOfEverySampleType) {
    struct Case {
        AVAudioCommonFormat type;
        bool interleaved;
        int channels;
    };
    for (const auto& c : {Case{AVAudioCommonFormat::pcmFormatFloat32, false, 2},
                          Case{AVAudioCommonFormat::pcmFormatInt16, true, 2},
                          Case{AVAudioCommonFormat::pcmFormatInt32, false, 1}}) {
        TempDirectory dir;
        const auto url = dir / "microphone.m4a";
        auto writer = AVAssetWriter::make((url).string(), AVFileType::m4a);
        auto input = AVAssetWriterInput::make(AVMediaType::audio, aacSettings(48000, c.channels));
        ASSERT_TRUE(writer->canAdd(input));
        writer->add(input);
        ASSERT_TRUE(writer->startWriting());
        const CMTime origin(1000, 1);
        writer->startSession(origin);
        // 2.5 s in buffers of varying length.
        int64_t at = 0;
        const int64_t total = 120000;
        for (int i = 0; at < total; ++i) {
            const int n = int(std::min<int64_t>(total - at, 441 + (i * 37) % 500));
            appendWaiting(*input, tone(c.type, 48000, c.channels, c.interleaved, at, n, origin));
            at += n;
        }
        writer->endSession(origin + CMTime(total, 48000));
        input->markAsFinished();
        writer->safe_finishWriting();
        ASSERT_EQ(writer->status(), AVAssetWriterStatus::completed);

        auto info = probe(url);
        const auto* audio = streamOf(info, "audio");
        ASSERT_TRUE(audio) << info.dump();
        EXPECT_EQ((*audio)["codec_name"], "aac");
        EXPECT_EQ((*audio)["sample_rate"], "48000");
        EXPECT_EQ((*audio)["channels"], c.channels);
        EXPECT_NEAR(number(info["format"]["duration"]), 2.5, 1024.0 / 48000) << info.dump();
        EXPECT_NE(info["format"]["format_name"].get<std::string>().find("mp4"), std::string::npos);
    }
}

TEST(AVAssetWriterFile, MovieWithVideoAndAudioStartsTogetherWithColourTags) {
    TempDirectory dir;
    const auto url = dir / "webcam.mov";
    auto writer = AVAssetWriter::make((url).string(), AVFileType::mov);
    auto video = AVAssetWriterInput::make(
        AVMediaType::video, videoSettings(AVVideoCodecTypeH264, 320, 240, AVVideoColorPrimaries_ITU_R_709_2));
    auto audio = AVAssetWriterInput::make(AVMediaType::audio, aacSettings(48000, 1));
    writer->add(video);
    writer->add(audio);
    ASSERT_TRUE(writer->startWriting());
    const CMTime origin(500, 1);
    writer->startSession(origin);
    // Audio arrives 40 ms late: the file still starts both at the same time.
    int64_t audioAt = 1920;
    for (int f = 0; f < 60; ++f) {
        appendWaiting(*video, frame(320, 240, origin + CMTime(f, 30), uint8_t(f * 4)));
        while (audioAt < int64_t(f + 1) * 1600) {
            appendWaiting(*audio,
                          tone(AVAudioCommonFormat::pcmFormatFloat32, 48000, 1, false, audioAt, 480, origin));
            audioAt += 480;
        }
    }
    writer->endSession(origin + CMTime(2, 1));
    writer->safe_finishWriting();

    auto info = probe(url);
    const auto* v = streamOf(info, "video");
    const auto* a = streamOf(info, "audio");
    ASSERT_TRUE(v && a) << info.dump();
    EXPECT_EQ((*v)["codec_name"], "h264");
    EXPECT_EQ((*v)["nb_read_packets"], "60");
    EXPECT_EQ((*v)["color_primaries"], "bt709");
    EXPECT_EQ((*v)["color_transfer"], "bt709");
    EXPECT_EQ((*v)["color_space"], "bt709");
    EXPECT_EQ((*v)["has_b_frames"], 0);
    EXPECT_NEAR(number((*a)["start_time"]), number((*v)["start_time"]), 1024.0 / 48000);
    EXPECT_NEAR(number(info["format"]["duration"]), 2.0, 0.05);
}

TEST(AVAssetWriterFile, HevcForDisplayP3IsTaggedAndTenBit) {
    TempDirectory dir;
    const auto url = dir / "screen.mp4";
    auto writer = AVAssetWriter::make((url).string(), AVFileType::mp4);
    auto video = AVAssetWriterInput::make(
        AVMediaType::video, videoSettings(AVVideoCodecTypeHEVC, 256, 144, AVVideoColorPrimaries_P3_D65));
    writer->add(video);
    ASSERT_TRUE(writer->startWriting());
    writer->startSession(CMTime(0, 1));
    for (int f = 0; f < 10; ++f) appendWaiting(*video, frame(256, 144, CMTime(f, 30), uint8_t(f)));
    writer->endSession(CMTime(10, 30));
    writer->safe_finishWriting();
    auto info = probe(url);
    const auto* v = streamOf(info, "video");
    ASSERT_TRUE(v) << info.dump();
    EXPECT_EQ((*v)["codec_name"], "hevc");
    EXPECT_EQ((*v)["codec_tag_string"], "hvc1");
    EXPECT_EQ((*v)["color_primaries"], "smpte432");
    EXPECT_EQ((*v)["pix_fmt"], "yuv420p10le");
    EXPECT_EQ((*v)["nb_read_packets"], "10");
}

TEST(AVAssetWriterFile, AnExistingFileFailsStartWritingWithAnError) {
    TempDirectory dir;
    testing::writeFile(dir / "taken.m4a", "x");
    EXPECT_THROW(AVAssetWriter::make((dir / "taken.m4a").string(), AVFileType::m4a), PlatformError);
    EXPECT_EQ(testing::readFile(dir / "taken.m4a"), "x");
    // A file that appears between making and starting fails startWriting with an error.
    auto writer = AVAssetWriter::make((dir / "late.m4a").string(), AVFileType::m4a);
    writer->add(AVAssetWriterInput::make(AVMediaType::audio, aacSettings(48000, 1)));
    testing::writeFile(dir / "late.m4a", "y");
    std::vector<std::string> changes;
    auto observation = writer->observe({"error"}, [&](const std::string& key) { changes.push_back(key); });
    EXPECT_FALSE(writer->safe_startWriting());
    EXPECT_TRUE(writer->error());
    EXPECT_EQ(changes, std::vector<std::string>{"error"});
    EXPECT_EQ(writer->status(), AVAssetWriterStatus::failed);
    EXPECT_EQ(testing::readFile(dir / "late.m4a"), "y");
    // Raised misuse turns into an error in the safe forms.
    EXPECT_THROW(writer->safe_startWriting(), PlatformError);
}

TEST(AVAssetWriterFile, ASlowEncoderShowsAsNotReady) {
    TempDirectory dir;
    auto writer = AVAssetWriter::make((dir / "big.mov").string(), AVFileType::mov);
    auto video = AVAssetWriterInput::make(
        AVMediaType::video, videoSettings(AVVideoCodecTypeH264, 1920, 1080, AVVideoColorPrimaries_ITU_R_709_2));
    video->setExpectsMediaDataInRealTime(true);
    writer->add(video);
    ASSERT_TRUE(writer->startWriting());
    writer->startSession(CMTime(0, 1));
    const auto sample = frame(1920, 1080, CMTime(0, 30), 7);
    int refused = 0, taken = 0;
    for (int f = 0; f < 40; ++f) {
        auto s = CMSampleBuffer::makeForImageBuffer(sample.imageBuffer(),
                                                    CMSampleTimingInfo{CMTime(1, 30), CMTime(f, 30), kCMTimeInvalid});
        if (video->append(s))
            ++taken;
        else
            ++refused;
    }
    EXPECT_GT(refused, 0) << "40 full-HD frames at once must outrun the encoder's queue";
    writer->safe_finishWriting();
}

struct SegmentCollector : AVAssetWriterDelegate {
    std::mutex mutex;
    std::vector<std::pair<AVAssetSegmentType, std::vector<uint8_t>>> segments;
    std::vector<AVAssetSegmentReport> reports;
    void didOutputSegmentData(AVAssetWriter&, std::shared_ptr<const std::vector<uint8_t>> data,
                              AVAssetSegmentType type, const AVAssetSegmentReport* report) override {
        std::lock_guard lock(mutex);
        segments.emplace_back(type, *data);
        if (report) reports.push_back(*report);
    }
};

TEST(AVAssetWriterSegments, InitThenMediaSegmentsOnTheIntervalThatConcatenateToTheStream) {
    for (bool isVideo : {false, true}) {
        TempDirectory dir;
        auto writer = AVAssetWriter::make(UTType::mpeg4Movie);
        writer->setOutputFileTypeProfile(AVFileTypeProfile::mpeg4AppleHLS);
        writer->setPreferredOutputSegmentInterval(CMTime(1, 1));
        auto collector = std::make_shared<SegmentCollector>();
        writer->setDelegate(std::weak_ptr<AVAssetWriterDelegate>(collector));
        auto input = isVideo ? AVAssetWriterInput::make(
                                   AVMediaType::video,
                                   videoSettings(AVVideoCodecTypeH264, 160, 120, AVVideoColorPrimaries_ITU_R_709_2))
                             : AVAssetWriterInput::make(AVMediaType::audio, aacSettings(48000, 2));
        writer->add(input);
        ASSERT_TRUE(writer->startWriting());
        writer->startSession(CMTime(0, 1));
        if (isVideo) {
            for (int f = 0; f < 105; ++f) appendWaiting(*input, frame(160, 120, CMTime(f, 30), uint8_t(f)));
            writer->endSession(CMTime(105, 30));
        } else {
            for (int64_t at = 0; at < 168000; at += 960)
                appendWaiting(*input, tone(AVAudioCommonFormat::pcmFormatFloat32, 48000, 2, false, at, 960, kCMTimeZero));
            writer->endSession(CMTime(168000, 48000));
        }
        writer->safe_finishWriting();

        std::lock_guard lock(collector->mutex);
        ASSERT_GE(collector->segments.size(), 4u) << (isVideo ? "video" : "audio");
        EXPECT_EQ(collector->segments.front().first, AVAssetSegmentType::initialization);
        for (size_t i = 1; i < collector->segments.size(); ++i)
            EXPECT_EQ(collector->segments[i].first, AVAssetSegmentType::separable);
        ASSERT_EQ(collector->reports.size(), collector->segments.size() - 1);
        double covered = 0;
        for (size_t i = 0; i < collector->reports.size(); ++i) {
            const auto& track = collector->reports[i].trackReports.at(0);
            if (i > 0) {
                const auto& previous = collector->reports[i - 1].trackReports.at(0);
                EXPECT_NEAR(track.earliestPresentationTimeStamp.seconds(),
                            previous.earliestPresentationTimeStamp.seconds() + previous.duration.seconds(), 0.001);
            }
            covered += track.duration.seconds();
        }
        EXPECT_NEAR(covered, 3.5, isVideo ? 1.0 / 30 : 1024.0 / 48000 * 2);

        const auto joined = dir / "joined.mp4";
        {
            std::ofstream out(joined, std::ios::binary);
            for (const auto& [type, data] : collector->segments)
                out.write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
        }
        auto info = probe(joined);
        ASSERT_TRUE(info.contains("format")) << "ffprobe can't read the joined segments";
        EXPECT_NEAR(number(info["format"]["duration"]), 3.5, 0.1);
    }
}

}  // namespace
}  // namespace ov::platform
