// A strict JSON parser for checking trakctl's output in tests.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace trak_test {

struct JsonValue {
    enum class Kind : std::uint8_t { Null, Bool, Number, String, Array, Object };

    Kind kind = Kind::Null;
    bool flag = false;
    std::string text;               // a number's digits, or a string's decoded bytes
    std::vector<JsonValue> items;   // an array's elements or an object's values
    std::vector<std::string> keys;  // an object's keys, parallel to items

    // The value of an object's member; throws std::out_of_range if absent.
    const JsonValue& at(std::string_view key) const;
};

// Parses one JSON document (surrounding whitespace allowed); throws
// std::runtime_error on anything that is not valid JSON.
JsonValue parse_json(std::string_view document);

}  // namespace trak_test
