// The conductor's state machine with recorders whose timing the test controls.
#include "session/conductor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "foundation/ov_error.h"
#include "session/ov_recorder.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"
#include "timing/volatile_recording_timeline.h"

namespace ov {
namespace {

using testing::LogCapture;
using testing::TempDirectory;
using Kind = Conductor::StateKind;

// Opens once; every waiter passes from then on.
class Gate {
public:
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [&] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
};

// A recorder whose prepare and finish can be held, made to fail, and counted.
struct ScriptedRecorder : Recorder {
    std::string name;
    std::shared_ptr<Gate> prepareGate;
    std::exception_ptr prepareError;
    std::exception_ptr finishError;
    std::atomic<int> prepares{0};
    std::atomic<int> finishes{0};
    std::atomic<bool> prepareEntered{false};
    AbortFunction onAbort;

    explicit ScriptedRecorder(std::string name) : name(std::move(name)) {}
    std::string id() const override { return name; }
    std::vector<OVBundleInfo::FileAsset> prepare() override {
        prepareEntered = true;
        if (prepareGate) prepareGate->wait();
        ++prepares;
        if (prepareError) std::rethrow_exception(prepareError);
        return {asset()};
    }
    std::vector<OVBundleInfo::FileAsset> finish() override {
        ++finishes;
        if (finishError) std::rethrow_exception(finishError);
        return {asset()};
    }
    OVBundleInfo::FileAsset asset() const {
        OVBundleInfo::FileAsset a;
        a.type = OVBundleInfo::FileAssetType::audio;
        a.filename = name + ".m4a";
        return a;
    }
};

OVRecorderSchemaItem itemOf(std::vector<std::shared_ptr<ScriptedRecorder>> recorders) {
    return OVRecorderSchemaItem::custom([recorders](const std::filesystem::path&, const Logger&, AbortFunction onAbort) {
        std::vector<std::shared_ptr<Recorder>> out;
        for (auto& r : recorders) {
            r->onAbort = onAbort;
            out.push_back(r);
        }
        return out;
    });
}

struct Harness {
    LogCapture log;
    TempDirectory temp;
    std::filesystem::path bundle = temp / "bundle.orvane";
    std::mutex abortMutex;
    std::vector<OVRecorderAbortReason> aborts;
    std::shared_ptr<Conductor> conductor;

