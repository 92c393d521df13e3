#pragma once
// OVTime: a time as the JSON side files write it: {"seconds", "value",
// "timescale"}, the double for people and scripts, the rational for exactness.
// Made from host-clock seconds relative to a start, it is in nanoseconds.

#include <cstdint>

#include <nlohmann/json.hpp>

#include "foundation/json_coding.h"
#include "platform/cm_time.h"

namespace ov {

struct OVTime {
    double seconds = 0;
    int64_t value = 0;
    int32_t timescale = 0;

    static constexpr int32_t kNanosecondTimescale = 1'000'000'000;

    // The fields as given.
    static OVTime make(double seconds, int64_t value, int32_t timescale) { return OVTime(seconds, value, timescale); }

    // (from − startTime) in whole nanoseconds, truncated toward zero. The
    // difference must be finite and fit 64 bits of nanoseconds; otherwise
    // std::domain_error.
    OVTime(double from, double startTime);
    OVTime(double from, const platform::CMTime& startTime);
    // from − startTime on CMTime, its value and timescale as they come out.
    OVTime(const platform::CMTime& from, const platform::CMTime& startTime);

    platform::CMTime cmTime() const { return platform::CMTime(value, timescale); }

    friend OVTime operator+(const OVTime& lhs, const OVTime& rhs);
    friend OVTime operator-(const OVTime& lhs, const OVTime& rhs);
    bool operator==(const OVTime&) const = default;

    // {"seconds":…, "value":…, "timescale":…} in that order.
    coding::Json json() const;

private:
    OVTime(double seconds_, int64_t value_, int32_t timescale_)
        : seconds(seconds_), value(value_), timescale(timescale_) {}
    static OVTime fromCMTime(const platform::CMTime& time);
};

// For nlohmann's own conversions (json j = time; time = j.get<OVTime>()).
template <class BasicJson>
void to_json(BasicJson& j, const OVTime& time) {
    j = BasicJson::object();
    j["seconds"] = time.seconds;
    j["value"] = time.value;
    j["timescale"] = time.timescale;
}

}  // namespace ov

namespace ov::coding {

// All three keys are required.
template <>
struct Decodable<OVTime> {
    static OVTime decode(const Decoder& d);
};

}  // namespace ov::coding
