// trakctl save-state: write down the configured snaps' states at shutdown,
// for apply to resume them after the next boot.
#include <algorithm>
#include <array>
#include <string>

#include "../boot_files.h"
#include "../config_file.h"
#include "../snap_state_file.h"
#include "verbs.h"

namespace trakctl {

namespace {

constexpr std::array kOptions = {kConfigOptionSpec, kStateOptionSpec};

// The states of the configured snaps that the driver has, as configured.
std::vector<SavedSnap> configured_snap_states(const Config& config, trak::Control& control) {
    const std::vector<std::int32_t> minors = control.device_list(trak::DevType::Snap);
    std::vector<SavedSnap> states;
    for (const SnapConfig& snap : config.snaps) {
        if (std::find(minors.begin(), minors.end(), snap.minor) == minors.end()) {
            continue;
        }
        const trak::Info info = control.info(snap.minor);
        // A stopped snap missed the writes since its stop: its COW files
        // no longer hold its point in time, so it must not be resumed.
        if (info.name != snap.name || !info.snap || !info.started) {
            continue;
        }
        states.push_back({.name = snap.name,
                          .minor = snap.minor,
                          .snap_valid = info.snap->snap_valid,
                          .stop_pending = info.snap->stop_pending,
                          .del_pending = info.snap->del_pending});
    }
    return states;
}

void run_save_state(const Invocation& invocation) {
    const auto [config_file, state_file] = boot_files(invocation.options);
    const Config config = read_config(config_file);
    const std::vector<SavedSnap> states =
        configured_snap_states(config, invocation.context.control());
    write_snap_states(state_file, states);
    std::vector<ReportItem> items;
    items.reserve(states.size());
    for (const SavedSnap& snap : states) {
        items.push_back({
            .label = "saved",
            .summary = snap.name + " (minor " + std::to_string(snap.minor) + "): valid " +
                       (snap.snap_valid ? "1" : "0") + ", stop pending " +
                       (snap.stop_pending ? "1" : "0") + ", delete pending " +
                       (snap.del_pending ? "1" : "0"),
            .fields = {{"name", "name", snap.name},
                       {"minor", "minor", std::int64_t{snap.minor}},
                       {"snap_valid", "valid", snap.snap_valid},
                       {"stop_pending", "stop pending", snap.stop_pending},
                       {"del_pending", "delete pending", snap.del_pending}},
        });
    }
    const Report report{
        {"state_file", "state file", state_file},
        {"snap_cnt", "snaps saved", std::uint64_t{states.size()}},
        {"snaps", "", items},
    };
    print_report(report, invocation.format, invocation.out);
}

}  // namespace

const Verb& save_state_verb() {
    static const Verb verb{
        .name = "save-state",
        .arguments = "[--config FILE] [--state FILE]",
        .summary = "save the configured snaps' states for apply after the next boot",
        .description =
            "Writes the state (valid, stop pending, delete pending) of every snap of the\n"
            "configuration that the driver has started, with the name and minor\n"
            "configured, to the state file, replacing it as a whole: a crash leaves the\n"
            "old file or the new one. Snaps the driver does not have are left out, so\n"
            "that apply does not resume them, and so are stopped snaps: writes since the\n"
            "stop were not preserved for them.\n",
        .min_args = 0,
        .max_args = 0,
        .prints = true,
        .options = kOptions,
        .run = run_save_state,
    };
    return verb;
}

}  // namespace trakctl
