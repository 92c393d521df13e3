#pragma once
// Short random identifiers for schema items, recorders and traces: five
// characters drawn uniformly from letters and digits. They only need to tell
// apart the few objects of one process in its logs, so five characters suffice.

#include <string>
#include <string_view>

namespace ov {

class ShortID {
public:
    static constexpr std::string_view alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    static constexpr size_t length = 5;

    // A new identifier from the system's random source.
    static std::string make();
};

}  // namespace ov
