// The verbs trakctl knows, in the order its help lists them.
#pragma once

#include <span>
#include <string_view>

#include "verb.h"

namespace trakctl {

std::span<const Verb* const> verb_table();

// The verb called `name`, or nullptr.
const Verb* find_verb(std::string_view name);

}  // namespace trakctl
