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

struct Field;
using Report = std::vector<Field>;

// One of several things of a kind that a report lists, such as the snaps of
// a filter: a line of its own in text, an object in JSON.
struct ReportItem {
    std::string label;    // text: the line's label, e.g. "snap 4"
    std::string summary;  // text: the line's value
    Report fields;        // JSON: the object's members
};

// std::monostate is a value that could not be found out: "unknown" in text,
// null in JSON.
using FieldValue = std::variant<std::monostate, std::int64_t, std::uint64_t, bool, std::string,
                                std::vector<std::int32_t>, std::vector<ReportItem>>;

struct Field {
    std::string key;    // JSON key: the record's or the entry's own name
    std::string label;  // text label for people
    FieldValue value;
};

// Text: one "label: value" line per field, values aligned; flags read
// yes/no, lists are blank-separated ("none" when empty), and each item of a
// list of items has a "label: summary" line of its own.
// JSON: one object, the fields' keys in order, and a newline.
void print_report(const Report& report, OutputFormat format, std::ostream& out);

// Writes the fields as members of the JSON object that `json` is in.
void write_json_fields(JsonWriter& json, const Report& report);

}  // namespace trakctl
