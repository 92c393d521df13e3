// The screen recorder on synthetic displays and windows: its sizes and
// settings, its content filters, and how it prepares, idles and stops.
#include "video/screen_recorder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "foundation/ov_error.h"
#include "platform/av_asset_writer.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "session/disk_space_info.h"
#include "session/recorder_assembly.h"
#include "support/log_capture.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"
#include "timing/volatile_recording_timeline.h"
#include "video/shareable_content.h"

namespace ov {
namespace {

using platform::CapturePlatform;
using platform::CGRect;
using platform::CGSize;
using platform::SCDisplay;
using platform::SCShareableContent;
using platform::SCWindow;
using platform::SyntheticCapturePlatform;
using platform::SyntheticDisplay;
using platform::SyntheticFault;
using platform::SyntheticWindow;
using platform::SyntheticWorld;
using testing::LogCapture;
using testing::TempDirectory;

SyntheticDisplay display(uint32_t id, CGRect frame, double scale = 1) {
    SyntheticDisplay d;
    d.id = id;
    d.frame = frame;
    d.scale = scale;
    return d;
}

SyntheticWindow window(uint32_t id, CGRect frame, std::optional<int32_t> owner, std::optional<std::string> title = "w") {
    SyntheticWindow w;
    w.id = id;
    w.frame = frame;
    w.ownerPID = owner;
    w.title = std::move(title);
    return w;
}

struct World {
    std::shared_ptr<SyntheticCapturePlatform> platform;
    CapturePlatform::ScopedOverride installed;
    explicit World(SyntheticWorld world)
        : platform(std::make_shared<SyntheticCapturePlatform>(std::move(world))), installed(platform) {}
};

struct Assembly {
    TempDirectory dir;
    std::shared_ptr<VolatileRecordingTimeline> live = std::make_shared<VolatileRecordingTimeline>();
    std::vector<AbortSignal> aborts;
    std::mutex mutex;
    RecorderAssemblyContext context(const Logger& logger) {
        RecorderAssemblyContext c;
        c.bundleURL = dir.path();
        c.recordingTimeline = std::make_shared<StableRecordingTimeline>(live);
        c.logger = logger;
        c.onAbort = [this](AbortSignal signal) {
            std::lock_guard lock(mutex);
            aborts.push_back(signal);
        };
        return c;
    }
    static double now() { return platform::hostTimeNow().seconds(); }
};

std::shared_ptr<ScreenRecorder> screen(const std::vector<std::shared_ptr<Recorder>>& recorders) {
    EXPECT_EQ(recorders.size(), 1u);
    return recorders.empty() ? nullptr : std::dynamic_pointer_cast<ScreenRecorder>(recorders.back());
}

DisplaySchemaItem displayItem(const std::string& id, uint32_t displayID, OVVideoCodec codec = OVVideoCodec::h264) {
    DisplaySchemaItem item;
    item.id = id;
    item.displayID = displayID;
    item.outputOptions = ScreenRecordingOutputOptions::singleFile(std::nullopt, codec);
    return item;
}

// ---- Sizes and settings.

TEST(ScreenRecorder, VideoSizesFollowScaleLimitsAndEvenSides) {
    SyntheticWorld world;
    world.displays = {display(1, {{0, 0}, {3024, 1964}}, 2), display(2, {{3024, 0}, {1920, 1080}})};
    World installed(world);
    LogCapture log;
    Assembly assembly;

    auto retina = screen(makeScreenRecorders(displayItem("a", 1, OVVideoCodec::hevc), assembly.context(log.logger)));
    EXPECT_EQ(retina->videoSize(), (VideoDimensions{6048, 3928}));
    EXPECT_EQ(retina->videoDimensions(), (VideoDimensions{6048, 3928}));

    auto limited = displayItem("b", 1, OVVideoCodec::hevc);
    limited.maxVideoDimensions = CGSize{1920, 1080};
    auto small = screen(makeScreenRecorders(limited, assembly.context(log.logger)));
    EXPECT_EQ(small->maxSize(), (VideoDimensions{1920, 1080}));
    EXPECT_EQ(small->videoDimensions(), (VideoDimensions{1662, 1080}));
    EXPECT_EQ(small->videoSettings()[platform::AVVideoWidthKey], 1662);

    auto odd = displayItem("c", 2);
    odd.crop = CGRect{{10, 10}, {801, 601}};
    auto cropped = screen(makeScreenRecorders(odd, assembly.context(log.logger)));
    EXPECT_EQ(cropped->videoSize(), (VideoDimensions{801, 601}));
    EXPECT_EQ(cropped->videoDimensions(), (VideoDimensions{800, 600}));
    EXPECT_EQ(cropped->configuration().sourceRect, (CGRect{{10, 10}, {801, 601}}));

    auto huge = displayItem("d", 1);
    huge.maxVideoDimensions = CGSize{8000, 4500};
    auto h264 = screen(makeScreenRecorders(huge, assembly.context(log.logger)));
    EXPECT_EQ(h264->maxSize(), (VideoDimensions{4096, 2304}));
    // A square maximum keeps its aspect within the limit.
    huge.id = "e";
    huge.maxVideoDimensions = CGSize{10000, 10000};
    EXPECT_EQ(screen(makeScreenRecorders(huge, assembly.context(log.logger)))->maxSize(), (VideoDimensions{2304, 2304}));
    EXPECT_LE(h264->videoDimensions().width, 4096);
    EXPECT_LE(h264->videoDimensions().height, 2304);
    EXPECT_EQ(h264->configuration().queueDepth, 6);
    EXPECT_FALSE(h264->configuration().sourceRect);
}

TEST(ScreenRecorder, DisplayP3WithH264RecordsSRGBInBGRAAfterOneWarning) {
    SyntheticWorld world;
    world.displays = {display(1, {{0, 0}, {1920, 1080}})};
    World installed(world);
    LogCapture log;
    Assembly assembly;
    auto item = displayItem("p3", 1);
    item.colorSpace = OVColorSpace::displayP3;
    auto recorder = screen(makeScreenRecorders(item, assembly.context(log.logger)));
    EXPECT_EQ(recorder->configuration().pixelFormat, platform::kCVPixelFormatType_32BGRA);
    EXPECT_EQ(recorder->configuration().colorSpaceName, platform::kCGColorSpaceSRGB);
    EXPECT_EQ(recorder->videoSettings()[platform::AVVideoColorPropertiesKey][platform::AVVideoColorPrimariesKey],
              platform::AVVideoColorPrimaries_ITU_R_709_2);
    int warnings = 0;
    for (const auto& line : log.lines())
        if (line.message == "Cannot record Display P3 with H.264 video codec. Falling back to sRGB color space instead.")
            ++warnings;
    EXPECT_EQ(warnings, 1);

    auto p3 = displayItem("p3hevc", 1, OVVideoCodec::hevc);
    p3.colorSpace = OVColorSpace::displayP3;
    auto hevc = screen(makeScreenRecorders(p3, assembly.context(log.logger)));
    EXPECT_EQ(hevc->configuration().pixelFormat, platform::kCVPixelFormatType_ARGB2101010LEPacked);
    EXPECT_EQ(hevc->videoSettings()[platform::AVVideoCompressionPropertiesKey][platform::AVVideoProfileLevelKey],
              platform::kVTProfileLevel_HEVC_Main10_AutoLevel);
}

TEST(ScreenRecorder, ItFeedsTheItemsSharedRectangleTimelineThatTheInputRecorderReads) {
    SyntheticWorld world;
    world.displays = {display(1, {{100, 50}, {640, 360}})};
    World installed(world);
    LogCapture log;
    Assembly assembly;
    auto item = displayItem("ev", 1);
    item.mouseEvents = true;
    item.keyboardEvents = true;
    const auto context = assembly.context(log.logger);
    // The input recorders come from the metadata folder: this one makes the screen alone.
    auto recorders = makeScreenRecorders(item, context);
    ASSERT_EQ(recorders.size(), 1u);
    auto recorder = screen(recorders);
    const auto shared = context.recordingRectTimelines->forItem("ev", log.logger);
    EXPECT_EQ(recorder->recordingRectTimeline(), shared);
    recorder->prepare();
    ASSERT_FALSE(shared->timeline().empty());
    EXPECT_EQ(shared->timeline().front().rect, (CGRect{{100, 50}, {640, 360}}));
    recorder->cancel();
}

// ---- Content filters.

TEST(ScreenContentFilters, CropsAreCutToTheDisplayOrRefused) {
    LogCapture log;
    const SCDisplay d{7, {{100, 0}, {1920, 1080}}, 1920, 1080};
    EXPECT_EQ(ScreenRecorder::clamp({{0, 0}, {1920, 1080}}, d, log.logger), (CGRect{{0, 0}, {1920, 1080}}));
    EXPECT_TRUE(log.lines().empty());

    EXPECT_EQ(ScreenRecorder::clamp({{1800, 1000}, {400, 400}}, d, log.logger), (CGRect{{1800, 1000}, {120, 80}}));
    ASSERT_TRUE(log.contains("Adjusted crop to fall inside display bounds."));

    try {
        ScreenRecorder::clamp({{2000, 0}, {100, 100}}, d, log.logger);
        FAIL();
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::configurationFailed);
        EXPECT_EQ(e.localizedDescription(), "Crop falls outside display bounds.");
    }
    EXPECT_TRUE(log.contains("Crop resulted in an empty area."));
}

TEST(ScreenContentFilters, ExcludeOptionsAndTheIndicatorSearch) {
    LogCapture log;
    const SCDisplay left{1, {{0, 0}, {1000, 800}}, 1000, 800}, right{2, {{1000, 0}, {1000, 800}}, 1000, 800};
    const platform::SCRunningApplication cc{50, "com.apple.controlcenter", "Control Center"}, app{60, "x", "X"};
    auto win = [](uint32_t id, CGRect frame, std::optional<platform::SCRunningApplication> owner, std::string title) {
        SCWindow w;
        w.windowID = id;
        w.frame = frame;
        w.owningApplication = owner;
        w.title = title;
        return w;
    };
    // Nothing asked: the whole display, two empty lists.
    const SCShareableContent empty({left, right}, {}, {cc, app});
    auto none = ScreenRecorder::DisplayFilterOptions::make({}, empty, log.logger);
    EXPECT_EQ(none.kind, ScreenRecorder::DisplayFilterOptions::Kind::excludingApplications);
    EXPECT_TRUE(none.processIDs.empty());
    EXPECT_TRUE(none.windowIDs.empty());
    EXPECT_TRUE(log.lines().empty());

    // 300 wide is not an indicator, 301 is; the module and one window on the
    // other display join it.
    const SCShareableContent content({left, right},
                                     {win(10, {{10, 10}, {300, 200}}, cc, ""), win(11, {{10, 10}, {301, 200}}, cc, ""),
                                      win(12, {{20, 0}, {50, 20}}, cc, "AudioVideoModule"),
                                      win(13, {{1020, 0}, {50, 20}}, cc, ""), win(14, {{10, 10}, {350, 200}}, app, "")},
                                     {cc, app});
    std::vector<uint32_t> ids;
    for (const auto& w : ScreenRecorder::indicatorWindows(content, log.logger)) ids.push_back(w.windowID);
    EXPECT_EQ(ids, (std::vector<uint32_t>{12, 13, 11}));

    // Indicator windows of an excluded process are covered by the process.
    auto options = ScreenRecorder::DisplayFilterOptions::make(
        {ScreenRecordingExcludeOptions::processID(50), ScreenRecordingExcludeOptions::screenRecordingIndicator()},
        content, log.logger);
    EXPECT_EQ(options.processIDs, (std::vector<int32_t>{50}));
    EXPECT_TRUE(options.windowIDs.empty());
    auto filter = ScreenRecorder::createDisplayFilter(left, options, content);
    ASSERT_EQ(filter.applications().size(), 1u);
    EXPECT_EQ(filter.applications()[0].processID, 50);

    // No control center and no window carrying the traits: warned, not refused.
    ScreenRecorder::indicatorWindows(empty, log.logger);
    EXPECT_TRUE(log.contains("Requesting to exclude screen recording indicator window(s), could not find any."));
}

TEST(ScreenContentFilters, WindowsBelongToTheDisplayHoldingMostOfThemAndFiltersAreBuiltAfresh) {
    SyntheticWorld world;
    world.displays = {display(1, {{0, 0}, {1000, 800}}), display(2, {{1000, 0}, {1000, 800}})};
    world.applications = {{50, "Control Center", "com.apple.controlcenter"}, {60, "Editor", "dev.example.editor"}};
    world.windows = {window(101, {{900, 100}, {300, 200}}, 60), window(102, {{5000, 5000}, {100, 100}}, 60),
                     window(103, {{0, 0}, {200, 200}}, 60), window(104, {{100, 100}, {801, 601}}, std::nullopt)};
    World installed(world);
    LogCapture log;
    ShareableContent::resetReturnedOnce();

    // 100 points on the left display, 200 on the right.
    auto crossing = ScreenRecorder::createDesktopIndependentWindowFilter(101, log.logger);
    EXPECT_EQ(crossing.display.displayID, 2u);
    try {
        ScreenRecorder::createDesktopIndependentWindowFilter(102, log.logger);
        FAIL() << "a window off every display found a display";
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::displayUnavailable);
        EXPECT_EQ(e.localizedDescription(), "Can't find display for window: 102");
    }
    try {
        ScreenRecorder::createWindowBasedCropFilter(999, log.logger);
        FAIL();
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::windowUnavailable);
    }

    // The window's own application stays, every other goes; the crop is the
    // window in display points.
    auto crop = ScreenRecorder::createWindowBasedCropFilter(101, log.logger);
    EXPECT_EQ(crop.crop, (CGRect{{0, 100}, {200, 200}}));
    ASSERT_EQ(crop.filter.windows().size(), 2u);
    EXPECT_EQ(crop.filter.windows()[0].windowID, 102u);
    ASSERT_EQ(crop.filter.applications().size(), 1u);
    EXPECT_EQ(crop.filter.applications()[0].processID, 50);
    try {
        ScreenRecorder::createWindowBasedCropAudioFilter(104, log.logger);
        FAIL();
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::windowUnavailable);
        EXPECT_EQ(e.localizedDescription(), "Window has no owning application: 104");
    }

    // A second build sees windows that appeared since the first.
    auto before = ScreenRecorder::createDisplayFilter(1, {ScreenRecordingExcludeOptions::screenRecordingIndicator()},
                                                      std::nullopt, log.logger);
    EXPECT_TRUE(before.filter.windows().empty());
    installed.platform->addWindow(window(105, {{10, 10}, {320, 150}}, 50, std::nullopt));
    auto after = ScreenRecorder::createDisplayFilter(1, {ScreenRecordingExcludeOptions::screenRecordingIndicator()},
                                                     std::nullopt, log.logger);
    ASSERT_EQ(after.filter.windows().size(), 1u);
    EXPECT_EQ(after.filter.windows()[0].windowID, 105u);

    try {
        ScreenRecorder::createDisplayFilter(77, {}, std::nullopt, log.logger);
        FAIL();
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::displayUnavailable);
        EXPECT_EQ(e.localizedDescription(), "Can't find display with ID: 77");
    }
}

