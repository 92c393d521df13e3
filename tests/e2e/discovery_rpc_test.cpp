// The list actions of the "Recorder" type answered from discovery, and what
// discovery tells a host about a source that went: the real executable on a
// synthetic world, over pipes.
#include <gtest/gtest.h>

#include "e2e/rpc_fixture.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

using nlohmann::json;

// Display 2 goes away a second into its capture; window 102 is a palette, 103 has no owner.
const char* kWorld = R"({
  "displays": [
    {"id": 2, "name": "Side Screen", "frame": {"x": 1920, "y": 0, "width": 640, "height": 360}, "isMain": false,
     "faults": [{"kind": "disappears", "after": 1.0}]},
    {"id": 1, "name": "Main Screen", "frame": {"x": 0, "y": 0, "width": 640, "height": 360}, "isMain": true}
  ],
  "applications": [{"pid": 1001, "name": "notes 10", "bundleIdentifier": "dev.example.notes"},
                   {"pid": 1002, "name": "Notes 9"},
                   {"pid": 1003, "name": "Alpha"}],
  "windows": [
    {"id": 101, "title": "Document", "frame": {"x": 10, "y": 10, "width": 300, "height": 200}, "ownerPID": 1001},
    {"id": 102, "title": "Palette", "frame": {"x": 20, "y": 20, "width": 100, "height": 100}, "ownerPID": 1002, "layer": 3},
    {"id": 103, "title": "Nobody's", "frame": {"x": 30, "y": 30, "width": 100, "height": 100}},
    {"id": 104, "title": "Other", "frame": {"x": 40, "y": 40, "width": 100, "height": 100}, "ownerPID": 1003}
  ]
})";

class DiscoveryProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(temp / "world.json", kWorld);
        rpc = startRpc({}, {{"ORVANE_SYNTHETIC_WORLD", (temp / "world.json").string()},
                            {"ORVANE_USER_DEFAULTS", defaults.string()}});
    }

    json send(json message) {
        message["hvrpc"] = 1;
        message["id"] = std::to_string(++id);
        rpc->writeJSON(message);
        for (;;) {
            auto line = rpc->readJSON();
            if (!line) {
                ADD_FAILURE() << "no answer to " << message.dump() << "\n" << rpc->stderrText();
                return json();
            }
            if (!line->contains("id")) continue;  // callbacks
            return *line;
        }
    }
    json list(const std::string& action, json params = nullptr) {
        json message{{"procedure", "perform"}, {"type", "Recorder"}, {"action", action}};
        if (!params.is_null()) message["params"] = params;
        auto r = send(message);
        EXPECT_EQ(r["status"], 200) << r.dump();
        return r["result"];
    }
    json init(const std::string& target, uint32_t display) {
        const auto bundle = temp / (target + ".orvane");
        return send({{"procedure", "init"},
                     {"type", "Recorder"},
                     {"target", target},
                     {"params",
                      {{"schema",
                        {{"output_directory", bundle.string()},
                         {"items", json::array({{{"type", "display"}, {"display", display}, {"filename", "s.mov"}}})}}},
                       {"onAbortInstance", "abort-cb"}}}});
    }
    json perform(const std::string& target, const std::string& action) {
        return send({{"procedure", "perform"}, {"target", target}, {"action", action}});
    }

    TempDirectory temp;
    std::filesystem::path defaults = temp / "user-defaults.json";
    std::unique_ptr<ChildProcess> rpc;
    int id = 0;
};

TEST_F(DiscoveryProcessTest, ListsComeFromDiscoverySortedWithAvailability) {
    // The record's keys in the protocol's order, as the line carries them.
    rpc->writeJSON({{"hvrpc", 1}, {"id", "order"}, {"procedure", "perform"}, {"type", "Recorder"}, {"action", "getDisplays"}});
    const auto line = rpc->readLine(std::chrono::milliseconds(30000));
    ASSERT_TRUE(line);
    const auto ordered = nlohmann::ordered_json::parse(*line);
    std::vector<std::string> keys;
    for (const auto& [key, value] : ordered["result"][0].items()) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"id", "localizedName", "frame", "isMain", "availability"}));

    const auto displays = list("getDisplays");
    ASSERT_EQ(displays.size(), 2u);
    EXPECT_EQ(displays[0]["id"], 1) << "sorted by id";
    EXPECT_EQ(displays[0]["localizedName"], "Main Screen");
    EXPECT_EQ(displays[0]["isMain"], true);
    EXPECT_EQ(displays[1]["isMain"], false);
    EXPECT_EQ(displays[1]["availability"], "available");

    // Normal-level windows with an owner only.
    const auto windows = list("getWindows");
    std::vector<int> windowIDs;
    for (const auto& w : windows) {
        windowIDs.push_back(w["id"].get<int>());
        EXPECT_TRUE(w.contains("application_process_id")) << w.dump();
        EXPECT_TRUE(w.contains("application_name")) << w.dump();
        EXPECT_EQ(w["level"], 0);
    }
    EXPECT_EQ(windowIDs, (std::vector<int>{101, 104}));

    // Window owners only, in natural name order.
    const auto applications = list("getRunningApplications");
    std::vector<std::string> names;
    for (const auto& a : applications) {
        names.push_back(a["name"]);
        EXPECT_EQ(a["availability"], "available");
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Alpha", "Notes 9", "notes 10"}));
    EXPECT_EQ(applications[2]["bundle_identifier"], "dev.example.notes");
}

TEST_F(DiscoveryProcessTest, ADisplayThatWentFailsTheNextRecordingWithItsAvailability) {
    ASSERT_EQ(init("first", 2)["status"], 200);
    ASSERT_EQ(perform("first", "prepare")["status"], 200);
    ASSERT_EQ(perform("first", "start")["status"], 200);
    // Gone a second into the capture.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    json displays;
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        displays = list("getDisplays");
    } while (displays.size() != 1 && std::chrono::steady_clock::now() < deadline);
    ASSERT_EQ(displays.size(), 1u);
    perform("first", "stop");

    ASSERT_EQ(init("second", 2)["status"], 200);
    auto r = perform("second", "prepare");
    EXPECT_EQ(r["status"], 202) << r.dump();
    EXPECT_EQ(r["error"]["code"], "displayUnavailable") << r.dump();
    EXPECT_NE(r["error"]["debugDescription"].get<std::string>().find("has availability: notConnected"),
              std::string::npos)
        << r.dump();
    EXPECT_NE(r["error"]["message"].get<std::string>().find("Side Screen"), std::string::npos) << r.dump();
}

TEST_F(DiscoveryProcessTest, ARecordingPutsItsDisplayAtTheHeadOfThePreferredList) {
    for (uint32_t display : {2u, 1u}) {
        const std::string target = "rec" + std::to_string(display);
        ASSERT_EQ(init(target, display)["status"], 200);
        ASSERT_EQ(perform(target, "prepare")["status"], 200);
        ASSERT_EQ(perform(target, "start")["status"], 200);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        perform(target, "stop");
    }
    const auto stored = json::parse(readFile(defaults));
    EXPECT_EQ(stored["OVPreferredDisplays"], json::array({1, 2})) << stored.dump();
}

}  // namespace
}  // namespace ov::testing
