// A snap's state and COW usage, as status and info show them.
#pragma once

#include <trak/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "report.h"

namespace trakctl {

// "stopped", "started", "stop pending (DEFUNCT)" or "delete pending
// (DEFUNCT)", with ", invalid" after a started state when the snap's
// copy-on-write failed. `snap` must describe a snap node.
std::string snap_state(const trak::Info& snap);

// Appends the snap's "state", and its COW usage counted from its COW bitmap
// file: "preserved_chunks" and "preserved_bytes", both unknown when the file
// cannot be read, and then "cow_bmp_error", which says why.
void add_snap_usage(Report& report, const trak::Info& snap);

// The snap as an item of a list of snaps: "snap M: started, chunk size N,
// preserved C chunks (B bytes)" in text; its minor, name, state and flags,
// chunk size and COW usage in JSON. A list of snaps of several filters gives
// `filter_minor`: the text then begins with "filter F, ".
ReportItem snap_item(const trak::Info& snap, std::optional<std::int32_t> filter_minor);

}  // namespace trakctl
