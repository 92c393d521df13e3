#pragma once
// Reading media the way players and tools do: ffprobe's JSON of a file, and
// the length that plays (the AAC priming before zero is skipped by players).
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>

namespace ov::testing {

// A command's standard output (standard error goes where it went).
inline std::string commandOutput(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return out;
    char buffer[4096];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, n);
    ::pclose(pipe);
    return out;
}

// ffprobe's streams and format (packets counted); null when it can't read the file.
inline nlohmann::json probeMedia(const std::filesystem::path& file) {
    const auto out = commandOutput("ffprobe -v error -count_packets -show_streams -show_format -of json '" +
                                   file.string() + "' 2>/dev/null");
    return out.empty() ? nlohmann::json() : nlohmann::json::parse(out, nullptr, false);
}

// The format's duration less any priming before zero.
inline double playedDuration(const nlohmann::json& info) {
    double start = 0;
    for (const auto& s : info["streams"])
        if (s.contains("start_time")) start = std::min(start, std::stod(s["start_time"].get<std::string>()));
    // A file that holds a moment's audio only (a recording killed in its first
    // fragment) has no format duration: what it plays is its longest stream.
    if (!info["format"].contains("duration")) {
        double longest = 0;
        for (const auto& s : info["streams"])
            if (s.contains("duration")) longest = std::max(longest, std::stod(s["duration"].get<std::string>()));
        return longest;
    }
    return std::stod(info["format"]["duration"].get<std::string>()) + start;
}

}  // namespace ov::testing
