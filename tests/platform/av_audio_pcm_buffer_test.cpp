// PCM formats and buffers, and their round trip through audio sample buffers
// in every sample type and layout that capture delivers.

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>

#include "platform/av_audio_format.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cm_sample_buffer.h"

namespace ov::testing {
namespace {

using namespace ov::platform;

constexpr AVAudioChannelCount kChannels = 3;
constexpr AVAudioFrameCount kFrames = 5;

// A distinct sample for every (channel, frame), so that a swapped channel or
// a wrong stride shows.
double sampleAt(uint32_t channel, uint32_t frame) { return (channel + 1) * 0.1 + frame * 0.01; }

template <class T>
T typedSample(uint32_t channel, uint32_t frame) {
    if constexpr (std::is_same_v<T, float>)
        return static_cast<float>(sampleAt(channel, frame));
    else
        return static_cast<T>(sampleAt(channel, frame) * 10000);
}

template <class T>
T* const* channelData(AVAudioPCMBuffer& b) {
    if constexpr (std::is_same_v<T, float>) return b.floatChannelData();
    else if constexpr (std::is_same_v<T, int16_t>) return b.int16ChannelData();
    else return b.int32ChannelData();
}

template <class T>
void fill(AVAudioPCMBuffer& b) {
    T* const* data = channelData<T>(b);
    ASSERT_NE(data, nullptr);
    const size_t stride = b.stride();
    for (uint32_t c = 0; c < kChannels; ++c)
        for (uint32_t f = 0; f < kFrames; ++f) {
            T* channel = b.format().isInterleaved() ? data[0] + c : data[c];
            channel[f * stride] = typedSample<T>(c, f);
        }
    b.setFrameLength(kFrames);
}

template <class T>
void expectSamples(AVAudioPCMBuffer& b) {
    ASSERT_EQ(b.frameLength(), kFrames);
    T* const* data = channelData<T>(b);
    ASSERT_NE(data, nullptr);
    for (uint32_t c = 0; c < kChannels; ++c)
        for (uint32_t f = 0; f < kFrames; ++f) {
            T* channel = b.format().isInterleaved() ? data[0] + c : data[c];
            ASSERT_EQ(channel[f * b.stride()], typedSample<T>(c, f)) << "channel " << c << " frame " << f;
        }
}

// The bytes in a sample buffer's blocks, read back by layout rather than
// through the PCM buffer, so that a conversion that only undoes itself fails.
template <class T>
void expectSampleBufferLayout(const CMSampleBuffer& sample, bool interleaved) {
    AudioBufferListHolder list = sample.audioBufferList();
    ASSERT_EQ(list->mNumberBuffers, interleaved ? 1u : kChannels);
    for (uint32_t c = 0; c < kChannels; ++c)
        for (uint32_t f = 0; f < kFrames; ++f) {
            const AudioBuffer& b = list->mBuffers[interleaved ? 0 : c];
            size_t index = interleaved ? f * kChannels + c : f;
            T value;
            std::memcpy(&value, static_cast<const uint8_t*>(b.mData) + index * sizeof(T), sizeof(T));
            ASSERT_EQ(value, typedSample<T>(c, f)) << "channel " << c << " frame " << f;
        }
}

class PCMRoundTrip : public ::testing::TestWithParam<std::tuple<AVAudioCommonFormat, bool>> {
protected:
    template <class T>
    void run() {
        auto [common, interleaved] = GetParam();
        auto format = AVAudioFormat::make(common, 48000, kChannels, interleaved);
        ASSERT_TRUE(format);
        auto pcm = AVAudioPCMBuffer::make(*format, 8);
        ASSERT_TRUE(pcm);
        fill<T>(*pcm);

        CMSampleBuffer sample = CMSampleBuffer::makeAudio(*pcm, CMTime(4800, 48000));
        EXPECT_EQ(sample.numSamples(), kFrames);
        EXPECT_EQ(sample.presentationTimeStamp(), CMTime(1, 10));
        EXPECT_EQ(sample.duration(), CMTime(kFrames, 48000));
        ASSERT_TRUE(sample.formatDescription());
        const auto& asbd = *sample.formatDescription()->audioStreamBasicDescription();
        EXPECT_EQ(asbd.mChannelsPerFrame, kChannels);
        EXPECT_EQ(asbd.mBytesPerFrame, (interleaved ? kChannels : 1) * sizeof(T));
        EXPECT_EQ(bool(asbd.mFormatFlags & kAudioFormatFlagIsNonInterleaved), !interleaved);
        expectSampleBufferLayout<T>(sample, interleaved);

        auto back = sample.audioPCMBuffer();
        ASSERT_TRUE(back);
        EXPECT_EQ(back->format(), *format);
        expectSamples<T>(*back);
        // The copy is independent of the buffer it came from.
        channelData<T>(*pcm)[0][0] = T{};
        expectSamples<T>(*back);
    }
};

TEST_P(PCMRoundTrip, SampleBufferAndBackKeepsEverySample) {
    switch (std::get<0>(GetParam())) {
        case AVAudioCommonFormat::pcmFormatFloat32: run<float>(); break;
        case AVAudioCommonFormat::pcmFormatInt16: run<int16_t>(); break;
        default: run<int32_t>(); break;
    }
}

INSTANTIATE_TEST_SUITE_P(AllTypesAndLayouts, PCMRoundTrip,
                         ::testing::Combine(::testing::Values(AVAudioCommonFormat::pcmFormatFloat32,
                                                              AVAudioCommonFormat::pcmFormatInt16,
                                                              AVAudioCommonFormat::pcmFormatInt32),
                                            ::testing::Bool()),
                         [](const auto& info) {
                             const char* type = std::get<0>(info.param) == AVAudioCommonFormat::pcmFormatFloat32
                                                    ? "Float32"
                                                    : (std::get<0>(info.param) == AVAudioCommonFormat::pcmFormatInt16
                                                           ? "Int16"
                                                           : "Int32");
                             return std::string(type) + (std::get<1>(info.param) ? "Interleaved" : "Planar");
                         });

TEST(AVAudioPCMBufferTest, NewBufferIsSilentAndOffersOnlyItsOwnSampleType) {
    auto format = AVAudioFormat::make(AVAudioCommonFormat::pcmFormatInt16, 44100, 2, true);
    auto b = AVAudioPCMBuffer::make(*format, 100);
    ASSERT_TRUE(b);
    EXPECT_EQ(b->frameCapacity(), 100u);
    EXPECT_EQ(b->frameLength(), 0u);
    EXPECT_EQ(b->floatChannelData(), nullptr);
    EXPECT_EQ(b->int32ChannelData(), nullptr);
    ASSERT_NE(b->int16ChannelData(), nullptr);
    EXPECT_EQ(b->stride(), 2u);
    for (size_t i = 0; i < 200; ++i) EXPECT_EQ(b->int16ChannelData()[0][i], 0);

    b->setFrameLength(60);
    EXPECT_EQ(b->audioBufferList()->mNumberBuffers, 1u);
    EXPECT_EQ(b->audioBufferList()->mBuffers[0].mDataByteSize, 60u * 4);
    EXPECT_EQ(b->audioBufferList()->mBuffers[0].mNumberChannels, 2u);
    EXPECT_THROW(b->setFrameLength(101), std::out_of_range);
    EXPECT_EQ(b->frameLength(), 60u);

    auto planar = AVAudioPCMBuffer::make(*AVAudioFormat::standard(48000, 2), 10);
    ASSERT_NE(planar->floatChannelData(), nullptr);
    EXPECT_NE(planar->floatChannelData()[0], planar->floatChannelData()[1]);
    EXPECT_EQ(planar->stride(), 1u);
    EXPECT_EQ(planar->audioBufferList()->mNumberBuffers, 2u);

    EXPECT_EQ(AVAudioPCMBuffer::make(*format, 0), nullptr);
    EXPECT_EQ(AVAudioPCMBuffer::make(*format, 0xFFFFFFFFu), nullptr);
}

TEST(AVAudioPCMBufferTest, CopyFramesTakesARangeOfEveryChannel) {
    auto format = AVAudioFormat::standard(16000, 2);
    auto b = AVAudioPCMBuffer::make(*format, 10);
    for (uint32_t f = 0; f < 10; ++f) {
        b->floatChannelData()[0][f] = static_cast<float>(f);
        b->floatChannelData()[1][f] = static_cast<float>(100 + f);
    }
    b->setFrameLength(10);
    auto part = b->copyFrames(3, 4);
    ASSERT_TRUE(part);
    EXPECT_EQ(part->frameLength(), 4u);
    EXPECT_EQ(part->floatChannelData()[0][0], 3.0f);
    EXPECT_EQ(part->floatChannelData()[1][3], 106.0f);
    EXPECT_EQ(b->copyFrames(8, 3), nullptr) << "beyond the length";
    EXPECT_EQ(b->copyFrames(10, 1), nullptr);
    EXPECT_EQ(b->copyFrames(0, 0), nullptr);
}

TEST(AVAudioFormatTest, StreamDescriptionsMapToCommonFormats) {
    AudioStreamBasicDescription d{};
    d.mSampleRate = 48000;
    d.mFormatID = kAudioFormatLinearPCM;
    d.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    d.mChannelsPerFrame = 2;
    d.mBitsPerChannel = 16;
    d.mFramesPerPacket = 1;
    d.mBytesPerFrame = d.mBytesPerPacket = 4;
    auto format = AVAudioFormat::fromStreamDescription(d);
    ASSERT_TRUE(format);
    EXPECT_EQ(format->commonFormat(), AVAudioCommonFormat::pcmFormatInt16);
    EXPECT_TRUE(format->isInterleaved());
    EXPECT_EQ(*format, *AVAudioFormat::make(AVAudioCommonFormat::pcmFormatInt16, 48000, 2, true));
    EXPECT_FALSE(*format == *AVAudioFormat::make(AVAudioCommonFormat::pcmFormatInt16, 44100, 2, true));

    // Packed 24-bit has no typed view: a format, but of no common type.
    d.mBitsPerChannel = 24;
    d.mBytesPerFrame = d.mBytesPerPacket = 6;
    auto packed24 = AVAudioFormat::fromStreamDescription(d);
    ASSERT_TRUE(packed24);
    EXPECT_EQ(packed24->commonFormat(), AVAudioCommonFormat::otherFormat);
    auto b = AVAudioPCMBuffer::make(*packed24, 4);
    EXPECT_EQ(b->floatChannelData(), nullptr);
    EXPECT_EQ(b->int16ChannelData(), nullptr);
    EXPECT_EQ(b->int32ChannelData(), nullptr);

    // Sizes that do not add up, no channel, no rate: no format.
    d.mBytesPerFrame = d.mBytesPerPacket = 2;
    EXPECT_FALSE(AVAudioFormat::fromStreamDescription(d));
    EXPECT_FALSE(AVAudioFormat::make(AVAudioCommonFormat::pcmFormatFloat32, 0, 2, false));
    EXPECT_FALSE(AVAudioFormat::make(AVAudioCommonFormat::pcmFormatFloat32, 48000, 0, false));
    EXPECT_FALSE(AVAudioFormat::make(AVAudioCommonFormat::otherFormat, 48000, 1, false));

    auto standard = AVAudioFormat::standard(44100, 1);
    EXPECT_TRUE(standard->isStandard());
    EXPECT_FALSE(standard->isInterleaved());
    EXPECT_EQ(standard->description(), "<1 ch, 44100.0 Hz, Float32, deinterleaved>");
    auto described = AVAudioFormat::fromFormatDescription(*standard->formatDescription());
    ASSERT_TRUE(described);
    EXPECT_EQ(*described, *standard);
}

TEST(AudioSampleBufferTest, DeviceBufferListsBecomeSampleBuffersAtTheirHostTime) {
    auto format = *AVAudioFormat::make(AVAudioCommonFormat::pcmFormatFloat32, 48000, 2, true);
    float frames[8] = {1, -1, 2, -2, 3, -3, 4, -4};
    AudioBufferList list{};
    list.mNumberBuffers = 1;
    list.mBuffers[0] = {2, sizeof frames, frames};
    AudioTimeStamp ts{};
    ts.mHostTime = 5'000'000'123;
    ts.mFlags = kAudioTimeStampHostTimeValid;

    CMSampleBuffer sample = CMSampleBuffer::from(list, ts, format);
    EXPECT_EQ(sample.numSamples(), 4);
    EXPECT_EQ(sample.presentationTimeStamp(), CMTime(5'000'000'123, 1'000'000'000));
    frames[0] = 99;  // the device reuses its memory; the sample has its own copy
    auto pcm = sample.audioPCMBuffer();
    EXPECT_EQ(pcm->floatChannelData()[0][0], 1.0f);
    EXPECT_EQ(pcm->floatChannelData()[0][7], -4.0f);

    list.mNumberBuffers = 2;  // planar list for an interleaved format
    EXPECT_THROW(CMSampleBuffer::from(list, ts, format), PlatformError);
}

TEST(AudioSampleBufferTest, ConversionRefusesWhatIsNotPCMAudio) {
    auto picture = CVPixelBuffer::make(4, 4, kCVPixelFormatType_32BGRA);
    CMSampleBuffer video =
        CMSampleBuffer::makeForImageBuffer(picture, {CMTime(1, 30), CMTime(0, 30), kCMTimeInvalid});
    try {
        video.audioPCMBuffer();
        FAIL() << "a picture is no PCM";
    } catch (const PlatformError& e) {
        EXPECT_EQ(e.domain(), "NSOSStatusErrorDomain");
        EXPECT_EQ(e.code(), kCMSampleBufferError_InvalidMediaTypeForOperation);
    }

    // Audio data shorter than the samples it claims.
    auto format = *AVAudioFormat::make(AVAudioCommonFormat::pcmFormatInt16, 8000, 1, true);
    CMSampleBuffer::Contents c;
    c.formatDescription = format.formatDescription();
    c.numSamples = 10;
    c.timing = {{CMTime(1, 8000), kCMTimeZero, kCMTimeInvalid}};
    c.audioBuffers = {{1, std::make_shared<const std::vector<uint8_t>>(19)}};
    EXPECT_THROW(CMSampleBuffer::create(c), PlatformError);
    c.audioBuffers = {{1, std::make_shared<const std::vector<uint8_t>>(20)}};
    EXPECT_NO_THROW(CMSampleBuffer::create(c));

    auto empty = AVAudioPCMBuffer::make(format, 4);
    EXPECT_THROW(CMSampleBuffer::makeAudio(*empty, kCMTimeZero), PlatformError) << "no frames, no sample buffer";
}

}  // namespace
}  // namespace ov::testing
