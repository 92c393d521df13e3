#pragma once
// Byte counts as people read them: "Zero KB", "1 byte", "512 KB", "1.5 MB",
// "2.35 GB". KB are shown whole, MB with one fraction digit, GB and above with
// two, trailing zeros dropped.

#include <cstdint>
#include <string>

namespace ov::platform {

enum class ByteCountStyle {
    file,    // decimal units (1 KB = 1000 bytes), as file sizes are shown
    memory,  // binary units (1 KB = 1024 bytes), as memory is shown
};

std::string formatByteCount(int64_t bytes, ByteCountStyle style);

}  // namespace ov::platform
