// CMTime: exactness across timescales, rounding, the non-numeric times,
// overflow, and the log text.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "platform/cm_time.h"
#include "platform/double_description.h"

namespace ov::testing {
namespace {

using namespace ov::platform;
using Int128 = __int128;

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

// Exactly equal rationals: a.value / a.timescale == num / den.
bool representsExactly(const CMTime& t, Int128 num, Int128 den) {
    return static_cast<Int128>(t.value) * den == num * t.timescale;
}

// Any two of these have a common multiple within kCMTimeMaxTimescale, so sums
// and differences of them are exact.
const std::vector<int32_t> kTimescales = {1, 2, 3, 7, 10, 600, 1000, 44100, 48000, 90000};

TEST(CMTimeArithmetic, SumsAndDifferencesAreExactAcrossTimescales) {
    std::mt19937_64 rng(20240611);
    std::uniform_int_distribution<int64_t> values(-(int64_t{1} << 40), int64_t{1} << 40);
    std::uniform_int_distribution<size_t> pick(0, kTimescales.size() - 1);
    for (int i = 0; i < 20000; ++i) {
        CMTime a(values(rng), kTimescales[pick(rng)]);
        CMTime b(values(rng), kTimescales[pick(rng)]);
        const Int128 den = static_cast<Int128>(a.timescale) * b.timescale;
        for (bool subtract : {false, true}) {
            CMTime r = subtract ? a - b : a + b;
            Int128 num = static_cast<Int128>(a.value) * b.timescale +
                         (subtract ? -1 : 1) * static_cast<Int128>(b.value) * a.timescale;
            ASSERT_TRUE(r.isNumeric());
            ASSERT_FALSE(r.hasBeenRounded()) << a.debugDescription() << (subtract ? " - " : " + ") << b.debugDescription();
            ASSERT_TRUE(representsExactly(r, num, den))
                << a.debugDescription() << (subtract ? " - " : " + ") << b.debugDescription() << " = " << r.debugDescription();
            ASSERT_EQ((r.timescale % a.timescale), 0);
            ASSERT_EQ((r.timescale % b.timescale), 0);
        }
        // a + b - b comes back to a, whatever timescale the sum took.
        ASSERT_EQ((a + b) - b, a);
    }
}

TEST(CMTimeArithmetic, CommonTimescaleIsTheLeastCommonMultiple) {
    CMTime r = CMTime(1, 600) + CMTime(1, 44100);
    EXPECT_EQ(r.timescale, 88200);
    EXPECT_EQ(r.value, 147 + 2);
    EXPECT_EQ(CMTime(1, 4) + CMTime(1, 6), CMTime(5, 12));
    EXPECT_EQ((CMTime(1, 4) + CMTime(1, 6)).timescale, 12);
    EXPECT_EQ((CMTime(3, 48000) - CMTime(3, 48000)).timescale, 48000) << "same timescales stay";
}

TEST(CMTimeArithmetic, CommonTimescaleBeyondTheMaximumRoundsAtTheMaximum) {
    // Host time plus one audio frame: 1e9 and 48000 meet only at 3e9, so the
    // sum is rounded to the nanosecond.
    CMTime frame = CMTime(1'000'000'000'000, 1'000'000'000) + CMTime(1, 48000);
    EXPECT_EQ(frame.timescale, kCMTimeMaxTimescale);
    EXPECT_EQ(frame.value, 1'000'000'020'833);
    EXPECT_TRUE(frame.hasBeenRounded());

    // Two primes near 1e9: their common multiple is far beyond the maximum.
    CMTime a(1, 999'999'937);
    CMTime b(1, 999'999'929);
    CMTime r = a + b;
    EXPECT_EQ(r.timescale, kCMTimeMaxTimescale);
    EXPECT_EQ(r.value, 2);
    EXPECT_TRUE(r.hasBeenRounded());
    EXPECT_NEAR(r.seconds(), a.seconds() + b.seconds(), 1e-9);
}

TEST(CMTimeArithmetic, RoundedFlagIsCarriedOn) {
    CMTime r = CMTime::makeWithSeconds(0.5, 1);  // a tie: rounded
    ASSERT_TRUE(r.hasBeenRounded());
    EXPECT_TRUE((r + CMTime(1, 1)).hasBeenRounded());
    EXPECT_TRUE((CMTime(1, 3) - r).hasBeenRounded());
    EXPECT_TRUE((r * 3).hasBeenRounded());
    EXPECT_FALSE((CMTime(1, 2) + CMTime(1, 3)).hasBeenRounded());
}

TEST(CMTimeArithmetic, MultiplicationKeepsTheTimescale) {
    EXPECT_EQ(CMTime(7, 600) * 3, CMTime(21, 600));
    EXPECT_EQ((CMTime(7, 600) * 3).timescale, 600);
    EXPECT_EQ(CMTime(7, 600) * -2, CMTime(-14, 600));
    // A float multiplier: the timescale is doubled up to at least 65536 so that
    // the fraction survives: 1/600 × 0.5 is exactly 1/1200.
    CMTime half = CMTime(1, 600) * 0.5;
    EXPECT_EQ(half.timescale, 76800);
    EXPECT_EQ(half, CMTime(1, 1200));
    EXPECT_FALSE(half.hasBeenRounded());
    EXPECT_TRUE((CMTime(1, 65536) * (1.0 / 3.0)).hasBeenRounded());
    // Ratios stay exact, keeping the timescale when they can.
    EXPECT_EQ(CMTimeMultiplyByRatio(CMTime(10, 600), 1, 2), CMTime(5, 600));
    EXPECT_EQ(CMTimeMultiplyByRatio(CMTime(10, 600), 1, 2).timescale, 600);
    CMTime third = CMTimeMultiplyByRatio(CMTime(1, 600), 1, 3);
    EXPECT_EQ(third, CMTime(1, 1800));
    EXPECT_FALSE(third.hasBeenRounded());
    EXPECT_TRUE(CMTimeMultiplyByRatio(CMTime(1, 600), 1, 0).isInvalid());
}

TEST(CMTimeRounding, SecondsRoundHalvesAwayFromZero) {
    struct Case {
        double seconds;
        int32_t timescale;
        int64_t value;
        bool rounded;
    };
    const Case cases[] = {
        {0.5, 1, 1, true},     {-0.5, 1, -1, true},  {1.5, 1, 2, true},         {2.5, 1, 3, true},
        {-2.5, 1, -3, true},   {0.25, 2, 1, true},   {1.25, 4, 5, false},       {0.4, 1, 0, true},
        {1.0 / 3, 3, 1, false}, {0.15, 10, 2, true}, {1000.123456789, 1'000'000'000, 1000123456789, false},
        {0, 600, 0, false},
    };
    for (const auto& c : cases) {
        CMTime t = CMTime::makeWithSeconds(c.seconds, c.timescale);
        EXPECT_EQ(t.value, c.value) << c.seconds << " at " << c.timescale;
        EXPECT_EQ(t.timescale, c.timescale);
        EXPECT_EQ(t.hasBeenRounded(), c.rounded) << c.seconds << " at " << c.timescale;
    }
}

TEST(CMTimeRounding, HostNanosecondsSurviveTheTripThroughSeconds) {
    // Timeline bounds are doubles of host time; turning them back into
    // nanosecond ticks must land on the original tick. (Beyond about 2^50 ns,
    // 13 days of uptime, a double of seconds no longer resolves nanoseconds.)
    std::mt19937_64 rng(7);
    std::uniform_int_distribution<int64_t> ns(0, int64_t{1} << 47);
    for (int i = 0; i < 10000; ++i) {
        int64_t v = ns(rng);
        CMTime t(v, 1'000'000'000);
        ASSERT_EQ(CMTime::makeWithSeconds(t.seconds(), 1'000'000'000).value, v);
    }
}

TEST(CMTimeRounding, ConvertScaleHonoursEveryMethod) {
    using M = CMTimeRoundingMethod;
    struct Case {
        M method;
        int64_t positive;  // 3/2 → timescale 1
        int64_t negative;  // -3/2 → timescale 1
    };
    const Case cases[] = {
        {M::roundHalfAwayFromZero, 2, -2},       {M::roundTowardZero, 1, -1},
        {M::roundAwayFromZero, 2, -2},           {M::roundTowardPositiveInfinity, 2, -1},
        {M::roundTowardNegativeInfinity, 1, -2}, {M::quickTime, 1, -1},
    };
    for (const auto& c : cases) {
        CMTime p = CMTime(3, 2).convertScale(1, c.method);
        CMTime n = CMTime(-3, 2).convertScale(1, c.method);
        EXPECT_EQ(p.value, c.positive) << static_cast<int>(c.method);
        EXPECT_EQ(n.value, c.negative) << static_cast<int>(c.method);
        EXPECT_TRUE(p.hasBeenRounded());
        EXPECT_TRUE(n.hasBeenRounded());
    }
    // Default is half away from zero, ties included: 5/2 → 3, not to even.
    EXPECT_EQ(CMTime(5, 2).convertScale(1).value, 3);
    EXPECT_EQ(CMTime(-5, 2).convertScale(1).value, -3);
    EXPECT_EQ(CMTime(149, 100).convertScale(1).value, 1);
    // QuickTime rounds away from zero into a finer timescale, and never makes a
    // negative time zero.
    EXPECT_EQ(CMTime(1, 3).convertScale(10, M::quickTime).value, 4);
    EXPECT_EQ(CMTime(-1, 1000).convertScale(1, M::quickTime).value, -1);
    // Exact conversions are not marked.
    CMTime exact = CMTime(3, 2).convertScale(48000);
    EXPECT_EQ(exact.value, 72000);
    EXPECT_FALSE(exact.hasBeenRounded());
    EXPECT_TRUE(CMTime(1, 2).convertScale(0).isInvalid());
}

TEST(CMTimeOrder, ComparisonIsExactAcrossTimescales) {
    EXPECT_EQ(CMTime(1, 2), CMTime(2, 4));
    EXPECT_EQ(CMTime(1, 3), CMTime(333'333'333, 999'999'999));
    EXPECT_LT(CMTime(1, 3), CMTime(333'333'334, 1'000'000'000));
    EXPECT_GT(CMTime(1, 3), CMTime(333'333'333, 1'000'000'000));
    // Values whose doubles are equal still order exactly.
    const int64_t big = int64_t{1} << 60;
    ASSERT_EQ(CMTime(big, 3).seconds(), CMTime(big + 1, 3).seconds());
    EXPECT_LT(CMTime(big, 3), CMTime(big + 1, 3));
    EXPECT_LT(CMTime(kMax, 1'000'000'000), CMTime(kMax / 1'000'000 + 1, 1000));
    EXPECT_GT(CMTime(kMin + 1, 7), CMTime(kMin, 7));
}

TEST(CMTimeOrder, RandomTimesOrderLikeTheirDifferences) {
    std::mt19937_64 rng(99);
    std::uniform_int_distribution<int64_t> values(-1'000'000'000, 1'000'000'000);
    std::uniform_int_distribution<size_t> pick(0, kTimescales.size() - 1);
    for (int i = 0; i < 20000; ++i) {
        CMTime a(values(rng), kTimescales[pick(rng)]);
        CMTime b(values(rng), kTimescales[pick(rng)]);
        CMTime d = a - b;
        ASSERT_FALSE(d.hasBeenRounded());
        ASSERT_EQ(a < b, d.value < 0);
        ASSERT_EQ(a == b, d.value == 0);
        ASSERT_EQ(CMTimeCompare(a, b), -CMTimeCompare(b, a));
    }
}

TEST(CMTimeOrder, NonNumericTimesSortAroundTheNumericOnes) {
    const std::vector<CMTime> ascending = {
        kCMTimeNegativeInfinity, CMTime(kMin, 1), CMTime(-1, 1), kCMTimeZero, CMTime(kMax, 1),
        kCMTimeIndefinite,       kCMTimePositiveInfinity, kCMTimeInvalid,
    };
    for (size_t i = 0; i < ascending.size(); ++i)
        for (size_t j = 0; j < ascending.size(); ++j)
            EXPECT_EQ(CMTimeCompare(ascending[i], ascending[j]), i < j ? -1 : (i > j ? 1 : 0)) << i << " vs " << j;
    // Invalid times are all alike, whatever their fields say.
    EXPECT_EQ(CMTime(5, 0), kCMTimeInvalid);
    EXPECT_EQ(CMTime(5, -3), kCMTimeInvalid);
    // A later epoch comes after an earlier one whatever the values.
    EXPECT_LT(CMTime(100, 1, CMTimeFlags::valid, 0), CMTime(1, 1, CMTimeFlags::valid, 1));
    EXPECT_EQ(CMTimeMinimum(kCMTimeInvalid, CMTime(3, 1)), CMTime(3, 1));
    EXPECT_TRUE(CMTimeMaximum(kCMTimeInvalid, CMTime(3, 1)).isInvalid());
    EXPECT_EQ(CMTimeMaximum(CMTime(1, 2), CMTime(2, 3)), CMTime(2, 3));
}

TEST(CMTimeNonNumeric, ArithmeticFollowsThePlatform) {
    const CMTime one(1, 1);
    EXPECT_TRUE((kCMTimePositiveInfinity + one).isPositiveInfinity());
    EXPECT_TRUE((one - kCMTimePositiveInfinity).isNegativeInfinity());
    EXPECT_TRUE((kCMTimeNegativeInfinity - one).isNegativeInfinity());
    EXPECT_TRUE((kCMTimePositiveInfinity + kCMTimePositiveInfinity).isPositiveInfinity());
    EXPECT_TRUE((kCMTimePositiveInfinity + kCMTimeNegativeInfinity).isInvalid());
    EXPECT_TRUE((kCMTimePositiveInfinity - kCMTimePositiveInfinity).isInvalid());
    EXPECT_TRUE((kCMTimeIndefinite + one).isIndefinite());
    EXPECT_TRUE((kCMTimeInvalid + one).isInvalid());
    EXPECT_TRUE((kCMTimeInvalid + kCMTimePositiveInfinity).isInvalid());
    EXPECT_TRUE((kCMTimePositiveInfinity * -3).isNegativeInfinity());
    EXPECT_TRUE((kCMTimePositiveInfinity * 0).isInvalid());
    EXPECT_TRUE((-kCMTimeNegativeInfinity).isPositiveInfinity());
    EXPECT_TRUE(kCMTimePositiveInfinity.convertScale(600).isPositiveInfinity());
    EXPECT_TRUE(kCMTimeInvalid.convertScale(600).isInvalid());
    EXPECT_TRUE((CMTime(1, 1, CMTimeFlags::valid, 0) + CMTime(1, 1, CMTimeFlags::valid, 1)).isInvalid())
        << "times of different epochs have no sum";

    EXPECT_TRUE(std::isnan(kCMTimeInvalid.seconds()));
    EXPECT_TRUE(std::isnan(kCMTimeIndefinite.seconds()));
    EXPECT_EQ(kCMTimePositiveInfinity.seconds(), std::numeric_limits<double>::infinity());
    EXPECT_EQ(kCMTimeNegativeInfinity.seconds(), -std::numeric_limits<double>::infinity());

    EXPECT_TRUE(CMTime::makeWithSeconds(std::numeric_limits<double>::infinity(), 600).isPositiveInfinity());
    EXPECT_TRUE(CMTime::makeWithSeconds(-std::numeric_limits<double>::infinity(), 600).isNegativeInfinity());
    EXPECT_TRUE(CMTime::makeWithSeconds(std::nan(""), 600).isInvalid());
    EXPECT_TRUE(CMTime::makeWithSeconds(1, 0).isInvalid());
    EXPECT_GT(CMTime::makeWithSeconds(std::numeric_limits<double>::infinity(), 1'000'000'000), CMTime(kMax, 1));
    EXPECT_FALSE(kCMTimePositiveInfinity.isNumeric());
    EXPECT_TRUE(kCMTimePositiveInfinity.isValid());
}

TEST(CMTimeOverflow, ValuesThatDoNotFitHalveTheTimescaleThenBecomeInfinite) {
    // 2^63 / 1000 does not fit at 1000 but is exactly 2^62 / 500.
    CMTime r = CMTime(kMax, 1000) + CMTime(1, 1000);
    EXPECT_EQ(r.timescale, 500);
    EXPECT_EQ(r.value, int64_t{1} << 62);
    EXPECT_FALSE(r.hasBeenRounded());
    // (2^63 + 1) / 1000 at 500 is 2^62 + ½: rounded away from zero.
    r = CMTime(kMax, 1000) + CMTime(2, 1000);
    EXPECT_EQ(r.timescale, 500);
    EXPECT_EQ(r.value, (int64_t{1} << 62) + 1);
    EXPECT_TRUE(r.hasBeenRounded());

    EXPECT_TRUE((CMTime(kMax, 1) + CMTime(1, 1)).isPositiveInfinity());
    EXPECT_TRUE((CMTime(kMin, 1) - CMTime(1, 1)).isNegativeInfinity());
    EXPECT_TRUE((CMTime(kMax, 1) * 2).isPositiveInfinity());
    EXPECT_TRUE((CMTime(kMax, 1) * -2).isNegativeInfinity());
    EXPECT_TRUE((CMTime(kMax, 1) * 1e10).isPositiveInfinity());
    CMTime product = CMTime(int64_t{1} << 62, 1000) * 2;
    EXPECT_EQ(product, CMTime(int64_t{1} << 62, 500));

    // Negating the most negative value halves too rather than wrapping.
    CMTime negated = -CMTime(kMin, 2);
    EXPECT_TRUE(negated.isNumeric());
    EXPECT_GT(negated, kCMTimeZero);
    EXPECT_EQ(negated, CMTime(int64_t{1} << 62, 1));

    // Seconds beyond what the preferred timescale can hold.
    CMTime huge = CMTime::makeWithSeconds(1e12, 1'000'000'000);
    EXPECT_LT(huge.timescale, 1'000'000'000);
    EXPECT_GT(huge.timescale, 1'000'000'000 / 256);
    EXPECT_DOUBLE_EQ(huge.seconds(), 1e12);
    EXPECT_TRUE(CMTime::makeWithSeconds(1e300, 600).isPositiveInfinity());
    EXPECT_TRUE(CMTime::makeWithSeconds(-1e300, 600).isNegativeInfinity());

    // A requested timescale is kept: what does not fit is infinite.
    EXPECT_TRUE(CMTime(kMax, 1).convertScale(1'000'000'000).isPositiveInfinity());
    EXPECT_TRUE(CMTime(kMin, 1).convertScale(1'000'000'000).isNegativeInfinity());
}

TEST(CMTimeRangeTest, HoldsItsStartButNotItsEnd) {
    CMTimeRange range(CMTime(10, 1), CMTime(5, 1));
    EXPECT_TRUE(range.isValid());
    EXPECT_EQ(range.end(), CMTime(15, 1));
    EXPECT_TRUE(range.containsTime(CMTime(10, 1)));
    EXPECT_TRUE(range.containsTime(CMTime(29, 2)));
    EXPECT_FALSE(range.containsTime(CMTime(15, 1)));
    EXPECT_FALSE(range.containsTime(kCMTimeInvalid));
    EXPECT_TRUE(range.containsTimeRange(CMTimeRange(CMTime(11, 1), CMTime(4, 1))));
    EXPECT_FALSE(range.containsTimeRange(CMTimeRange(CMTime(11, 1), CMTime(5, 1))));
    EXPECT_EQ(range.intersection(CMTimeRange(CMTime(12, 1), CMTime(10, 1))), CMTimeRange(CMTime(12, 1), CMTime(3, 1)));
    EXPECT_TRUE(range.intersection(CMTimeRange(CMTime(20, 1), CMTime(1, 1))).isEmpty());
    EXPECT_FALSE(CMTimeRange(CMTime(1, 1), CMTime(-1, 1)).isValid());
    EXPECT_TRUE(CMTimeRange(CMTime(1, 1), kCMTimePositiveInfinity).containsTime(CMTime(kMax, 1)));
}

TEST(CMTimeText, LogDescriptionNamesSecondsTimescaleValueAndFlags) {
    EXPECT_EQ(CMTime(900, 600).logDescription(), "CMTime(seconds:1.5 timescale:600 value:900 flags:valid)");
    EXPECT_EQ(CMTime(3, 1).logDescription(), "CMTime(seconds:3.0 timescale:1 value:3 flags:valid)");
    EXPECT_EQ(CMTime::makeWithSeconds(0.5, 1).logDescription(),
              "CMTime(seconds:1.0 timescale:1 value:1 flags:valid, hasBeenRounded)");
    EXPECT_EQ(kCMTimeInvalid.logDescription(), "CMTime(seconds:nan timescale:0 value:0 flags:<empty>)");
    EXPECT_EQ(kCMTimePositiveInfinity.logDescription(),
              "CMTime(seconds:inf timescale:0 value:0 flags:valid, positiveInfinity)");
    EXPECT_EQ(kCMTimeNegativeInfinity.logDescription(),
              "CMTime(seconds:-inf timescale:0 value:0 flags:valid, negativeInfinity)");
    EXPECT_EQ(CMTime(-1, 100'000).logDescription(), "CMTime(seconds:-1e-05 timescale:100000 value:-1 flags:valid)");
    EXPECT_EQ((CMTimeFlags{0x41}).description(), "valid, unknown flags:64");
    EXPECT_EQ((CMTimeFlags::valid | CMTimeFlags::impliedValueFlagsMask).description(),
              "valid, positiveInfinity, negativeInfinity, indefinite, impliedValueFlagsMask");
    EXPECT_EQ(kCMTimeIndefinite.flags.description(), "valid, indefinite");
}

TEST(CMTimeText, DoublesPrintAsTheShortestRoundTrip) {
    EXPECT_EQ(doubleDescription(0.1), "0.1");
    EXPECT_EQ(doubleDescription(1.0 / 3), "0.3333333333333333");
    EXPECT_EQ(doubleDescription(0.0001), "0.0001");
    EXPECT_EQ(doubleDescription(0.00001), "1e-05");
    EXPECT_EQ(doubleDescription(1.5e-7), "1.5e-07");
    EXPECT_EQ(doubleDescription(9007199254740992.0), "9007199254740992.0");
    EXPECT_EQ(doubleDescription(1e16), "1e+16");
    EXPECT_EQ(doubleDescription(-2.0), "-2.0");
    EXPECT_EQ(doubleDescription(-0.0), "-0.0");
    EXPECT_EQ(doubleDescription(1000.123456789), "1000.123456789");
}

}  // namespace
}  // namespace ov::testing
