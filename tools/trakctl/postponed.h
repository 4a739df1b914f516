// Stops and deletes of snaps that the driver accepts but carries out later:
// a snap that snaps before it on its filter still depend on stays until they
// go. The driver answers success either way, so trakctl looks afterwards.
#pragma once

#include <trak/control.h>

#include <cstdint>
#include <ostream>

namespace trakctl {

enum class SnapChange : std::uint8_t { Stop, Delete };

// After the driver accepted `change` of node `minor`: says so when it was
// postponed.
void tell_if_postponed(trak::Control& control, std::int32_t minor, SnapChange change,
                       std::ostream& out);

}  // namespace trakctl