    explicit Harness(std::vector<OVRecorderSchemaItem> items, bool useTimeline = true,
                     std::optional<std::filesystem::path> outputDirectory = std::nullopt) {
        OVRecorderSchema schema{outputDirectory.value_or(bundle), std::move(items)};
        conductor = Conductor::create("test1", std::move(schema), useTimeline, 6, 2, std::nullopt,
                                      log.loggerFor("Test"), [this](const OVRecorderAbortReason& reason) {
                                          std::lock_guard lock(abortMutex);
                                          aborts.push_back(reason);
                                      });
    }
    size_t abortCount() {
        std::lock_guard lock(abortMutex);
        return aborts.size();
    }
};

template <class E, class F>
E caught(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e;
    }
    ADD_FAILURE() << "expected an exception";
    throw std::logic_error("no exception");
}

std::string debugOf(const OVError& e) { return e.debugDescription(); }

TEST(ConductorTest, RecordsFromPrepareToStopAndDescribesTheBundle) {
    auto a = std::make_shared<ScriptedRecorder>("a");
    auto b = std::make_shared<ScriptedRecorder>("b");
    auto c = std::make_shared<ScriptedRecorder>("c");
    Harness h({itemOf({a, b}), itemOf({c})});
    h.log.logger.info("Before the bundle existed.");

    auto info = h.conductor->prepare("t1");
    ASSERT_EQ(info.files.size(), 3u);
    // Recorder order follows the items, then each item's own order.
    EXPECT_EQ(info.files[0].filename, "a.m4a");
    EXPECT_EQ(info.files[1].filename, "b.m4a");
    EXPECT_EQ(info.files[2].filename, "c.m4a");
    EXPECT_TRUE(std::filesystem::is_directory(h.bundle));

    h.conductor->start("t2");
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    auto result = h.conductor->stop("t3");
    EXPECT_EQ(result.bundleURL, h.bundle);
    EXPECT_EQ(result.bundleInfo->files.size(), 3u);
    EXPECT_GE(result.bundleInfo->duration, 0.02);
    EXPECT_LT(result.bundleInfo->duration, 5.0);
    EXPECT_EQ(a->finishes, 1);
    EXPECT_EQ(c->finishes, 1);

    auto json = nlohmann::json::parse(testing::readFile(h.bundle / "orvane.json"));
    EXPECT_EQ(json["version"], 1);
    EXPECT_EQ(json["files"].size(), 3u);
    EXPECT_DOUBLE_EQ(json["duration"].get<double>(), result.bundleInfo->duration);

    // The log file holds what was logged before the bundle existed (the ring),
    // the recording's own lines, and nothing after the writer closed.
    const auto logText = testing::readFile(h.bundle / "orvane.log");
    EXPECT_NE(logText.find("Before the bundle existed."), std::string::npos);
    EXPECT_NE(logText.find("Started recording."), std::string::npos);
    EXPECT_NE(logText.find("Closing log writer."), std::string::npos);
    EXPECT_EQ(logText.find("Wrote orvane.json to output folder."), std::string::npos);
    EXPECT_NE(logText.find("traceID=t2"), std::string::npos);

    // A second stop gives the same result; pause is refused for good.
    auto again = h.conductor->stop("t4");
    EXPECT_EQ(again.bundleInfo, result.bundleInfo);
    auto e = caught<OVError>([&] { h.conductor->pause(); });
    EXPECT_EQ(debugOf(e), "Pause called on recorder that already has stopped recording.");
}

TEST(ConductorTest, StopWhilePreparingWaitsThenStopsThePreparedRecording) {
    auto slow = std::make_shared<ScriptedRecorder>("slow");
    slow->prepareGate = std::make_shared<Gate>();
    Harness h({itemOf({slow})});

    auto preparing = std::async(std::launch::async, [&] { return h.conductor->prepare("p"); });
    ASSERT_TRUE(testing::eventually([&] { return slow->prepareEntered.load(); }));
    auto stopping = std::async(std::launch::async, [&] { return h.conductor->stop("s"); });
    // A second start while preparing waits too, and starts only once.
    ASSERT_TRUE(h.log.waitFor("Stop called while still preparing, waiting for completion."));
    EXPECT_EQ(h.conductor->stateKind(), Kind::preparing);
    slow->prepareGate->open();

    preparing.get();
    auto result = stopping.get();
    EXPECT_TRUE(result.bundleInfo->files.empty());
    EXPECT_EQ(h.conductor->stateKind(), Kind::stopped);
    // Only prepared: recorders are not finished and no description is written.
    EXPECT_EQ(slow->finishes, 0);
    EXPECT_FALSE(std::filesystem::exists(h.bundle / "orvane.json"));
    EXPECT_TRUE(std::filesystem::exists(h.bundle / "orvane.log"));
    EXPECT_TRUE(h.log.contains("Stop resumed after state change."));
}

TEST(ConductorTest, ConcurrentStartsWhilePreparingStartOnce) {
    auto slow = std::make_shared<ScriptedRecorder>("slow");
    slow->prepareGate = std::make_shared<Gate>();
    Harness h({itemOf({slow})});
    auto first = std::async(std::launch::async, [&] { h.conductor->start("s1"); });
    ASSERT_TRUE(testing::eventually([&] { return slow->prepareEntered.load(); }));
    auto second = std::async(std::launch::async, [&] { h.conductor->start("s2"); });
    ASSERT_TRUE(h.log.waitFor("Start called while still preparing, waiting for completion."));
    slow->prepareGate->open();
    first.get();
    second.get();
    EXPECT_EQ(slow->prepares, 1);
    EXPECT_EQ(h.conductor->stateKind(), Kind::recording);
    EXPECT_EQ(h.conductor->recordingTimeline()->state().timeline.size(), 1u);
    h.conductor->stop("x");
}

TEST(ConductorTest, FailedPrepareRethrowsTheSameErrorAndStopWrapsIt) {
    auto broken = std::make_shared<ScriptedRecorder>("broken");
    broken->prepareError = std::make_exception_ptr(OVError(OVError::Code::microphoneUnavailable, std::string("gone")));
    Harness h({itemOf({broken})});

    const OVError* first = nullptr;
    try {
        h.conductor->prepare("p1");
        FAIL();
    } catch (const OVError& e) {
        first = &e;
        EXPECT_EQ(e.code(), OVError::Code::microphoneUnavailable);
    }
    try {
        h.conductor->prepare("p2");
        FAIL();
    } catch (const OVError& e) {
        EXPECT_EQ(&e, first) << "the very same error object";
    }
    EXPECT_TRUE(h.log.contains("Prepare called while previously failed, rethrowing same error again."));
    auto partial = caught<OVRecorderPartialResultError>([&] { h.conductor->stop("s"); });
    EXPECT_TRUE(partial.result.bundleInfo->files.empty());
    ASSERT_EQ(partial.groupedErrors.errors().size(), 1u);
    EXPECT_EQ(h.conductor->stateKind(), Kind::prepareFailed);
    EXPECT_THROW(h.conductor->start("st"), OVError);
}

TEST(ConductorTest, ExistingOutputDirectoryFailsPrepareAndStaysUntouched) {
    TempDirectory existing;
    testing::writeFile(existing / "keep.txt", "mine");
    Harness h({}, true, existing.path());
    auto e = caught<OVError>([&] { h.conductor->prepare("p"); });
    EXPECT_EQ(e.code(), OVError::Code::configurationFailed);
    EXPECT_EQ(debugOf(e), "outputDirectory already exists");
    EXPECT_EQ(e.localizedDescription(), "Provided outputDirectory already exists: " + existing.path().string());
    EXPECT_EQ(e._userInfo().at("outputDirectory"), existing.path().string());
    EXPECT_EQ(testing::readFile(existing / "keep.txt"), "mine");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(existing.path()), {}), 1);
    auto again = caught<OVError>([&] { h.conductor->prepare("p2"); });
    EXPECT_EQ(again.code(), OVError::Code::configurationFailed);
}

