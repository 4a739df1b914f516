// trakctl stop: switch a node off.
#include "../args.h"
#include "verbs.h"

namespace trakctl {

namespace {

void run_stop(const Invocation& invocation) {
    invocation.context.control().stop(parse_minor(invocation.args.front()));
}

}  // namespace

const Verb& stop_verb() {
    static const Verb verb{
        .name = "stop",
        .arguments = "MINOR",
        .summary = "stop a node, saving a filter's changed bitmaps",
        .description =
            "Stops the node with minor MINOR; nobody may have it open. A filter node\n"
            "writes its changed bitmaps to their files first. Stopping a stopped node\n"
            "succeeds.\n",
        .min_args = 1,
        .max_args = 1,
        .prints = false,
        .options = {},
        .run = run_stop,
    };
    return verb;
}

}  // namespace trakctl
