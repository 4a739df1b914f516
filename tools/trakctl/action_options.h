// Options of verbs whose first argument names an action (`bitmap get`,
// `snap add`): the verb lists every option, each action takes some.
#pragma once

#include <span>
#include <string_view>

#include "verb.h"

namespace trakctl {

// Throws UsageError for an option of `verb_options` that `action` does not
// take (it takes those named in `taken`), and for --json when the action
// prints nothing.
void check_action_options(const Invocation& invocation, std::string_view action,
                          std::span<const OptionSpec> verb_options,
                          std::span<const std::string_view> taken, bool prints);

}  // namespace trakctl
