#include "json_parser.h"

#include <stdexcept>

namespace trak_test {

namespace {

class Parser {
  public:
    explicit Parser(std::string_view text) : text_(text) {}

    JsonValue document() {
        JsonValue value = parse_value();
        skip_space();
        if (pos_ != text_.size()) {
            fail("trailing characters");
        }
        return value;
    }

  private:
    [[noreturn]] void fail(std::string_view what) const {
        throw std::runtime_error("invalid JSON at offset " + std::to_string(pos_) + ": " +
                                 std::string(what));
    }

    void skip_space() {
        while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\n' ||
                                       text_[pos_] == '\r' || text_[pos_] == '\t')) {
            ++pos_;
        }
    }

    char peek() {
        skip_space();
        if (pos_ == text_.size()) {
            fail("unexpected end");
        }
        return text_[pos_];
    }

    void expect(char c) {
        if (peek() != c) {
            fail(std::string("expected '") + c + "'");
        }
        ++pos_;
    }

    bool take_word(std::string_view word) {
        if (text_.substr(pos_, word.size()) == word) {
            pos_ += word.size();
            return true;
        }
        return false;
    }

    JsonValue parse_value() {
        const char c = peek();
        JsonValue value;
        if (c == '{') {
            parse_object(value);
        } else if (c == '[') {
            parse_array(value);
        } else if (c == '"') {
            value.kind = JsonValue::Kind::String;
            value.text = parse_string();
        } else if (c == '-' || (c >= '0' && c <= '9')) {
            value.kind = JsonValue::Kind::Number;
            value.text = parse_number();
        } else if (take_word("true") || take_word("false")) {
            value.kind = JsonValue::Kind::Bool;
            value.flag = c == 't';
        } else if (!take_word("null")) {
            fail("unexpected character");
        }
        return value;
    }

    void parse_object(JsonValue& value) {
        value.kind = JsonValue::Kind::Object;
        expect('{');
        if (peek() == '}') {
            ++pos_;
            return;
        }
        do {
            if (peek() != '"') {
                fail("expected a key");
            }
            value.keys.push_back(parse_string());
            expect(':');
            value.items.push_back(parse_value());
        } while (take_separator('}'));
    }

    void parse_array(JsonValue& value) {
        value.kind = JsonValue::Kind::Array;
        expect('[');
        if (peek() == ']') {
            ++pos_;
            return;
        }
        do {
            value.items.push_back(parse_value());
        } while (take_separator(']'));
    }

    // After a member: true for ',', false for the closing bracket.
    bool take_separator(char close) {
        const char c = peek();
        ++pos_;
        if (c == ',') {
            return true;
        }
        if (c != close) {
            fail("expected ',' or the closing bracket");
        }
        return false;
    }

    std::string parse_number() {
        const std::size_t start = pos_;
        if (text_[pos_] == '-') {
            ++pos_;
        }
        const std::size_t digits = pos_;
        while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') {
            ++pos_;
        }
        if (pos_ == digits || (text_[digits] == '0' && pos_ - digits > 1)) {
            fail("bad number");
        }
        return std::string(text_.substr(start, pos_ - start));
    }

    std::string parse_string() {
        ++pos_;  // the opening quote
        std::string decoded;
        for (;;) {
            if (pos_ == text_.size()) {
                fail("unterminated string");
            }
            const char c = text_[pos_++];
            if (c == '"') {
                return decoded;
            }
            if (static_cast<unsigned char>(c) < 0x20) {
                fail("raw control character in a string");
            }
            decoded += c == '\\' ? parse_escape() : c;
        }
    }

    char parse_escape() {
        if (pos_ == text_.size()) {
            fail("unterminated escape");
        }
        const char c = text_[pos_++];
        switch (c) {
            case '"':
            case '\\':
            case '/':
                return c;
            case 'b':
                return '\b';
            case 'f':
                return '\f';
            case 'n':
                return '\n';
            case 'r':
                return '\r';
            case 't':
                return '\t';
            case 'u':
                return parse_unicode_escape();
            default:
                fail("bad escape");
        }
    }

    // \u00XX only: trakctl escapes nothing else this way.
    char parse_unicode_escape() {
        if (text_.substr(pos_, 2) != "00" || pos_ + 4 > text_.size()) {
            fail("unsupported \\u escape");
        }
        const std::string hex(text_.substr(pos_ + 2, 2));
        pos_ += 4;
        std::size_t used = 0;
        const int code = std::stoi(hex, &used, 16);
        if (used != 2) {
            fail("bad \\u escape");
        }
        return static_cast<char>(code);
    }

    std::string_view text_;
    std::size_t pos_ = 0;
};

}  // namespace

const JsonValue& JsonValue::at(std::string_view key) const {
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (keys[i] == key) {
            return items[i];
        }
    }
    throw std::out_of_range("no member " + std::string(key));
}

JsonValue parse_json(std::string_view document) { return Parser(document).document(); }

}  // namespace trak_test
