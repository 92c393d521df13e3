// A host that misbehaves or goes away, seen over the pipes: lines nested too
// deep, file names that leave the bundle, absurd delays, relative folders,
// release or termination in the middle of a recording, a closed input, and a
// host that stops reading while audio streams to it.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "e2e/rpc_fixture.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

const json kMicrophone = {{"type", "microphone"}, {"microphone", "synthetic-microphone"}};

json withKeys(json item, const json& keys) {
    for (auto it = keys.begin(); it != keys.end(); ++it) item[it.key()] = it.value();
    return item;
}

// Talks to one orvane-rpc; callbacks that arrive between responses are kept.
class Host {
public:
    using Environment = std::map<std::string, std::string>;
    explicit Host(Environment env = {}) : rpc(startRpc({}, std::move(env))) {}

    json call(json message) {
        message["hvrpc"] = 1;
        message["id"] = std::to_string(++lastID_);
        rpc->writeJSON(message);
        for (;;) {
            auto line = rpc->readJSON(20000ms);
            if (!line) {
                ADD_FAILURE() << "no answer to " << message.dump() << "\n" << rpc->stderrText();
                return json();
            }
            if (!line->contains("id")) {
                callbacks.push_back(*line);
                continue;
            }
            return *line;
        }
    }

    json init(const json& schema, const std::string& target = "rec") {
        return call({{"procedure", "init"},
                     {"type", "Recorder"},
                     {"target", target},
                     {"params", {{"schema", schema}, {"onAbortInstance", "abort-cb"}}}});
    }
    json perform(const std::string& action, const std::string& target = "rec") {
        return call({{"procedure", "perform"}, {"target", target}, {"action", action}});
    }

    // init, prepare and start of a recording of `items` into `bundle`.
    void startRecording(const fs::path& bundle, const json& items) {
        auto r = init({{"output_directory", bundle.string()}, {"items", items}});
        ASSERT_EQ(r["status"], 200) << r.dump();
        r = perform("prepare");
        ASSERT_EQ(r["status"], 200) << r.dump();
        r = perform("start");
        ASSERT_EQ(r["status"], 200) << r.dump();
    }

    // Reads (and keeps) callbacks for a while; standard error is drained too.
    void listen(std::chrono::milliseconds duration) {
        const auto until = std::chrono::steady_clock::now() + duration;
        while (std::chrono::steady_clock::now() < until) {
            for (auto& line : rpc->readLinesFor(100ms)) callbacks.push_back(json::parse(line));
            (void)rpc->stderrText();  // a full pipe would stall the engine's logging
        }
    }

    std::unique_ptr<ChildProcess> rpc;
    std::vector<json> callbacks;

private:
    int lastID_ = 0;
};

void expectInvalidConfiguration(const json& response, const std::string& debugPart) {
    EXPECT_EQ(response["status"], 202) << response.dump();
    EXPECT_EQ(response["error"]["name"], "OrvaneError") << response.dump();
    EXPECT_EQ(response["error"]["code"], "invalidConfiguration") << response.dump();
    EXPECT_EQ(response["error"]["codeNumber"], -1002) << response.dump();
    EXPECT_NE(response["error"]["debugDescription"].get<std::string>().find(debugPart), std::string::npos)
        << response.dump();
}

// ---- lines a parser must survive ----------------------------------------------------------------

