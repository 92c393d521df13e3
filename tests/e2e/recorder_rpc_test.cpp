// The "Recorder" type as a host drives it: the real executable over pipes, and
// the records it sends back in-process where a process can't be steered.
#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "e2e/rpc_fixture.h"
#include "host/audio_buffer_data.h"
#include "host/recorder_rpc.h"
#include "foundation/ov_error.h"
#include "support/log_capture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;

class RecorderProcessTest : public RpcProcessTest {
protected:
    json init(const std::string& id, const json& schema) {
        return call(request(id, "init",
                            {{"type", "Recorder"},
                             {"target", "rec"},
                             {"params", {{"schema", schema}, {"onAbortInstance", "abort-cb"}}}}));
    }
    json perform(const std::string& id, const std::string& action) {
        return call(request(id, "perform", {{"target", "rec"}, {"action", action}}));
    }
    TempDirectory temp;
};

TEST_F(RecorderProcessTest, AHostRecordsFromInitToStop) {
    const auto bundle = temp / "my bundle.orvane";
    auto r = init("1", {{"output_directory", bundle.string()}, {"items", json::array()}});
    ASSERT_EQ(r["status"], 200) << r.dump();
    EXPECT_EQ(perform("2", "prepare"), json::parse(R"({"hvrpc":1,"status":200,"id":"2"})"));
    EXPECT_EQ(perform("3", "start")["status"], 200);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));

    r = perform("4", "stop");
    ASSERT_EQ(r["status"], 200) << r.dump();
    // A plain path, not a URL: no scheme, no percent-encoding.
    EXPECT_EQ(r["result"]["url"], bundle.string());
    EXPECT_EQ(r["result"]["info"]["version"], 1);
    EXPECT_EQ(r["result"]["info"]["files"], json::array());
    EXPECT_GE(r["result"]["info"]["duration"].get<double>(), 0.04);
    EXPECT_TRUE(std::filesystem::exists(bundle / "orvane.log"));
    auto description = json::parse(readFile(bundle / "orvane.json"));
    EXPECT_EQ(description["duration"], r["result"]["info"]["duration"]);

    // The same result again, and no pause over the wire.
    EXPECT_EQ(perform("5", "stop")["result"], r["result"]);
    r = perform("6", "pause");
    EXPECT_EQ(r["status"], 404);
    EXPECT_EQ(r["error"]["debugDescription"], "Unknown action 'pause'.");
    EXPECT_EQ(call(request("7", "release", {{"target", "rec"}}))["status"], 200);
}

TEST_F(RecorderProcessTest, AnExistingOutputDirectoryFailsPrepareAndIsLeftAlone) {
    writeFile(temp / "precious.txt", "keep");
    ASSERT_EQ(init("1", {{"output_directory", temp.path().string()}, {"items", json::array()}})["status"], 200);
    auto r = perform("2", "prepare");
    EXPECT_EQ(r["status"], 202);
    EXPECT_EQ(r["error"]["name"], "OrvaneError");
    EXPECT_EQ(r["error"]["code"], "configurationFailed");
    EXPECT_EQ(r["error"]["codeNumber"], -1603);
    EXPECT_EQ(r["error"]["debugDescription"], "outputDirectory already exists");
    EXPECT_EQ(r["error"]["message"], "Provided outputDirectory already exists: " + temp.path().string());
    EXPECT_EQ(readFile(temp / "precious.txt"), "keep");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(temp.path()), {}), 1);
    // stop of a failed preparation is a partial result, which the host gets in generic form.
    r = perform("3", "stop");
    EXPECT_EQ(r["status"], 202);
    EXPECT_FALSE(r["error"].contains("code")) << r.dump();
}

TEST_F(RecorderProcessTest, ListsWhatTheSyntheticWorldOffers) {
    auto r = call(request("1", "perform", {{"type", "Recorder"}, {"action", "getMicrophones"}}));
    ASSERT_EQ(r["status"], 200);
    ASSERT_FALSE(r["result"].empty());
    for (const auto& mic : r["result"]) {
        for (const char* key : {"id", "name", "model_id", "manufacturer", "availability"})
            EXPECT_TRUE(mic.contains(key)) << key;
        EXPECT_FALSE(mic.contains("preview_url"));
    }
    r = call(request("2", "perform", {{"type", "Recorder"}, {"action", "getDisplays"}}));
    ASSERT_FALSE(r["result"].empty());
    EXPECT_EQ(r["result"][0]["availability"], "available");
    EXPECT_TRUE(r["result"][0]["frame"].contains("width"));

    // getCameras needs its params; without them the type fails the operation.
    r = call(request("3", "perform", {{"type", "Recorder"}, {"action", "getCameras"}}));
    EXPECT_EQ(r["status"], 202);
    r = call(request("4", "perform",
                     {{"type", "Recorder"}, {"action", "getCameras"}, {"params", {{"includeDeskView", true}}}}));
    EXPECT_EQ(r["status"], 200);
    r = call(request("5", "perform", {{"type", "Recorder"}, {"action", "getEverything"}}));
    EXPECT_EQ(r["status"], 404);
}

TEST_F(RecorderProcessTest, ASourceThisBuildCannotCaptureFailsPrepareByName) {
    ASSERT_EQ(init("1", {{"output_directory", (temp / "b").string()},
                         {"items", json::array({{{"type", "appleDevice"}, {"device", "phone-1"}}})}})["status"],
              200);
    auto r = perform("2", "prepare");
    EXPECT_EQ(r["status"], 202);
    EXPECT_EQ(r["error"]["code"], "configurationNotSupported");
}

