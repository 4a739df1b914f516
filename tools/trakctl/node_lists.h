// The minors of the driver's nodes by type, as report fields.
#pragma once

#include <trak/control.h>
#include <trak/types.h>

#include <cstdint>
#include <vector>

#include "report.h"

namespace trakctl {

// Appends a field "filter" or "snap" with the minors of that type of node,
// and returns them.
std::vector<std::int32_t> add_node_list(Report& report, trak::Control& control, trak::DevType type);

}  // namespace trakctl
