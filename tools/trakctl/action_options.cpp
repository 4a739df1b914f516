#include "action_options.h"

#include <algorithm>
#include <string>

namespace trakctl {

void check_action_options(const Invocation& invocation, std::string_view action,
                          std::span<const OptionSpec> verb_options,
                          std::span<const std::string_view> taken, bool prints) {
    for (const OptionSpec& option : verb_options) {
        if (invocation.options.has(option.name) &&
            std::find(taken.begin(), taken.end(), option.name) == taken.end()) {
            throw UsageError("option '" + std::string(option.name) + "' does not apply to " +
                             std::string(action));
        }
    }
    if (invocation.format == OutputFormat::Json && !prints) {
        throw UsageError("option '--json' does not apply to " + std::string(action));
    }
}

}  // namespace trakctl
