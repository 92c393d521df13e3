// The decoding layer: coding paths, the four kinds of failure and their texts.

#include <gtest/gtest.h>

#include <cmath>

#include "foundation/json_coding.h"

namespace ov::coding {
namespace {

struct Item {
    std::string type;
    std::optional<int32_t> width;
};
struct Schema {
    std::vector<Item> items;
};

}  // namespace

template <>
struct Decodable<Item> {
    static Item decode(const Decoder& d) {
        d.requireObject("Item");
        return {d.decode<std::string>("type"), d.decodeIfPresent<int32_t>("width")};
    }
};
template <>
struct Decodable<Schema> {
    static Schema decode(const Decoder& d) { return {d.decode<std::vector<Item>>("items")}; }
};

namespace {

std::string failure(const std::string& text) {
    try {
        Json root = parseJSON(text);
        Decoder(root).decode<Schema>("schema");
    } catch (const DecodingError& e) {
        return e.rendering();
    }
    return "no error";
}

TEST(JsonCoding, FailuresNameTheirKindTypeAndPath) {
    EXPECT_EQ(failure(R"({"schema":{"items":[{"type":3}]}})"),
              "Type 'String' mismatch at .schema.items[0].type: Expected to decode String but found a number instead.");
    EXPECT_EQ(failure(R"({"schema":{"items":[{"type":"a"},{"width":1}]}})"), "Key 'type' not found at .schema.items[1]");
    EXPECT_EQ(failure(R"({"schema":{"items":[{"type":null}]}})"),
              "Value of type 'String' not found at .schema.items[0].type: Expected String value but found null instead.");
    EXPECT_EQ(failure(R"({"schema":{"items":[{"type":"a","width":3000000000}]}})"),
              "Data corrupted at .schema.items[0].width: Parsed JSON number <3000000000> does not fit in Int32.");
    EXPECT_EQ(failure(R"({"schema":{"items":[{"type":"a","width":1.5}]}})"),
              "Data corrupted at .schema.items[0].width: Parsed JSON number <1.5> does not fit in Int32.");
    EXPECT_EQ(failure(R"({"schema":{"items":{}}})"),
              "Type 'Array<Any>' mismatch at .schema.items: Expected to decode Array<Any> but found a dictionary instead.");
    EXPECT_EQ(failure(R"({"schema":[]})"),
              "Type 'Dictionary<String, Any>' mismatch at .schema: Expected to decode Dictionary<String, Any> but found an array instead.");
    EXPECT_EQ(failure(R"({})"), "Key 'schema' not found at ");
    EXPECT_EQ(failure("not json"), "Data corrupted at : The given data was not valid JSON.");
}

TEST(JsonCoding, OptionalKeysTreatNullAsAbsentAndWholeFloatsAsIntegers) {
    Json root = parseJSON(R"({"schema":{"items":[{"type":"a","width":null},{"type":"b","width":640.0}]}})");
    auto schema = Decoder(root).decode<Schema>("schema");
    ASSERT_EQ(schema.items.size(), 2u);
    EXPECT_FALSE(schema.items[0].width);
    EXPECT_EQ(schema.items[1].width, 640);
}

TEST(JsonCoding, IntegerBoundsAreExact) {
    auto decodeAs = [](const char* text, auto witness) {
        Json j = parseJSON(text);
        return Decoder(j).decode<decltype(witness)>();
    };
    EXPECT_EQ(decodeAs("4294967295", uint32_t{}), 4294967295u);
    EXPECT_THROW(decodeAs("4294967296", uint32_t{}), DecodingError);
    EXPECT_THROW(decodeAs("-1", uint32_t{}), DecodingError);
    EXPECT_EQ(decodeAs("-2147483648", int32_t{}), INT32_MIN);
    EXPECT_THROW(decodeAs("-2147483649", int32_t{}), DecodingError);
    EXPECT_EQ(decodeAs("9223372036854775807", int64_t{}), INT64_MAX);
    EXPECT_THROW(decodeAs("9223372036854775808", int64_t{}), DecodingError);
    EXPECT_THROW(decodeAs("true", int64_t{}), DecodingError);
    EXPECT_THROW(decodeAs("1", bool{}), DecodingError);
}

TEST(JsonCoding, EncodingRefusesNonFiniteNumbersAnywhere) {
    Json ok = {{"a", 1.5}, {"b", {1, 2}}};
    EXPECT_EQ(encodeLine(ok), R"({"a":1.5,"b":[1,2]})");
    Json bad = {{"a", {{"b", Json::array({1.0, std::nan("")})}}}};
    try {
        encodeLine(bad);
        FAIL() << "NaN encoded";
    } catch (const EncodingError& e) {
        EXPECT_NE(e.debugDescription().find(".a.b[1]"), std::string::npos) << e.debugDescription();
    }
    EXPECT_THROW(encodeLine(Json(INFINITY)), EncodingError);
}

TEST(JsonCoding, Base64MatchesTheStandardAlphabetAndPadding) {
    EXPECT_EQ(base64Encode("", 0), "");
    EXPECT_EQ(base64Encode("f", 1), "Zg==");
    EXPECT_EQ(base64Encode("fo", 2), "Zm8=");
    EXPECT_EQ(base64Encode("foo", 3), "Zm9v");
    EXPECT_EQ(base64Encode("foobar", 6), "Zm9vYmFy");
    const unsigned char bytes[] = {0xfb, 0xff, 0xbf};
    EXPECT_EQ(base64Encode(bytes, 3), "+/+/");
    // Three float frames of one channel: 12 bytes, 16 characters.
    float frames[3] = {0.f, 0.5f, -1.f};
    EXPECT_EQ(base64Encode(frames, sizeof frames).size(), 16u);
}

TEST(JsonCoding, RepairUTF8ReplacesOnlyBrokenSequences) {
    EXPECT_EQ(repairUTF8("plain"), "plain");
    EXPECT_EQ(repairUTF8("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xA5"), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xA5");
    EXPECT_EQ(repairUTF8("a\xFF" "b"), "a\xEF\xBF\xBD" "b");
    EXPECT_EQ(repairUTF8("\xE2\x82"), "\xEF\xBF\xBD") << "a truncated sequence is one replacement";
    EXPECT_EQ(repairUTF8("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD") << "surrogates are invalid";
    EXPECT_EQ(repairUTF8("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD") << "overlong forms are invalid";
    // Whatever comes out parses as JSON text.
    EXPECT_NO_THROW(parseJSON("\"" + repairUTF8("x\xF4\x90\x80\x80y\xC3") + "\""));
}

}  // namespace
}  // namespace ov::coding
