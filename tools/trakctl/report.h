// What a verb prints: named fields, rendered as text or as JSON.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

namespace trakctl {

class JsonWriter;

enum class OutputFormat : std::uint8_t { Text, Json };

using FieldValue =
    std::variant<std::int64_t, std::uint64_t, bool, std::string, std::vector<std::int32_t>>;

struct Field {
    std::string key;    // JSON key: the record's or the entry's own name
    std::string label;  // text label for people
    FieldValue value;
};

using Report = std::vector<Field>;

// Text: one "label: value" line per field, values aligned; flags read
// yes/no, lists are blank-separated ("none" when empty).
// JSON: one object, the fields' keys in order, and a newline.
void print_report(const Report& report, OutputFormat format, std::ostream& out);

// Writes the fields as members of the JSON object that `json` is in.
void write_json_fields(JsonWriter& json, const Report& report);

}  // namespace trakctl
