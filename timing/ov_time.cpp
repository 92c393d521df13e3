#include "timing/ov_time.h"

#include <cmath>
#include <stdexcept>

namespace ov {

using platform::CMTime;

OVTime::OVTime(double from, double startTime) {
    const double nanoseconds = std::trunc((from - startTime) * 1e9);
    // 2^63 is exactly representable; anything at or above it does not fit.
    if (!std::isfinite(nanoseconds) || nanoseconds >= 9223372036854775808.0 || nanoseconds < -9223372036854775808.0)
        throw std::domain_error("OVTime needs a finite time difference within the range of nanoseconds");
    value = static_cast<int64_t>(nanoseconds);
    timescale = kNanosecondTimescale;
    seconds = cmTime().seconds();
}

OVTime::OVTime(double from, const CMTime& startTime) : OVTime(from, startTime.seconds()) {}

OVTime::OVTime(const CMTime& from, const CMTime& startTime) : OVTime(fromCMTime(from - startTime)) {}

OVTime OVTime::fromCMTime(const CMTime& time) { return OVTime(time.seconds(), time.value, time.timescale); }

OVTime operator+(const OVTime& lhs, const OVTime& rhs) { return OVTime::fromCMTime(lhs.cmTime() + rhs.cmTime()); }
OVTime operator-(const OVTime& lhs, const OVTime& rhs) { return OVTime::fromCMTime(lhs.cmTime() - rhs.cmTime()); }

coding::Json OVTime::json() const {
    coding::Json j;
    to_json(j, *this);
    return j;
}

}  // namespace ov

namespace ov::coding {

OVTime Decodable<OVTime>::decode(const Decoder& d) {
    d.requireObject("OVTime");
    return OVTime::make(d["seconds"].decode<double>(), d["value"].decode<int64_t>(), d["timescale"].decode<int32_t>());
}

}  // namespace ov::coding
