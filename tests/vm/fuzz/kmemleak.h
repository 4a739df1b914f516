// The kernel's leak detector (kmemleak, on the debug kernel), through
// debugfs.
#ifndef TRAK_TESTS_VM_FUZZ_KMEMLEAK_H_
#define TRAK_TESTS_VM_FUZZ_KMEMLEAK_H_

#include <string>

namespace trak::vmtest {

class Kmemleak {
  public:
    // Whether this kernel has kmemleak (debugfs mounted).
    static bool Available();
    // Scans, and forgets every leak found so far: later reports name only
    // objects that leaked from now on.
    static void Forget();
    // Scans and returns the reports of the objects that leaked since
    // Forget(), empty when none did. Objects younger than kmemleak's
    // minimum age (5 s) are not reported yet: wait before calling.
    static std::string NewLeaks();
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_FUZZ_KMEMLEAK_H_
