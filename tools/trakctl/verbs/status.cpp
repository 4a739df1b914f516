// trakctl status: the driver's settings and nodes at a glance.
#include "../node_lists.h"
#include "verbs.h"

namespace trakctl {

namespace {

void run_status(const Invocation& invocation) {
    Context& context = invocation.context;
    const trak::ProcTree& proc = context.proc();
    Report report{
        {.key = "device", .label = "control device", .value = context.device_path()},
        {.key = "chr_major",
         .label = "character major",
         .value = static_cast<std::int64_t>(proc.chr_major())},
        {.key = "blk_major",
         .label = "block major",
         .value = static_cast<std::int64_t>(proc.blk_major())},
        {.key = "debug", .label = "debug level", .value = static_cast<std::int64_t>(proc.debug())},
    };
    add_node_list(report, context.control(), trak::DevType::Filter);
    add_node_list(report, context.control(), trak::DevType::Snap);
    print_report(report, invocation.format, invocation.out);
}

}  // namespace

const Verb& status_verb() {
    static const Verb verb{
        .name = "status",
        .arguments = "",
        .summary = "show the control device, the majors, the debug level and the nodes",
        .description =
            "Shows the control device, the character and block majors and the debug\n"
            "level from /proc/trak, and the minors of the filter and snap nodes.\n",
        .min_args = 0,
        .max_args = 0,
        .prints = true,
        .options = {},
        .run = run_status,
    };
    return verb;
}

}  // namespace trakctl
