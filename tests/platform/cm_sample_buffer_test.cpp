// Sample buffers: timing, copies that share their data, attachments, and
// pictures with their descriptions.

#include <gtest/gtest.h>

#include <thread>

#include "platform/cm_sample_buffer.h"
#include "platform/cv_pixel_buffer.h"

namespace ov::testing {
namespace {

using namespace ov::platform;

CMSampleBuffer audioSample(AVAudioFrameCount frames, CMTime pts, double rate = 48000) {
    auto pcm = AVAudioPCMBuffer::make(*AVAudioFormat::standard(rate, 2), frames);
    for (AVAudioFrameCount f = 0; f < frames; ++f) pcm->floatChannelData()[1][f] = static_cast<float>(f);
    pcm->setFrameLength(frames);
    return CMSampleBuffer::makeAudio(*pcm, pts);
}

TEST(CMSampleBufferTiming, AudioDurationCountsTheSharedEntryOncePerFrame) {
    CMSampleBuffer s = audioSample(480, CMTime(7, 1));
    ASSERT_EQ(s.sampleTimingInfos().size(), 1u);
    EXPECT_EQ(s.sampleTimingInfos()[0].duration, CMTime(1, 48000));
    EXPECT_EQ(s.duration(), CMTime(1, 100));
    EXPECT_TRUE(s.decodeTimeStamp().isInvalid());

    // One entry per sample: the earliest presentation time, the summed duration.
    CMSampleBuffer::Contents c;
    c.numSamples = 3;
    c.timing = {{CMTime(1, 30), CMTime(2, 30), CMTime(0, 30)},
                {CMTime(1, 30), CMTime(1, 30), CMTime(1, 30)},
                {CMTime(1, 60), CMTime(3, 30), CMTime(2, 30)}};
    CMSampleBuffer multi = CMSampleBuffer::create(c);
    EXPECT_EQ(multi.presentationTimeStamp(), CMTime(1, 30));
    EXPECT_EQ(multi.decodeTimeStamp(), CMTime(0, 30));
    EXPECT_EQ(multi.duration(), CMTime(5, 60));

    c.timing.pop_back();  // two entries for three samples
    try {
        CMSampleBuffer::create(c);
        FAIL() << "entries must be 0, 1 or one per sample";
    } catch (const PlatformError& e) {
        EXPECT_EQ(e.code(), kCMSampleBufferError_InvalidEntryCount);
    }

    CMSampleBuffer::Contents untimed;
    untimed.numSamples = 1;
    CMSampleBuffer noTiming = CMSampleBuffer::create(untimed);
    EXPECT_TRUE(noTiming.presentationTimeStamp().isInvalid());
    EXPECT_TRUE(noTiming.duration().isInvalid());
}

TEST(CMSampleBufferCopies, NewTimingSharesTheDataAndLeavesTheOriginal) {
    CMSampleBuffer original = audioSample(480, CMTime(10, 1));
    CMSampleBuffer moved = original.copyWithNewTiming({{CMTime(1, 48000), CMTime(3, 1), kCMTimeInvalid}});

    EXPECT_EQ(moved.presentationTimeStamp(), CMTime(3, 1));
    EXPECT_EQ(original.presentationTimeStamp(), CMTime(10, 1)) << "the original is untouched";
    EXPECT_FALSE(moved.isSameBuffer(original));
    EXPECT_TRUE(moved.sharesDataWith(original));
    ASSERT_EQ(moved.audioBuffers().size(), 2u);
    for (size_t i = 0; i < 2; ++i) EXPECT_EQ(moved.audioBuffers()[i].data.get(), original.audioBuffers()[i].data.get());
    EXPECT_EQ(moved.formatDescription(), original.formatDescription());
    EXPECT_EQ(moved.numSamples(), 480);
    EXPECT_EQ(moved.duration(), CMTime(1, 100));

    EXPECT_THROW(original.copyWithNewTiming({{}, {}}), PlatformError);
    EXPECT_FALSE(audioSample(480, kCMTimeZero).sharesDataWith(original)) << "equal data is not shared data";
}

TEST(CMSampleBufferCopies, WithTimeKeepsTheLengthAndDropsTheDecodeTime) {
    CMSampleBuffer audio = audioSample(441, CMTime(5, 1), 44100);
    CMSampleBuffer shifted = audio.withTime(CMTime(1, 2));
    EXPECT_EQ(shifted.presentationTimeStamp(), CMTime(1, 2));
    EXPECT_EQ(shifted.duration(), CMTime(1, 100));
    EXPECT_EQ(shifted.sampleTimingInfos()[0].duration, CMTime(1, 44100));
    EXPECT_TRUE(shifted.sharesDataWith(audio));

    auto picture = CVPixelBuffer::make(16, 8, kCVPixelFormatType_32BGRA);
    CMSampleBuffer video = CMSampleBuffer::makeForImageBuffer(picture, {CMTime(1, 60), CMTime(90, 60), CMTime(89, 60)});
    CMSampleBuffer retimed = video.withTime(CMTime(3, 1));
    EXPECT_EQ(retimed.presentationTimeStamp(), CMTime(3, 1));
    EXPECT_EQ(retimed.duration(), CMTime(1, 60));
    EXPECT_TRUE(retimed.decodeTimeStamp().isInvalid());
    EXPECT_EQ(retimed.imageBuffer(), video.imageBuffer());

    // Without timing entries the length is the buffer's own: none at all here.
    CMSampleBuffer::Contents c;
    c.numSamples = 1;
    CMSampleBuffer untimed = CMSampleBuffer::create(c).withTime(CMTime(1, 1));
    EXPECT_EQ(untimed.presentationTimeStamp(), CMTime(1, 1));
    EXPECT_TRUE(untimed.duration().isInvalid());
}

TEST(CMSampleBufferCopies, SharedBuffersAreReadSafelyFromManyThreads) {
    CMSampleBuffer original = audioSample(4800, CMTime(0, 1));
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                CMSampleBuffer copy = original.withTime(CMTime(t * 1000 + i, 1000));
                auto pcm = copy.audioPCMBuffer();
                if (pcm->floatChannelData()[1][4799] != 4799.0f || copy.presentationTimeStamp() != CMTime(t * 1000 + i, 1000))
                    ++mismatches;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(original.presentationTimeStamp(), kCMTimeZero);
}

TEST(CMSampleBufferAttachments, TravelWithCopies) {
    auto picture = CVPixelBuffer::make(4, 4, kCVPixelFormatType_32BGRA);
    CMSampleBuffer::Contents c;
    c.imageBuffer = picture;
    c.formatDescription = CMFormatDescription::makeForImageBuffer(*picture);
    c.numSamples = 1;
    c.timing = {{CMTime(1, 30), kCMTimeZero, kCMTimeInvalid}};
    c.sampleAttachments = {{{kCMSampleAttachmentKey_NotSync, true},
                            {"SCStreamUpdateFrameStatus", 0},
                            {"SCStreamUpdateFrameContentRect", {{"X", 0}, {"Y", 0}, {"Width", 4}, {"Height", 4}}}}};
    c.attachments = {{kCMSampleBufferAttachmentKey_DroppedFrameReason, kCMSampleBufferDroppedFrameReason_FrameWasLate}};
    CMSampleBuffer s = CMSampleBuffer::create(c);
    EXPECT_FALSE(s.isSync());

    CMSampleBuffer copy = s.withTime(CMTime(1, 1));
    ASSERT_EQ(copy.sampleAttachments().size(), 1u);
    EXPECT_EQ(copy.sampleAttachments()[0]["SCStreamUpdateFrameContentRect"]["Width"], 4);
    EXPECT_EQ(copy.attachments()[kCMSampleBufferAttachmentKey_DroppedFrameReason], "FrameWasLate");
    EXPECT_FALSE(copy.isSync());
    EXPECT_TRUE(audioSample(10, kCMTimeZero).isSync()) << "no attachments: a sync sample";

    c.sampleAttachments.push_back(CMAttachmentDictionary::object());
    EXPECT_THROW(CMSampleBuffer::create(c), PlatformError) << "more attachment dictionaries than samples";
}

TEST(CMSampleBufferPictures, DescriptionMustMatchThePicture) {
    auto picture = CVPixelBuffer::make(1919, 1081, kCVPixelFormatType_32BGRA);
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->bytesPerRow() % CVPixelBuffer::kRowAlignment, 0u);
    EXPECT_GE(picture->bytesPerRow(), 1919u * 4);
    EXPECT_EQ(picture->dataSize(), picture->bytesPerRow() * 1081);

