// trakctl del: remove a node.
#include "../args.h"
#include "verbs.h"

namespace trakctl {

namespace {

void run_del(const Invocation& invocation) {
    invocation.context.control().del_node(parse_minor(invocation.args.front()));
}

}  // namespace

const Verb& del_verb() {
    static const Verb verb{
        .name = "del",
        .arguments = "MINOR",
        .summary = "stop and remove a node",
        .description =
            "Stops the node with minor MINOR and removes it; nobody may have it open.\n"
            "Removing a filter node removes its snaps first and leaves its bitmap files\n"
            "on disk, so a later add-filter with the same minor and directory picks the\n"
            "changes up again.\n",
        .min_args = 1,
        .max_args = 1,
        .prints = false,
        .options = {},
        .run = run_del,
    };
    return verb;
}

}  // namespace trakctl
