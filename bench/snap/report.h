// The snapshot benchmark's results: one row per chunk size, pass and
// workload with each target's median, and the ratios that matter for
// snapshots with the goal each should meet.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <vector>

#include "fio.h"

namespace snapbench {

// The columns of every row.
enum Target : std::size_t { kRaw, kDmSnapshot, kTrakSnap, kTrak, kTargetCount };

inline constexpr std::array<std::string_view, kTargetCount> kTargetNames = {
    "raw", "dm-snapshot", "trak snap", "trak, no snap"};

enum class Pass { kFirstWrite, kRewrite, kRead };

struct Row {
    std::uint32_t chunk_size{};
    Pass pass{};
    const bench::Workload* workload{};
    // Per target, one figure per round; a target not measured in a pass
    // has none.
    std::array<std::vector<double>, kTargetCount> figures;
};

// The table of medians, then each ratio with its goal and whether the
// medians meet it.
void print_report(std::ostream& out, const std::vector<Row>& rows);

}  // namespace snapbench