TEST(HostileLines, ValuesNestedFarTooDeepAreInvalidLinesAndTheProcessLivesOn) {
    Host host;
    const size_t depth = 100000;
    // Bare arrays, objects, and a readable header whose params nest too deep:
    // none is JSON this engine accepts, so none gets an answer.
    host.rpc->writeLine(std::string(depth, '[') + std::string(depth, ']'));
    std::string objects;
    for (size_t i = 0; i < depth; ++i) objects += "{\"a\":";
    objects += "1" + std::string(depth, '}');
    host.rpc->writeLine(objects);
    host.rpc->writeLine(R"({"hvrpc":1,"id":"deep","procedure":"perform","type":"Echo","action":"ping","params":)" +
                        std::string(depth, '[') + std::string(depth, ']') + "}");
    // Brackets inside strings are text, not nesting.
    const std::string bracketsInAString = std::string(5000, '[');
    auto r = host.call({{"procedure", "perform"}, {"type", "Echo"}, {"action", "ping"}, {"params", bracketsInAString}});
    EXPECT_EQ(r["result"], "pong") << "the line after the deep ones is the first answered";
    EXPECT_EQ(r["id"], "1");
    // A request nested as deep as a real one may go.
    json nested = json::array();
    for (int i = 0; i < 100; ++i) nested = json::array({nested});
    r = host.call({{"procedure", "perform"}, {"type", "Echo"}, {"action", "ping"}, {"params", nested}});
    EXPECT_EQ(r["result"], "pong");
    EXPECT_TRUE(host.rpc->running());
}

// ---- a schema the engine must refuse at init ----------------------------------------------------

class SchemaRefusal : public ::testing::Test {
protected:
    TempDirectory temp;
    fs::path bundle = temp / "bundle.orvane";
    Host host;
};

TEST_F(SchemaRefusal, FileNamesStayInsideTheBundleAndLeaveItsOwnFilesAlone) {
    struct Case {
        json item;
        std::string debugPart;
    };
    const std::vector<Case> cases = {
        {withKeys(kMicrophone, {{"filename", "../escaped.m4a"}}), "is not a single path component"},
        {withKeys(kMicrophone, {{"filename", (temp / "absolute.m4a").string()}}), "is not a single path component"},
        {withKeys(kMicrophone, {{"filename", "orvane.json"}}), "reserved for the bundle's own files"},
        {withKeys(kMicrophone, {{"filename", "orvane.log"}}), "reserved for the bundle's own files"},
        {withKeys(kMicrophone, {{"filename", ".."}}), "is not a file name"},
        {withKeys(kMicrophone, {{"filename", ""}}), "is empty"},
        {withKeys(kMicrophone, {{"output", "segmented"}, {"filenamePrefix", "../up"}}),
         "is not a single path component"},
        {withKeys(kMicrophone, {{"output", "segmented"}, {"filenamePrefix", "orvane"}}),
         "reserved for the bundle's own files"},
        {withKeys(kMicrophone, {{"output", "segmented"}, {"filenamePrefix", std::string(300, 'x')}}),
         "is longer than 200 bytes"},
    };
    for (const auto& c : cases) {
        auto r = host.init({{"output_directory", bundle.string()}, {"items", json::array({c.item})}});
        expectInvalidConfiguration(r, c.debugPart);
        EXPECT_NE(r["error"]["debugDescription"].get<std::string>().find("items[0]"), std::string::npos) << r.dump();
    }
    EXPECT_FALSE(fs::exists(bundle));
    EXPECT_FALSE(fs::exists(temp / "escaped.m4a"));
    EXPECT_FALSE(fs::exists(temp / "absolute.m4a"));
}

TEST_F(SchemaRefusal, ItemsNeverWriteFilesOfTheSameName) {
    const std::vector<json> collisions = {
        json::array({withKeys(kMicrophone, {{"filename", "a.m4a"}}), withKeys(kMicrophone, {{"filename", "a.m4a"}})}),
        // The prefix "a" writes "a-audio.m3u8": so does the prefix "a-audio"'s master playlist.
        json::array({withKeys(kMicrophone, {{"output", "segmented"}, {"filenamePrefix", "a"}}),
                     withKeys(kMicrophone, {{"output", "segmented"}, {"filenamePrefix", "a-audio"}})}),
        json::array({withKeys(kMicrophone, {{"output", "segmented"}, {"filenamePrefix", "a"}}),
                     withKeys(kMicrophone, {{"filename", "a.m3u8"}})}),
    };
    for (const auto& items : collisions)
        expectInvalidConfiguration(host.init({{"output_directory", bundle.string()}, {"items", items}}),
                                   "collides with items[0]");
    EXPECT_FALSE(fs::exists(bundle));

    // Names that merely look alike are fine.
    auto r = host.init({{"output_directory", bundle.string()},
                        {"items", json::array({withKeys(kMicrophone, {{"filename", "a.m4a"}}),
                                               withKeys(kMicrophone, {{"filename", "ab.m4a"}}),
                                               withKeys(kMicrophone, {{"output", "segmented"},
                                                                      {"filenamePrefix", "abc"}})})}});
    EXPECT_EQ(r["status"], 200) << r.dump();
}