TEST(ConductorTest, StopBeforePrepareFailsTheSameWayTwice) {
    Harness h({});
    const OVRecorderPartialResultError* first = nullptr;
    try {
        h.conductor->stop("s1");
        FAIL();
    } catch (const OVRecorderPartialResultError& e) {
        first = &e;
        ASSERT_EQ(e.groupedErrors.errors().size(), 1u);
        EXPECT_NE(e.debugDescription().find("Called stop while recorder wasn't prepared yet."), std::string::npos);
    }
    try {
        h.conductor->stop("s2");
        FAIL();
    } catch (const OVRecorderPartialResultError& e) {
        EXPECT_EQ(&e, first);
    }
    EXPECT_EQ(h.conductor->stateKind(), Kind::stopFailed);
    EXPECT_THROW(h.conductor->prepare("p"), OVError);
}

TEST(ConductorTest, AFailingFinishGivesAPartialResultThatKeepsTheOtherFiles) {
    auto good = std::make_shared<ScriptedRecorder>("good");
    auto bad = std::make_shared<ScriptedRecorder>("bad");
    bad->finishError = std::make_exception_ptr(OVError(OVError::Code::assetWriterFailed, std::string("disk")));
    Harness h({itemOf({good, bad})});
    h.conductor->start("s");
    auto partial = caught<OVRecorderPartialResultError>([&] { h.conductor->stop("x"); });
    ASSERT_EQ(partial.result.bundleInfo->files.size(), 1u);
    EXPECT_EQ(partial.result.bundleInfo->files[0].filename, "good.m4a");
    ASSERT_EQ(partial.groupedErrors.errors().size(), 1u);
    EXPECT_EQ(good->finishes, 1);
    // The description is written all the same.
    auto json = nlohmann::json::parse(testing::readFile(h.bundle / "orvane.json"));
    EXPECT_EQ(json["files"].size(), 1u);
    auto line = h.log.waitFor("Internal recorder failed to stop.");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->metadata.at("recorderID"), "bad");
    EXPECT_NE(line->metadata.at("recorderType").find("ScriptedRecorder"), std::string::npos);
    EXPECT_EQ(h.conductor->stateKind(), Kind::stopFailed);
}

