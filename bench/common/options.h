// A benchmark's command line: "--option value" pairs.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string_view>

namespace bench {

// What an option does with its value; throws std::invalid_argument for a
// value it cannot take.
using OptionHandler = std::function<void(std::string_view value)>;

// Hands each option's value to its handler, in command-line order; throws
// std::invalid_argument for an unknown option or a missing value.
void parse_option_pairs(std::span<char*> args,
                        const std::map<std::string_view, OptionHandler>& handlers);

// `text` as a number above 0; throws std::invalid_argument, naming
// `option`, for anything else.
std::uint32_t positive(std::string_view option, std::string_view text);

}  // namespace bench
