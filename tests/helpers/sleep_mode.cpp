// "sleep": a child that lives until it is killed; the process test helpers use it.
#include <chrono>
#include <thread>

#include "helpers/helper_modes.h"

static ov::testing::HelperMode sleepMode("sleep", [](const std::vector<std::string>&) {
    for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
    return 0;
});
