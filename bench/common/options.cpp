#include "options.h"

#include <charconv>
#include <stdexcept>
#include <string>

namespace bench {

void parse_option_pairs(std::span<char*> args,
                        const std::map<std::string_view, OptionHandler>& handlers) {
    for (std::size_t i = 0; i < args.size(); i += 2) {
        const std::string_view option = args[i];
        const auto handler = handlers.find(option);
        if (handler == handlers.end()) {
            throw std::invalid_argument("unknown option " + std::string(option));
        }
        if (i + 1 == args.size()) {
            throw std::invalid_argument(std::string(option) + " needs a value");
        }
        handler->second(args[i + 1]);
    }
}

std::uint32_t positive(std::string_view option, std::string_view text) {
    std::uint32_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end || value == 0) {
        throw std::invalid_argument(std::string(option) + " needs a positive number, not '" +
                                    std::string(text) + "'");
    }
    return value;
}

}  // namespace bench
