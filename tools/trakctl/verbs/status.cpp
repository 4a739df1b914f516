// trakctl status: the driver's settings and nodes at a glance.
#include <map>
#include <optional>
#include <vector>

#include "../node_lists.h"
#include "../snap_summary.h"
#include "verbs.h"

namespace trakctl {

namespace {

// The filter of each snap of `filters`.
std::map<std::int32_t, std::int32_t> filters_of_snaps(trak::Control& control,
                                                      const std::vector<std::int32_t>& filters) {
    std::map<std::int32_t, std::int32_t> filter_of;
    for (const std::int32_t filter : filters) {
        const trak::Info info = control.info(filter);
        if (!info.filter) {
            continue;
        }
        for (const std::int32_t snap : info.filter->snap_minors) {
            filter_of[snap] = filter;
        }
    }
    return filter_of;
}

std::vector<ReportItem> snap_items(trak::Control& control, const std::vector<std::int32_t>& filters,
                                   const std::vector<std::int32_t>& snaps) {
    std::vector<ReportItem> items;
    if (snaps.empty()) {
        return items;
    }
    const auto filter_of = filters_of_snaps(control, filters);
    for (const std::int32_t snap : snaps) {
        const trak::Info info = control.info(snap);
        if (!info.snap) {
            continue;
        }
        const auto filter = filter_of.find(snap);
        items.push_back(snap_item(info, filter == filter_of.end()
                                            ? std::nullopt
                                            : std::optional<std::int32_t>(filter->second)));
    }
    return items;
}

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
    trak::Control& control = context.control();
    const auto filters = add_node_list(report, control, trak::DevType::Filter);
    const auto snaps = add_node_list(report, control, trak::DevType::Snap);
    report.push_back({"snaps", "snaps", snap_items(control, filters, snaps)});
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
            "level from /proc/trak, the minors of the filter and snap nodes, and for each\n"
            "snap its filter, its state (stopped, started, stop pending or delete pending\n"
            "(DEFUNCT), invalid), its chunk size and how much of its COW store is used:\n"
            "the chunks preserved so far and the bytes of the partition they hold, counted\n"
            "from its COW bitmap file.\n",
        .min_args = 0,
        .max_args = 0,
        .prints = true,
        .options = {},
        .run = run_status,
    };
    return verb;
}

}  // namespace trakctl
