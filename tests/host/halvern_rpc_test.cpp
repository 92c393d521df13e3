// The engine in-process: how each kind of failure inside a type becomes a response.

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "host/echo_rpc.h"
#include "host/halvern_rpc.h"
#include "foundation/platform_error.h"

namespace ov::host {
namespace {

struct SelfDescribingError : std::runtime_error, HVRPCEncodableError {
    SelfDescribingError() : std::runtime_error("self") {}
    Json encodeAsPayload() const override { return {{"name", "Custom"}, {"detail", 7}}; }
};

struct NonFiniteError : std::runtime_error, HVRPCEncodableError {
    NonFiniteError() : std::runtime_error("nan") {}
    Json encodeAsPayload() const override { return {{"value", std::nan("")}}; }
};

struct CountParams {
    int64_t count;
};

}  // namespace
}  // namespace ov::host

template <>
struct ov::coding::Decodable<ov::host::CountParams> {
    static ov::host::CountParams decode(const Decoder& d) { return {d.decode<int64_t>("count")}; }
};

namespace ov::host {
namespace {

class Probe final : public HVRPCObject {
public:
    static constexpr const char* typeName = "Probe";
    static inline std::atomic<int> alive{0};

    explicit Probe(std::weak_ptr<HalvernRPC> engine) : engine_(std::move(engine)) { ++alive; }
    ~Probe() override { --alive; }

    static std::shared_ptr<Probe> create(const std::shared_ptr<HalvernRPC>& engine, const HVRPCParams& params) {
        if (params.contains("params") && params["params"].value("fail", false))
            throw platform::PlatformError("ProbeDomain", 9, "Probe could not start.");
        return std::make_shared<Probe>(engine);
    }
    static std::optional<Json> performType(const std::string& action, const HVRPCParams& params) {
        if (action == "double") return Json(decodeParams<CountParams>(params).count * 2);
        if (action == "nothing") return std::nullopt;
        if (action == "nan") return Json(std::nan(""));
        if (action == "encodable") throw SelfDescribingError();
        if (action == "encodableNaN") throw NonFiniteError();
        if (action == "posix") throw platform::PlatformError::posix(ENOENT, "open");
        if (action == "plain") throw std::runtime_error("plain failure");
        throw HVRPCError(HVRPCStatusCode::notFound, "Unknown action '" + action + "'.");
    }
    std::string rpcTypeName() const override { return typeName; }
    std::optional<Json> perform(const std::string& action, const HVRPCParams& params) override {
        if (action == "callback") {
            // Callbacks leave from any thread, with no id.
            std::thread([engine = engine_] {
                if (auto e = engine.lock()) e->perform("cb-1", Json{{"reason", "userStopped"}});
            }).join();
            return std::nullopt;
        }
        return performType(action, params);
    }

private:
    std::weak_ptr<HalvernRPC> engine_;
};

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine = HalvernRPC::create(
            [this](std::string_view bytes) {
                std::lock_guard l(mutex);
                sent.push_back(nlohmann::json::parse(bytes));
                raw.emplace_back(bytes);
            },
            {makeRegistration<EchoRPC>(), makeRegistration<Probe>()});
    }
    // Sends one line and returns the messages it caused.
    std::vector<nlohmann::json> receive(const nlohmann::json& message) {
        {
            std::lock_guard l(mutex);
            sent.clear();
            raw.clear();
        }
        engine->receive(message.dump());
        std::lock_guard l(mutex);
        return sent;
    }
    nlohmann::json one(const nlohmann::json& message) {
        auto out = receive(message);
        EXPECT_EQ(out.size(), 1u) << message.dump();
        return out.empty() ? nlohmann::json() : out[0];
    }
    static nlohmann::json perform(const std::string& action, nlohmann::json extra = nlohmann::json::object()) {
        nlohmann::json j = {{"hvrpc", 1}, {"id", "r"}, {"procedure", "perform"}, {"type", "Probe"}, {"action", action}};
        for (auto it = extra.begin(); it != extra.end(); ++it) j[it.key()] = it.value();
        return j;
    }

    std::shared_ptr<HalvernRPC> engine;
    std::mutex mutex;
    std::vector<nlohmann::json> sent;
    std::vector<std::string> raw;
};

