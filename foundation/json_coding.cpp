#include "foundation/json_coding.h"

#include <cmath>

#include <fmt/format.h>

namespace ov::coding {

std::string renderCodingPath(const CodingPath& path) {
    std::string out;
    for (const auto& key : path) {
        if (key.intValue)
            out += "[" + std::to_string(*key.intValue) + "]";
        else
            out += "." + key.stringValue;
    }
    return out;
}

DecodingError::DecodingError(Kind kind, std::string typeName, std::string key, CodingPath path, std::string detail)
    : kind_(kind), typeName_(std::move(typeName)), key_(std::move(key)), path_(std::move(path)), detail_(std::move(detail)) {
    const std::string where = renderCodingPath(path_);
    switch (kind_) {
        case Kind::typeMismatch:
            rendering_ = "Type '" + typeName_ + "' mismatch at " + where + ": " + detail_;
            break;
        case Kind::valueNotFound:
            rendering_ = "Value of type '" + typeName_ + "' not found at " + where + ": " + detail_;
            break;
        case Kind::keyNotFound:
            rendering_ = "Key '" + key_ + "' not found at " + where;
            break;
        case Kind::dataCorrupted:
            rendering_ = "Data corrupted at " + where + ": " + detail_;
            break;
    }
}

platform::ErrorDescription DecodingError::errorDescription() const {
    const bool missing = kind_ == Kind::keyNotFound || kind_ == Kind::valueNotFound;
    return {"DecodingError", static_cast<int64_t>(kind_),
            missing ? "The data couldn't be read because it is missing."
                    : "The data couldn't be read because it isn't in the correct format.",
            rendering_};
}

DecodingError DecodingError::typeMismatch(std::string typeName, CodingPath path, std::string detail) {
    return DecodingError(Kind::typeMismatch, std::move(typeName), {}, std::move(path), std::move(detail));
}
DecodingError DecodingError::valueNotFound(std::string typeName, CodingPath path, std::string detail) {
    return DecodingError(Kind::valueNotFound, std::move(typeName), {}, std::move(path), std::move(detail));
}
DecodingError DecodingError::keyNotFound(std::string key, CodingPath path) {
    std::string detail = fmt::format("No value associated with key \"{}\".", key);
    return DecodingError(Kind::keyNotFound, {}, std::move(key), std::move(path), std::move(detail));
}
DecodingError DecodingError::dataCorrupted(CodingPath path, std::string detail) {
    return DecodingError(Kind::dataCorrupted, {}, {}, std::move(path), std::move(detail));
}

std::string Decoder::describeFound(const Json& value) {
    switch (value.type()) {
        case Json::value_t::null: return "null";
        case Json::value_t::object: return "a dictionary";
        case Json::value_t::array: return "an array";
        case Json::value_t::string: return "a string";
        case Json::value_t::boolean: return "bool";
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned:
        case Json::value_t::number_float: return "a number";
        default: return "an unknown value";
    }
}

void Decoder::throwTypeMismatch(std::string_view typeName) const {
    if (json_->is_null())
        throw DecodingError::valueNotFound(std::string(typeName), path_,
                                           fmt::format("Expected {} value but found null instead.", typeName));
    throw DecodingError::typeMismatch(std::string(typeName), path_,
                                      fmt::format("Expected to decode {} but found {} instead.", typeName,
                                                  describeFound(*json_)));
}

void Decoder::throwDataCorrupted(std::string detail) const {
    throw DecodingError::dataCorrupted(path_, std::move(detail));
}

void Decoder::requireObject(std::string_view typeName) const {
    if (json_->is_object()) return;
    if (json_->is_null())
        throw DecodingError::valueNotFound(std::string(typeName), path_,
                                           "Cannot get keyed decoding container -- found null value instead.");
    throwTypeMismatch(typeName);
}

void Decoder::requireArray(std::string_view typeName) const {
    if (json_->is_array()) return;
    if (json_->is_null())
        throw DecodingError::valueNotFound(std::string(typeName), path_,
                                           "Cannot get unkeyed decoding container -- found null value instead.");
    throwTypeMismatch(typeName);
}

Decoder Decoder::child(const Json& value, CodingKey key) const {
    CodingPath path = path_;
    path.push_back(std::move(key));
    return Decoder(value, std::move(path));
}

bool Decoder::contains(std::string_view key) const {
    return json_->is_object() && json_->find(key) != json_->end();
}

Decoder Decoder::operator[](std::string_view key) const {
    requireObject("Dictionary<String, Any>");
    auto it = json_->find(key);
    if (it == json_->end()) throw DecodingError::keyNotFound(std::string(key), path_);
    return child(*it, CodingKey::key(std::string(key)));
}

std::optional<Decoder> Decoder::ifPresent(std::string_view key) const {
    requireObject("Dictionary<String, Any>");
    auto it = json_->find(key);
    if (it == json_->end() || it->is_null()) return std::nullopt;
    return child(*it, CodingKey::key(std::string(key)));
}

std::vector<std::string> Decoder::allKeys() const {
    requireObject("Dictionary<String, Any>");
    std::vector<std::string> keys;
    for (auto it = json_->begin(); it != json_->end(); ++it) keys.push_back(it.key());
    return keys;
}

size_t Decoder::count() const {
    requireArray("Array<Any>");
    return json_->size();
}

Decoder Decoder::at(size_t index) const {
    requireArray("Array<Any>");
    if (index >= json_->size())
        throw DecodingError::valueNotFound("Any", path_, "Unkeyed container is at end.");
    return child((*json_)[index], CodingKey::index(static_cast<int>(index)));
}

std::string Decodable<std::string>::decode(const Decoder& d) {
    if (!d.json().is_string()) d.throwTypeMismatch("String");
    return d.json().get<std::string>();
}

bool Decodable<bool>::decode(const Decoder& d) {
    if (!d.json().is_boolean()) d.throwTypeMismatch("Bool");
    return d.json().get<bool>();
}

double Decodable<double>::decode(const Decoder& d) {
    if (!d.json().is_number()) d.throwTypeMismatch("Double");
    return d.json().get<double>();
}

float Decodable<float>::decode(const Decoder& d) {
    if (!d.json().is_number()) d.throwTypeMismatch("Float");
    const double v = d.json().get<double>();
    if (std::isfinite(v) && std::fabs(v) > std::numeric_limits<float>::max())
        d.throwDataCorrupted(fmt::format("Parsed JSON number <{}> does not fit in Float.", d.json().dump()));
    return static_cast<float>(v);
}

int64_t decodeInteger(const Decoder& d, std::string_view typeName, int64_t min, int64_t max) {
    const Json& j = d.json();
    if (!j.is_number()) d.throwTypeMismatch(typeName);
    const auto doesNotFit = [&] {
        d.throwDataCorrupted(fmt::format("Parsed JSON number <{}> does not fit in {}.", j.dump(), typeName));
    };
    // nlohmann counts unsigned numbers as integers too: ask for unsigned first.
    if (j.is_number_unsigned()) {
        const uint64_t v = j.get<uint64_t>();
        if (v > static_cast<uint64_t>(max)) doesNotFit();
        return static_cast<int64_t>(v);
    }
    if (j.is_number_integer()) {
        const int64_t v = j.get<int64_t>();
        if (v < min || v > max) doesNotFit();
        return v;
    }
    const double v = j.get<double>();
    if (!(v == std::floor(v)) || v < static_cast<double>(min) || v >= -static_cast<double>(min) ||
        v > static_cast<double>(max))
        doesNotFit();
    return static_cast<int64_t>(v);
}

uint64_t decodeUnsigned(const Decoder& d, std::string_view typeName, uint64_t max) {
    const Json& j = d.json();
    if (!j.is_number()) d.throwTypeMismatch(typeName);
    const auto doesNotFit = [&] {
        d.throwDataCorrupted(fmt::format("Parsed JSON number <{}> does not fit in {}.", j.dump(), typeName));
    };
    if (j.is_number_unsigned()) {
        const uint64_t v = j.get<uint64_t>();
        if (v > max) doesNotFit();
        return v;
    }
    if (j.is_number_integer()) {
        const int64_t v = j.get<int64_t>();
        if (v < 0 || static_cast<uint64_t>(v) > max) doesNotFit();
        return static_cast<uint64_t>(v);
    }
    const double v = j.get<double>();
    if (!(v == std::floor(v)) || v < 0 || v >= 18446744073709551616.0 || v > static_cast<double>(max)) doesNotFit();
    return static_cast<uint64_t>(v);
}

namespace {
// Deepest nesting of arrays and objects in `text`, brackets inside strings not
// counted; stops counting once `limit` is passed.
size_t nestingDepth(std::string_view text, size_t limit) {
    size_t depth = 0, deepest = 0;
    bool inString = false, escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
            continue;
        }
        switch (c) {
            case '"': inString = true; break;
            case '[':
            case '{':
                if (++depth > deepest && (deepest = depth) > limit) return deepest;
                break;
            case ']':
            case '}':
                if (depth > 0) --depth;
                break;
            default: break;
        }
    }
    return deepest;
}
}  // namespace

