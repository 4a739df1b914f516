#include "json_writer.h"

namespace trakctl {

std::string json_quote(std::string_view text) {
    static constexpr std::string_view kHex = "0123456789abcdef";
    std::string quoted = "\"";
    for (const char c : text) {
        switch (c) {
            case '"':
                quoted += "\\\"";
                break;
            case '\\':
                quoted += "\\\\";
                break;
            case '\b':
                quoted += "\\b";
                break;
            case '\f':
                quoted += "\\f";
                break;
            case '\n':
                quoted += "\\n";
                break;
            case '\r':
                quoted += "\\r";
                break;
            case '\t':
                quoted += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    const auto byte = static_cast<unsigned char>(c);
                    quoted += "\\u00";
                    quoted += kHex.at(byte >> 4U);
                    quoted += kHex.at(byte & 0xFU);
                } else {
                    quoted += c;
                }
        }
    }
    quoted += '"';
    return quoted;
}

void JsonWriter::before_value() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!has_member_.empty()) {
        if (has_member_.back()) {
            out_ << ',';
        }
        has_member_.back() = true;
    }
}

void JsonWriter::begin_object() {
    before_value();
    out_ << '{';
    has_member_.push_back(false);
}

void JsonWriter::end_object() {
    has_member_.pop_back();
    out_ << '}';
}

void JsonWriter::begin_array() {
    before_value();
    out_ << '[';
    has_member_.push_back(false);
}

void JsonWriter::end_array() {
    has_member_.pop_back();
    out_ << ']';
}

void JsonWriter::key(std::string_view name) {
    before_value();
    out_ << json_quote(name) << ':';
    after_key_ = true;
}

void JsonWriter::value(std::string_view text) {
    before_value();
    out_ << json_quote(text);
}

void JsonWriter::value(std::int64_t number) {
    before_value();
    out_ << number;
}

void JsonWriter::value(std::uint64_t number) {
    before_value();
    out_ << number;
}

void JsonWriter::value(bool flag) {
    before_value();
    out_ << (flag ? "true" : "false");
}

void JsonWriter::null() {
    before_value();
    out_ << "null";
}

}  // namespace trakctl
