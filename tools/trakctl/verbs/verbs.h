// The verbs of trakctl, one file each.
#pragma once

#include "../verb.h"

namespace trakctl {

const Verb& status_verb();
const Verb& debug_verb();
const Verb& list_verb();
const Verb& info_verb();
const Verb& add_filter_verb();
const Verb& start_verb();
const Verb& test_datablock_verb();
const Verb& stop_verb();
const Verb& del_verb();
const Verb& bitmap_verb();
const Verb& snap_verb();
const Verb& datablock_map_verb();

}  // namespace trakctl