TEST_F(SchemaRefusal, AudioDelayIsAFewSecondsAtMost) {
    for (const double delay : {1e4, 1e9, 5.5, -0.25}) {
        auto r = host.init({{"output_directory", bundle.string()},
                            {"items", json::array({withKeys(kMicrophone, {{"audioDelay", delay}})})}});
        expectInvalidConfiguration(r, "audioDelay");
    }
    EXPECT_FALSE(fs::exists(bundle));
    auto r = host.init({{"output_directory", bundle.string()},
                        {"items", json::array({withKeys(kMicrophone, {{"audioDelay", 0.2}})})}});
    EXPECT_EQ(r["status"], 200) << r.dump();
}

TEST_F(SchemaRefusal, ARelativeOutputDirectoryCreatesNothing) {
    const std::string relative = "orvane-relative-" + temp.path().filename().string();
    auto r = host.init({{"output_directory", relative}, {"items", json::array({kMicrophone})}});
    expectInvalidConfiguration(r, "not an absolute path");
    // The engine runs in this process's working directory.
    EXPECT_FALSE(fs::exists(fs::current_path() / relative));
}

// ---- the end of a recording that the host did not ask for with "stop" ---------------------------

// What a recording that was ended some other way than "stop" must have left.
void expectFinishedBundle(const fs::path& bundle, double recordedAtLeast) {
    ASSERT_TRUE(fs::exists(bundle / "orvane.json")) << "no description in " << bundle;
    const auto info = json::parse(readFile(bundle / "orvane.json"));
    EXPECT_EQ(info["files"], json::parse(R"([{"filename":"mic.m4a","type":"audio"}])"));
    EXPECT_GE(info["duration"].get<double>(), recordedAtLeast);
    const auto media = probeMedia(bundle / "mic.m4a");
    EXPECT_NEAR(playedDuration(media), info["duration"].get<double>(), 0.05) << media.dump();
    EXPECT_TRUE(fs::exists(bundle / "orvane.log"));
    EXPECT_FALSE(fs::exists(bundle / "orvane.log~")) << "the log was left open";
}

class RecordingEnd : public ::testing::Test {
protected:
    TempDirectory temp;
    fs::path bundle = temp / "bundle.orvane";
    json item = withKeys(kMicrophone, {{"filename", "mic.m4a"}});
};

TEST_F(RecordingEnd, ReleaseAndManualReleaseStopTheRecordingFirst) {
    for (const std::string procedure : {"release", "manual-release"}) {
        SCOPED_TRACE(procedure);
        const auto thisBundle = temp / (procedure + ".orvane");
        Host host;
        host.startRecording(thisBundle, json::array({item}));
        host.listen(2000ms);
        auto r = host.call({{"procedure", procedure}, {"target", "rec"}});
        EXPECT_EQ(r["status"], 200) << r.dump();
        expectFinishedBundle(thisBundle, 1.9);
        EXPECT_EQ(host.perform("stop")["status"], procedure == "release" ? 404 : 405);
    }
}

