// A short recording of synthetic frames and a tone through the segmented
// writer set, checked as a player would read it: the playlists parse, every
// segment is listed once, the listed durations add up, and ffmpeg decodes the
// whole stream without complaint.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <numbers>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "output/av_asset_writer_input_buffer_adaptor.h"
#include "output/output_asset_writers.h"
#include "platform/av_asset_writer.h"
#include "platform/av_audio_format.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cv_pixel_buffer.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

namespace fs = std::filesystem;
using platform::CMTime;

constexpr int kFrameRate = 30;
constexpr int kFrames = 5 * kFrameRate;  // five seconds
constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr double kSampleRate = 48000;
constexpr int kAudioChunk = 1024;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

struct MediaPlaylist {
    std::string map;
    std::vector<std::pair<double, std::string>> entries;
    bool ended = false;
};

// Reads a media playlist strictly: header tags in order, entries of EXTINF and
// a file name, the end tag last.
MediaPlaylist parseMediaPlaylist(const fs::path& url) {
    const auto lines = linesOf(readFile(url));
    MediaPlaylist playlist;
    EXPECT_GE(lines.size(), 8u) << url;
    if (lines.size() < 8) return playlist;
    EXPECT_EQ(lines[0], "#EXTM3U");
    EXPECT_EQ(lines[1], "#EXT-X-PLAYLIST-TYPE:VOD");
    EXPECT_TRUE(std::regex_match(lines[2], std::regex("#EXT-X-TARGETDURATION:[0-9]+"))) << lines[2];
    EXPECT_EQ(lines[3], "#EXT-X-VERSION:6");
    EXPECT_EQ(lines[4], "#EXT-X-MEDIA-SEQUENCE:1");
    EXPECT_EQ(lines[5], "#EXT-X-INDEPENDENT-SEGMENTS");
    std::smatch m;
    if (std::regex_match(lines[6], m, std::regex("#EXT-X-MAP:URI=\"(.*)\""))) playlist.map = m[1];
    size_t i = 7;
    for (; i + 1 < lines.size(); i += 2) {
        if (!std::regex_match(lines[i], m, std::regex("#EXTINF:([0-9]+\\.[0-9]{5}),"))) break;
        playlist.entries.emplace_back(std::stod(m[1]), lines[i + 1]);
    }
    playlist.ended = i + 1 == lines.size() && lines[i] == "#EXT-X-ENDLIST";
    EXPECT_TRUE(playlist.ended) << url << ": unexpected line " << (i < lines.size() ? lines[i] : "<end>");
    return playlist;
}

std::pair<int, std::string> runCommand(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return {-1, "popen failed"};
    std::array<char, 4096> buffer;
    while (size_t n = std::fread(buffer.data(), 1, buffer.size(), pipe)) output.append(buffer.data(), n);
    return {::pclose(pipe), output};
}

platform::CMSampleBuffer frame(int index) {
    auto pixels = platform::CVPixelBuffer::make(kWidth, kHeight, platform::kCVPixelFormatType_32BGRA);
    // A bar that moves, so the encoder has real motion to code.
    for (int y = 0; y < kHeight; ++y) {
        uint8_t* row = pixels->baseAddressOfPlane(0) + y * pixels->bytesPerRow();
        for (int x = 0; x < kWidth; ++x) {
            const bool bar = std::abs(x - (index * 4) % kWidth) < 16;
            row[4 * x + 0] = bar ? 255 : uint8_t(y);
            row[4 * x + 1] = bar ? 255 : uint8_t(x);
            row[4 * x + 2] = bar ? 255 : uint8_t(index * 2);
            row[4 * x + 3] = 255;
        }
    }
    return platform::CMSampleBuffer::makeForImageBuffer(
        pixels, {CMTime(1, kFrameRate), CMTime(index, kFrameRate), platform::kCMTimeInvalid});
}

platform::CMSampleBuffer toneChunk(const platform::AVAudioFormat& format, int64_t firstFrame) {
    auto buffer = platform::AVAudioPCMBuffer::make(format, kAudioChunk);
    buffer->setFrameLength(kAudioChunk);
    float* samples = buffer->floatChannelData()[0];
    for (int i = 0; i < kAudioChunk; ++i)
        samples[i] = 0.25f * float(std::sin(2 * std::numbers::pi * 440.0 * double(firstFrame + i) / kSampleRate));
    return platform::CMSampleBuffer::makeAudio(*buffer, CMTime(firstFrame, int32_t(kSampleRate)));
}

