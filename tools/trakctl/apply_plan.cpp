#include "apply_plan.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include "cow_file_names.h"
#include "partition_probe.h"

namespace trakctl {

namespace {

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return result;
}

std::string node_label(std::string_view kind, std::string_view name) {
    return std::string(kind) + " " + std::string(name);
}

// Every node the driver has, by minor.
std::map<std::int32_t, trak::Info> driver_nodes(trak::Control& control) {
    std::map<std::int32_t, trak::Info> nodes;
    for (const trak::DevType type : {trak::DevType::Filter, trak::DevType::Snap}) {
        for (const std::int32_t minor : control.device_list(type)) {
            nodes.emplace(minor, control.info(minor));
        }
    }
    return nodes;
}

// How an existing node differs from its configuration; empty if it does not.
std::vector<std::string> filter_differences(const trak::Info& node, const FilterConfig& wanted) {
    if (!node.filter) {
        return {"minor " + std::to_string(node.minor) + " is a snap node"};
    }
    std::vector<std::string> differences;
    if (node.name != wanted.name) {
        differences.push_back("its name is " + node.name);
    }
    if (resolved_path(node.filter->hdd_name) != resolved_path(wanted.device)) {
        differences.push_back("it is over " + node.filter->hdd_name);
    }
    if (node.filter->extent_size != wanted.extent_size) {
        differences.push_back("its extent size is " + std::to_string(node.filter->extent_size));
    }
    const std::filesystem::path bitmap_dir =
        std::filesystem::path(node.filter->incr_bmp_fname).parent_path();
    if (resolved_path(bitmap_dir) != resolved_path(wanted.bitmap_dir)) {
        differences.push_back("its bitmaps are in " + bitmap_dir.string());
    }
    if (!wanted.uuid.empty() && lower(node.uuid) != lower(wanted.uuid)) {
        differences.push_back("its uuid is " + node.uuid);
    }
    return differences;
}

std::vector<std::string> snap_differences(const trak::Info& node, const SnapConfig& wanted,
                                          const CowFileNames& files) {
    if (!node.snap) {
        return {"minor " + std::to_string(node.minor) + " is a filter node"};
    }
    std::vector<std::string> differences;
    if (node.name != wanted.name) {
        differences.push_back("its name is " + node.name);
    }
    if (lower(node.uuid) != lower(wanted.uuid)) {
        differences.push_back("its uuid is " + node.uuid);
    }
    if (node.snap->cow_bmp_fname != files.bitmap || node.snap->cow_data_fname != files.data) {
        differences.push_back("its COW files are " + node.snap->cow_bmp_fname + " and " +
                              node.snap->cow_data_fname);
    }
    return differences;
}

class Planner {
  public:
    Planner(const Config& config, const std::vector<SavedSnap>& saved, trak::Control& control,
            std::filesystem::path mounts_file)
        : config_(config),
          saved_(saved),
          nodes_(driver_nodes(control)),
          mounts_file_(std::move(mounts_file)) {}

    ApplyPlan plan() {
        for (const FilterConfig& filter : config_.filters) {
            plan_filter(filter);
        }
        for (const SnapConfig& snap : config_.snaps) {
            plan_snap(snap);
        }
        // A filter's snaps are added in the order they were taken (their
        // order in the configuration) and resumed newest first: the driver
        // resumes a snap as valid only behind its newer snaps.
        plan_.steps.insert(plan_.steps.end(), resumes_.rbegin(), resumes_.rend());
        for (const FilterConfig* filter : to_start_) {
            if (!started_by_resume_.contains(filter->name)) {
                plan_.steps.push_back(
                    {StepAction::Start, filter->name, filter->minor, "switch change tracking on"});
            }
        }
        return std::move(plan_);
    }

  private:
    void refuse(std::string_view kind, std::string_view name, const std::string& reason) {
        plan_.refusals.push_back(node_label(kind, name) + ": " + reason);
    }

    void keep(std::string_view kind, std::string_view name, std::int32_t minor,
              std::string reason) {
        plan_.unchanged.push_back({std::string(kind), std::string(name), minor, std::move(reason)});
    }

    // The filter node other than `minor` that already covers `device`.
    const trak::Info* other_filter_over(const std::string& device, std::int32_t minor) const {
        for (const auto& [node_minor, node] : nodes_) {
            if (node_minor != minor && node.filter &&
                resolved_path(node.filter->hdd_name) == resolved_path(device)) {
                return &node;
            }
        }
        return nullptr;
    }