// ---- Lifecycle.

TEST(ScreenRecorder, IdleFramesMoveTheRectangleTimelineButAddNoFramesAndAStoppedStreamStopsQuietly) {
    SyntheticWorld world;
    auto d = display(1, {{0, 0}, {640, 360}});
    d.faults = {SyntheticFault::make(SyntheticFault::Kind::goesIdle, 0.5)};
    world.displays = {d};
    World installed(world);
    LogCapture log;
    Assembly assembly;
    auto recorder = screen(makeScreenRecorders(displayItem("idle", 1), assembly.context(log.logger)));
    recorder->prepare();
    assembly.live->start(Assembly::now());
    std::this_thread::sleep_for(std::chrono::milliseconds(900));
    const auto rects = recorder->recordingRectTimeline();
    const auto last = rects->lastCaptureCall();
    const auto framesWhenIdle = recorder->appendedVideoFrames();
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_GT(rects->lastCaptureCall(), last);
    EXPECT_EQ(rects->timeline().size(), 1u);
    // At most the repeater's one frame a second while idle.
    EXPECT_LE(recorder->appendedVideoFrames(), framesWhenIdle + 1);

    recorder->cancel();
    assembly.live->stop(Assembly::now());
    auto assets = recorder->finish();
    EXPECT_TRUE(log.contains("ScreenCaptureKit stream has already been stopped."));
    ASSERT_EQ(assets.size(), 1u);
    EXPECT_EQ(assets[0].filename, "display-idle.mov");
    EXPECT_EQ(*assets[0].recordingScale, 1.0);
    EXPECT_TRUE(std::filesystem::exists(assembly.dir / "display-idle.mov"));
    EXPECT_TRUE(assembly.aborts.empty());
}

