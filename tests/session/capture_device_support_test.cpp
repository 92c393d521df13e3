// The pieces the capture recorders share: the writer drain at finish, the
// session clock check, and USB locations.
#include "session/capture_device_support.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace ov {
namespace {

using testing::LogCapture;
using Buffer = UnboundedBackpressureBuffer<int>;
using Result = Buffer::HandlerResult;

constexpr DrainOptions fast{std::chrono::microseconds(100), 50};

TEST(DrainBackpressureBuffer, AStalledWriterIsGivenUpAfterTheStallLimit) {
    LogCapture log;
    int offered = 0;
    Buffer buffer("test", [&](const int&) {
        ++offered;
        return Result::notReadyForItem;
    });
    for (int i = 0; i < 5; ++i) buffer.append(i);
    drainBackpressureBuffer(buffer, nullptr, log.logger, fast);
    EXPECT_EQ(buffer.count(), 0u);
    auto line = log.waitFor("Backpressure buffer stalled, dropping remaining buffers.");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->metadata.at("itemsInBuffer"), "5");
    // 5 refusals at append, then one per round for 50 rounds.
    EXPECT_EQ(offered, 5 + 50);
}

TEST(DrainBackpressureBuffer, ASlowButSteadyWriterIsNeverGivenUp) {
    LogCapture log;
    int round = 0;
    bool accepting = false;
    Buffer buffer("test", [&](const int&) {
        if (!accepting) return Result::notReadyForItem;
        accepting = false;  // one item per round
        return Result::handledItem;
    });
    for (int i = 0; i < 200; ++i) buffer.append(i);
    // Takes one item every second round: progress always comes before the limit.
    drainBackpressureBuffer(
        buffer, [&] { accepting = (++round % 2) == 0; }, log.logger, DrainOptions{std::chrono::microseconds(10), 3});
    EXPECT_EQ(buffer.count(), 0u);
    EXPECT_TRUE(log.contains("Flushed all samples from buffer."));
    EXPECT_FALSE(log.contains("Backpressure buffer stalled, dropping remaining buffers."));
}

TEST(DrainBackpressureBuffer, TheWritersErrorEndsTheDrain) {
    LogCapture log;
    Buffer buffer("test", [](const int&) { return Result::notReadyForItem; });
    buffer.append(1);
    EXPECT_THROW(drainBackpressureBuffer(
                     buffer, [] { throw std::runtime_error("writer failed"); }, log.logger, fast),
                 std::runtime_error);
    EXPECT_EQ(buffer.count(), 1u);
}

TEST(SynchronizationClock, TheHostClockPassesAndAnOffsetClockIsCaught) {
    LogCapture log;
    EXPECT_TRUE(validateSessionClock(platform::CMClock::hostTimeClock(), 0.01, std::nullopt, log.logger));
    EXPECT_TRUE(log.contains("Clock delta towards host time clock is good."));

    LogCapture offsetLog;
    auto offset = std::make_shared<platform::CMOffsetClock>(platform::CMTime(5, 1));
    // The offset clock maps its own zero five seconds away from host zero.
    EXPECT_FALSE(validateSessionClock(offset, 0.01, std::nullopt, offsetLog.logger));
    EXPECT_TRUE(offsetLog.contains("Clock delta converting time zero is too big."));

    LogCapture none;
    EXPECT_FALSE(validateSessionClock(nullptr, 0.01, std::nullopt, none.logger));
    EXPECT_TRUE(none.contains("No synchronization clock available."));
}

struct TopologyDevice final : platform::AVCaptureDevice {
    TopologyDevice(std::string uniqueID, uint32_t transport)
        : AVCaptureDevice(Identity{uniqueID, "model", "name", "maker", platform::AVCaptureDeviceTypeExternal, transport,
                                   {platform::AVMediaType::audio}},
                          {}, 0) {}
    std::shared_ptr<const platform::CMClock> synchronizationClock() const override { return nullptr; }
    std::unique_ptr<platform::CaptureProducer> startProducing(const platform::CaptureProducerRequest&,
                                                              platform::CaptureProducerSink) override {
        return nullptr;
    }
};

TEST(USBTopology, TheEngineIdCarriesTheLocationInItsFourthPart) {
    auto topology = usbDeviceTopology(TopologyDevice("AppleUSBAudioEngine:Maker:Mic:14200000:1", 0));
    ASSERT_TRUE(topology);
    EXPECT_EQ(topology->locationID, "0x14200000");
    EXPECT_EQ(topology->source, USBDeviceTopology::Source::uniqueID);
    // Empty parts count: the location is still the fourth part.
    EXPECT_EQ(usbDeviceTopology(TopologyDevice("AppleUSBAudioEngine:::1a:2", 0))->locationID, "0x0000001a");
    EXPECT_FALSE(usbDeviceTopology(TopologyDevice("AppleUSBAudioEngine:a:b", 0)));
    EXPECT_FALSE(usbDeviceTopology(TopologyDevice("AppleUSBAudioEngine:a:b:zz", 0)));
    // Not USB at all: nothing to look up.
    EXPECT_FALSE(usbDeviceTopology(TopologyDevice("alsa_input.pci-0000_00_1f.3.analog-stereo",
                                                  platform::kAVCaptureDeviceTransportTypeBuiltIn)));
}

}  // namespace
}  // namespace ov
