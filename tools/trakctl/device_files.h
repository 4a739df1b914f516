// The device files of a node, as report fields.
#pragma once

#include <trak/proc.h>

#include <cstdint>

#include "report.h"

namespace trakctl {

// Appends "dev_name", the node's device file under /dev/trak as the driver
// publishes it in /proc (empty when it made none), and "disk", the disk
// device /dev/trakM.
void add_device_files(Report& report, const trak::ProcTree& proc, std::int32_t minor);

}  // namespace trakctl