TEST(ScreenRecorder, ADisplayThatNeverDeliversFailsPrepareAfterThreeSecondsOnce) {
    SyntheticWorld world;
    auto d = display(1, {{0, 0}, {640, 360}});
    d.faults = {SyntheticFault::make(SyntheticFault::Kind::neverDelivers)};
    world.displays = {d};
    World installed(world);
    LogCapture log;
    Assembly assembly;
    auto recorder = screen(makeScreenRecorders(displayItem("silent", 1), assembly.context(log.logger)));
    const auto start = std::chrono::steady_clock::now();
    try {
        recorder->prepare();
        FAIL();
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::noVideoFramesReceived);
    }
    const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(waited, 3.0);
    EXPECT_LT(waited, 4.5);
    int starts = 0;
    for (const auto& line : log.lines()) starts += line.message == "Preparing.";
    EXPECT_EQ(starts, 1);
    EXPECT_TRUE(log.contains("No samples received from ScreenCaptureKit, timed out."));
    EXPECT_FALSE(std::filesystem::exists(assembly.dir / "display-silent.mov"));
}

TEST(ScreenRecorder, AStreamThatStopsWithAnErrorAbortsAndAFullVolumeSaysSo) {
    SyntheticWorld world;
    auto d = display(1, {{0, 0}, {640, 360}});
    d.faults = {SyntheticFault::make(SyntheticFault::Kind::stopsWithError, 0.4)};
    world.displays = {d};
    World installed(world);
    LogCapture log;
    Assembly assembly;
    auto recorder = screen(makeScreenRecorders(displayItem("err", 1), assembly.context(log.logger)));
    recorder->prepare();
    ASSERT_TRUE(testing::eventually([&] {
        std::lock_guard lock(assembly.mutex);
        return !assembly.aborts.empty();
    }));
    {
        std::lock_guard lock(assembly.mutex);
        ASSERT_EQ(assembly.aborts[0].kind, AbortSignal::Kind::interrupted);
        try {
            std::rethrow_exception(assembly.aborts[0].error);
        } catch (const OVError& e) {
            EXPECT_EQ(e.code(), OVError::Code::screenCaptureStoppedWithError);
        }
    }
    bool loggedSpace = false;
    for (const auto& line : log.lines())
        loggedSpace |= line.message.rfind("Now available opportunistic disk space: ", 0) == 0;
    EXPECT_TRUE(loggedSpace);

    // A volume with no room at all (procfs has no blocks) turns the same stop into the low-disk abort.
    EXPECT_TRUE(isVolumeLowOnDiskSpace(OutputDescription::singleFile("/proc/recording.mov"), log.logger));
    const auto stop = std::make_exception_ptr(
        platform::SCStreamError(platform::SCStreamError::systemStoppedStream, "Stopped by the system."));
    auto low = AbortSignal::create(stop, true, log.logger);
    try {
        std::rethrow_exception(low.error);
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::screenCaptureStoppedLowDiskSpace);
    }
    assembly.live->start(Assembly::now());
    assembly.live->stop(Assembly::now());
    recorder->finish();
}

