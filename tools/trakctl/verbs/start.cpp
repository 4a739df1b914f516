// trakctl start: switch a node on.
#include "../args.h"
#include "verbs.h"

namespace trakctl {

namespace {

void run_start(const Invocation& invocation) {
    invocation.context.control().start(parse_minor(invocation.args.front()));
}

}  // namespace

const Verb& start_verb() {
    static const Verb verb{
        .name = "start",
        .arguments = "MINOR",
        .summary = "start a node: a filter tracks changes, a snap fixes its point in time",
        .description =
            "Starts the node with minor MINOR. A started filter node sets the bits of\n"
            "every extent written through it, and can be opened and mounted. Starting a\n"
            "snap node fixes the moment it shows: its filter is started first if need be,\n"
            "a file system mounted on the filter is frozen until no write is in flight,\n"
            "the COW files are created afresh, and the file system's data-block map is\n"
            "read. The snap can then be opened read-only and mounted.\n",
        .min_args = 1,
        .max_args = 1,
        .prints = false,
        .options = {},
        .run = run_start,
    };
    return verb;
}

}  // namespace trakctl
