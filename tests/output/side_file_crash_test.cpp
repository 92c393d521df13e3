// The target of a streaming side file is whole at every instant: for a reader
// while commits go on, and after the writing process is killed at any moment.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "output/streaming_json_writer.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// The number of events in a well-formed file whose elements are numbered
// 0..n-1; a failure message otherwise.
std::variant<size_t, std::string> numberedPrefixLength(const std::string& text) {
    json array;
    try {
        array = json::parse(text);
    } catch (const std::exception& e) {
        return std::string("not JSON (") + e.what() + "): " + text.substr(text.size() > 200 ? text.size() - 200 : 0);
    }
    if (!array.is_array()) return std::string("not an array");
    for (size_t i = 0; i < array.size(); ++i) {
        if (!array[i].is_object() || array[i].value("n", uint64_t(-1)) != i)
            return "element " + std::to_string(i) + " is " + array[i].dump();
    }
    return array.size();
}

TEST(SideFileCrashTest, AKilledWriterLeavesAWholeNumberedPrefix) {
    constexpr int kKills = 30;
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> lifetimeMs(0, 40);
    size_t runsWithEvents = 0;
    size_t mostEvents = 0;
    for (int run = 0; run < kKills; ++run) {
        TempDirectory dir;
        const auto target = dir / "events.json";
        ChildProcess child(ORVANE_TEST_HELPER_PATH, {"stream-json", target.string(), "0.002"});
        ASSERT_EQ(child.readLine(std::chrono::milliseconds(5000)).value_or(""), "ready") << child.stderrText();
        std::this_thread::sleep_for(std::chrono::milliseconds(lifetimeMs(random)));
        child.kill(SIGKILL);
        ASSERT_TRUE(child.waitForExit().has_value());

        auto result = numberedPrefixLength(readFile(target));
        ASSERT_TRUE(std::holds_alternative<size_t>(result)) << "run " << run << ": " << std::get<std::string>(result);
        const size_t n = std::get<size_t>(result);
        runsWithEvents += n > 0;
        mostEvents = std::max(mostEvents, n);
        EXPECT_TRUE(fs::exists(dir / "events.json~")) << "a crash leaves the hot file behind";
    }
    // Kills that all landed before the first commit of an event would prove nothing.
    EXPECT_GE(runsWithEvents, size_t(kKills / 2));
    EXPECT_GT(mostEvents, 10u);
}

TEST(SideFileCrashTest, AReaderNeverSeesAPartialTarget) {
    TempDirectory dir;
    LogCapture log;
    const auto target = dir / "events.json";
    StreamingJSONWriter writer(target, 0.001, log.logger);

    std::atomic<bool> done{false};
    std::thread producer([&] {
        const std::string padding(100, 'p');
        for (uint64_t n = 0; !done; ++n) writer.write(json{{"n", n}, {"pad", padding.substr(0, n % 100)}});
    });

    size_t reads = 0, distinctLengths = 0, lastLength = 0;
    std::string failure;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(700);
    while (std::chrono::steady_clock::now() < deadline && failure.empty()) {
        auto result = numberedPrefixLength(readFile(target));
        ++reads;
        if (auto* message = std::get_if<std::string>(&result)) {
            failure = *message;
        } else {
            const size_t n = std::get<size_t>(result);
            if (n < lastLength) failure = "the file went back from " + std::to_string(lastLength) + " to " + std::to_string(n);
            if (n != lastLength) ++distinctLengths;
            lastLength = n;
        }
    }
    done = true;
    producer.join();
    writer.close();
    EXPECT_EQ(failure, "") << "after " << reads << " reads";
    EXPECT_GE(distinctLengths, 5u) << "the reader must have seen commits happen";
    EXPECT_TRUE(std::holds_alternative<size_t>(numberedPrefixLength(readFile(target))));
}

}  // namespace
}  // namespace ov::testing
