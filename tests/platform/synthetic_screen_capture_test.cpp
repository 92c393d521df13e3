// Screen streams of the synthetic backend: pictures, attachments, system
// audio, and the ways a stream ends.

#include <cmath>
#include <future>
#include <numbers>
#include <thread>

#include <gtest/gtest.h>

#include "platform/capture_collector.h"
#include "platform/cg_rect_dictionary.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "platform/synthetic/synthetic_pattern.h"

namespace ov::platform {
namespace {

using namespace std::chrono_literals;
using testing::CaptureCollector;

SyntheticWorld screenWorld() {
    SyntheticWorld world;
    SyntheticDisplay main;
    main.id = 1;
    main.frame = {{0, 0}, {160, 90}};
    main.frameRate = 200;
    SyntheticDisplay side;
    side.id = 2;
    side.frame = {{160, 0}, {64, 64}};
    side.scale = 2;
    side.frameRate = 100;
    side.isMain = false;
    world.displays = {main, side};
    world.applications = {{500, "Editor", "dev.example.editor"}, {600, "Player", "dev.example.player"}};
    SyntheticWindow editor;
    editor.id = 11;
    editor.title = "Draft";
    editor.frame = {{10, 20}, {64, 40}};
    editor.ownerPID = 500;
    SyntheticWindow hidden;
    hidden.id = 12;
    hidden.frame = {{0, 0}, {40, 40}};
    hidden.onScreen = false;
    SyntheticWindow desktop;
    desktop.id = 13;
    desktop.frame = {{0, 0}, {160, 90}};
    desktop.layer = -2147483623;
    world.windows = {editor, hidden, desktop};
    world.systemAudio = {48000, 2, 480, {1000, 0.5}};
    return world;
}

struct Screen {
    std::shared_ptr<SyntheticCapturePlatform> platform;
    CapturePlatform::ScopedOverride installed;
    std::shared_ptr<DispatchQueue> screenQueue = std::make_shared<DispatchQueue>("Test.ScreenQueue");
    std::shared_ptr<DispatchQueue> audioQueue = std::make_shared<DispatchQueue>("Test.AudioQueue");
    std::shared_ptr<CaptureCollector> collector = std::make_shared<CaptureCollector>();
    std::shared_ptr<SCStream> stream;

    explicit Screen(SyntheticWorld world = screenWorld())
        : platform(std::make_shared<SyntheticCapturePlatform>(std::move(world))), installed(platform) {}

    SCShareableContent content() const { return platform->shareableContent(false, false); }
    SCDisplay display(uint32_t id) const {
        const auto snapshot = content();
        for (const auto& display : snapshot.displays())
            if (display.displayID == id) return display;
        throw std::runtime_error("no display");
    }

