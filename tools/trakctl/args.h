// Parsing of verb arguments.
#pragma once

#include <trak/types.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace trakctl {

// A node minor: a decimal number from 0 to 2^31 - 1. Throws UsageError.
std::int32_t parse_minor(std::string_view text);

// A node minor that may be negative: a decimal number from -2^31 to
// 2^31 - 1. Throws UsageError.
std::int32_t parse_signed_minor(std::string_view text);

// A size in bytes: a decimal number from 0 to 2^32 - 1. Throws UsageError.
std::uint32_t parse_size(std::string_view text, std::string_view what);

// A change bitmap kind: "incr" or "diff". Throws UsageError.
trak::BitmapKind parse_bitmap_kind(std::string_view text);

// The name of a bitmap kind as parse_bitmap_kind reads it.
std::string_view bitmap_kind_name(trak::BitmapKind kind);

// @path made absolute. The driver resolves paths in its own threads too,
// where the caller's working directory means nothing.
std::string absolute_path(std::string_view path);

// A flag given as 0 or 1, as the driver's records hold them. Throws
// UsageError naming `what`.
bool parse_flag(std::string_view text, std::string_view what);

// A log verbosity: a decimal number from 0 to 2^31 - 1. Throws UsageError.
int parse_level(std::string_view text);

}  // namespace trakctl
