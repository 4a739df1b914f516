#include "snap_summary.h"

#include <trak/cow_usage.h>

#include <exception>

namespace trakctl {

namespace {

// The COW usage of a snap, or why it is not known.
struct UsageReading {
    std::optional<trak::CowUsage> usage;
    std::string error;
};

UsageReading read_usage(const trak::Info& snap) {
    try {
        return {.usage = trak::cow_usage(*snap.snap, snap.dev_size), .error = {}};
    } catch (const std::exception& error) {
        return {.usage = std::nullopt, .error = error.what()};
    }
}

void add_usage_fields(Report& report, const UsageReading& reading) {
    if (!reading.usage) {
        report.insert(report.end(), {
                                        {"preserved_chunks", "preserved chunks", std::monostate{}},
                                        {"preserved_bytes", "preserved bytes", std::monostate{}},
                                        {"cow_bmp_error", "COW bitmap error", reading.error},
                                    });
        return;
    }
    report.insert(report.end(), {
                                    {"preserved_chunks", "preserved chunks", reading.usage->chunks},
                                    {"preserved_bytes", "preserved bytes", reading.usage->bytes},
                                });
}

std::string usage_summary(const UsageReading& reading) {
    if (!reading.usage) {
        return "preserved unknown (" + reading.error + ")";
    }
    return "preserved " + std::to_string(reading.usage->chunks) + " chunks (" +
           std::to_string(reading.usage->bytes) + " bytes)";
}

}  // namespace

std::string snap_state(const trak::Info& snap) {
    if (!snap.started) {
        return "stopped";
    }
    std::string state = snap.snap->del_pending    ? "delete pending (DEFUNCT)"
                        : snap.snap->stop_pending ? "stop pending (DEFUNCT)"
                                                  : "started";
    if (!snap.snap->snap_valid) {
        state += ", invalid";
    }
    return state;
}

void add_snap_usage(Report& report, const trak::Info& snap) {
    report.push_back({"state", "state", snap_state(snap)});
    add_usage_fields(report, read_usage(snap));
}

ReportItem snap_item(const trak::Info& snap, std::optional<std::int32_t> filter_minor) {
    const UsageReading reading = read_usage(snap);
    const std::string state = snap_state(snap);
    ReportItem item{
        .label = "snap " + std::to_string(snap.minor),
        .summary = state + ", chunk size " + std::to_string(snap.snap->chunk_size) + ", " +
                   usage_summary(reading),
        .fields = {{"minor", "minor", std::int64_t{snap.minor}}, {"name", "name", snap.name}},
    };
    if (filter_minor) {
        item.summary.insert(0, "filter " + std::to_string(*filter_minor) + ", ");
        item.fields.push_back({"filter_minor", "filter", std::int64_t{*filter_minor}});
    }
    item.fields.insert(
        item.fields.end(),
        {
            {"state", "state", state},
            {"started", "started", snap.started},
            {"snap_valid", "valid", snap.snap->snap_valid},
            {"stop_pending", "stop pending", snap.snap->stop_pending},
            {"del_pending", "delete pending", snap.snap->del_pending},
            {"chunk_size", "chunk size (bytes)", std::uint64_t{snap.snap->chunk_size}},
        });
    add_usage_fields(item.fields, reading);
    return item;
}

}  // namespace trakctl
