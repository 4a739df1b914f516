#include "report.h"

#include <algorithm>

#include "json_writer.h"

namespace trakctl {

namespace {

struct TextValue {
    std::ostream& out;

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
};

struct JsonValue {
    JsonWriter& json;

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
};

void print_text(const Report& report, std::ostream& out) {
    std::size_t width = 0;
    for (const Field& field : report) {
        width = std::max(width, field.label.size());
    }
    for (const Field& field : report) {
        out << field.label << ':' << std::string(width - field.label.size() + 1, ' ');
        std::visit(TextValue{out}, field.value);
        out << '\n';
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
