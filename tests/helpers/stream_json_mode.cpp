// "stream-json <file> <commitInterval>": writes numbered events to a streaming
// JSON file as fast as it can until it is killed. Says "ready" once the file
// exists, so that the test knows when killing it means something.
#include <cstdio>
#include <string>

#include "helpers/helper_modes.h"
#include "output/streaming_json_writer.h"

static ov::testing::HelperMode streamJSONMode("stream-json", [](const std::vector<std::string>& args) {
    if (args.size() != 2) return 2;
    // A private engine: nothing of the helper reaches the system log.
    ov::Logger logger("StreamJSONHelper", std::nullopt, {}, ov::OVLogger::create(false));
    ov::StreamingJSONWriter writer(args[0], std::stod(args[1]), logger);
    std::printf("ready\n");
    std::fflush(stdout);
    // Elements of varying length, so that a cut would show as bad JSON.
    const std::string padding(200, 'p');
    for (uint64_t n = 0;; ++n) writer.write(nlohmann::json{{"n", n}, {"pad", padding.substr(0, n % 200)}});
    return 0;
});
