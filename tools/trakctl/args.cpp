#include "args.h"

#include <charconv>
#include <filesystem>
#include <limits>
#include <string>

#include "verb.h"

namespace trakctl {

namespace {

template <typename Number>
Number parse_number(std::string_view text, std::string_view what, Number min, Number max) {
    Number value = 0;
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end || value < min || value > max) {
        throw UsageError("invalid " + std::string(what) + " '" + std::string(text) +
                         "': expected a number from " + std::to_string(min) + " to " +
                         std::to_string(max));
    }
    return value;
}

std::int32_t parse_non_negative(std::string_view text, std::string_view what) {
    return parse_number<std::int32_t>(text, what, 0, std::numeric_limits<std::int32_t>::max());
}

}  // namespace

std::int32_t parse_minor(std::string_view text) { return parse_non_negative(text, "minor"); }

std::int32_t parse_signed_minor(std::string_view text) {
    return parse_number<std::int32_t>(text, "minor", std::numeric_limits<std::int32_t>::min(),
                                      std::numeric_limits<std::int32_t>::max());
}

std::uint32_t parse_size(std::string_view text, std::string_view what) {
    return parse_number<std::uint32_t>(text, what, 0, std::numeric_limits<std::uint32_t>::max());
}

trak::BitmapKind parse_bitmap_kind(std::string_view text) {
    if (text == "incr") {
        return trak::BitmapKind::Incremental;
    }
    if (text == "diff") {
        return trak::BitmapKind::Differential;
    }
    throw UsageError("unknown bitmap kind '" + std::string(text) + "': expected incr or diff");
}

std::string_view bitmap_kind_name(trak::BitmapKind kind) {
    return kind == trak::BitmapKind::Incremental ? "incr" : "diff";
}

bool parse_flag(std::string_view text, std::string_view what) {
    if (text == "0" || text == "1") {
        return text == "1";
    }
    throw UsageError("invalid " + std::string(what) + " '" + std::string(text) +
                     "': expected 0 or 1");
}

int parse_level(std::string_view text) { return parse_non_negative(text, "debug level"); }

std::string absolute_path(std::string_view path) {
    return std::filesystem::absolute(std::filesystem::path(path)).string();
}

}  // namespace trakctl
