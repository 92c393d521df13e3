#pragma once
// Modes of orvane-test-helper, the child process that tests spawn and kill.
// A file in tests/helpers registers its mode with a static HelperMode object;
// the test runs `orvane-test-helper <mode> [args...]`.

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace ov::testing {

using HelperModeMain = std::function<int(const std::vector<std::string>& args)>;

std::map<std::string, HelperModeMain>& helperModes();

struct HelperMode {
    HelperMode(const std::string& name, HelperModeMain main) { helperModes()[name] = std::move(main); }
};

}  // namespace ov::testing