    void open(const SCContentFilter& filter, const SCStreamConfiguration& configuration) {
        stream = SCStream::make(filter, configuration, collector);
        stream->addStreamOutput(collector, SCStreamOutputType::screen, screenQueue);
        if (configuration.capturesAudio) stream->addStreamOutput(collector, SCStreamOutputType::audio, audioQueue);
    }
    ~Screen() {
        if (stream) {
            try {
                stream->stopCapture();
            } catch (const SCStreamError&) {
            }
        }
        screenQueue->sync([] {});
        audioQueue->sync([] {});
    }
};

int64_t streamErrorCode(const std::function<void()>& body) {
    try {
        body();
    } catch (const SCStreamError& error) {
        return error.code();
    }
    return 0;
}

const CMAttachmentDictionary& frameInfo(const CMSampleBuffer& sample) { return sample.sampleAttachments().at(0); }

TEST(SyntheticScreenCapture, ShareableContentListsWhatIsThere) {
    Screen screen;
    const auto all = screen.content();
    ASSERT_EQ(all.displays().size(), 2u);
    EXPECT_EQ(all.displays()[1].frame, (CGRect{{160, 0}, {64, 64}}));
    EXPECT_EQ(all.displays()[1].width, 64);
    ASSERT_EQ(all.windows().size(), 3u);
    ASSERT_TRUE(all.windows()[0].owningApplication);
    EXPECT_EQ(all.windows()[0].owningApplication->bundleIdentifier, "dev.example.editor");
    EXPECT_FALSE(all.windows()[1].owningApplication);
    EXPECT_EQ(all.applications().size(), 2u);

    const auto visible = screen.platform->shareableContent(true, true);
    ASSERT_EQ(visible.windows().size(), 1u) << "off-screen and desktop windows are left out";
    EXPECT_EQ(visible.windows()[0].windowID, 11u);

    // The platform's asynchronous form answers on another thread.
    std::promise<size_t> displays;
    const auto caller = std::this_thread::get_id();
    SCShareableContent::getShareableContent([&](std::optional<SCShareableContent> content, std::exception_ptr error) {
        EXPECT_NE(std::this_thread::get_id(), caller);
        EXPECT_FALSE(error);
        displays.set_value(content ? content->displays().size() : 0);
    });
    EXPECT_EQ(displays.get_future().get(), 2u);
}

TEST(SyntheticScreenCapture, DisplayFramesAreNumberedTimedAndDescribed) {
    Screen screen;
    const auto display = screen.display(1);
    screen.open(SCContentFilter::displayExcludingApplications(display, {}, {}), SCStreamConfiguration{});
    screen.stream->startCapture();
    ASSERT_TRUE(screen.collector->waitForSamples(60));
    EXPECT_NE(screen.stream->synchronizationClock(), nullptr) << "present while capturing";
    screen.stream->stopCapture();
    const auto frames = screen.collector->samples();

    const uint64_t first = nanosecondsFromHostTime(frames[0].presentationTimeStamp());
    for (size_t i = 0; i < frames.size(); ++i) {
        const auto& frame = frames[i];
        ASSERT_TRUE(frame.imageBuffer());
        EXPECT_EQ(frame.imageBuffer()->width(), 160u);
        EXPECT_EQ(frame.imageBuffer()->height(), 90u);
        ASSERT_EQ(SyntheticPattern::readFrameCounter(*frame.imageBuffer()), i);
        ASSERT_EQ(nanosecondsFromHostTime(frame.presentationTimeStamp()), first + i * 5'000'000) << "200 fps";
        const auto& info = frameInfo(frame);
        EXPECT_EQ(info[SCStreamFrameInfoStatus], static_cast<int>(SCFrameStatus::complete));
        EXPECT_EQ(CGRectMakeWithDictionaryRepresentation(info[SCStreamFrameInfoScreenRect]), display.frame);
    }
}

TEST(SyntheticScreenCapture, ConfigurationShapesThePictures) {
    Screen screen;
    SCStreamConfiguration configuration;
    configuration.width = 64;
    configuration.height = 32;
    configuration.sourceRect = CGRect{{8, 4}, {32, 16}};
    configuration.minimumFrameInterval = CMTime(1, 50);  // slower than the display's 100
    configuration.pixelFormat = kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    screen.open(SCContentFilter::displayIncludingWindows(screen.display(2), {}), configuration);
    screen.stream->startCapture();
    ASSERT_TRUE(screen.collector->waitForSamples(3));
    screen.stream->stopCapture();
    const auto frames = screen.collector->samples();
    const auto& picture = *frames[2].imageBuffer();
    EXPECT_EQ(picture.width(), 64u);
    EXPECT_EQ(picture.height(), 32u);
    EXPECT_EQ(picture.pixelFormatType(), kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
    EXPECT_EQ(SyntheticPattern::readFrameCounter(picture), 2u);
    EXPECT_EQ(frames[1].presentationTimeStamp() - frames[0].presentationTimeStamp(), CMTime(1, 50));
    // The screen rectangle is the source rectangle in global points.
    EXPECT_EQ(CGRectMakeWithDictionaryRepresentation(frameInfo(frames[0])[SCStreamFrameInfoScreenRect]),
              (CGRect{{168, 4}, {32, 16}}));
    EXPECT_EQ(frameInfo(frames[0])[SCStreamFrameInfoScaleFactor], 2.0);

    // Without a size the picture has the source's pixels.
    Screen window;
    window.open(SCContentFilter(window.content().windows()[0]), SCStreamConfiguration{});
    window.stream->startCapture();
    ASSERT_TRUE(window.collector->waitForSamples(1));
    const auto windowFrame = window.collector->samples()[0];
    EXPECT_EQ(windowFrame.imageBuffer()->width(), 64u);
    EXPECT_EQ(CGRectMakeWithDictionaryRepresentation(frameInfo(windowFrame)[SCStreamFrameInfoScreenRect]),
              (CGRect{{10, 20}, {64, 40}}));
}

TEST(SyntheticScreenCapture, SystemAudioComesWithExactTimes) {
    Screen screen;
    SCStreamConfiguration configuration;
    configuration.capturesAudio = true;
    configuration.channelCount = 1;
    screen.open(SCContentFilter::displayExcludingWindows(screen.display(1), {}), configuration);
    screen.stream->startCapture();
    ASSERT_TRUE(screen.collector->waitForAudio(30));
    screen.stream->stopCapture();
    const auto buffers = screen.collector->audio();
    const uint64_t first = nanosecondsFromHostTime(buffers[0].presentationTimeStamp());
    int64_t sampleIndex = 0;
    for (size_t k = 0; k < buffers.size(); ++k) {
        ASSERT_EQ(nanosecondsFromHostTime(buffers[k].presentationTimeStamp()), first + k * 10'000'000);
        const auto pcm = buffers[k].audioPCMBuffer();
        ASSERT_EQ(pcm->format().channelCount(), 1u);
        ASSERT_EQ(pcm->frameLength(), 480u);
        for (AVAudioFrameCount j = 0; j < pcm->frameLength(); j += 7) {
            const int64_t n = sampleIndex + j;
            EXPECT_NEAR(pcm->floatChannelData()[0][j], 0.5 * std::sin(2 * std::numbers::pi * (n % 48) / 48.0), 1e-6);
        }
        sampleIndex += pcm->frameLength();
    }
}

TEST(SyntheticScreenCapture, StartAndStopFollowTheStreamState) {
    Screen screen;
    screen.open(SCContentFilter::displayExcludingApplications(screen.display(1), {}, {}), SCStreamConfiguration{});
    EXPECT_EQ(streamErrorCode([&] { screen.stream->stopCapture(); }), SCStreamError::attemptToStopStreamState)
        << "never started";
    EXPECT_EQ(screen.stream->synchronizationClock(), nullptr);
    screen.stream->startCapture();
    EXPECT_EQ(streamErrorCode([&] { screen.stream->startCapture(); }), SCStreamError::attemptToStartStreamState);
    screen.stream->stopCapture();
    EXPECT_EQ(streamErrorCode([&] { screen.stream->stopCapture(); }), SCStreamError::attemptToStopStreamState)
        << "already stopped";
    // A stopped stream starts again.
    screen.stream->startCapture();
    EXPECT_TRUE(screen.collector->waitForSamples(2));

    EXPECT_EQ(streamErrorCode([&] {
                  screen.stream->addStreamOutput(screen.collector, SCStreamOutputType::microphone, screen.audioQueue);
              }),
              SCStreamError::invalidParameter);
    EXPECT_EQ(streamErrorCode([&] {
                  screen.stream->addStreamOutput(screen.collector, SCStreamOutputType::screen, screen.screenQueue);
              }),
              SCStreamError::invalidParameter)
        << "the same output twice";
}

TEST(SyntheticScreenCapture, ScriptedFaultsEndStreamsAsTheRecordersSeeThem) {
    {
        auto world = screenWorld();
        world.displays[0].faults = {SyntheticFault::make(SyntheticFault::Kind::stopsWithError, 0.05)};
        Screen screen(world);
        screen.open(SCContentFilter::displayExcludingApplications(screen.display(1), {}, {}), SCStreamConfiguration{});
        screen.stream->startCapture();
        ASSERT_TRUE(screen.collector->waitForError());
        const auto error = describeError(screen.collector->errors().at(0));
        EXPECT_EQ(error.domain, SCStreamError::errorDomain);
        EXPECT_EQ(error.code, SCStreamError::systemStoppedStream);
        EXPECT_FALSE(screen.collector->samples().empty());
        EXPECT_EQ(streamErrorCode([&] { screen.stream->stopCapture(); }), SCStreamError::attemptToStopStreamState)
            << "a stream that stopped by itself is stopped";
    }
    {
        auto world = screenWorld();
        auto userStop = SyntheticFault::make(SyntheticFault::Kind::stopsWithError);
        userStop.code = SCStreamError::userStopped;
        world.displays[0].faults = {userStop};
        Screen screen(world);
        screen.open(SCContentFilter::displayExcludingApplications(screen.display(1), {}, {}), SCStreamConfiguration{});
        screen.stream->startCapture();
        ASSERT_TRUE(screen.collector->waitForError());
        EXPECT_EQ(describeError(screen.collector->errors().at(0)).code, SCStreamError::userStopped);
    }
    {
        auto world = screenWorld();
        world.windows[0].faults = {SyntheticFault::make(SyntheticFault::Kind::disappears, 0.03)};
        Screen screen(world);
        screen.open(SCContentFilter(screen.content().windows()[0]), SCStreamConfiguration{});
        screen.stream->startCapture();
        ASSERT_TRUE(screen.collector->waitForError());
        EXPECT_EQ(describeError(screen.collector->errors().at(0)).code, SCStreamError::noCaptureSource);
        EXPECT_FALSE(screen.platform->isWindowPresent(11));
        EXPECT_EQ(screen.content().windows().size(), 2u) << "a closed window leaves the content";
        // A new stream of it can't start.
        SCWindow closed;
        closed.windowID = 11;
        auto again = SCStream::make(SCContentFilter(closed), {}, screen.collector);
        EXPECT_EQ(streamErrorCode([&] { again->startCapture(); }), SCStreamError::noCaptureSource);
    }
    {
        Screen screen;
        screen.open(SCContentFilter::displayExcludingApplications(screen.display(2), {}, {}), SCStreamConfiguration{});
        screen.stream->startCapture();
        ASSERT_TRUE(screen.collector->waitForSamples(1));
        screen.platform->removeDisplay(2);
        ASSERT_TRUE(screen.collector->waitForError());
        EXPECT_EQ(describeError(screen.collector->errors().at(0)).code, SCStreamError::noCaptureSource);
        EXPECT_EQ(screen.content().displays().size(), 1u);
    }
}

TEST(SyntheticScreenCapture, IdleFramesCarryNoPicture) {
    auto world = screenWorld();
    world.displays[0].faults = {SyntheticFault::make(SyntheticFault::Kind::goesIdle, 0.05)};
    Screen screen(world);
    screen.open(SCContentFilter::displayExcludingApplications(screen.display(1), {}, {}), SCStreamConfiguration{});
    screen.stream->startCapture();
    ASSERT_TRUE(screen.collector->waitForSamples(20));
    screen.stream->stopCapture();
    const auto frames = screen.collector->samples();
    // 200 fps: frames 0..9 are complete, the rest idle.
    for (size_t i = 0; i < frames.size(); ++i) {
        const auto status = frameInfo(frames[i])[SCStreamFrameInfoStatus].get<int>();
        if (i < 10) {
            EXPECT_EQ(status, static_cast<int>(SCFrameStatus::complete)) << i;
            EXPECT_TRUE(frames[i].imageBuffer());
        } else {
            EXPECT_EQ(status, static_cast<int>(SCFrameStatus::idle)) << i;
            EXPECT_FALSE(frames[i].imageBuffer());
            EXPECT_FALSE(frameInfo(frames[i]).contains(SCStreamFrameInfoScreenRect));
        }
    }
    EXPECT_TRUE(screen.collector->errors().empty());
}

TEST(SyntheticScreenCapture, NeverDeliveringDisplayStaysSilent) {
    auto world = screenWorld();
    world.displays[0].faults = {SyntheticFault::make(SyntheticFault::Kind::neverDelivers)};
    Screen screen(world);
    screen.open(SCContentFilter::displayExcludingApplications(screen.display(1), {}, {}), SCStreamConfiguration{});
    screen.stream->startCapture();
    EXPECT_FALSE(screen.collector->waitForSamples(1, 200ms));
    EXPECT_TRUE(screen.collector->errors().empty());
    screen.stream->stopCapture();
}

TEST(SyntheticScreenCapture, UpdatingTheFilterMovesTheRectangle) {
    Screen screen;
    screen.open(SCContentFilter::displayExcludingApplications(screen.display(1), {}, {}), SCStreamConfiguration{});
    screen.stream->startCapture();
    ASSERT_TRUE(screen.collector->waitForSamples(1));
    screen.stream->updateContentFilter(SCContentFilter(screen.content().windows()[0]));
    const size_t seen = screen.collector->samples().size();
    ASSERT_TRUE(screen.collector->waitForSamples(seen + 2));
    const auto last = screen.collector->samples().back();
    EXPECT_EQ(CGRectMakeWithDictionaryRepresentation(frameInfo(last)[SCStreamFrameInfoScreenRect]),
              (CGRect{{10, 20}, {64, 40}}));
    EXPECT_EQ(screen.stream->filter().kind(), SCContentFilter::Kind::desktopIndependentWindow);
}

TEST(SyntheticScreenCapture, RectangleDictionaries) {
    const CGRect rect{{-1.5, 2}, {300, 200.25}};
    EXPECT_EQ(CGRectMakeWithDictionaryRepresentation(CGRectCreateDictionaryRepresentation(rect)), rect);
    EXPECT_FALSE(CGRectMakeWithDictionaryRepresentation({{"X", 0}, {"Y", 0}, {"Width", 1}}));
    EXPECT_FALSE(CGRectMakeWithDictionaryRepresentation({{"X", "0"}, {"Y", 0}, {"Width", 1}, {"Height", 1}}));
    EXPECT_FALSE(CGRectMakeWithDictionaryRepresentation(nlohmann::json::array()));
}

}  // namespace
}  // namespace ov::platform

namespace ov::platform {
namespace {

// Delegates and outputs may act on their stream from inside their callbacks,
// as recorders do: stop it, start it again, or drop the last reference to it.
class Reentrant : public SCStreamDelegate, public SCStreamOutput {
public:
    std::shared_ptr<SCStream> held;
    std::promise<int64_t> stopCode;
    std::promise<void> released;
    std::atomic<bool> releaseOnNextSample{false};

