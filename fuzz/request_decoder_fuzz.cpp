// libFuzzer target: one line from the host, through everything that reads it.
// The engine with the real types parses the line, decodes the header and the
// request, and for "init" of a Recorder decodes and checks the whole schema.
// Each input gets an engine of its own, so no object outlives its line and
// nothing is ever prepared (no folder, no capture).
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "foundation/json_coding.h"
#include "host/globals.h"
#include "host/halvern_rpc.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("ORVANE_PLATFORM", "synthetic", 1);
    setenv("ORVANE_OS_LOG", "off", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    // The reader hands over one line without its end, repaired to UTF-8.
    if (const auto nl = text.find('\n'); nl != std::string_view::npos) text = text.substr(0, nl);
    const std::string line = ov::coding::repairUTF8(text);
    size_t answers = 0;
    auto engine = ov::host::HalvernRPC::create(
        [&](std::string_view response) {
            ++answers;
            // Every answer is one line of JSON.
            if (response.find('\n') != std::string_view::npos) std::abort();
            (void)ov::coding::parseJSON(response);
        },
        ov::host::Globals::registeredTypes());
    engine->receive(line);
    if (answers > 1) std::abort();  // a request gets at most one answer
    return 0;
}
