#include "platform/cm_time.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <numeric>
#include <ostream>

#include <fmt/format.h>

#include "platform/double_description.h"

namespace ov::platform {

namespace {

using Int128 = __int128;

constexpr Int128 kInt64Min = std::numeric_limits<int64_t>::min();
constexpr Int128 kInt64Max = std::numeric_limits<int64_t>::max();

// The five kinds of time, in comparison order.
enum class Kind { negativeInfinity = 0, numeric = 1, indefinite = 2, positiveInfinity = 3, invalid = 4 };

Kind kindOf(const CMTime& t) {
    if (!t.isValid()) return Kind::invalid;
    // Several implied flags at once cannot come from any operation here; the
    // order below is as good as any and keeps the kind total.
    if (t.flags.contains(CMTimeFlags::indefinite)) return Kind::indefinite;
    if (t.flags.contains(CMTimeFlags::positiveInfinity)) return Kind::positiveInfinity;
    if (t.flags.contains(CMTimeFlags::negativeInfinity)) return Kind::negativeInfinity;
    // A numeric time without a positive timescale has no value at all.
    if (t.timescale <= 0) return Kind::invalid;
    return Kind::numeric;
}

CMTime timeOfKind(Kind kind) {
    switch (kind) {
        case Kind::negativeInfinity: return kCMTimeNegativeInfinity;
        case Kind::positiveInfinity: return kCMTimePositiveInfinity;
        case Kind::indefinite: return kCMTimeIndefinite;
        default: return kCMTimeInvalid;
    }
}

Kind negated(Kind kind) {
    if (kind == Kind::positiveInfinity) return Kind::negativeInfinity;
    if (kind == Kind::negativeInfinity) return Kind::positiveInfinity;
    return kind;
}

bool isInfinite(Kind kind) { return kind == Kind::positiveInfinity || kind == Kind::negativeInfinity; }

// num / den rounded to an integer (den > 0). Returns whether that was inexact.
bool roundQuotient(Int128 num, Int128 den, CMTimeRoundingMethod method, Int128& out) {
    Int128 q = num / den;  // truncates toward zero
    Int128 r = num % den;
    out = q;
    if (r == 0) return false;
    const bool negative = num < 0;
    const Int128 away = negative ? -1 : 1;
    switch (method) {
        case CMTimeRoundingMethod::roundTowardZero: break;
        case CMTimeRoundingMethod::roundAwayFromZero: out += away; break;
        case CMTimeRoundingMethod::roundTowardPositiveInfinity:
            if (!negative) out += 1;
            break;
        case CMTimeRoundingMethod::roundTowardNegativeInfinity:
            if (negative) out -= 1;
            break;
        case CMTimeRoundingMethod::roundHalfAwayFromZero:
        default: {
            Int128 twice = (r < 0 ? -r : r) * 2;
            if (twice >= den) out += away;
            break;
        }
    }
    return true;
}

// The time num / den seconds (den > 0) at `timescale`. When the value does not
// fit 64 bits and halving is allowed, the timescale is halved until it does;
// what still does not fit is the infinity of the value's sign.
CMTime fromRational(Int128 num, Int128 den, int64_t timescale, CMTimeRoundingMethod method, bool alreadyRounded,
                    CMTimeEpoch epoch, bool halveOnOverflow) {
    for (;;) {
        Int128 scaled;
        if (!__builtin_mul_overflow(num, static_cast<Int128>(timescale), &scaled)) {
            Int128 q;
            bool inexact = roundQuotient(scaled, den, method, q);
            if (q >= kInt64Min && q <= kInt64Max) {
                CMTimeFlags flags = CMTimeFlags::valid;
                if (inexact || alreadyRounded) flags = flags | CMTimeFlags::hasBeenRounded;
                return CMTime(static_cast<int64_t>(q), static_cast<CMTimeScale>(timescale), flags, epoch);
            }
        }
        if (!halveOnOverflow || timescale <= 1) return num < 0 ? kCMTimeNegativeInfinity : kCMTimePositiveInfinity;
        timescale /= 2;
    }
}

CMTime addOrSubtract(const CMTime& lhs, const CMTime& rhs, bool subtract) {
    Kind a = kindOf(lhs);
    Kind b = kindOf(rhs);
    if (subtract) b = negated(b);
    if (a == Kind::invalid || b == Kind::invalid) return kCMTimeInvalid;
    if (a == Kind::indefinite || b == Kind::indefinite) return kCMTimeIndefinite;
    if (isInfinite(a) && isInfinite(b)) return a == b ? timeOfKind(a) : kCMTimeInvalid;
    if (isInfinite(a)) return timeOfKind(a);
    if (isInfinite(b)) return timeOfKind(b);
    // Times of different epochs lie on different runs of a timeline; their
    // distance is unknown.
    if (lhs.epoch != rhs.epoch) return kCMTimeInvalid;

    const bool rounded = lhs.flags.contains(CMTimeFlags::hasBeenRounded) || rhs.flags.contains(CMTimeFlags::hasBeenRounded);
    const Int128 sign = subtract ? -1 : 1;
    if (lhs.timescale == rhs.timescale) {
        Int128 num = static_cast<Int128>(lhs.value) + sign * rhs.value;
        return fromRational(num, lhs.timescale, lhs.timescale, CMTimeRoundingMethod::defaultMethod, rounded, lhs.epoch,
                            true);
    }
    const int64_t g = std::gcd(static_cast<int64_t>(lhs.timescale), static_cast<int64_t>(rhs.timescale));
    const Int128 lcm = static_cast<Int128>(lhs.timescale / g) * rhs.timescale;
    Int128 num = static_cast<Int128>(lhs.value) * (lcm / lhs.timescale) + sign * rhs.value * (lcm / rhs.timescale);
    int64_t target = lcm > kCMTimeMaxTimescale ? kCMTimeMaxTimescale : static_cast<int64_t>(lcm);
    return fromRational(num, lcm, target, CMTimeRoundingMethod::defaultMethod, rounded, lhs.epoch, true);
}

}  // namespace

std::string CMTimeFlags::description() const {
    static constexpr struct {
        CMTimeFlags flag;
        const char* name;
    } names[] = {
        {CMTimeFlags::valid, "valid"},
        {CMTimeFlags::hasBeenRounded, "hasBeenRounded"},
        {CMTimeFlags::positiveInfinity, "positiveInfinity"},
        {CMTimeFlags::negativeInfinity, "negativeInfinity"},
        {CMTimeFlags::indefinite, "indefinite"},
        {CMTimeFlags::impliedValueFlagsMask, "impliedValueFlagsMask"},
    };
    std::string out;
    uint32_t known = 0;
    for (const auto& entry : names) {
        known |= entry.flag.rawValue;
        if (!contains(entry.flag)) continue;
        if (!out.empty()) out += ", ";
        out += entry.name;
    }
    if (uint32_t unknown = rawValue & ~known) {
        if (!out.empty()) out += ", ";
        out += "unknown flags:" + std::to_string(unknown);
    }
    return out.empty() ? "<empty>" : out;
}

CMTime CMTime::makeWithSeconds(double seconds, CMTimeScale preferredTimescale) {
    if (std::isnan(seconds) || preferredTimescale <= 0) return kCMTimeInvalid;
    if (std::isinf(seconds)) return seconds > 0 ? kCMTimePositiveInfinity : kCMTimeNegativeInfinity;
    // The tick is taken from the product in double precision, as the platform
    // does: 0.15 s at timescale 10 is the tick 2, which is what was meant, even
    // though the double nearest 0.15 lies a hair below it.
    for (int64_t timescale = preferredTimescale;; timescale /= 2) {
        const double product = seconds * static_cast<double>(timescale);
        const double rounded = std::round(product);  // halves away from zero
        if (rounded >= -9223372036854775808.0 && rounded < 9223372036854775808.0) {
            CMTimeFlags flags = CMTimeFlags::valid;
            if (rounded != product) flags = flags | CMTimeFlags::hasBeenRounded;
            return CMTime(static_cast<int64_t>(rounded), static_cast<CMTimeScale>(timescale), flags, 0);
        }
        if (timescale <= 1) return seconds > 0 ? kCMTimePositiveInfinity : kCMTimeNegativeInfinity;
    }
}

double CMTime::seconds() const {
    switch (kindOf(*this)) {
        case Kind::numeric: return static_cast<double>(value) / static_cast<double>(timescale);
        case Kind::positiveInfinity: return std::numeric_limits<double>::infinity();
        case Kind::negativeInfinity: return -std::numeric_limits<double>::infinity();
        default: return std::numeric_limits<double>::quiet_NaN();
    }
}

CMTime CMTime::convertScale(CMTimeScale newTimescale, CMTimeRoundingMethod method) const {
    return CMTimeConvertScale(*this, newTimescale, method);
}

std::string CMTime::logDescription() const {
    return "CMTime(seconds:" + doubleDescription(seconds()) + " timescale:" + std::to_string(timescale) +
           " value:" + std::to_string(value) + " flags:" + flags.description() + ")";
}

std::string CMTime::debugDescription() const {
    switch (kindOf(*this)) {
        case Kind::invalid: return "{INVALID}";
        case Kind::indefinite: return "{INDEFINITE}";
        case Kind::positiveInfinity: return "{+INFINITY}";
        case Kind::negativeInfinity: return "{-INFINITY}";
        case Kind::numeric: break;
    }
    std::string text = fmt::format("{{{}/{} = {:.3f}", value, timescale, seconds());
    if (flags.contains(CMTimeFlags::hasBeenRounded)) text += ", rounded";
    if (epoch != 0) text += fmt::format(", epoch {}", epoch);
    return text + "}";
}

CMTime CMTime::operator-() const {
    Kind kind = kindOf(*this);
    if (kind != Kind::numeric) return timeOfKind(negated(kind));
    return fromRational(-static_cast<Int128>(value), timescale, timescale, CMTimeRoundingMethod::defaultMethod,
                        flags.contains(CMTimeFlags::hasBeenRounded), epoch, true);
}

std::ostream& operator<<(std::ostream& os, const CMTime& time) { return os << time.debugDescription(); }

CMTime operator+(const CMTime& lhs, const CMTime& rhs) { return addOrSubtract(lhs, rhs, false); }
CMTime operator-(const CMTime& lhs, const CMTime& rhs) { return addOrSubtract(lhs, rhs, true); }

std::weak_ordering operator<=>(const CMTime& lhs, const CMTime& rhs) {
    Kind a = kindOf(lhs);
    Kind b = kindOf(rhs);
    if (a == Kind::invalid || b == Kind::invalid) return static_cast<int>(a) <=> static_cast<int>(b);
    if (lhs.epoch != rhs.epoch) return lhs.epoch <=> rhs.epoch;
    if (a != b) return static_cast<int>(a) <=> static_cast<int>(b);
    if (a != Kind::numeric) return std::weak_ordering::equivalent;
    // Both timescales are positive, so the cross products order the instants.
    Int128 left = static_cast<Int128>(lhs.value) * rhs.timescale;
    Int128 right = static_cast<Int128>(rhs.value) * lhs.timescale;
    if (left < right) return std::weak_ordering::less;
    if (left > right) return std::weak_ordering::greater;
    return std::weak_ordering::equivalent;
}

int32_t CMTimeCompare(const CMTime& lhs, const CMTime& rhs) {
    auto order = lhs <=> rhs;
    return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

CMTime CMTimeAdd(const CMTime& lhs, const CMTime& rhs) { return lhs + rhs; }
CMTime CMTimeSubtract(const CMTime& lhs, const CMTime& rhs) { return lhs - rhs; }

CMTime CMTimeMultiply(const CMTime& time, int32_t multiplier) {
    Kind kind = kindOf(time);
    if (kind == Kind::invalid || kind == Kind::indefinite) return timeOfKind(kind);
    if (isInfinite(kind)) {
        if (multiplier == 0) return kCMTimeInvalid;
        return timeOfKind(multiplier > 0 ? kind : negated(kind));
    }
    return fromRational(static_cast<Int128>(time.value) * multiplier, time.timescale, time.timescale,
                        CMTimeRoundingMethod::defaultMethod, time.flags.contains(CMTimeFlags::hasBeenRounded),
                        time.epoch, true);
}

CMTime CMTimeMultiplyByRatio(const CMTime& time, int32_t multiplier, int32_t divisor) {
    Kind kind = kindOf(time);
    if (divisor == 0 || kind == Kind::invalid) return kCMTimeInvalid;
    if (kind == Kind::indefinite) return kCMTimeIndefinite;
    const bool negative = (multiplier < 0) != (divisor < 0);
    if (isInfinite(kind)) {
        if (multiplier == 0) return kCMTimeInvalid;
        return timeOfKind(negative ? negated(kind) : kind);
    }
    // time.value × multiplier / (timescale × divisor) seconds. Keep the
    // timescale when the division is exact; otherwise grow it by what is left of
    // the divisor, so that the result stays exact while that fits.
    Int128 num = static_cast<Int128>(time.value) * multiplier;
    Int128 den = static_cast<Int128>(time.timescale) * divisor;
    if (den < 0) num = -num, den = -den;
    Int128 absNum = num < 0 ? -num : num;
    int64_t remainingDivisor = std::abs(static_cast<int64_t>(divisor));
    if (absNum == 0) {
        remainingDivisor = 1;
    } else {
        Int128 a = absNum, b = remainingDivisor;
        while (b != 0) {
            Int128 t = a % b;
            a = b;
            b = t;
        }
        remainingDivisor /= static_cast<int64_t>(a);
    }
    int64_t target = static_cast<int64_t>(time.timescale) * remainingDivisor;
    if (target > std::numeric_limits<CMTimeScale>::max()) target = time.timescale;
    return fromRational(num, den, target, CMTimeRoundingMethod::defaultMethod,
                        time.flags.contains(CMTimeFlags::hasBeenRounded), time.epoch, true);
}

CMTime CMTimeMultiplyByFloat64(const CMTime& time, double multiplier) {
    Kind kind = kindOf(time);
    if (kind == Kind::invalid || std::isnan(multiplier)) return kCMTimeInvalid;
    if (kind == Kind::indefinite) return kCMTimeIndefinite;
    if (isInfinite(kind)) {
        if (multiplier == 0) return kCMTimeInvalid;
        return timeOfKind(multiplier > 0 ? kind : negated(kind));
    }
    if (std::isinf(multiplier)) {
        if (time.value == 0) return kCMTimeInvalid;
        return ((time.value > 0) == (multiplier > 0)) ? kCMTimePositiveInfinity : kCMTimeNegativeInfinity;
    }
    // A small timescale would throw away most of a fractional product.
    int64_t target = time.timescale;
    while (target < 65536) target *= 2;
    const bool wasRounded = time.flags.contains(CMTimeFlags::hasBeenRounded);
    for (;;) {
        long double exact = static_cast<long double>(time.value) * multiplier * target / time.timescale;
        long double rounded = std::round(exact);  // halves away from zero
        if (rounded >= -9223372036854775808.0L && rounded < 9223372036854775808.0L) {
            CMTimeFlags flags = CMTimeFlags::valid;
            if (wasRounded || rounded != exact) flags = flags | CMTimeFlags::hasBeenRounded;
            return CMTime(static_cast<int64_t>(rounded), static_cast<CMTimeScale>(target), flags, time.epoch);
        }
        if (target <= 1) return exact < 0 ? kCMTimeNegativeInfinity : kCMTimePositiveInfinity;
        target /= 2;
    }
}

CMTime CMTimeConvertScale(const CMTime& time, CMTimeScale newTimescale, CMTimeRoundingMethod method) {
    Kind kind = kindOf(time);
    if (kind != Kind::numeric) return timeOfKind(kind);
    if (newTimescale <= 0) return kCMTimeInvalid;
    if (newTimescale == time.timescale) return time;
    CMTimeRoundingMethod effective = method;
    if (method == CMTimeRoundingMethod::quickTime)
        effective = newTimescale < time.timescale ? CMTimeRoundingMethod::roundTowardZero
                                                  : CMTimeRoundingMethod::roundAwayFromZero;
    CMTime result = fromRational(time.value, time.timescale, newTimescale, effective,
                                 time.flags.contains(CMTimeFlags::hasBeenRounded), time.epoch, false);
    if (method == CMTimeRoundingMethod::quickTime && result.isNumeric() && result.value == 0 && time.value < 0) {
        result.value = -1;
        result.flags = result.flags | CMTimeFlags::hasBeenRounded;
    }
    return result;
}

CMTime CMTimeAbsoluteValue(const CMTime& time) {
    Kind kind = kindOf(time);
    if (kind == Kind::negativeInfinity) return kCMTimePositiveInfinity;
    if (kind == Kind::numeric && time.value < 0) return -time;
    return kind == Kind::numeric ? time : timeOfKind(kind);
}

CMTime CMTimeMinimum(const CMTime& lhs, const CMTime& rhs) { return CMTimeCompare(lhs, rhs) <= 0 ? lhs : rhs; }
CMTime CMTimeMaximum(const CMTime& lhs, const CMTime& rhs) { return CMTimeCompare(lhs, rhs) >= 0 ? lhs : rhs; }

bool CMTimeRange::isValid() const {
    return start.isValid() && duration.isValid() && duration.epoch == 0 && !duration.isIndefinite() &&
           duration >= kCMTimeZero;
}

bool CMTimeRange::containsTime(const CMTime& time) const {
    return isValid() && time.isValid() && start <= time && time < end();
}

bool CMTimeRange::containsTimeRange(const CMTimeRange& other) const {
    return isValid() && other.isValid() && start <= other.start && other.end() <= end();
}

CMTimeRange CMTimeRange::intersection(const CMTimeRange& other) const {
    if (!isValid() || !other.isValid()) return kCMTimeRangeInvalid;
    CMTime s = CMTimeMaximum(start, other.start);
    CMTime e = CMTimeMinimum(end(), other.end());
    if (e <= s) return {s, kCMTimeZero};
    return fromStartEnd(s, e);
}

}  // namespace ov::platform
