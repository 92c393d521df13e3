#pragma once
// CMTime: a rational time, value / timescale seconds, with flags for the
// non-numeric times (invalid, indefinite, positive and negative infinity).
//
// Arithmetic is exact on the rational value wherever the result fits. When it
// does not, the result keeps as much as it can the way the platform does:
// sums of different timescales take the least common multiple of the two
// (capped at kCMTimeMaxTimescale), a value that overflows 64 bits has its
// timescale halved until it fits, and what still overflows at timescale 1
// becomes positive or negative infinity. Every rounding sets hasBeenRounded,
// and the flag is carried on from rounded operands.
//
// Comparison is exact (128-bit cross multiplication) and total:
//   -infinity < numeric times < indefinite < +infinity < invalid,
// with larger epochs after smaller ones. `==` compares instants, so 1/2 == 2/4.

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace ov::platform {

using CMTimeValue = int64_t;
using CMTimeScale = int32_t;
using CMTimeEpoch = int64_t;

// The largest timescale that sums of different timescales are given.
inline constexpr CMTimeScale kCMTimeMaxTimescale = 1'000'000'000;

struct CMTimeFlags {
    uint32_t rawValue = 0;

    static const CMTimeFlags valid;
    static const CMTimeFlags hasBeenRounded;
    static const CMTimeFlags positiveInfinity;
    static const CMTimeFlags negativeInfinity;
    static const CMTimeFlags indefinite;
    // The flags that make a time non-numeric whatever its value.
    static const CMTimeFlags impliedValueFlagsMask;

    constexpr bool contains(CMTimeFlags other) const { return (rawValue & other.rawValue) == other.rawValue; }
    constexpr bool intersects(CMTimeFlags other) const { return (rawValue & other.rawValue) != 0; }
    constexpr CMTimeFlags operator|(CMTimeFlags other) const { return {rawValue | other.rawValue}; }
    constexpr CMTimeFlags operator&(CMTimeFlags other) const { return {rawValue & other.rawValue}; }
    constexpr CMTimeFlags operator~() const { return {~rawValue}; }
    constexpr bool operator==(const CMTimeFlags&) const = default;

    // The names of the set flags joined with ", " ("valid, hasBeenRounded"),
    // "unknown flags:<n>" for bits without a name, "<empty>" for none.
    std::string description() const;
};

inline constexpr CMTimeFlags CMTimeFlags::valid{1u << 0};
inline constexpr CMTimeFlags CMTimeFlags::hasBeenRounded{1u << 1};
inline constexpr CMTimeFlags CMTimeFlags::positiveInfinity{1u << 2};
inline constexpr CMTimeFlags CMTimeFlags::negativeInfinity{1u << 3};
inline constexpr CMTimeFlags CMTimeFlags::indefinite{1u << 4};
inline constexpr CMTimeFlags CMTimeFlags::impliedValueFlagsMask{(1u << 2) | (1u << 3) | (1u << 4)};

enum class CMTimeRoundingMethod : uint32_t {
    roundHalfAwayFromZero = 1,
    roundTowardZero = 2,
    roundAwayFromZero = 3,
    // Toward zero when going to a smaller timescale, away from zero when going
    // to a larger one; a negative time never rounds up to zero.
    quickTime = 4,
    roundTowardPositiveInfinity = 5,
    roundTowardNegativeInfinity = 6,
    defaultMethod = roundHalfAwayFromZero,
};

struct CMTime {
    CMTimeValue value = 0;
    CMTimeScale timescale = 0;
    CMTimeFlags flags{};
    CMTimeEpoch epoch = 0;

    // The invalid time.
    constexpr CMTime() = default;
    // value / timescale seconds; a timescale that is not positive gives an
    // invalid time.
    constexpr CMTime(CMTimeValue value_, CMTimeScale timescale_)
        : value(value_), timescale(timescale_), flags(timescale_ > 0 ? CMTimeFlags::valid : CMTimeFlags{}) {
        if (timescale_ <= 0) value = 0, timescale = 0;
    }
    constexpr CMTime(CMTimeValue value_, CMTimeScale timescale_, CMTimeFlags flags_, CMTimeEpoch epoch_)
        : value(value_), timescale(timescale_), flags(flags_), epoch(epoch_) {}

    // The nearest tick of `preferredTimescale` to `seconds` (the product
    // seconds × timescale in double precision, halves rounded away from zero),
    // with hasBeenRounded when the product was not whole. Where the value does
    // not fit 64 bits the timescale is halved until it does. NaN gives an
    // invalid time, ±infinity the infinite times.
    static CMTime makeWithSeconds(double seconds, CMTimeScale preferredTimescale);

    constexpr bool isValid() const { return flags.contains(CMTimeFlags::valid); }
    constexpr bool isInvalid() const { return !isValid(); }
    constexpr bool isPositiveInfinity() const { return isValid() && flags.contains(CMTimeFlags::positiveInfinity); }
    constexpr bool isNegativeInfinity() const { return isValid() && flags.contains(CMTimeFlags::negativeInfinity); }
    constexpr bool isIndefinite() const { return isValid() && flags.contains(CMTimeFlags::indefinite); }
    constexpr bool isNumeric() const {
        return isValid() && !flags.intersects(CMTimeFlags::impliedValueFlagsMask) && timescale > 0;
    }
    constexpr bool hasBeenRounded() const { return isNumeric() && flags.contains(CMTimeFlags::hasBeenRounded); }

    // value / timescale; ±infinity for the infinite times, NaN for invalid and
    // indefinite ones.
    double seconds() const;

    // This time in another timescale. Non-numeric times stay what they are; a
    // timescale that is not positive gives an invalid time; a value that does
    // not fit gives the infinity of its sign.
    CMTime convertScale(CMTimeScale newTimescale,
                        CMTimeRoundingMethod method = CMTimeRoundingMethod::defaultMethod) const;

    // "CMTime(seconds:1.5 timescale:600 value:900 flags:valid)".
    std::string logDescription() const;
    // "{900/600 = 1.500}", "{INVALID}", "{+INFINITY}", ...: for test output.
    std::string debugDescription() const;

    CMTime operator-() const;
    CMTime& operator+=(const CMTime& other) { return *this = *this + other; }
    CMTime& operator-=(const CMTime& other) { return *this = *this - other; }

    friend CMTime operator+(const CMTime& lhs, const CMTime& rhs);
    friend CMTime operator-(const CMTime& lhs, const CMTime& rhs);
    friend std::weak_ordering operator<=>(const CMTime& lhs, const CMTime& rhs);
    friend bool operator==(const CMTime& lhs, const CMTime& rhs) { return (lhs <=> rhs) == 0; }
};

// Writes debugDescription(), so that test failures show times readably.
std::ostream& operator<<(std::ostream& os, const CMTime& time);

inline constexpr CMTime kCMTimeInvalid{};
inline constexpr CMTime kCMTimeZero{0, 1};
inline constexpr CMTime kCMTimeIndefinite{0, 0, CMTimeFlags::valid | CMTimeFlags::indefinite, 0};
inline constexpr CMTime kCMTimePositiveInfinity{0, 0, CMTimeFlags::valid | CMTimeFlags::positiveInfinity, 0};
inline constexpr CMTime kCMTimeNegativeInfinity{0, 0, CMTimeFlags::valid | CMTimeFlags::negativeInfinity, 0};

// -1, 0 or 1, in the total order described above.
int32_t CMTimeCompare(const CMTime& lhs, const CMTime& rhs);
CMTime CMTimeAdd(const CMTime& lhs, const CMTime& rhs);
CMTime CMTimeSubtract(const CMTime& lhs, const CMTime& rhs);
// Same timescale as `time`; on overflow the timescale is halved as for sums.
CMTime CMTimeMultiply(const CMTime& time, int32_t multiplier);
// Same timescale as `time`, raised by doubling to at least 65536 so that the
// product keeps precision; on overflow the timescale is halved.
CMTime CMTimeMultiplyByFloat64(const CMTime& time, double multiplier);
// time × multiplier / divisor, exact where it fits.
CMTime CMTimeMultiplyByRatio(const CMTime& time, int32_t multiplier, int32_t divisor);
CMTime CMTimeConvertScale(const CMTime& time, CMTimeScale newTimescale, CMTimeRoundingMethod method);
CMTime CMTimeAbsoluteValue(const CMTime& time);
// The lesser / greater in the order of CMTimeCompare (so an invalid time is
// never the minimum of a valid one and always the maximum).
CMTime CMTimeMinimum(const CMTime& lhs, const CMTime& rhs);
CMTime CMTimeMaximum(const CMTime& lhs, const CMTime& rhs);

inline CMTime operator*(const CMTime& time, int32_t multiplier) { return CMTimeMultiply(time, multiplier); }
inline CMTime operator*(const CMTime& time, double multiplier) { return CMTimeMultiplyByFloat64(time, multiplier); }

// A span of time: `start` and `duration`; it holds t when start <= t < end.
struct CMTimeRange {
    CMTime start;
    CMTime duration;

    constexpr CMTimeRange() = default;
    constexpr CMTimeRange(CMTime start_, CMTime duration_) : start(start_), duration(duration_) {}
    static CMTimeRange fromStartEnd(const CMTime& start, const CMTime& end) { return {start, end - start}; }

    CMTime end() const { return start + duration; }
    // Valid when both times are valid, the duration is not negative and the
    // epochs are the same.
    bool isValid() const;
    bool isEmpty() const { return isValid() && duration == kCMTimeZero; }
    bool containsTime(const CMTime& time) const;
    bool containsTimeRange(const CMTimeRange& other) const;
    // The overlap of the two, empty (at the later start) when they do not meet.
    CMTimeRange intersection(const CMTimeRange& other) const;

    bool operator==(const CMTimeRange& other) const { return start == other.start && duration == other.duration; }
};

inline constexpr CMTimeRange kCMTimeRangeInvalid{};

}  // namespace ov::platform