    void plan_filter(const FilterConfig& filter) {
        const auto existing = nodes_.find(filter.minor);
        if (existing != nodes_.end()) {
            const auto differences = filter_differences(existing->second, filter);
            if (!differences.empty()) {
                refuse("filter", filter.name,
                       "node " + std::to_string(filter.minor) +
                           " differs from the configuration: " + joined(differences));
            } else if (existing->second.started) {
                keep("filter", filter.name, filter.minor, "already added and started");
            } else {
                to_start_.push_back(&filter);
            }
            return;
        }
        if (const trak::Info* other = other_filter_over(filter.device, filter.minor)) {
            refuse("filter", filter.name,
                   filter.device + " is already covered by node " + std::to_string(other->minor));
            return;
        }
        std::error_code error;
        if (!std::filesystem::exists(filter.device, error)) {
            refuse("filter", filter.name, "the partition " + filter.device + " is missing");
            return;
        }
        if (const auto mount_point = mount_point_of(filter.device, mounts_file_)) {
            refuse("filter", filter.name,
                   "the partition " + filter.device + " is mounted on " + *mount_point);
            return;
        }
        plan_.steps.push_back({
            .action = StepAction::AddFilter,
            .name = filter.name,
            .minor = filter.minor,
            .detail = "over " + filter.device + ", extent size " +
                      std::to_string(filter.extent_size) + ", bitmaps in " + filter.bitmap_dir,
            .filter = {.hdd_name = filter.device,
                       .minor = filter.minor,
                       .extent_size = filter.extent_size,
                       .bmp_dir = filter.bitmap_dir,
                       .uuid = filter.uuid,
                       .name = filter.name},
        });
        to_start_.push_back(&filter);
    }

    const SavedSnap* saved_state(const SnapConfig& snap) const {
        const auto found = std::find_if(saved_.begin(), saved_.end(), [&](const SavedSnap& state) {
            return state.name == snap.name && state.minor == snap.minor;
        });
        return found == saved_.end() ? nullptr : &*found;
    }

    void plan_snap(const SnapConfig& snap) {
        const CowFileNames files = cow_files_in(snap.cow_dir, snap.uuid);
        if (const auto existing = nodes_.find(snap.minor); existing != nodes_.end()) {
            const auto differences = snap_differences(existing->second, snap, files);
            if (differences.empty()) {
                keep("snap", snap.name, snap.minor, "already added");
            } else {
                refuse("snap", snap.name,
                       "node " + std::to_string(snap.minor) +
                           " differs from the configuration: " + joined(differences));
            }
            return;
        }
        const SavedSnap* state = saved_state(snap);
        if (state == nullptr) {
            keep("snap", snap.name, snap.minor, "not in the state file: not resumed");
            return;
        }
        std::error_code error;
        for (const std::string& file : {files.bitmap, files.data}) {
            if (!std::filesystem::exists(file, error)) {
                refuse("snap", snap.name, "its COW file " + file + " is missing");
                return;
            }
        }
        const FilterConfig& filter = *config_.find_filter(snap.filter);
        plan_.steps.push_back({
            .action = StepAction::AddSnap,
            .name = snap.name,
            .minor = snap.minor,
            .detail = "on filter " + filter.name + ", COW files in " + snap.cow_dir,
            .snap = {.filter_minor = filter.minor,
                     .snap_minor = snap.minor,
                     .chunk_size = snap.chunk_size,
                     .cow_bmp_fname = files.bitmap,
                     .cow_data_fname = files.data,
                     .uuid = snap.uuid,
                     .name = snap.name},
        });
        resumes_.push_back({
            .action = StepAction::ResumeSnap,
            .name = snap.name,
            .minor = snap.minor,
            .detail = std::string("valid ") + (state->snap_valid ? "1" : "0") + ", stop pending " +
                      (state->stop_pending ? "1" : "0") + ", delete pending " +
                      (state->del_pending ? "1" : "0") + "; starts filter " + filter.name,
            .state = {.snap_minor = snap.minor,
                      .snap_valid = state->snap_valid,
                      .stop_pending = state->stop_pending,
                      .del_pending = state->del_pending},
        });
        started_by_resume_.insert(filter.name);
    }

    const Config& config_;
    const std::vector<SavedSnap>& saved_;
    std::map<std::int32_t, trak::Info> nodes_;
    std::filesystem::path mounts_file_;
    ApplyPlan plan_;
    std::vector<Step> resumes_;
    std::vector<const FilterConfig*> to_start_;
    std::set<std::string, std::less<>> started_by_resume_;
};

}  // namespace

std::string_view step_action_name(StepAction action) {
    switch (action) {
        case StepAction::AddFilter:
            return "add-filter";
        case StepAction::AddSnap:
            return "add-snap";
        case StepAction::ResumeSnap:
            return "resume-snap";
        case StepAction::Start:
            return "start";
    }
    return "unknown";
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) {
        text.append(text.empty() ? "" : ", ").append(part);
    }
    return text;
}

ApplyPlan plan_apply(const Config& config, const std::vector<SavedSnap>& saved,
                     trak::Control& control, const std::filesystem::path& mounts_file) {
    return Planner(config, saved, control, mounts_file).plan();
}

}  // namespace trakctl
