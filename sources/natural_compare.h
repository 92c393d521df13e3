#pragma once
// The order a file browser shows names in: letters case-folded, runs of
// digits compared as numbers ("Item 2" before "item 10"). Bytes beyond ASCII
// compare as they are. Names that differ only in case or in leading zeros
// compare equal; callers break such ties themselves.

#include <string_view>

namespace ov {

// Negative, zero or positive as `a` sorts before, with or after `b`.
int localizedStandardCompare(std::string_view a, std::string_view b);

}  // namespace ov