TEST_F(EngineTest, TypesReadTheirParamsThroughTheParamsKey) {
    EXPECT_EQ(one(perform("double", {{"params", {{"count", 21}}}}))["result"], 42);
    EXPECT_FALSE(one(perform("nothing")).contains("result"));

    // Missing or mis-shaped params fail inside the type: 202 with the generic payload.
    auto missing = one(perform("double"));
    EXPECT_EQ(missing["status"], 202);
    EXPECT_EQ(missing["error"]["name"], "NSError");
    EXPECT_EQ(missing["error"]["errorDomain"], "DecodingError");
    EXPECT_EQ(missing["error"]["debugDescription"], "Key 'params' not found at ");
    auto wrong = one(perform("double", {{"params", {{"count", "many"}}}}));
    EXPECT_EQ(wrong["status"], 202);
    EXPECT_EQ(wrong["error"]["debugDescription"],
              "Type 'Int' mismatch at .params.count: Expected to decode Int but found a string instead.");
}

TEST_F(EngineTest, EachKindOfFailureGetsItsPayload) {
    auto encodable = one(perform("encodable"));
    EXPECT_EQ(encodable["status"], 202);
    EXPECT_EQ(encodable["error"], nlohmann::json({{"name", "Custom"}, {"detail", 7}}));

    auto posix = one(perform("posix"));
    EXPECT_EQ(posix["status"], 202);
    EXPECT_EQ(posix["error"]["errorDomain"], "NSPOSIXErrorDomain");
    EXPECT_EQ(posix["error"]["errorCode"], ENOENT);
    EXPECT_EQ(posix["error"]["message"], "No such file or directory");

    auto plain = one(perform("plain"));
    EXPECT_EQ(plain["status"], 202);
    EXPECT_EQ(plain["error"]["name"], "NSError");
    EXPECT_EQ(plain["error"]["errorDomain"], "std::runtime_error");
    EXPECT_EQ(plain["error"]["message"], "plain failure");

    // A result or an error payload that cannot be encoded ends as 500, still exactly one response.
    auto nan = one(perform("nan"));
    EXPECT_EQ(nan["status"], 500);
    EXPECT_EQ(nan["error"]["userMessage"], "Failed to communicate with external process.");
    EXPECT_EQ(one(perform("encodableNaN"))["status"], 500);
}

TEST_F(EngineTest, FailedConstructionLeavesNoTarget) {
    nlohmann::json init = {{"hvrpc", 1}, {"id", "i"}, {"procedure", "init"}, {"type", "Probe"}, {"target", "p"}};
    init["params"] = {{"fail", true}};
    auto r = one(init);
    EXPECT_EQ(r["status"], 202);
    EXPECT_EQ(r["error"]["errorDomain"], "ProbeDomain");
    EXPECT_EQ(r["error"]["errorCode"], 9);
    EXPECT_FALSE(engine->hasTarget("p"));
    init.erase("params");
    EXPECT_EQ(one(init)["status"], 200);
    EXPECT_TRUE(engine->hasTarget("p"));
}

TEST_F(EngineTest, ReleaseDropsTheObjectAndManualReleaseKeepsAZombie) {
    const int before = Probe::alive;
    nlohmann::json init = {{"hvrpc", 1}, {"id", "i"}, {"procedure", "init"}, {"type", "Probe"}, {"target", "p"}};
    one(init);
    EXPECT_EQ(Probe::alive, before + 1);
    one({{"hvrpc", 1}, {"id", "m"}, {"procedure", "manual-release"}, {"target", "p"}});
    EXPECT_EQ(Probe::alive, before) << "the object ends with its last reference";
    EXPECT_TRUE(engine->hasTarget("p"));
}

TEST_F(EngineTest, CallbacksCarryNoIdAndNeedNoResponse) {
    one({{"hvrpc", 1}, {"id", "i"}, {"procedure", "init"}, {"type", "Probe"}, {"target", "p"}});
    auto out = receive({{"hvrpc", 1}, {"id", "c"}, {"procedure", "perform"}, {"target", "p"}, {"action", "callback"}});
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(raw[0], R"({"hvrpc":1,"procedure":"perform","target":"cb-1","params":{"reason":"userStopped"}})");
    EXPECT_EQ(out[1]["id"], "c");
    EXPECT_EQ(out[1]["status"], 200);
}

}  // namespace
}  // namespace ov::host
