#include "verb_table.h"

#include <array>

#include "verbs/verbs.h"

namespace trakctl {

std::span<const Verb* const> verb_table() {
    static const std::array table = {
        &status_verb(),     &debug_verb(),  &list_verb(),          &info_verb(),
        &add_filter_verb(), &snap_verb(),   &start_verb(),         &stop_verb(),
        &del_verb(),        &bitmap_verb(), &datablock_map_verb(), &test_datablock_verb(),
    };
    return table;
}

const Verb* find_verb(std::string_view name) {
    for (const Verb* verb : verb_table()) {
        if (verb->name == name) {
            return verb;
        }
    }
    return nullptr;
}

}  // namespace trakctl
