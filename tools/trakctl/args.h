// Parsing of verb arguments.
#pragma once

#include <cstdint>
#include <string_view>

namespace trakctl {

// A node minor: a decimal number from 0 to 2^31 - 1. Throws UsageError.
std::int32_t parse_minor(std::string_view text);

// A log verbosity: a decimal number from 0 to 2^31 - 1. Throws UsageError.
int parse_level(std::string_view text);

}  // namespace trakctl
