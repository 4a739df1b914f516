// trakctl del: remove a node.
#include "../args.h"
#include "../postponed.h"
#include "verbs.h"

namespace trakctl {

namespace {

void run_del(const Invocation& invocation) {
    const std::int32_t minor = parse_minor(invocation.args.front());
    trak::Control& control = invocation.context.control();
    control.del_node(minor);
    tell_if_postponed(control, minor, SnapChange::Delete, invocation.out);
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
            "changes up again. Removing a snap deletes its COW files; while an earlier\n"
            "snap of the same filter is started, its removal is postponed until the\n"
            "snaps before it are removed, and trakctl says so.\n",
        .min_args = 1,
        .max_args = 1,
        .prints = false,
        .options = {},
        .run = run_del,
    };
    return verb;
}

}  // namespace trakctl
