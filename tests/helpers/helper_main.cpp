#include <cstdio>

#include "helpers/helper_modes.h"

namespace ov::testing {
std::map<std::string, HelperModeMain>& helperModes() {
    static std::map<std::string, HelperModeMain> modes;
    return modes;
}
}  // namespace ov::testing

int main(int argc, char** argv) {
    auto& modes = ov::testing::helperModes();
    if (argc < 2 || !modes.count(argv[1])) {
        std::fprintf(stderr, "usage: orvane-test-helper <mode> [args...]; modes:");
        for (const auto& [name, _] : modes) std::fprintf(stderr, " %s", name.c_str());
        std::fprintf(stderr, "\n");
        return 2;
    }
    return modes[argv[1]](std::vector<std::string>(argv + 2, argv + argc));
}
