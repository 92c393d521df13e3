#include "platform/double_description.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace ov::platform {

std::string doubleDescription(double value) {
    if (std::isnan(value)) return std::signbit(value) ? "-nan" : "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    if (value == 0) return std::signbit(value) ? "-0.0" : "0.0";

    char buffer[64];
    const double magnitude = std::fabs(value);
    constexpr double twoTo53 = 9007199254740992.0;
    if (magnitude < 1e-4 || magnitude > twoTo53) {
        // Shortest round-trip digits; the standard library already writes the
        // exponent with a sign and at least two digits.
        auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
        return std::string(buffer, result.ptr);
    }
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
    std::string text(buffer, result.ptr);
    if (text.find('.') == std::string::npos) text += ".0";
    return text;
}

}  // namespace ov::platform