TEST(SegmentedOutputEndToEndTest, ARecordingReadsBackWholeThroughItsMasterPlaylist) {
    TempDirectory dir;
    LogCapture log;
    std::mutex mutex;
    std::vector<fs::path> announced;
    MasterPlaylist values;
    values.audioChannelsCount = 1;
    values.audioTrackName = "Microphone";
    values.audioCodecName = "mp4a.40.2";
    values.videoTrackName = "Camera";
    values.videoCodecName = "avc1.42e00a";
    values.videoResolution = MasterPlaylist::Resolution{kWidth, kHeight};
    MultipleStreamsOutputAssetWriters writers(
        dir.path(), "rec",
        [&](const fs::path& url) {
            std::lock_guard lock(mutex);
            announced.push_back(url);
        },
        1, 2, values, log.logger);

    auto videoInput = platform::AVAssetWriterInput::make(
        platform::AVMediaType::video, {{platform::AVVideoCodecKey, platform::AVVideoCodecTypeH264},
                                       {platform::AVVideoWidthKey, kWidth},
                                       {platform::AVVideoHeightKey, kHeight},
                                       {platform::AVVideoCompressionPropertiesKey,
                                        {{platform::AVVideoMaxKeyFrameIntervalDurationKey, 1}}}});
    auto audioInput = platform::AVAssetWriterInput::make(platform::AVMediaType::audio,
                                                         {{platform::AVFormatIDKey, platform::kAudioFormatMPEG4AAC},
                                                          {platform::AVSampleRateKey, kSampleRate},
                                                          {platform::AVNumberOfChannelsKey, 1}});
    videoInput->setExpectsMediaDataInRealTime(true);
    audioInput->setExpectsMediaDataInRealTime(true);
    ASSERT_TRUE(writers.videoAssetWriter()->canAdd(videoInput));
    writers.videoAssetWriter()->add(videoInput);
    ASSERT_TRUE(writers.audioAssetWriter()->canAdd(audioInput));
    writers.audioAssetWriter()->add(audioInput);

    writers.startWriting();
    writers.videoAssetWriter()->startSession(platform::kCMTimeZero);
    writers.audioAssetWriter()->startSession(platform::kCMTimeZero);

    // Real-time inputs refuse what they can't take; the buffer adaptors hold it.
    AVAssetWriterInputBufferAdaptor video(videoInput, log.logger);
    AVAssetWriterInputBufferAdaptor audio(audioInput, log.logger);
    const auto format = platform::AVAudioFormat::standard(kSampleRate, 1);
    ASSERT_TRUE(format);
    int64_t audioFrame = 0;
    for (int i = 0; i < kFrames; ++i) {
        video.append(frame(i));
        const int64_t audioUntil = int64_t(kSampleRate) * (i + 1) / kFrameRate;
        for (; audioFrame < audioUntil; audioFrame += kAudioChunk) audio.append(toneChunk(*format, audioFrame));
    }
    for (auto* adaptor : {&video, &audio})
        ASSERT_TRUE(eventually([&] { return adaptor->unboundedBackpressureBuffer().partialFlush() == 0; },
                               std::chrono::seconds(60)));
    const CMTime end(kFrames, kFrameRate);
    writers.videoAssetWriter()->safe_endSession(end);
    writers.audioAssetWriter()->safe_endSession(end);
    videoInput->markAsFinished();
    audioInput->markAsFinished();

    ASSERT_EQ(writers.finishWriting(), std::vector<fs::path>{dir / "rec.m3u8"});
    EXPECT_FALSE(writers.videoAssetWriter()->error());
    EXPECT_FALSE(writers.audioAssetWriter()->error());

    const auto master = linesOf(readFile(dir / "rec.m3u8"));
    ASSERT_EQ(master.size(), 5u) << readFile(dir / "rec.m3u8");
    EXPECT_EQ(master[0], "#EXTM3U");
    EXPECT_EQ(master[1], "#EXT-X-VERSION:6");
    EXPECT_EQ(master[2],
              "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio-mono\",NAME=\"Microphone\",CHANNELS=\"1\","
              "URI=\"rec-audio.m3u8\"");
    EXPECT_TRUE(std::regex_match(master[3], std::regex("#EXT-X-STREAM-INF:BANDWIDTH=[1-9][0-9]*,RESOLUTION=320x240,"
                                                       "CODECS=\"avc1.42e00a,mp4a.40.2\",AUDIO=\"audio-mono\"")))
        << master[3];
    EXPECT_EQ(master[4], "rec-video.m3u8");

    std::set<fs::path> expectedAnnouncements;
    for (const std::string stream : {"audio", "video"}) {
        SCOPED_TRACE(stream);
        const auto playlist = parseMediaPlaylist(dir / ("rec-" + stream + ".m3u8"));
        EXPECT_EQ(playlist.map, "rec-" + stream + "-0000.mp4");
        expectedAnnouncements.insert(dir / playlist.map);
        ASSERT_GE(playlist.entries.size(), 2u) << "segments of one or two seconds in five";
        std::set<std::string> listed;
        double total = 0;
        for (const auto& [duration, name] : playlist.entries) {
            EXPECT_TRUE(listed.insert(name).second) << name << " is listed twice";
            EXPECT_TRUE(fs::exists(dir / name)) << name;
            expectedAnnouncements.insert(dir / name);
            total += duration;
        }
        // Every media segment on disk is in the playlist.
        std::set<std::string> onDisk;
        for (const auto& entry : fs::directory_iterator(dir.path())) {
            const auto name = entry.path().filename().string();
            if (name.rfind("rec-" + stream + "-", 0) == 0 && entry.path().extension() == ".m4s") onDisk.insert(name);
        }
        EXPECT_EQ(listed, onDisk);
        // Video to the frame; audio to its own frame, plus the encoder's priming,
        // which a segment stream carries (it has no edit list to hide it).
        const double tolerance = stream == "video" ? 1.0 / kFrameRate : 2 * 1024.0 / kSampleRate;
        EXPECT_NEAR(total, double(kFrames) / kFrameRate, tolerance) << "the durations add up";
    }
    EXPECT_TRUE(eventually([&] {
        std::lock_guard lock(mutex);
        return std::set<fs::path>(announced.begin(), announced.end()) == expectedAnnouncements &&
               announced.size() == expectedAnnouncements.size();
    })) << "every stored segment is announced once";

    const auto [status, output] = runCommand("ffmpeg -nostdin -v error -i '" + (dir / "rec.m3u8").string() +
                                             "' -f null -");
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output, "") << "ffmpeg reads the stream without errors";
}

}  // namespace
}  // namespace ov::testing
