#include "apply_steps.h"

#include <algorithm>
#include <set>
#include <vector>

namespace trakctl {

namespace {

void carry_out_step(const Step& step, trak::Control& control) {
    switch (step.action) {
        case StepAction::AddFilter:
            control.add_filter(step.filter);
            break;
        case StepAction::AddSnap:
            control.add_snap(step.snap);
            break;
        case StepAction::ResumeSnap:
            control.resume_snap(step.state);
            break;
        case StepAction::Start:
            control.start(step.minor);
            break;
    }
}

std::string label(const Step& step) {
    return std::string(step.action == StepAction::AddSnap ? "snap " : "filter ") + step.name +
           " (minor " + std::to_string(step.minor) + ")";
}

// Removes the nodes that `done` added, newest first, except the snaps added
// from saved COW files and their filters. Says what became of each.
std::string undo(const std::vector<const Step*>& done, trak::Control& control) {
    std::set<std::int32_t> holding_snapshots;
    std::set<std::int32_t> resumed;
    for (const Step* step : done) {
        if (step->action == StepAction::AddSnap) {
            holding_snapshots.insert(step->minor);
            holding_snapshots.insert(static_cast<std::int32_t>(step->snap.filter_minor));
        } else if (step->action == StepAction::ResumeSnap) {
            resumed.insert(step->minor);
        }
    }
    std::vector<std::string> removed;
    std::vector<std::string> kept;
    std::vector<std::string> stuck;
    std::for_each(done.rbegin(), done.rend(), [&](const Step* step) {
        if (step->action != StepAction::AddFilter && step->action != StepAction::AddSnap) {
            return;
        }
        if (holding_snapshots.contains(step->minor)) {
            const bool waiting =
                step->action == StepAction::AddSnap && !resumed.contains(step->minor);
            kept.push_back(label(*step) + (waiting ? ", not resumed" : ""));
            return;
        }
        try {
            control.del_node(step->minor);
            removed.push_back(label(*step));
        } catch (const trak::DriverError& error) {
            stuck.push_back(label(*step) + ": " + error.code_name());
        }
    });
    std::string aftermath;
    if (!removed.empty()) {
        aftermath += " Removed again: " + joined(removed) + ".";
    }
    if (!kept.empty()) {
        aftermath +=
            " Kept, since removing them would delete the saved COW files: " + joined(kept) +
            ". Once the cause is mended, resume a snap that was not resumed with "
            "'trakctl snap resume' and the state from the state file.";
    }
    if (!stuck.empty()) {
        aftermath += " Could not be removed: " + joined(stuck) + ".";
    }
    return aftermath;
}

}  // namespace

ApplyStepError::ApplyStepError(const trak::DriverError& refusal, const std::string& aftermath)
    : trak::DriverError(refusal), message_(std::string(refusal.what()) + aftermath) {}

void carry_out(const ApplyPlan& plan, trak::Control& control) {
    std::vector<const Step*> done;
    try {
        for (const Step& step : plan.steps) {
            carry_out_step(step, control);
            done.push_back(&step);
        }
    } catch (const trak::DriverError& refusal) {
        throw ApplyStepError(refusal, undo(done, control));
    }
}

}  // namespace trakctl