    CMSampleBuffer s = CMSampleBuffer::makeForImageBuffer(picture, {CMTime(1, 30), kCMTimeZero, kCMTimeInvalid});
    ASSERT_TRUE(s.formatDescription());
    EXPECT_EQ(s.formatDescription()->mediaType(), kCMMediaType_Video);
    EXPECT_EQ(s.formatDescription()->mediaSubType(), kCVPixelFormatType_32BGRA);
    EXPECT_EQ(s.formatDescription()->dimensions(), (CMVideoDimensions{1919, 1081}));
    EXPECT_EQ(s.formatDescription()->description(), "video BGRA 1919x1081");
    EXPECT_EQ(s.numSamples(), 1);
    EXPECT_TRUE(s.audioBuffers().empty());

    auto other = CMFormatDescription::makeVideo(kCVPixelFormatType_32BGRA, {1920, 1080});
    EXPECT_THROW(CMSampleBuffer::makeForImageBuffer(picture, {}, other), PlatformError);
    EXPECT_THROW(CMSampleBuffer::makeForImageBuffer(nullptr, {}), PlatformError);

    // NV12 with odd sizes: chroma rounds up, planes do not overlap.
    auto nv12 = CVPixelBuffer::make(5, 3, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);
    ASSERT_TRUE(nv12);
    ASSERT_EQ(nv12->planeCount(), 2u);
    EXPECT_EQ(nv12->widthOfPlane(1), 3u);
    EXPECT_EQ(nv12->heightOfPlane(1), 2u);
    EXPECT_GE(nv12->baseAddressOfPlane(1), nv12->baseAddressOfPlane(0) + nv12->bytesPerRowOfPlane(0) * 3);
    EXPECT_EQ(CVPixelBuffer::make(0, 3, kCVPixelFormatType_32BGRA), nullptr);
    EXPECT_EQ(CVPixelBuffer::make(4, 4, OV_FOURCC('j', 'u', 'n', 'k')), nullptr);
}

TEST(CMSampleBufferEmpty, DefaultHandleHoldsNothing) {
    CMSampleBuffer none;
    EXPECT_FALSE(none.isValid());
    EXPECT_EQ(none.numSamples(), 0);
    EXPECT_TRUE(none.presentationTimeStamp().isInvalid());
    EXPECT_FALSE(none.formatDescription());
    EXPECT_THROW(none.withTime(kCMTimeZero), PlatformError);
}

TEST(CMFormatDescriptionTest, EqualityFollowsEveryField) {
    auto a = AVAudioFormat::standard(48000, 2)->formatDescription();
    auto b = AVAudioFormat::standard(48000, 2)->formatDescription();
    auto c = AVAudioFormat::standard(48000, 1)->formatDescription();
    EXPECT_NE(a, b);
    EXPECT_TRUE(CMFormatDescriptionEqual(a, b));
    EXPECT_FALSE(CMFormatDescriptionEqual(a, c));
    EXPECT_FALSE(CMFormatDescriptionEqual(a, nullptr));
    EXPECT_TRUE(CMFormatDescriptionEqual(nullptr, nullptr));
    EXPECT_EQ(a->description(), "audio lpcm 48000.0 Hz 2 ch float32 non-interleaved");

    auto p3 = CMFormatDescription::makeVideo(kCVPixelFormatType_32BGRA, {8, 8},
                                             {{CMFormatDescription::kColorPrimaries, "P3_D65"}});
    auto srgb = CMFormatDescription::makeVideo(kCVPixelFormatType_32BGRA, {8, 8},
                                               {{CMFormatDescription::kColorPrimaries, "ITU_R_709_2"}});
    EXPECT_FALSE(CMFormatDescriptionEqual(p3, srgb));
    EXPECT_EQ(p3->extension(CMFormatDescription::kColorPrimaries), "P3_D65");
    EXPECT_FALSE(p3->extension(CMFormatDescription::kYCbCrMatrix));
    EXPECT_EQ(CMFormatDescription::makeVideo(kCVPixelFormatType_32BGRA, {0, 8}), nullptr);

    AudioStreamBasicDescription bad{};
    bad.mSampleRate = 48000;
    bad.mFormatID = kAudioFormatLinearPCM;
    EXPECT_EQ(CMFormatDescription::makeAudio(bad), nullptr) << "no channels";
}

}  // namespace
}  // namespace ov::testing
