#include "report.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "json_writer.h"

namespace trakctl {

namespace {

using ItemList = std::vector<ReportItem>;

struct TextValue {
    std::ostream& out;

    void operator()(std::monostate /*unknown*/) const { out << "unknown"; }
    void operator()(std::int64_t number) const { out << number; }
    void operator()(std::uint64_t number) const { out << number; }
    void operator()(bool flag) const { out << (flag ? "yes" : "no"); }
    void operator()(const std::string& text) const { out << text; }
    void operator()(const std::vector<std::int32_t>& numbers) const {
        if (numbers.empty()) {
            out << "none";
            return;
        }
        const char* separator = "";
        for (const std::int32_t number : numbers) {
            out << separator << number;
            separator = " ";
        }
    }
    // Items have lines of their own (print_text).
    void operator()(const ItemList& /*items*/) const {}
};

struct JsonValue {
    JsonWriter& json;

    void operator()(std::monostate /*unknown*/) const { json.null(); }
    void operator()(std::int64_t number) const { json.value(number); }
    void operator()(std::uint64_t number) const { json.value(number); }
    void operator()(bool flag) const { json.value(flag); }
    void operator()(const std::string& text) const { json.value(text); }
    void operator()(const std::vector<std::int32_t>& numbers) const {
        json.begin_array();
        for (const std::int32_t number : numbers) {
            json.value(static_cast<std::int64_t>(number));
        }
        json.end_array();
    }
    void operator()(const ItemList& items) const {
        json.begin_array();
        for (const ReportItem& item : items) {
            json.begin_object();
            write_json_fields(json, item.fields);
            json.end_object();
        }
        json.end_array();
    }
};

// The label and value of every text line, in order.
std::vector<std::pair<std::string, std::string>> text_lines(const Report& report) {
    std::vector<std::pair<std::string, std::string>> lines;
    for (const Field& field : report) {
        if (const auto* items = std::get_if<ItemList>(&field.value)) {
            for (const ReportItem& item : *items) {
                lines.emplace_back(item.label, item.summary);
            }
            continue;
        }
        std::ostringstream value;
        std::visit(TextValue{value}, field.value);
        lines.emplace_back(field.label, value.str());
    }
    return lines;
}

void print_text(const Report& report, std::ostream& out) {
    const auto lines = text_lines(report);
    std::size_t width = 0;
    for (const auto& [label, value] : lines) {
        width = std::max(width, label.size());
    }
    for (const auto& [label, value] : lines) {
        out << label << ':' << std::string(width - label.size() + 1, ' ') << value << '\n';
    }
}

void print_json(const Report& report, std::ostream& out) {
    JsonWriter json(out);
    json.begin_object();
    write_json_fields(json, report);
    json.end_object();
    out << '\n';
}

}  // namespace

void write_json_fields(JsonWriter& json, const Report& report) {
    for (const Field& field : report) {
        json.key(field.key);
        std::visit(JsonValue{json}, field.value);
    }
}

void print_report(const Report& report, OutputFormat format, std::ostream& out) {
    if (format == OutputFormat::Json) {
        print_json(report, out);
    } else {
        print_text(report, out);
    }
}

}  // namespace trakctl