TEST_F(RecordingEnd, ATerminatingSignalStopsEveryRecordingAndExitsCleanly) {
    for (const int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        const auto thisBundle = temp / ("signal-" + std::to_string(signal) + ".orvane");
        Host host;
        host.startRecording(thisBundle, json::array({item}));
        host.listen(1500ms);
        host.rpc->kill(signal);
        EXPECT_EQ(host.rpc->waitForExit(15000ms), std::optional<int>(0)) << host.rpc->stderrText();
        expectFinishedBundle(thisBundle, 1.4);
    }
}

TEST_F(RecordingEnd, ARecordingWhoseHostClosedItsInputStopsAfterTheGracePeriod) {
    Host host(Host::Environment{{"ORVANE_HOST_GONE_GRACE_SECONDS", "1"}});
    host.startRecording(bundle, json::array({item}));
    host.rpc->closeStdin();
    const auto closed = std::chrono::steady_clock::now();
    // Still recording during the grace period: the process lives on after the end of input.
    host.listen(500ms);
    EXPECT_FALSE(fs::exists(bundle / "orvane.json"));
    while (!fs::exists(bundle / "orvane.json") && std::chrono::steady_clock::now() - closed < 15s) host.listen(100ms);
    expectFinishedBundle(bundle, 0.9);
    EXPECT_TRUE(host.rpc->running()) << "the process itself lives on";
}

// ---- a host that stops reading ------------------------------------------------------------------

TEST(SlowHost, StreamedAudioIsDroppedOldestFirstInsteadOfPilingUp) {
    TempDirectory temp;
    const size_t limit = 256 * 1024;
    Host host(Host::Environment{{"ORVANE_STREAM_QUEUE_LIMIT_BYTES", std::to_string(limit)}, {"ORVANE_OS_LOG", "default"}});
    host.startRecording(temp / "bundle.orvane", json::array({withKeys(
                                                      kMicrophone, {{"output", "stream"}, {"streamCallback", "audio"}})}));
    // The host reads nothing for four seconds: about 1 MB of streamed audio
    // is produced meanwhile.
    for (int i = 0; i < 40; ++i) {
        std::this_thread::sleep_for(100ms);
        (void)host.rpc->stderrText();
    }
    const auto stopAsked = std::chrono::steady_clock::now();
    host.rpc->writeJSON({{"hvrpc", 1}, {"id", "stop"}, {"procedure", "perform"}, {"target", "rec"}, {"action", "stop"}});
    size_t bytesBefore = 0;
    std::optional<json> response;
    int64_t framesBefore = 0;
    while (!response) {
        auto line = host.rpc->readLine(20000ms);
        ASSERT_TRUE(line) << "no stop response; stderr: " << host.rpc->stderrText();
        auto message = json::parse(*line);
        if (message.contains("id")) {
            response = message;
            break;
        }
        bytesBefore += line->size() + 1;
        framesBefore += message["params"]["numberOfFrames"].get<int64_t>();
    }
    EXPECT_EQ((*response)["status"], 200) << response->dump();
    // What waited for the host: the queue's allowance, what the pipe holds,
    // and what arrived after the host began to read again.
    const double readingFor = std::chrono::duration<double>(std::chrono::steady_clock::now() - stopAsked).count();
    EXPECT_LT(bytesBefore, limit + 64 * 1024 + size_t(readingFor * 400 * 1024)) << framesBefore << " frames";
    const double duration = (*response)["result"]["info"]["duration"].get<double>();
    EXPECT_GT(duration, 3.9);
    EXPECT_LT(double(framesBefore) / 48000, duration - 1.5) << "nothing was dropped";
    host.listen(500ms);
    const auto log = host.rpc->stderrText();
    EXPECT_NE(log.find("dropping the oldest streamed audio"), std::string::npos);
    EXPECT_NE(log.find("streamed audio callbacks while the host was not reading"), std::string::npos);
    // Everything the host is told after catching up arrives.
    EXPECT_EQ(host.call({{"procedure", "perform"}, {"type", "Echo"}, {"action", "ping"}})["result"], "pong");
}

}  // namespace
}  // namespace ov::testing
