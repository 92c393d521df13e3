// OVTime: the time value of the side files.

#include <gtest/gtest.h>

#include <stdexcept>

#include "foundation/json_coding.h"
#include "timing/ov_time.h"

namespace ov::testing {
namespace {

using platform::CMTime;

TEST(OVTimeTest, SecondsRelativeToAStartAreWholeNanoseconds) {
    OVTime t(2.5, 1.0);
    EXPECT_EQ(t.value, 1'500'000'000);
    EXPECT_EQ(t.timescale, 1'000'000'000);
    EXPECT_DOUBLE_EQ(t.seconds, 1.5);

    // Truncated toward zero, both ways.
    EXPECT_EQ(OVTime(1.0000000019, 1.0).value, 1);
    EXPECT_EQ(OVTime(1.0, 1.0000000019).value, -1);
    EXPECT_EQ(OVTime(12.25, CMTime(2, 1)).value, 10'250'000'000);

    EXPECT_THROW(OVTime(std::numeric_limits<double>::infinity(), 0), std::domain_error);
    EXPECT_THROW(OVTime(1e10, 0), std::domain_error) << "beyond 2^63 nanoseconds";
}

TEST(OVTimeTest, FromCMTimesKeepsTheDifferencesOwnTimescale) {
    OVTime t(CMTime(90, 600), CMTime(1, 30));
    EXPECT_EQ(t.value, 70);
    EXPECT_EQ(t.timescale, 600);
    EXPECT_DOUBLE_EQ(t.seconds, 70.0 / 600);
    EXPECT_EQ(t.cmTime(), CMTime(7, 60));

    OVTime sum = t + OVTime(CMTime(1, 4), platform::kCMTimeZero);
    EXPECT_EQ(sum.timescale, 600);
    EXPECT_EQ(sum.value, 220);
    EXPECT_DOUBLE_EQ(sum.seconds, 220.0 / 600);
    OVTime difference = OVTime(3.0, 0.0) - OVTime(CMTime(1, 2), platform::kCMTimeZero);
    EXPECT_EQ(difference.cmTime(), CMTime(5, 2));
    EXPECT_EQ(difference.timescale, 1'000'000'000);
}

TEST(OVTimeTest, JSONHasItsThreeKeysInOrderAndAllAreRequired) {
    OVTime t(2.5, 1.0);
    EXPECT_EQ(coding::encodeLine(t.json()), R"({"seconds":1.5,"value":1500000000,"timescale":1000000000})");
    nlohmann::json plain = t;
    EXPECT_EQ(plain["value"], 1'500'000'000);

    auto parsed = coding::parseJSON(R"({"timescale":600,"value":90,"seconds":0.15})");
    OVTime decoded = coding::Decoder(parsed).decode<OVTime>();
    EXPECT_EQ(decoded, OVTime::make(0.15, 90, 600));

    auto missing = coding::parseJSON(R"({"seconds":1,"value":1})");
    try {
        coding::Decoder(missing).decode<OVTime>();
        FAIL() << "timescale is required";
    } catch (const coding::DecodingError& e) {
        EXPECT_EQ(e.kind(), coding::DecodingError::Kind::keyNotFound);
        EXPECT_EQ(e.key(), "timescale");
    }
    auto fractional = coding::parseJSON(R"({"seconds":1,"value":1.5,"timescale":1})");
    EXPECT_THROW(coding::Decoder(fractional).decode<OVTime>(), coding::DecodingError);
}

}  // namespace
}  // namespace ov::testing
