// The verbs of trakctl, one file each.
#pragma once

#include "../verb.h"

namespace trakctl {

const Verb& status_verb();
const Verb& debug_verb();
const Verb& list_verb();
const Verb& info_verb();

}  // namespace trakctl
