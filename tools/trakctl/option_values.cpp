#include <string>

#include "verb.h"

namespace trakctl {

void OptionValues::set(std::string_view name, std::string_view value) {
    if (!values_.emplace(name, value).second) {
        throw UsageError("option '" + std::string(name) + "' given twice");
    }
}

std::optional<std::string_view> OptionValues::value(std::string_view name) const {
    const auto found = values_.find(name);
    if (found == values_.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::string_view OptionValues::required(std::string_view name) const {
    const auto given = value(name);
    if (!given) {
        throw UsageError("option '" + std::string(name) + "' is required");
    }
    return *given;
}

}  // namespace trakctl
