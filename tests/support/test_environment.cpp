// Keeps what the suite writes outside the tree in places of its own: the user
// defaults of this process and of every child it starts (they inherit the
// environment) go to a file under the temporary directory, never the user's.
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

const bool isolated = [] {
    if (!std::getenv("ORVANE_USER_DEFAULTS")) {
        const std::string path = "/tmp/orvane-tests-" + std::to_string(::getpid()) + "-user-defaults.json";
        setenv("ORVANE_USER_DEFAULTS", path.c_str(), 1);
    }
    return true;
}();

}  // namespace
