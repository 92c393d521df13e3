#include "platform/byte_count_formatter.h"

#include <cmath>
#include <cstdlib>

#include <fmt/format.h>

namespace ov::platform {

namespace {

// Digits of the integer part grouped by thousands: 1234 -> "1,234".
std::string groupThousands(const std::string& digits) {
    std::string out;
    const size_t n = digits.size();
    for (size_t i = 0; i < n; ++i) {
        out.push_back(digits[i]);
        const size_t left = n - i - 1;
        if (left > 0 && left % 3 == 0) out.push_back(',');
    }
    return out;
}

std::string formatNumber(double value, int fractionDigits) {
    std::string text = fmt::format("{:.{}f}", value, fractionDigits);
    if (fractionDigits > 0) {
        while (text.back() == '0') text.pop_back();
        if (text.back() == '.') text.pop_back();
    }
    const auto dot = text.find('.');
    const std::string integer = text.substr(0, dot);
    const std::string fraction = dot == std::string::npos ? std::string() : text.substr(dot);
    return groupThousands(integer) + fraction;
}

}  // namespace

std::string formatByteCount(int64_t bytes, ByteCountStyle style) {
    if (bytes == 0) return "Zero KB";
    const std::string sign = bytes < 0 ? "-" : "";
    // The magnitude as a double; exact for every count below 2^53, close enough above.
    const double magnitude = bytes < 0 ? -static_cast<double>(bytes) : static_cast<double>(bytes);
    const double base = style == ByteCountStyle::file ? 1000.0 : 1024.0;
    if (magnitude < base) return sign + groupThousands(fmt::format("{:.0f}", magnitude)) + (magnitude == 1 ? " byte" : " bytes");

    static constexpr const char* units[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
    static constexpr int fractionDigits[] = {0, 1, 2, 2, 2, 2};
    size_t unit = 0;
    double value = magnitude / base;
    // Move up a unit while the rounded value would read as a whole next unit ("1,000 KB" is "1 MB").
    for (;;) {
        const double scale = std::pow(10.0, fractionDigits[unit]);
        const double rounded = std::round(value * scale) / scale;
        if (rounded < base || unit + 1 == std::size(units)) {
            value = rounded;
            break;
        }
        value /= base;
        ++unit;
    }
    return sign + formatNumber(value, fractionDigits[unit]) + " " + units[unit];
}

}  // namespace ov::platform