Json parseJSON(std::string_view text) {
    // The parser, the destructor and every walk over a value recurse once per
    // level: a hostile line nested 100,000 deep would overflow the stack. No
    // message of the protocol comes near this depth.
    if (nestingDepth(text, maxNestingDepth) > maxNestingDepth)
        throw DecodingError::dataCorrupted(
            {}, fmt::format("The given data was not valid JSON: nested deeper than {} levels.", maxNestingDepth));
    Json value = Json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (value.is_discarded())
        throw DecodingError::dataCorrupted({}, "The given data was not valid JSON.");
    return value;
}

namespace {
void checkEncodable(const Json& value, CodingPath& path) {
    switch (value.type()) {
        case Json::value_t::number_float:
            if (!std::isfinite(value.get<double>()))
                throw EncodingError(fmt::format("Unable to encode Double.{} directly in JSON at {}.",
                                                std::isnan(value.get<double>()) ? "nan" : "infinity",
                                                renderCodingPath(path)));
            break;
        case Json::value_t::object:
            for (auto it = value.begin(); it != value.end(); ++it) {
                path.push_back(CodingKey::key(it.key()));
                checkEncodable(it.value(), path);
                path.pop_back();
            }
            break;
        case Json::value_t::array: {
            int i = 0;
            for (const auto& element : value) {
                path.push_back(CodingKey::index(i++));
                checkEncodable(element, path);
                path.pop_back();
            }
            break;
        }
        default: break;
    }
}
}  // namespace

