// trakctl stop: switch a node off.
#include "../args.h"
#include "../postponed.h"
#include "verbs.h"

namespace trakctl {

namespace {

void run_stop(const Invocation& invocation) {
    const std::int32_t minor = parse_minor(invocation.args.front());
    trak::Control& control = invocation.context.control();
    control.stop(minor);
    tell_if_postponed(control, minor, SnapChange::Stop, invocation.out);
}

}  // namespace

const Verb& stop_verb() {
    static const Verb verb{
        .name = "stop",
        .arguments = "MINOR",
        .summary = "stop a node, saving a filter's changed bitmaps",
        .description =
            "Stops the node with minor MINOR; nobody may have it open. A filter node\n"
            "stops its snaps first and writes its changed bitmaps to their files. A snap\n"
            "closes its COW files, which stay on disk until it is deleted; while an\n"
            "earlier snap of the same filter is started, its stop is postponed (it is\n"
            "DEFUNCT until that snap stops), and trakctl says so. Stopping a stopped\n"
            "node succeeds.\n",
        .min_args = 1,
        .max_args = 1,
        .prints = false,
        .options = {},
        .run = run_stop,
    };
    return verb;
}

}  // namespace trakctl
