// trakctl info: one node's state as the driver reports it.
#include <optional>
#include <string>
#include <vector>

#include "../args.h"
#include "../snap_summary.h"
#include "verbs.h"

namespace trakctl {

namespace {

std::string type_name(trak::DevType type) {
    switch (type) {
        case trak::DevType::Filter:
            return "filter";
        case trak::DevType::Snap:
            return "snap";
    }
    return "unknown (" + std::to_string(static_cast<std::uint32_t>(type)) + ")";
}

FieldValue count(std::uint64_t value) { return value; }

void add_filter_fields(Report& report, const trak::FilterInfo& filter) {
    report.insert(
        report.end(),
        {
            {"hdd_name", "partition", filter.hdd_name},
            {"extent_size", "extent size (bytes)", count(filter.extent_size)},
            {"extent_cnt", "extents", count(filter.extent_cnt)},
            {"snap_minors", "snaps", filter.snap_minors},
            {"snap_cnt", "snap count", count(filter.snap_minors.size())},
            {"incr_bmp_size", "incremental bitmap size (bytes)", count(filter.incr_bmp_size)},
            {"diff_bmp_size", "differential bitmap size (bytes)", count(filter.diff_bmp_size)},
            {"incr_bmp_fname", "incremental bitmap file", filter.incr_bmp_fname},
            {"diff_bmp_fname", "differential bitmap file", filter.diff_bmp_fname},
            {"incr_bmp_clear", "incremental bitmap clear", filter.incr_bmp_clear},
            {"diff_bmp_clear", "differential bitmap clear", filter.diff_bmp_clear},
            {"incr_bmp_full", "incremental bitmap full", filter.incr_bmp_full},
            {"diff_bmp_full", "differential bitmap full", filter.diff_bmp_full},
        });
}

void add_snap_fields(Report& report, const trak::SnapInfo& snap) {
    report.insert(report.end(),
                  {
                      {"snap_valid", "valid", snap.snap_valid},
                      {"stop_pending", "stop pending", snap.stop_pending},
                      {"del_pending", "delete pending", snap.del_pending},
                      {"chunk_size", "chunk size (bytes)", count(snap.chunk_size)},
                      {"cow_chunks", "COW chunks", count(snap.cow_chunks)},
                      {"cow_bmp_size", "COW bitmap size (bytes)", count(snap.cow_bmp_size)},
                      {"cow_data_size", "COW data size (bytes)", count(snap.cow_data_size)},
                      {"cow_bmp_fname", "COW bitmap file", snap.cow_bmp_fname},
                      {"cow_data_fname", "COW data file", snap.cow_data_fname},
                  });
}

// Each snap of the filter with its state and COW usage.
std::vector<ReportItem> snaps_of(trak::Control& control, const trak::FilterInfo& filter) {
    std::vector<ReportItem> items;
    for (const std::int32_t minor : filter.snap_minors) {
        const trak::Info snap = control.info(minor);
        if (snap.snap) {
            items.push_back(snap_item(snap, std::nullopt));
        }
    }
    return items;
}

void run_info(const Invocation& invocation) {
    trak::Control& control = invocation.context.control();
    const trak::Info info = control.info(parse_minor(invocation.args.front()));
    Report report{
        {"minor", "minor", static_cast<std::int64_t>(info.minor)},
        {"dev_type", "type", type_name(info.dev_type)},
        {"dev_size", "device size (bytes)", count(info.dev_size)},
        {"started", "started", info.started},
        {"use_cnt", "open count", static_cast<std::int64_t>(info.use_cnt)},
        {"uuid", "uuid", info.uuid},
        {"name", "name", info.name},
    };
    if (info.filter) {
        add_filter_fields(report, *info.filter);
        report.push_back({"snaps", "snaps", snaps_of(control, *info.filter)});
    }
    if (info.snap) {
        add_snap_fields(report, *info.snap);
        add_snap_usage(report, info);
    }
    print_report(report, invocation.format, invocation.out);
}

}  // namespace

const Verb& info_verb() {
    static const Verb verb{
        .name = "info",
        .arguments = "MINOR",
        .summary = "show one node's state",
        .description =
            "Shows every field that the driver reports for the node with minor MINOR\n"
            "and that applies to its type (filter or snap). A snap also shows its state\n"
            "(stopped, started, stop pending or delete pending (DEFUNCT), invalid) and\n"
            "how much of its COW store is used: the chunks preserved so far and the bytes\n"
            "of the partition they hold, counted from its COW bitmap file. A filter also\n"
            "shows each of its snaps that way, on a line of its own.\n",
        .min_args = 1,
        .max_args = 1,
        .prints = true,
        .options = {},
        .run = run_info,
    };
    return verb;
}

}  // namespace trakctl