TEST(ConductorTest, AnAbortWhileRecordingStopsOnceAndTheFirstSignalWins) {
    auto a = std::make_shared<ScriptedRecorder>("a");
    auto b = std::make_shared<ScriptedRecorder>("b");
    Harness h({itemOf({a, b})});
    h.conductor->start("s");

    auto error = std::make_exception_ptr(OVError(OVError::Code::screenCaptureStoppedWithError, std::string("lost")));
    a->onAbort(AbortSignal::interrupted(error));
    ASSERT_TRUE(testing::eventually([&] { return h.conductor->stateKind() == Kind::aborted; }));
    b->onAbort(AbortSignal::userStopped());
    ASSERT_TRUE(h.log.waitFor(
        "Abort called on recorder that already has failed/aborted/stopped recording, call will be ignored."));

    ASSERT_EQ(h.abortCount(), 1u);
    const auto& reason = h.aborts.front();
    EXPECT_EQ(reason.kind(), OVRecorderAbortReason::Kind::interrupted);
    EXPECT_EQ(reason.error(), error);
    EXPECT_EQ(reason.result().bundleInfo->files.size(), 2u);
    EXPECT_EQ(a->finishes, 1);
    EXPECT_EQ(b->finishes, 1);
    EXPECT_TRUE(std::filesystem::exists(h.bundle / "orvane.json"));

    // Stop afterwards returns the abort's result.
    auto result = h.conductor->stop("after");
    EXPECT_EQ(result.bundleInfo, reason.result().bundleInfo);
}

TEST(ConductorTest, AnAbortWithFailingFinishIsReportedAsFailedAndStopRethrowsTheGroup) {
    auto bad = std::make_shared<ScriptedRecorder>("bad");
    bad->finishError = std::make_exception_ptr(OVError(OVError::Code::assetWriterFailed, std::string("disk")));
    Harness h({itemOf({bad})});
    h.conductor->start("s");
    bad->onAbort(AbortSignal::userStopped());
    ASSERT_TRUE(testing::eventually([&] { return h.conductor->stateKind() == Kind::aborted; }));
    ASSERT_EQ(h.abortCount(), 1u);
    EXPECT_EQ(h.aborts.front().kind(), OVRecorderAbortReason::Kind::failed);
    auto partial = caught<OVRecorderPartialResultError>([&] { h.conductor->stop("x"); });
    ASSERT_EQ(partial.groupedErrors.errors().size(), 1u);
    EXPECT_THROW(std::rethrow_exception(partial.groupedErrors.errors()[0]), OVError);
}

TEST(ConductorTest, AnAbortWhilePreparedStopsWithTheEmptyResult) {
    auto a = std::make_shared<ScriptedRecorder>("a");
    Harness h({itemOf({a})});
    h.conductor->prepare("p");
    a->onAbort(AbortSignal::userStopped());
    ASSERT_TRUE(testing::eventually([&] { return h.conductor->stateKind() == Kind::aborted; }));
    ASSERT_EQ(h.abortCount(), 1u);
    EXPECT_EQ(h.aborts.front().kind(), OVRecorderAbortReason::Kind::userStopped);
    EXPECT_TRUE(h.aborts.front().result().bundleInfo->files.empty());
    EXPECT_EQ(a->finishes, 0);
}

TEST(ConductorTest, PauseAndResumeChangeOnlyTheTimeline) {
    auto a = std::make_shared<ScriptedRecorder>("a");
    Harness h({itemOf({a})});
    auto e = caught<OVError>([&] { h.conductor->pause(); });
    EXPECT_EQ(debugOf(e), "Pause called on recorder that is not recording.");
    EXPECT_EQ(debugOf(caught<OVError>([&] { h.conductor->resume(); })),
              "Resume called on recorder that is not paused.");

    h.conductor->start("s");
    h.conductor->resume();  // already recording: nothing
    h.conductor->pause();
    h.conductor->pause();  // already paused: nothing
    EXPECT_EQ(h.conductor->stateKind(), Kind::paused);
    h.conductor->resume();
    EXPECT_EQ(h.conductor->stateKind(), Kind::recording);
    EXPECT_EQ(a->prepares, 1);
    EXPECT_EQ(a->finishes, 0);
    auto timeline = h.conductor->recordingTimeline()->state().timeline;
    ASSERT_EQ(timeline.size(), 2u);
    EXPECT_LT(timeline[0].from, timeline[0].until);
    EXPECT_LE(timeline[0].until, timeline[1].from);
    h.conductor->stop("x");
    EXPECT_EQ(a->finishes, 1);
}

TEST(ConductorTest, WithoutTimelinePauseFailsInEveryState) {
    Harness h({}, false);
    for (int step = 0; step < 3; ++step) {
        auto e = caught<OVError>([&] { h.conductor->pause(); });
        EXPECT_EQ(e.code(), OVError::Code::configurationNotSupported);
        EXPECT_EQ(debugOf(e), "Timeline support is required to pause.");
        EXPECT_EQ(caught<OVError>([&] { h.conductor->resume(); }).code(), OVError::Code::configurationNotSupported);
        if (step == 0) h.conductor->start("s");
        if (step == 1) h.conductor->stop("x");
    }
}

