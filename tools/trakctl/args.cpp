#include "args.h"

#include <charconv>
#include <string>

#include "verb.h"

namespace trakctl {

namespace {

std::int32_t parse_non_negative(std::string_view text, std::string_view what) {
    std::int32_t value = 0;
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end || value < 0) {
        throw UsageError("invalid " + std::string(what) + " '" + std::string(text) +
                         "': expected a number from 0 to 2147483647");
    }
    return value;
}

}  // namespace

std::int32_t parse_minor(std::string_view text) { return parse_non_negative(text, "minor"); }

int parse_level(std::string_view text) { return parse_non_negative(text, "debug level"); }

}  // namespace trakctl