    void streamDidStopWithError(SCStream& target, std::exception_ptr) override {
        int64_t code = 0;
        try {
            target.stopCapture();
        } catch (const SCStreamError& error) {
            code = error.code();
        }
        target.startCapture();  // a restart from the delegate queue
        target.stopCapture();
        stopCode.set_value(code);
    }
    void stream(SCStream&, const CMSampleBuffer&, SCStreamOutputType) override {
        if (releaseOnNextSample.exchange(false)) {
            held.reset();
            released.set_value();
        }
    }
};

TEST(SyntheticScreenCapture, CallbacksMayStopRestartAndReleaseTheirStream) {
    auto world = screenWorld();
    world.displays[0].faults = {SyntheticFault::make(SyntheticFault::Kind::stopsWithError, 0.02)};
    auto platform = std::make_shared<SyntheticCapturePlatform>(world);
    CapturePlatform::ScopedOverride installed(platform);
    auto queue = std::make_shared<DispatchQueue>("Test.ReentrantQueue");
    SCDisplay display;
    display.displayID = 1;
    const auto filter = SCContentFilter::displayExcludingApplications(display, {}, {});

    auto stopping = std::make_shared<Reentrant>();
    auto stream = SCStream::make(filter, {}, stopping);
    stream->addStreamOutput(stopping, SCStreamOutputType::screen, queue);
    stream->startCapture();
    auto code = stopping->stopCode.get_future();
    ASSERT_EQ(code.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(code.get(), SCStreamError::attemptToStopStreamState);

    // The last reference may go in a sample callback, while the capture
    // thread goes on delivering.
    auto releasing = std::make_shared<Reentrant>();
    releasing->held = SCStream::make(SCContentFilter::displayExcludingApplications(display, {}, {}), {}, releasing);
    SyntheticWorld calm = screenWorld();
    CapturePlatform::ScopedOverride calmInstalled(std::make_shared<SyntheticCapturePlatform>(calm));
    releasing->held->addStreamOutput(releasing, SCStreamOutputType::screen, queue);
    releasing->held->startCapture();
    releasing->releaseOnNextSample = true;
    auto released = releasing->released.get_future();
    EXPECT_EQ(released.wait_for(10s), std::future_status::ready);
    queue->sync([] {});
}

}  // namespace
}  // namespace ov::platform