TEST(ScreenRecorder, PausingAndResumingKeepsOneFramePerThirtiethOfTheTimeline) {
    SyntheticWorld world;
    world.displays = {display(1, {{0, 0}, {640, 360}})};
    World installed(world);
    LogCapture log;
    Assembly assembly;
    auto recorder = screen(makeScreenRecorders(displayItem("pr", 1), assembly.context(log.logger)));
    recorder->prepare();
    auto& live = *assembly.live;
    live.start(Assembly::now());
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    live.pause(Assembly::now());
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    live.start(Assembly::now());
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    live.stop(Assembly::now());
    recorder->finish();
    StableRecordingTimeline timeline(assembly.live);
    const double duration = timeline.duration();
    EXPECT_NEAR(duration, 3.0, 0.2);
    const auto info = testing::probeMedia(assembly.dir / "display-pr.mov");
    ASSERT_EQ(info["streams"].size(), 1u) << info.dump();
    const int packets = std::stoi(info["streams"][0]["nb_read_packets"].get<std::string>());
    // One frame per 1/30 s of each interval, give or take two per interval;
    // fewer only by what a busy encoder refused.
    EXPECT_NEAR(packets + double(recorder->droppedVideoFrames()), duration * 30, 4.0)
        << packets << " packets for " << duration << " s";
    EXPECT_TRUE(assembly.aborts.empty());
}

}  // namespace
}  // namespace ov
