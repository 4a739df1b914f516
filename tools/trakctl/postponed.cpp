#include "postponed.h"

#include <trak/error.h>

#include <optional>

namespace trakctl {

namespace {

// The snap node as it stands now; nothing when the node is gone (as it is
// after a delete that was carried out) or is not a snap.
std::optional<trak::SnapInfo> snap_now(trak::Control& control, std::int32_t minor) {
    try {
        return control.info(minor).snap;
    } catch (const trak::DriverError&) {
        return std::nullopt;
    }
}

}  // namespace

void tell_if_postponed(trak::Control& control, std::int32_t minor, SnapChange change,
                       std::ostream& out) {
    const auto snap = snap_now(control, minor);
    if (!snap) {
        return;
    }
    if (change == SnapChange::Stop && snap->stop_pending) {
        out << "snap " << minor
            << ": stop postponed until the snaps before it on its filter stop; until then it is "
               "DEFUNCT and cannot be restarted\n";
    } else if (change == SnapChange::Delete && snap->del_pending) {
        out << "snap " << minor
            << ": delete postponed until the snaps before it on its filter are deleted; until "
               "then it is DEFUNCT\n";
    }
}

}  // namespace trakctl
