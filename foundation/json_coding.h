#pragma once
// JSON decoding that knows where it is.
//
// Every wire type is read through a Decoder, which carries the coding path from
// the root of the message to the value at hand. A failure names its kind (type
// mismatch, value not found, key not found, data corrupted), the expected type
// and that path, so that the host is told ".schema.items[0].type" rather than
// "bad JSON". Decoding of a type T is the specialisation Decodable<T>.
//
// Encoding builds ordered JSON values directly; encodeLine() turns one into the
// single line that goes on the wire.

#include <cstdint>
#include <exception>
#include <limits>
#include <type_traits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "foundation/platform_error.h"

namespace ov::coding {

// Wire JSON keeps the order in which keys are inserted.
using Json = nlohmann::ordered_json;

struct CodingKey {
    std::string stringValue;
    std::optional<int> intValue;

    static CodingKey key(std::string name) { return {std::move(name), std::nullopt}; }
    static CodingKey index(int i) { return {"Index " + std::to_string(i), i}; }
};

using CodingPath = std::vector<CodingKey>;

// ".schema.items[0].type": "[n]" for integer keys, "." + name for the others.
std::string renderCodingPath(const CodingPath& path);

class DecodingError : public std::exception, public platform::DescribableError {
public:
    enum class Kind { typeMismatch = 0, valueNotFound = 1, keyNotFound = 2, dataCorrupted = 3 };

    static DecodingError typeMismatch(std::string typeName, CodingPath path, std::string detail);
    static DecodingError valueNotFound(std::string typeName, CodingPath path, std::string detail);
    static DecodingError keyNotFound(std::string key, CodingPath path);
    static DecodingError dataCorrupted(CodingPath path, std::string detail);

    Kind kind() const { return kind_; }
    const std::string& typeName() const { return typeName_; }
    const std::string& key() const { return key_; }
    const CodingPath& codingPath() const { return path_; }
    const std::string& detail() const { return detail_; }

    // The text that the protocol layer gives the host for this failure.
    const std::string& rendering() const { return rendering_; }
    const char* what() const noexcept override { return rendering_.c_str(); }
    // Domain "DecodingError", the kind as code, the rendering as debug text.
    platform::ErrorDescription errorDescription() const override;

private:
    DecodingError(Kind kind, std::string typeName, std::string key, CodingPath path, std::string detail);
    Kind kind_;
    std::string typeName_;
    std::string key_;
    CodingPath path_;
    std::string detail_;
    std::string rendering_;
};

class EncodingError : public std::exception, public platform::DescribableError {
public:
    platform::ErrorDescription errorDescription() const override {
        return {"EncodingError", 0, "The data couldn't be written because it isn't in the correct format.",
                debugDescription_};
    }
    explicit EncodingError(std::string debugDescription) : debugDescription_(std::move(debugDescription)) {}
    const std::string& debugDescription() const { return debugDescription_; }
    const char* what() const noexcept override { return debugDescription_.c_str(); }

private:
    std::string debugDescription_;
};

class Decoder;

// Specialise for every decodable type: static T decode(const Decoder&).
template <class T, class Enable = void>
struct Decodable;

class Decoder {
public:
    explicit Decoder(const Json& root) : json_(&root) {}
    Decoder(const Json& value, CodingPath path) : json_(&value), path_(std::move(path)) {}

    const Json& json() const { return *json_; }
    const CodingPath& codingPath() const { return path_; }
    bool isNull() const { return json_->is_null(); }

    // Keyed access; the value must be an object.
    bool contains(std::string_view key) const;
    // The value under a required key: key not found when it is absent.
    Decoder operator[](std::string_view key) const;
    // The value under an optional key; absent and null are both "no value".
    std::optional<Decoder> ifPresent(std::string_view key) const;
    std::vector<std::string> allKeys() const;

    template <class T>
    T decode(std::string_view key) const {
        return (*this)[key].template decode<T>();
    }
    template <class T>
    std::optional<T> decodeIfPresent(std::string_view key) const {
        auto d = ifPresent(key);
        if (!d) return std::nullopt;
        return d->template decode<T>();
    }
    template <class T>
    T decode() const {
        return Decodable<T>::decode(*this);
    }

