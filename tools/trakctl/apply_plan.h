// What `trakctl apply` does to bring the driver to the configuration: the
// changes in the order they are made, what is already right, and what
// forbids any change at all.
#pragma once

#include <trak/control.h>
#include <trak/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "config_file.h"
#include "snap_state_file.h"

namespace trakctl {

enum class StepAction : std::uint8_t { AddFilter, AddSnap, ResumeSnap, Start };

// One change. Only the record its action needs is filled in: `filter` to
// add a filter, `snap` to add a snap, `state` to resume one.
struct Step {
    StepAction action;
    std::string name;  // the node's
    std::int32_t minor;
    std::string detail;  // for people, e.g. "over /dev/vdb"
    trak::FilterSpec filter{};
    trak::SnapSpec snap{};
    trak::SnapState state{};
};

// A configured node that apply leaves as it is, and why.
struct Unchanged {
    std::string kind;  // "filter" or "snap"
    std::string name;
    std::int32_t minor;
    std::string reason;
};

struct ApplyPlan {
    std::vector<Step> steps;
    std::vector<Unchanged> unchanged;
    // Each a reason to change nothing: a partition mounted or missing, a
    // node that differs from the configuration, a missing COW file.
    std::vector<std::string> refusals;
};

// The name apply's output gives an action, e.g. "add-filter".
std::string_view step_action_name(StepAction action);

// `parts` separated by ", ", as apply's messages list nodes and reasons.
std::string joined(const std::vector<std::string>& parts);

// Asks the driver what exists and plans the changes. Filters are added
// first, then the snaps the state file lists are added and resumed, then
// the filters are started, except those that resuming a snap starts.
ApplyPlan plan_apply(const Config& config, const std::vector<SavedSnap>& saved,
                     trak::Control& control, const std::filesystem::path& mounts_file);

}  // namespace trakctl
