// Base fixture of the tests that load the driver's modules.
#ifndef TRAK_TESTS_VM_SUPPORT_MODULE_TEST_H_
#define TRAK_TESTS_VM_SUPPORT_MODULE_TEST_H_

#include <gtest/gtest.h>

#include <string>

#include "support/kernel_log.h"

namespace trak::vmtest {

inline constexpr const char* kDriverModule = "trak";
inline constexpr const char* kLockTestModule = "trak_test";

// Whatever a test does, the driver's modules are unloaded when it ends, so
// that a failing test does not hand its state to the next one. The kernel
// log is marked when the test starts; a test fails when the kernel logged
// a bug report (KASAN, lockdep, a sleep in atomic context, an oops, a
// warning, a hung task) between that mark and the unload at its end.
class ModuleTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Loads trak.ko, or trak_test.ko, from ModuleDir() with `params`.
    // Returns 0 or errno.
    static int LoadDriver(const std::string& params = "");
    static int LoadLockTests();

    KernelLog& log() { return log_; }

  private:
    KernelLog log_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_MODULE_TEST_H_
