// Hard power-off of the test VM, for the tests that span two boots.
#ifndef TRAK_TESTS_VM_SUPPORT_POWER_OFF_H_
#define TRAK_TESTS_VM_SUPPORT_POWER_OFF_H_

#include <string>

namespace trak::vmtest {

// Leaves the file `marker` with `note` in $TRAK_OUT, so that the script on
// the host can tell this power-off from an early end, then powers the VM
// off at once (sysrq 'o': no sync, no unmount). Returns only on failure,
// with a gtest failure reported.
void PowerOffNow(const std::string& marker, const std::string& note);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_POWER_OFF_H_
