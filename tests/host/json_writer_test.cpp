// trakctl's JSON writer.
#include <gtest/gtest.h>
#include <json_writer.h>

#include <sstream>

#include "json_parser.h"

namespace {

TEST(JsonQuote, EscapesQuotesBackslashesAndControlCharacters) {
    EXPECT_EQ(trakctl::json_quote("plain /dev/vdb"), "\"plain /dev/vdb\"");
    EXPECT_EQ(trakctl::json_quote("a\"b\\c"), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(trakctl::json_quote("\b\f\n\r\t"), "\"\\b\\f\\n\\r\\t\"");
    EXPECT_EQ(trakctl::json_quote(std::string_view("\x01\x1f\x7f", 3)), "\"\\u0001\\u001f\x7f\"");
    EXPECT_EQ(trakctl::json_quote(std::string_view("\0", 1)), "\"\\u0000\"");
}

TEST(JsonQuote, EscapedTextParsesBackToItself) {
    const std::string text = "{x} \"q\" \\ \n\t\x02 \xc3\xa9";
    EXPECT_EQ(trak_test::parse_json(trakctl::json_quote(text)).text, text);
}

TEST(JsonWriter, PlacesCommasAndColonsInNestedValues) {
    std::ostringstream out;
    trakctl::JsonWriter json(out);
    json.begin_object();
    json.key("a");
    json.value(std::int64_t{-1});
    json.key("b");
    json.begin_array();
    json.value(std::uint64_t{18446744073709551615U});
    json.value(true);
    json.begin_array();
    json.end_array();
    json.begin_object();
    json.end_object();
    json.end_array();
    json.key("c");
    json.value("x");
    json.key("d");
    json.value(false);
    json.end_object();

    EXPECT_EQ(out.str(), R"({"a":-1,"b":[18446744073709551615,true,[],{}],"c":"x","d":false})");
}

}  // namespace
