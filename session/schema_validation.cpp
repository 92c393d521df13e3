#include "session/schema_validation.h"

#include <cmath>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include "foundation/ov_error.h"
#include "session/recorder_assembly.h"

namespace ov {
namespace {

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

[[noreturn]] void refuse(std::string debugDescription, std::string localizedDescription) {
    throw OVError(OVError::Code::invalidConfiguration, std::move(debugDescription), std::move(localizedDescription));
}

// What one item will write in the bundle: a single file by name, or a family
// of files by prefix.
struct Output {
    size_t item;
    bool isPrefix;
    std::string name;
};

template <class Options>
std::optional<Output> outputOf(size_t item, const Options& options, const std::string& fallback) {
    if (const auto* single = options.asSingleFile())
        return Output{item, false, single->filename.value_or(fallback)};
    if (const auto* segmented = options.asSegmented())
        return Output{item, true, segmented->filenamePrefix.value_or(withoutLastExtension(fallback))};
    return std::nullopt;
}

std::optional<Output> outputOf(size_t index, const InternalSchemaItem& item) {
    const std::string fallback = fallbackFilename(item);
    return std::visit(
        Overloaded{
            [&](const CustomSchemaItem&) -> std::optional<Output> { return std::nullopt; },
            [&](const MicrophoneStreamSchemaItem&) -> std::optional<Output> { return std::nullopt; },
            [&](const SystemAudioStreamSchemaItem&) -> std::optional<Output> { return std::nullopt; },
            [&](const auto& i) -> std::optional<Output> { return outputOf(index, i.outputOptions, fallback); },
        },
        item);
}

std::optional<double> audioDelayOf(const InternalSchemaItem& item) {
    if (const auto* m = std::get_if<MicrophoneFileSchemaItem>(&item)) return m->audioDelay;
    if (const auto* w = std::get_if<WebcamSchemaItem>(&item)) return w->audioDelay;
    return std::nullopt;
}

bool startsWith(const std::string& name, const std::string& prefix) { return name.rfind(prefix, 0) == 0; }

// Whether `name`, a single file, falls in the family of `prefix`.
bool inFamily(const std::string& name, const std::string& prefix) {
    return name == prefix || startsWith(name, prefix + ".") || startsWith(name, prefix + "-");
}

bool collide(const Output& a, const Output& b) {
    if (!a.isPrefix && !b.isPrefix) return a.name == b.name;
    if (a.isPrefix && b.isPrefix) return inFamily(a.name, b.name) || inFamily(b.name, a.name);
    const Output& prefix = a.isPrefix ? a : b;
    const Output& single = a.isPrefix ? b : a;
    return inFamily(single.name, prefix.name);
}

std::string keyOf(const Output& o) { return o.isPrefix ? "filenamePrefix" : "filename"; }

}  // namespace

std::string filenameProblem(const std::string& name) {
    if (name.empty()) return "is empty";
    if (name == "." || name == "..") return "is not a file name";
    if (name.find('/') != std::string::npos) return "is not a single path component (it holds a '/')";
    if (name.find('\0') != std::string::npos) return "holds a NUL byte";
    if (name.size() > maxFilenameLength) return fmt::format("is longer than {} bytes", maxFilenameLength);
    // "orvane.json", "orvane.log" and the hot and intermediate files of their writers.
    if (name == "orvane" || startsWith(name, "orvane.")) return "is reserved for the bundle's own files";
    return {};
}

void validateSchema(const OVRecorderSchema& schema) {
    if (schema.outputDirectory && !schema.outputDirectory->is_absolute())
        refuse(fmt::format("outputDirectory '{}' is not an absolute path", schema.outputDirectory->string()),
               "The output directory must be an absolute path: " + schema.outputDirectory->string());

    std::vector<Output> outputs;
    for (size_t i = 0; i < schema.items.size(); ++i) {
        const auto& item = schema.items[i].internalItem;
        if (auto delay = audioDelayOf(item)) {
            if (!std::isfinite(*delay) || *delay < 0 || *delay > maxAudioDelaySeconds)
                refuse(fmt::format("items[{}].audioDelay {} is outside 0...{} seconds", i, *delay,
                                   maxAudioDelaySeconds),
                       fmt::format("The audio delay must be between 0 and {} seconds.", maxAudioDelaySeconds));
        }
        auto output = outputOf(i, item);
        if (!output) continue;
        // A prefix is checked as itself and as the master playlist it names.
        std::string found = filenameProblem(output->name);
        if (found.empty() && output->isPrefix) found = filenameProblem(output->name + ".m3u8");
        if (!found.empty())
            refuse(fmt::format("items[{}].{} '{}' {}", i, keyOf(*output), output->name, found),
                   fmt::format("The file name '{}' can't be used: it {}.", output->name, found));
        for (const auto& other : outputs) {
            if (!collide(other, *output)) continue;
            refuse(fmt::format("items[{}].{} '{}' collides with items[{}].{} '{}'", i, keyOf(*output), output->name,
                               other.item, keyOf(other), other.name),
                   fmt::format("Two items would write files named '{}'.", output->name));
        }
        outputs.push_back(*output);
    }
}

}  // namespace ov
