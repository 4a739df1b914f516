// trakctl list: the minors of the filter and snap nodes.
#include <string>

#include "../node_lists.h"
#include "verbs.h"

namespace trakctl {

namespace {

void run_list(const Invocation& invocation) {
    const std::string_view only = invocation.args.empty() ? "" : invocation.args.front();
    if (!only.empty() && only != "filter" && only != "snap") {
        throw UsageError("unknown node type '" + std::string(only) + "': expected filter or snap");
    }
    trak::Control& control = invocation.context.control();
    Report report;
    if (only != "snap") {
        add_node_list(report, control, trak::DevType::Filter);
    }
    if (only != "filter") {
        add_node_list(report, control, trak::DevType::Snap);
    }
    print_report(report, invocation.format, invocation.out);
}

}  // namespace

const Verb& list_verb() {
    static const Verb verb{
        .name = "list",
        .arguments = "[filter|snap]",
        .summary = "list the minors of the filter and snap nodes",
        .description = "Lists the minors of the nodes of one type, or of both types.\n",
        .min_args = 0,
        .max_args = 1,
        .prints = true,
        .options = {},
        .run = run_list,
    };
    return verb;
}

}  // namespace trakctl
