// trakctl apply: bring the driver to the boot-time configuration.
#include <array>
#include <stdexcept>
#include <string>

#include "../apply_plan.h"
#include "../apply_steps.h"
#include "../boot_files.h"
#include "../config_file.h"
#include "../snap_state_file.h"
#include "verbs.h"

namespace trakctl {

namespace {

constexpr std::string_view kDryRun = "--dry-run";

constexpr std::array kOptions = {
    kConfigOptionSpec,
    kStateOptionSpec,
    OptionSpec{kDryRun, "", "show what would change, and change nothing"},
};

std::vector<ReportItem> change_items(const ApplyPlan& plan) {
    std::vector<ReportItem> items;
    for (const Step& step : plan.steps) {
        const std::string action(step_action_name(step.action));
        items.push_back({
            .label = action,
            .summary = step.name + " (minor " + std::to_string(step.minor) + ") " + step.detail,
            .fields = {{"action", "action", action},
                       {"name", "name", step.name},
                       {"minor", "minor", std::int64_t{step.minor}},
                       {"detail", "detail", step.detail}},
        });
    }
    return items;
}

std::vector<ReportItem> unchanged_items(const ApplyPlan& plan) {
    std::vector<ReportItem> items;
    for (const Unchanged& node : plan.unchanged) {
        items.push_back({
            .label = "unchanged",
            .summary = node.kind + " " + node.name + " (minor " + std::to_string(node.minor) +
                       "): " + node.reason,
            .fields = {{"kind", "kind", node.kind},
                       {"name", "name", node.name},
                       {"minor", "minor", std::int64_t{node.minor}},
                       {"reason", "reason", node.reason}},
        });
    }
    return items;
}

void run_apply(const Invocation& invocation) {
    const auto [config_file, state_file] = boot_files(invocation.options);
    const bool dry_run = invocation.options.has(kDryRun);
    const Config config = read_config(config_file);
    const std::vector<SavedSnap> saved = read_snap_states(state_file);
    trak::Control& control = invocation.context.control();
    const ApplyPlan plan = plan_apply(config, saved, control, invocation.context.mounts_file());
    if (!plan.refusals.empty()) {
        std::string reasons;
        for (const std::string& refusal : plan.refusals) {
            reasons.append("; ").append(refusal);
        }
        throw std::runtime_error("refused, nothing was changed" + reasons);
    }
    if (!dry_run) {
        carry_out(plan, control);
    }
    const Report report{
        {"config", "configuration", config_file},
        {"dry_run", "dry run", dry_run},
        {"change_cnt", dry_run ? "changes planned" : "changes made",
         std::uint64_t{plan.steps.size()}},
        {"changes", "", change_items(plan)},
        {"unchanged", "", unchanged_items(plan)},
    };
    print_report(report, invocation.format, invocation.out);
}

}  // namespace

const Verb& apply_verb() {
    static const Verb verb{
        .name = "apply",
        .arguments = "[--config FILE] [--state FILE] [--dry-run]",
        .summary = "bring the driver to the boot-time configuration",
        .description =
            "Adds the filter nodes of the configuration that the driver lacks and starts\n"
            "them, adds and resumes the configured snaps that the state file lists (with\n"
            "the state save-state wrote, from the same COW files), and leaves alone what\n"
            "is already as configured. A snap the state file does not list is not\n"
            "added. Refuses, changing nothing, when a partition to add a filter over is\n"
            "mounted or missing, when a node differs from the configuration, or when a\n"
            "COW file to resume from is missing. Should the driver refuse a change, the\n"
            "nodes added so far are removed again, except a snap added from saved COW\n"
            "files and its filter (removing either would delete the files); the error\n"
            "names what was removed and what was kept. Prints each change and each node\n"
            "left as it was. Running it again changes nothing.\n",
        .min_args = 0,
        .max_args = 0,
        .prints = true,
        .options = kOptions,
        .run = run_apply,
    };
    return verb;
}

}  // namespace trakctl
