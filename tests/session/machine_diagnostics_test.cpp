// Disk space, byte counts and machine information, and the log lines made of them.

#include <gtest/gtest.h>

#include <fstream>

#include "platform/byte_count_formatter.h"
#include "session/disk_space_info.h"
#include "support/log_capture.h"
#include "foundation/ov_error.h"
#include "session/system_information.h"

namespace ov {
namespace {

using platform::ByteCountStyle;
using platform::formatByteCount;

TEST(ByteCounts, FileStyleUsesDecimalUnitsAndSpellsOutZero) {
    EXPECT_EQ(formatByteCount(0, ByteCountStyle::file), "Zero KB");
    EXPECT_EQ(formatByteCount(1, ByteCountStyle::file), "1 byte");
    EXPECT_EQ(formatByteCount(999, ByteCountStyle::file), "999 bytes");
    EXPECT_EQ(formatByteCount(1000, ByteCountStyle::file), "1 KB");
    EXPECT_EQ(formatByteCount(1499, ByteCountStyle::file), "1 KB");
    EXPECT_EQ(formatByteCount(1500, ByteCountStyle::file), "2 KB");
    EXPECT_EQ(formatByteCount(999'499, ByteCountStyle::file), "999 KB");
    EXPECT_EQ(formatByteCount(999'600, ByteCountStyle::file), "1 MB") << "no \"1,000 KB\"";
    EXPECT_EQ(formatByteCount(1'500'000, ByteCountStyle::file), "1.5 MB");
    EXPECT_EQ(formatByteCount(1'234'567'890, ByteCountStyle::file), "1.23 GB");
    EXPECT_EQ(formatByteCount(1'200'000'000, ByteCountStyle::file), "1.2 GB");
    EXPECT_EQ(formatByteCount(499'963'174'912, ByteCountStyle::file), "499.96 GB");
    EXPECT_EQ(formatByteCount(2'000'000'000'000, ByteCountStyle::file), "2 TB");
}

TEST(ByteCounts, MemoryStyleUsesBinaryUnits) {
    EXPECT_EQ(formatByteCount(1024, ByteCountStyle::memory), "1 KB");
    EXPECT_EQ(formatByteCount(1000, ByteCountStyle::memory), "1,000 bytes");
    EXPECT_EQ(formatByteCount(17'179'869'184, ByteCountStyle::memory), "16 GB");
    EXPECT_EQ(formatByteCount(3 * 1024 * 1024 / 2, ByteCountStyle::memory), "1.5 MB");
}

TEST(DiskSpace, ReadsTheVolumeOrFailsWithFileOperationFailed) {
    const auto info = getDiskSpaceInfo(::testing::TempDir());
    EXPECT_GT(info.total, 0);
    EXPECT_GE(info.available, 0);
    EXPECT_LE(info.available, info.total);
    EXPECT_EQ(info.availableForImportantUsage, info.available);
    EXPECT_EQ(info.availableForOpportunisticUsage, info.available);

    try {
        getDiskSpaceInfo("/nonexistent/orvane/volume");
        ADD_FAILURE() << "expected a failure";
    } catch (const OVError& e) {
        EXPECT_EQ(e.code(), OVError::Code::fileOperationFailed);
        EXPECT_EQ(e.debugDescription(), "Can't access disk space info");
    }
}

TEST(DiskSpace, LogLineShowsSizesForPeopleAndPlainCountsInTheMetadata) {
    testing::LogCapture log;
    logDiskSpaceInfo(log.logger, DiskSpaceInfo{500'000'000'000, 0, 1'500'000, std::nullopt});
    auto line = log.single();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, OVLogLevel::debug);
    EXPECT_EQ(line->message,
              "Disk space information. total: 500 GB, available: Zero KB, availableForImportantUsage: 1.5 MB, "
              "availableForOpportunisticUsage: -");
    EXPECT_EQ(line->metadata, (LogMetadata{{"total", "500000000000"},
                                           {"available", "0"},
                                           {"availableImportant", "1500000"},
                                           {"availableOppertunistic", "-"}}));

    testing::LogCapture failing;
    EXPECT_NO_THROW(logDiskSpaceInfo(failing.logger, std::filesystem::path("/nonexistent/orvane/volume")));
    line = failing.single();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, OVLogLevel::error);
    EXPECT_EQ(line->message, "Could not log disk space info");
    EXPECT_EQ(line->metadata.at("url"), "/nonexistent/orvane/volume");
    EXPECT_EQ(line->metadata.at("error"), "Can't access disk space info");
}

// A machine of our own making: firmware tables, os-release and thermal zones.
class FakeMachine : public ::testing::Test {
protected:
    void SetUp() override {
        root = std::filesystem::path(::testing::TempDir()) / ("orvane-machine-" + std::to_string(::getpid()));
        std::filesystem::remove_all(root);
        std::filesystem::create_directories(root / "dmi");
        std::filesystem::create_directories(root / "thermal");
        sources.osRelease = root / "os-release";
        sources.dmiDirectory = root / "dmi";
        sources.deviceTreeModel = root / "devicetree-model";
        sources.platformProfile = root / "platform_profile";
        sources.thermalDirectory = root / "thermal";
    }
    void TearDown() override { std::filesystem::remove_all(root); }

    void write(const std::filesystem::path& path, const std::string& text) {
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }
    void zone(const std::string& name, long temp, std::vector<std::pair<std::string, long>> trips) {
        write(root / "thermal" / name / "temp", std::to_string(temp) + "\n");
        for (size_t i = 0; i < trips.size(); ++i) {
            write(root / "thermal" / name / ("trip_point_" + std::to_string(i) + "_type"), trips[i].first + "\n");
            write(root / "thermal" / name / ("trip_point_" + std::to_string(i) + "_temp"),
                  std::to_string(trips[i].second) + "\n");
        }
    }

    std::filesystem::path root;
    SystemInformationSources sources;
};

TEST_F(FakeMachine, ReadsModelSystemPowerAndTheHottestZone) {
    write(sources.osRelease, "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nID=debian\n");
    write(root / "dmi" / "product_name", "ThinkPad X1 Carbon Gen 11\n");
    write(root / "dmi" / "product_version", "None\n");
    write(sources.platformProfile, "low-power\n");
    zone("thermal_zone0", 45000, {{"passive", 90000}, {"critical", 105000}});
    zone("thermal_zone1", 92000, {{"passive", 90000}, {"hot", 95000}, {"critical", 105000}});
    zone("cooling_device0", 200000, {{"critical", 1}});  // not a zone: ignored

    const auto info = currentSystemInformation(sources);
    EXPECT_EQ(info.modelIdentifier, "ThinkPad X1 Carbon Gen 11");
    EXPECT_EQ(info.operatingSystem.rfind("Debian GNU/Linux 12 (bookworm), kernel ", 0), 0u) << info.operatingSystem;
    EXPECT_TRUE(info.isLowPowerModeEnabled);
    EXPECT_EQ(info.thermalState, "fair");
    EXPECT_GE(info.processorCount, info.activeProcessorCount);
    EXPECT_GE(info.activeProcessorCount, 1);
    EXPECT_GT(info.physicalMemory, 0u);
    EXPECT_GT(info.systemUptime, 0);
}

TEST_F(FakeMachine, ThermalTripPointsAndMissingFirmware) {
    zone("z", 100000, {{"passive", 80000}, {"hot", 95000}, {"critical", 0}});
    EXPECT_EQ(thermalStateOfZone(root / "thermal" / "z"), "serious") << "a trip point of 0 is disabled";
    zone("c", 106000, {{"critical", 105000}});
    EXPECT_EQ(thermalStateOfZone(root / "thermal" / "c"), "critical");
    zone("n", 30000, {{"active", 20000}});
    EXPECT_EQ(thermalStateOfZone(root / "thermal" / "n"), "nominal") << "fans spinning is not a thermal state";

    // No firmware tables but a device tree; no os-release.
    write(sources.deviceTreeModel, std::string("Raspberry Pi 4 Model B Rev 1.4") + '\0');
    const auto info = currentSystemInformation(sources);
    EXPECT_EQ(info.modelIdentifier, "Raspberry Pi 4 Model B Rev 1.4");
    EXPECT_EQ(info.operatingSystem.rfind("Linux, kernel ", 0), 0u) << info.operatingSystem;
    EXPECT_FALSE(info.isLowPowerModeEnabled);
    EXPECT_EQ(info.thermalState, "nominal") << "the fake zones above are not named thermal_zone*";
}

TEST(MachineLogLines, SystemAndAppInformation) {
    testing::LogCapture log;
    SystemInformation info;
    info.operatingSystem = "Debian GNU/Linux 12 (bookworm), kernel 6.1.0";
    info.systemUptime = 1234.5;
    info.processorCount = 8;
    info.activeProcessorCount = 6;
    info.physicalMemory = 17'179'869'184;
    info.thermalState = "serious";
    logSystemInformation(log.logger, info);
    auto line = log.single();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->message, "System information");
    EXPECT_EQ(line->level, OVLogLevel::debug);
    EXPECT_EQ(line->metadata, (LogMetadata{{"modelIdentifier", "-"},
                                           {"operatingSystem", "Debian GNU/Linux 12 (bookworm), kernel 6.1.0"},
                                           {"systemUptime", "1234.5"},
                                           {"processorCount", "8"},
                                           {"activeProcessorCount", "6"},
                                           {"physicalMemory", "16 GB"},
                                           {"isLowPowerModeEnabled", "false"},
                                           {"thermalState", "serious"}}));

    testing::LogCapture appLog;
    logAppInformation(appLog.logger);
    line = appLog.single();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->message, "App information");
    EXPECT_EQ(line->metadata.at("processIdentifier"), std::to_string(::getpid()));
    EXPECT_EQ(line->metadata.at("processName"), "orvane-tests");
    EXPECT_EQ(line->metadata.at("bundleIdentifier"), "-");
    EXPECT_EQ(line->metadata.at("shortVersionString"), ORVANE_VERSION);
    EXPECT_EQ(line->metadata.size(), 6u);
}

}  // namespace
}  // namespace ov
