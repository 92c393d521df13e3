#pragma once
// What recorders write JSON events through: a streaming file or a series of
// segments. Events are encoded with sorted keys, so that every line of a file
// lists its keys in the same order whatever optional keys it has.

#include <filesystem>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

namespace ov {

class OutputJSONWriter {
public:
    virtual ~OutputJSONWriter() = default;

    // Any value that converts to JSON. A conversion failure leaves the output
    // unchanged.
    template <class Event>
    void write(const Event& event) {
        if constexpr (std::is_same_v<Event, nlohmann::json>)
            writeJSON(event);
        else
            writeJSON(nlohmann::json(event));
    }

    virtual void writeJSON(const nlohmann::json& event) = 0;
    // The files produced.
    virtual std::vector<std::filesystem::path> close() = 0;
    // The files that close() will give.
    virtual std::vector<std::filesystem::path> expectedFileURLs() const = 0;
};

}  // namespace ov