std::string encodeLine(const Json& value) {
    CodingPath path;
    checkEncodable(value, path);
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string base64Encode(const void* data, size_t size) {
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto* in = static_cast<const unsigned char*>(data);
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < size; i += 3) {
        const uint32_t n = (uint32_t(in[i]) << 16) | (uint32_t(in[i + 1]) << 8) | in[i + 2];
        out.push_back(alphabet[(n >> 18) & 63]);
        out.push_back(alphabet[(n >> 12) & 63]);
        out.push_back(alphabet[(n >> 6) & 63]);
        out.push_back(alphabet[n & 63]);
    }
    if (i < size) {
        uint32_t n = uint32_t(in[i]) << 16;
        if (i + 1 < size) n |= uint32_t(in[i + 1]) << 8;
        out.push_back(alphabet[(n >> 18) & 63]);
        out.push_back(alphabet[(n >> 12) & 63]);
        out.push_back(i + 1 < size ? alphabet[(n >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

std::string repairUTF8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    static constexpr const char* kReplacement = "\xEF\xBF\xBD";
    size_t i = 0;
    const size_t n = text.size();
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    while (i < n) {
        const unsigned char c = byte(i);
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
            ++i;
            continue;
        }
        size_t length = 0;
        unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
        if (c >= 0xC2 && c <= 0xDF) length = 2;
        else if (c == 0xE0) length = 3, lo = 0xA0;
        else if ((c >= 0xE1 && c <= 0xEC) || c == 0xEE || c == 0xEF) length = 3;
        else if (c == 0xED) length = 3, hi = 0x9F;  // no surrogates
        else if (c == 0xF0) length = 4, lo = 0x90;
        else if (c >= 0xF1 && c <= 0xF3) length = 4;
        else if (c == 0xF4) length = 4, hi = 0x8F;
        if (length == 0) {
            out += kReplacement;
            ++i;
            continue;
        }
        // A maximal valid prefix of a broken sequence becomes one replacement.
        size_t k = 1;
        while (k < length && i + k < n) {
            const unsigned char b = byte(i + k);
            const bool ok = k == 1 ? (b >= lo && b <= hi) : (b >= 0x80 && b <= 0xBF);
            if (!ok) break;
            ++k;
        }
        if (k == length) {
            out.append(text.substr(i, length));
        } else {
            out += kReplacement;
        }
        i += k;
    }
    return out;
}

}  // namespace ov::coding