    // Unkeyed access; the value must be an array.
    size_t count() const;
    Decoder at(size_t index) const;

    // Checks that the value is an object (a keyed container) of the named type.
    void requireObject(std::string_view typeName) const;
    void requireArray(std::string_view typeName) const;

    // Failures that point at this value.
    [[noreturn]] void throwTypeMismatch(std::string_view typeName) const;
    [[noreturn]] void throwDataCorrupted(std::string detail) const;

    // "a number", "a string", "null" ...: how the decoder names what it found.
    static std::string describeFound(const Json& value);

private:
    Decoder child(const Json& value, CodingKey key) const;
    const Json* json_;
    CodingPath path_;
};

// ---- Decodable for the plain types ------------------------------------------------------

template <>
struct Decodable<std::string> {
    static std::string decode(const Decoder& d);
};
template <>
struct Decodable<bool> {
    static bool decode(const Decoder& d);
};
template <>
struct Decodable<double> {
    static double decode(const Decoder& d);
};
template <>
struct Decodable<float> {
    static float decode(const Decoder& d);
};

// Integers: a JSON number that is whole and fits, else data corrupted.
int64_t decodeInteger(const Decoder& d, std::string_view typeName, int64_t min, int64_t max);
uint64_t decodeUnsigned(const Decoder& d, std::string_view typeName, uint64_t max);

template <class T>
struct Decodable<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
    static constexpr const char* typeName() {
        if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, long long>) return "Int";
        else if constexpr (std::is_same_v<T, int32_t>) return "Int32";
        else if constexpr (std::is_same_v<T, int16_t>) return "Int16";
        else if constexpr (std::is_same_v<T, int8_t>) return "Int8";
        else if constexpr (std::is_same_v<T, uint64_t> || std::is_same_v<T, unsigned long long>) return "UInt64";
        else if constexpr (std::is_same_v<T, uint32_t>) return "UInt32";
        else if constexpr (std::is_same_v<T, uint16_t>) return "UInt16";
        else return "UInt8";
    }
    static T decode(const Decoder& d) {
        if constexpr (std::is_signed_v<T>)
            return static_cast<T>(decodeInteger(d, typeName(), std::numeric_limits<T>::min(),
                                                std::numeric_limits<T>::max()));
        else
            return static_cast<T>(decodeUnsigned(d, typeName(), std::numeric_limits<T>::max()));
    }
};

// Any JSON value: decodes from anything, null included.
template <>
struct Decodable<Json> {
    static Json decode(const Decoder& d) { return d.json(); }
};

template <class T>
struct Decodable<std::vector<T>> {
    static std::vector<T> decode(const Decoder& d) {
        d.requireArray("Array<Any>");
        std::vector<T> out;
        out.reserve(d.count());
        for (size_t i = 0; i < d.count(); ++i) out.push_back(d.at(i).template decode<T>());
        return out;
    }
};

template <class T>
struct Decodable<std::optional<T>> {
    static std::optional<T> decode(const Decoder& d) {
        if (d.isNull()) return std::nullopt;
        return d.template decode<T>();
    }
};

template <class T>
struct Decodable<std::map<std::string, T>> {
    static std::map<std::string, T> decode(const Decoder& d) {
        d.requireObject("Dictionary<String, Any>");
        std::map<std::string, T> out;
        for (const auto& key : d.allKeys()) out.emplace(key, d[key].template decode<T>());
        return out;
    }
};

// Arrays and objects nested deeper than this are refused by parseJSON.
inline constexpr size_t maxNestingDepth = 512;

// Parses a line of text into JSON; data corrupted (empty path) when it is not
// JSON or is nested deeper than maxNestingDepth.
Json parseJSON(std::string_view text);

// One message as its wire line, without the newline. Non-finite numbers cannot
// be written as JSON and fail with EncodingError; invalid UTF-8 in strings is
// replaced.
std::string encodeLine(const Json& value);

// Standard Base64 without line breaks.
std::string base64Encode(const void* data, size_t size);

// Replaces invalid UTF-8 sequences with U+FFFD, as a line reader does.
std::string repairUTF8(std::string_view text);

}  // namespace ov::coding