TEST(ConductorTest, AnEmptySchemaRecordsAnEmptyBundleWithAWarning) {
    Harness h({});
    h.conductor->start("s");
    auto result = h.conductor->stop("x");
    EXPECT_TRUE(result.bundleInfo->files.empty());
    auto warning = h.log.waitFor(
        "Schema resulted in no internal recorders, nothing will be captured, this might indicate an issue with the "
        "schema.");
    ASSERT_TRUE(warning);
    EXPECT_EQ(warning->level, OVLogLevel::warning);
    EXPECT_EQ(warning->metadata.at("recorders.count"), "0");
    EXPECT_TRUE(std::filesystem::exists(h.bundle / "orvane.json"));
}

TEST(ConductorTest, SetOnAbortOnlyBeforePrepare) {
    Harness h({});
    std::atomic<int> calls{0};
    h.conductor->setOnAbort([&](const OVRecorderAbortReason&) { ++calls; });
    h.conductor->prepare("p");
    auto e = caught<OVError>([&] { h.conductor->setOnAbort(nullptr); });
    EXPECT_EQ(e.code(), OVError::Code::internalConductorError);
    EXPECT_EQ(debugOf(e), "Invalid to set the onAbort handler after prepare has been called.");
}

TEST(ConductorTest, AutoNamedBundleGoesUnderTheTemporaryDirectory) {
    TempDirectory tmp;
    const char* old = std::getenv("TMPDIR");
    std::string saved = old ? old : "";
    setenv("TMPDIR", tmp.path().c_str(), 1);
    auto url = autoGeneratedBundleURL("abcde");
    if (old)
        setenv("TMPDIR", saved.c_str(), 1);
    else
        unsetenv("TMPDIR");
    EXPECT_EQ(url.parent_path(), tmp.path());
    const auto name = url.filename().string();
    EXPECT_EQ(name.find(':'), std::string::npos);
    EXPECT_TRUE(name.ends_with("-abcde.orvane")) << name;
    EXPECT_EQ(name.size(), std::string("2026-11-23T014512Z-abcde.orvane").size()) << name;
}

TEST(OVRecorderTest, AnAbortWithoutHandlerIsLoggedOnceAsWarning) {
    LogCapture log;
    TempDirectory temp;
    auto a = std::make_shared<ScriptedRecorder>("a");
    {
        OVRecorder recorder({itemOf({a})}, temp / "b.orvane", std::nullopt, nullptr,
                            log.loggerFor("x").ovLogger());
        EXPECT_EQ(recorder.debugDescription(), "OVRecorder: 1 recorder items");
        recorder.start();
        a->onAbort(AbortSignal::userStopped());
        auto line = log.waitFor("Aborted with no abort handler set.");
        ASSERT_TRUE(line);
        EXPECT_EQ(line->level, OVLogLevel::warning);
        EXPECT_EQ(line->metadata.at("reason"), "userStopped");
        EXPECT_EQ(line->metadata.at("OVRecorder"), recorder.id());
        // The recording ended: stop returns its result, as the library caller expects.
        EXPECT_TRUE(testing::eventually([&] {
            try {
                return recorder.stop().bundleInfo->files.size() == 1;
            } catch (...) {
                return false;
            }
        }));
    }
    EXPECT_TRUE(log.contains("Deinitialized recorder"));
}

TEST(OVRecorderTest, FailuresPassThroughAfterTheirLogLine) {
    LogCapture log;
    TempDirectory temp;
    OVRecorder recorder({}, temp / "b.orvane", OVRecorderSettings{.allowFrameReordering = true,
                                                                    .updatesUserPreferred = false,
                                                                    ._useTimeline = false,
                                                                    .keyframeIntervalDuration = std::nullopt},
                        nullptr, log.loggerFor("x").ovLogger());
    EXPECT_THROW(recorder.pause(), OVError);
    auto line = log.waitFor("Failed to pause: Timeline support is required to pause.");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, OVLogLevel::error);
    try {
        recorder.stop();
        FAIL();
    } catch (const OVRecorderPartialResultError& e) {
        EXPECT_FALSE(e.result.bundleInfo->files.size());
    }
    EXPECT_TRUE(log.contains("Initialized recorder"));
}

}  // namespace
}  // namespace ov
