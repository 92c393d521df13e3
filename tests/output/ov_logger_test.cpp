#include "output/ov_logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <set>
#include <thread>

namespace ov {
namespace {

using LogMessage = OVLogger::LogMessage;
using HandlerMode = OVLogger::HandlerMode;

// A fresh engine whose lines the test collects; no system log, so nothing leaks
// to the journal or stderr.
struct Capture {
    std::shared_ptr<OVLogger> engine = OVLogger::create(false);
    std::mutex mutex;
    std::vector<LogMessage> lines;
    std::shared_ptr<OVLogger::HandlerWrapper> wrapper = engine->addLogHandler(
        HandlerMode::realtime, [this](const LogMessage& m) {
            std::lock_guard lock(mutex);
            lines.push_back(m);
        });

    Logger logger(std::string category, std::optional<std::string> identifier = std::nullopt) {
        return Logger(std::move(category), std::move(identifier), {}, engine);
    }
    std::vector<std::string> messages() {
        std::lock_guard lock(mutex);
        std::vector<std::string> out;
        for (auto& l : lines) out.push_back(l.message);
        return out;
    }
};

TEST(OVLogLevel, RawValuesOrderAndSystemTypes) {
    EXPECT_EQ(rawValue(OVLogLevel::trace), "trace");
    EXPECT_EQ(rawValue(OVLogLevel::warning), "warning");
    EXPECT_EQ(rawValue(OVLogLevel::critical), "critical");
    EXPECT_EQ(logLevelFromRawValue("error"), OVLogLevel::error);
    EXPECT_EQ(logLevelFromRawValue("fatal"), std::nullopt);
    EXPECT_LT(OVLogLevel::trace, OVLogLevel::debug);
    EXPECT_LT(OVLogLevel::error, OVLogLevel::critical);

    using Type = platform::OSLog::Type;
    EXPECT_EQ(systemLogType(OVLogLevel::trace), Type::debug);
    EXPECT_EQ(systemLogType(OVLogLevel::debug), Type::info);
    EXPECT_EQ(systemLogType(OVLogLevel::info), Type::defaultType);
    EXPECT_EQ(systemLogType(OVLogLevel::warning), Type::error);
    EXPECT_EQ(systemLogType(OVLogLevel::error), Type::error);
    EXPECT_EQ(systemLogType(OVLogLevel::critical), Type::error);
}

TEST(OVLoggerThresholds, GlobalDefaultIsDebugAndFilteredLinesEvaluateNothing) {
    Capture c;
    auto logger = c.logger("Recorder");
    EXPECT_EQ(c.engine->logLevel(), OVLogLevel::debug);

    int messageEvaluations = 0;
    int metadataEvaluations = 0;
    logger.trace(
        [&] {
            ++messageEvaluations;
            return std::string("dropped");
        },
        [&] {
            ++metadataEvaluations;
            return LogMetadata{{"k", "v"}};
        });
    EXPECT_EQ(messageEvaluations, 0);
    EXPECT_EQ(metadataEvaluations, 0);
    EXPECT_TRUE(c.messages().empty());

    logger.debug(
        [&] {
            ++messageEvaluations;
            return std::string("kept");
        },
        [&] {
            ++metadataEvaluations;
            return LogMetadata{{"k", "v"}};
        });
    EXPECT_EQ(messageEvaluations, 1);
    EXPECT_EQ(metadataEvaluations, 1);
    EXPECT_EQ(c.messages(), std::vector<std::string>{"kept"});
}

TEST(OVLoggerThresholds, CategoryOverridesGlobalInBothDirectionsAndAbsentRestoresIt) {
    Capture c;
    auto strict = c.logger("Strict");
    auto chatty = c.logger("Chatty");
    auto other = c.logger("Other");

    // Stricter than the global debug.
    c.engine->setLogLevel(OVLogLevel::warning, "Strict");
    strict.info("strict info");
    strict.warning("strict warning");
    other.info("other info");

    // Looser than the global error.
    c.engine->setLogLevel(OVLogLevel::error);
    c.engine->setLogLevel(OVLogLevel::trace, "Chatty");
    chatty.trace("chatty trace");
    other.warning("other warning");
    other.error("other error");

    // Absent: the category follows the global level again.
    c.engine->setLogLevel(std::nullopt, "Chatty");
    EXPECT_EQ(c.engine->logLevel("Chatty"), std::nullopt);
    chatty.warning("chatty warning");
    chatty.error("chatty error");

    EXPECT_EQ(c.messages(), (std::vector<std::string>{"strict warning", "other info", "chatty trace", "other error",
                                                       "chatty error"}));
}

TEST(OVLoggerThresholds, CriticalGoesThroughTheEngine) {
    Capture c;
    c.engine->setLogLevel(OVLogLevel::critical);
    auto logger = c.logger("Bucket");
    logger.error("not this");
    logger.log(OVLogLevel::critical, "this");
    ASSERT_EQ(c.messages(), std::vector<std::string>{"this"});
    EXPECT_EQ(c.lines[0].level, OVLogLevel::critical);
}

TEST(LogMessageFormatting, MetadataSortedAndLineWithoutMetadataEndsInABlank) {
    LogMessage m{std::chrono::system_clock::now(), OVLogLevel::info, "Conductor", "Prepared.", {{"b", "2"}, {"a", "1"}}};
    EXPECT_EQ(m.formattedMetadata(), "a=1 b=2");
    EXPECT_EQ(m.systemLogText(), "[Conductor] Prepared. a=1 b=2");

    // Sorted as rendered: '.' sorts before '='.
    LogMessage prefix{m.timestamp, OVLogLevel::info, "C", "m", {{"a", "1"}, {"a.b", "2"}}};
    EXPECT_EQ(prefix.formattedMetadata(), "a.b=2 a=1");

    LogMessage bare{m.timestamp, OVLogLevel::warning, "Conductor", "Stopped.", {}};
    const std::string line = bare.description();
    EXPECT_EQ(line.back(), ' ');
    const std::regex shape(R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}[+-]\d{4} warning \[Conductor\] Stopped\. $)");
    EXPECT_TRUE(std::regex_match(line, shape)) << line;
}

TEST(LogMessageFormatting, TimestampInLocalTimeWithOffset) {
    const char* previous = std::getenv("TZ");
    std::string saved = previous ? previous : "";
    setenv("TZ", "Asia/Kolkata", 1);  // +05:30, no daylight saving
    tzset();
    // 2021-03-04 05:06:07.089 UTC
    const auto t = std::chrono::system_clock::time_point(std::chrono::milliseconds(1614834367089));
    LogMessage m{t, OVLogLevel::debug, "X", "y", {{"k", "v"}}};
    const std::string line = m.description();
    if (previous)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
    EXPECT_EQ(line, "2021-03-04T10:36:07.089+0530 debug [X] y k=v");
}

TEST(LoggerMetadata, IdentifiersNestAndMessageMetadataWins) {
    Capture c;
    Logger root("OVRecorder", "r1", {}, c.engine);
    EXPECT_EQ(root.metadata(), (LogMetadata{{"OVRecorder", "r1"}}));

    Logger conductor = root.with("Conductor", "c7", {{"phase", "prepare"}, {"OVRecorder", "override"}});
    EXPECT_EQ(conductor.category(), "Conductor");
    // Additional metadata wins over the outer logger's; the identifier comes last.
    EXPECT_EQ(conductor.metadata(),
              (LogMetadata{{"OVRecorder", "override"}, {"phase", "prepare"}, {"Conductor", "c7"}}));

    Logger writer = conductor.with("Writer");
    writer.info("Wrote.", [] { return LogMetadata{{"phase", "record"}, {"bytes", "10"}}; });
    ASSERT_EQ(c.lines.size(), 1u);
    EXPECT_EQ(c.lines[0].category, "Writer");
    EXPECT_EQ(c.lines[0].formattedMetadata(), "Conductor=c7 OVRecorder=override bytes=10 phase=record");
}

TEST(OVLoggerRing, KeepsTheLastThousandLinesOldestFirst) {
    auto engine = OVLogger::create(false);
    Logger logger("Ring", std::nullopt, {}, engine);
    for (int i = 0; i < 1500; ++i) logger.info([i] { return std::to_string(i); });
    auto lines = engine->ringBuffer().elements();
    ASSERT_EQ(lines.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(lines[i].message, std::to_string(500 + i));
}

TEST(OVLoggerHandlers, ReleasedWrapperIsNoLongerCalled) {
    Capture c;
    std::atomic<int> calls{0};
    auto wrapper = c.engine->addLogHandler(HandlerMode::realtime, [&](const LogMessage&) { ++calls; });
    auto logger = c.logger("H");
    logger.info("one");
    wrapper.reset();
    logger.info("two");
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(c.messages().size(), 2u);
}

TEST(OVLoggerHandlers, NonblockingHandlersSeeLinesInOrderOffTheLoggingThread) {
    Capture c;
    std::mutex mutex;
    std::vector<std::string> seen;
    std::set<std::thread::id> threads;
    auto wrapper = c.engine->addLogHandler(HandlerMode::nonblocking, [&](const LogMessage& m) {
        std::lock_guard lock(mutex);
        seen.push_back(m.message);
        threads.insert(std::this_thread::get_id());
    });
    auto logger = c.logger("N");
    std::vector<std::string> expected;
    for (int i = 0; i < 200; ++i) {
        logger.info([i] { return std::to_string(i); });
        expected.push_back(std::to_string(i));
    }
    c.engine->flushNonblockingHandlers();
    std::lock_guard lock(mutex);
    EXPECT_EQ(seen, expected);
    ASSERT_EQ(threads.size(), 1u);
    EXPECT_NE(*threads.begin(), std::this_thread::get_id());
}

TEST(OVLoggerHandlers, ReplacingTheExternalHandlerWhileLoggingLosesNoLine) {
    auto engine = OVLogger::create(false);
    constexpr int kThreads = 4;
    constexpr int kLines = 3000;

    std::mutex mutex;
    std::set<std::string> seen;
    std::atomic<int> replacements{0};
    auto handlerFor = [&](int) {
        return [&](const LogMessage& m) {
            std::lock_guard lock(mutex);
            seen.insert(m.message);
        };
    };
    engine->setLogHandler(HandlerMode::realtime, handlerFor(0));

    std::atomic<bool> done{false};
    std::thread replacer([&] {
        int n = 1;
        while (!done.load()) {
            engine->setLogHandler(HandlerMode::realtime, handlerFor(n++));
            ++replacements;
        }
    });
    std::vector<std::thread> loggers;
    for (int t = 0; t < kThreads; ++t)
        loggers.emplace_back([&, t] {
            Logger logger("T", std::nullopt, {}, engine);
            for (int i = 0; i < kLines; ++i) logger.info([&] { return fmt::format("{}-{}", t, i); });
        });
    for (auto& th : loggers) th.join();
    done = true;
    replacer.join();

    EXPECT_GT(replacements.load(), 0);
    std::lock_guard lock(mutex);
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
}

TEST(OVLoggerHandlers, SystemLogHandlerWritesMappedTypesUntilReplaced) {
    if (!platform::OSLog::isEnabled(platform::OSLog::Type::defaultType)) GTEST_SKIP() << "system log turned off";
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    platform::OSLog::redirectForTesting(fds[1]);
    auto engine = OVLogger::create(true);
    Logger logger("Conductor", "c1", {}, engine);
    logger.info("Prepared.");
    engine->setLogHandler(HandlerMode::realtime, [](const LogMessage&) {});
    logger.info("After replacement.");
    platform::OSLog::redirectForTesting(-1);
    close(fds[1]);
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) out.append(buffer, n);
    close(fds[0]);
    // info is the system's default type, which the default system threshold emits.
    EXPECT_NE(out.find("default dev.halvern.Orvane:Orvane [Conductor] Prepared. Conductor=c1"), std::string::npos)
        << out;
    EXPECT_EQ(out.find("After replacement."), std::string::npos) << out;
}

}  // namespace
}  // namespace ov
