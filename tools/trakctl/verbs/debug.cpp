// trakctl debug: show or set the driver's log verbosity.
#include "../args.h"
#include "verbs.h"

namespace trakctl {

namespace {

void run_debug(const Invocation& invocation) {
    const trak::ProcTree& proc = invocation.context.proc();
    if (!invocation.args.empty()) {
        proc.set_debug(parse_level(invocation.args.front()));
        return;
    }
    const Report report{
        {.key = "debug", .label = "debug level", .value = static_cast<std::int64_t>(proc.debug())},
    };
    print_report(report, invocation.format, invocation.out);
}

}  // namespace

const Verb& debug_verb() {
    static const Verb verb{
        .name = "debug",
        .arguments = "[LEVEL]",
        .summary = "show or set the driver's log verbosity",
        .description =
            "Without LEVEL, shows the driver's log verbosity (/proc/trak/debug).\n"
            "With LEVEL, sets it: messages of levels 1 to LEVEL are logged; errors\n"
            "are always logged.\n",
        .min_args = 0,
        .max_args = 1,
        .prints = true,
        .options = {},
        .run = run_debug,
    };
    return verb;
}

}  // namespace trakctl
