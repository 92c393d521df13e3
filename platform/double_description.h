#pragma once
// Doubles as the platform's logging prints them: the shortest text that reads
// back to the same value, "1.0" for whole numbers, exponent form below 1e-4 and
// above 2^53 ("1e-05", "1.8014398509481984e+16"), and "inf", "-inf", "nan".
// Log lines and descriptions of times use this form so that they read the same
// on every machine.

#include <string>

namespace ov::platform {

std::string doubleDescription(double value);

}  // namespace ov::platform
