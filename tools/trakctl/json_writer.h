// A minimal streaming JSON writer.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace trakctl {

// `text` as a JSON string literal, quotes included.
std::string json_quote(std::string_view text);

// Writes one JSON value to a stream. The caller nests begin/end calls
// correctly; commas and colons are placed by the writer.
class JsonWriter {
  public:
    explicit JsonWriter(std::ostream& out) : out_(out) {}

    void begin_object();
    void end_object();
    void begin_array();
    void end_array();
    // The key of the next value inside an object.
    void key(std::string_view name);
    void value(std::string_view text);
    void value(const char* text) { value(std::string_view(text)); }
    void value(std::int64_t number);
    void value(std::uint64_t number);
    void value(bool flag);
    void null();

  private:
    void before_value();

    std::ostream& out_;
    std::vector<bool> has_member_;  // one entry per open object or array
    bool after_key_ = false;
};

}  // namespace trakctl