// ---- the records, in-process ----------------------------------------------------------------

struct SentLines {
    std::mutex mutex;
    std::vector<json> lines;
    host::HalvernRPC::SendFunction sender() {
        return [this](std::string_view bytes) {
            std::lock_guard lock(mutex);
            lines.push_back(json::parse(bytes));
        };
    }
    std::vector<json> snapshot() {
        std::lock_guard lock(mutex);
        return lines;
    }
};

OVRecorderResult resultAt(const std::string& path) {
    OVBundleInfo info;
    OVBundleInfo::FileAsset asset;
    asset.type = OVBundleInfo::FileAssetType::audio;
    asset.filename = "microphone.m4a";
    info.files = {asset};
    info.duration = 2.5;
    return {path, std::make_shared<const OVBundleInfo>(info)};
}

TEST(RecorderRPCRecords, AbortCallbacksCarryReasonResultAndErrorWithoutAnId) {
    SentLines sent;
    auto engine = host::HalvernRPC::create(sent.sender(), {});
    auto handler = host::RecorderRPC::abortHandler(engine, "abort-cb");

    handler(OVRecorderAbortReason::interrupted(
        resultAt("/tmp/a b"),
        std::make_exception_ptr(OVError(OVError::Code::screenCaptureStoppedWithError, std::string("lost")))));
    handler(OVRecorderAbortReason::failed(
        resultAt("/tmp/x"), std::make_exception_ptr(GroupedErrors(
                                {std::make_exception_ptr(OVError(OVError::Code::assetWriterFailed)),
                                 std::make_exception_ptr(OVError(OVError::Code::fileOperationFailed))}))));
    handler(OVRecorderAbortReason::userStopped(resultAt("/tmp/y")));

    auto lines = sent.snapshot();
    ASSERT_EQ(lines.size(), 3u);
    const auto& interrupted = lines[0];
    EXPECT_FALSE(interrupted.contains("id"));
    EXPECT_EQ(interrupted["procedure"], "perform");
    EXPECT_EQ(interrupted["target"], "abort-cb");
    EXPECT_EQ(interrupted["params"]["reason"], "interrupted");
    EXPECT_EQ(interrupted["params"]["result"]["url"], "/tmp/a b");
    EXPECT_EQ(interrupted["params"]["result"]["info"]["files"][0]["type"], "audio");
    EXPECT_EQ(interrupted["params"]["error"]["name"], "OrvaneError");
    EXPECT_EQ(interrupted["params"]["error"]["code"], "screenCaptureStoppedWithError");
    EXPECT_FALSE(interrupted["params"]["error"].contains("errorDomain"));

    EXPECT_EQ(lines[1]["params"]["reason"], "failed");
    EXPECT_EQ(lines[1]["params"]["error"]["name"], "NSError");
    EXPECT_TRUE(lines[1]["params"]["error"].contains("errorDomain"));
    EXPECT_FALSE(lines[1]["params"]["error"].contains("code"));

    EXPECT_EQ(lines[2]["params"]["reason"], "userStopped");
    EXPECT_FALSE(lines[2]["params"].contains("error"));
}

TEST(RecorderRPCRecords, AudioBufferDataTakesFloatChannelsOnly) {
    LogCapture log;
    using namespace platform;
    auto mono = AVAudioPCMBuffer::make(*AVAudioFormat::make(AVAudioCommonFormat::pcmFormatFloat32, 48000, 1, false), 3);
    mono->setFrameLength(3);
    mono->floatChannelData()[0][0] = 1.0f;
    auto record = host::audioBufferData(*mono, log.logger);
    ASSERT_TRUE(record);
    EXPECT_EQ((*record)["numberOfFrames"], 3);
    EXPECT_EQ((*record)["numberOfChannels"], 1);
    EXPECT_EQ((*record)["sampleRate"], 48000.0);
    ASSERT_EQ((*record)["channelData"].size(), 1u);
    // 12 bytes of float32: 16 characters of Base64; 1.0f is 00 00 80 3f.
    EXPECT_EQ((*record)["channelData"][0], "AACAPwAAAAAAAAAA");

    auto stereo = AVAudioPCMBuffer::make(*AVAudioFormat::make(AVAudioCommonFormat::pcmFormatFloat32, 44100, 2, false), 4);
    stereo->setFrameLength(4);
    record = host::audioBufferData(CMSampleBuffer::makeAudio(*stereo, CMTime(0, 44100)), log.logger);
    ASSERT_TRUE(record);
    EXPECT_EQ((*record)["channelData"].size(), 2u);

    auto interleaved = AVAudioPCMBuffer::make(*AVAudioFormat::make(AVAudioCommonFormat::pcmFormatFloat32, 48000, 2, true), 4);
    interleaved->setFrameLength(4);
    EXPECT_FALSE(host::audioBufferData(*interleaved, log.logger));
    auto ints = AVAudioPCMBuffer::make(*AVAudioFormat::make(AVAudioCommonFormat::pcmFormatInt16, 48000, 1, false), 4);
    ints->setFrameLength(4);
    EXPECT_FALSE(host::audioBufferData(*ints, log.logger));
    mono->setFrameLength(0);
    EXPECT_FALSE(host::audioBufferData(*mono, log.logger));
    EXPECT_TRUE(log.contains("Audio buffer has zero frames and/or zero channels"));
    EXPECT_EQ(log.lines().size(), 3u);
}

}  // namespace
}  // namespace ov::testing
