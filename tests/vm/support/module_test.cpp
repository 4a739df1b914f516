#include "support/module_test.h"

#include "support/kernel_module.h"

namespace trak::vmtest {
namespace {

void UnloadIfLoaded(const std::string& name) {
    if (ModuleLoaded(name)) {
        EXPECT_EQ(UnloadModule(name), 0) << "unloading " << name;
    }
}

}  // namespace

void ModuleTest::SetUp() {
    UnloadIfLoaded(kDriverModule);
    UnloadIfLoaded(kLockTestModule);
    log_.Mark();
}

// Unloading comes first: a lock still held, or an object freed twice, is
// often reported only then.
void ModuleTest::TearDown() {
    UnloadIfLoaded(kDriverModule);
    UnloadIfLoaded(kLockTestModule);
    EXPECT_TRUE(log_.NoBugReports());
}

int ModuleTest::LoadDriver(const std::string& params) {
    return LoadModule(ModuleDir() + "/" + kDriverModule + ".ko", params);
}

int ModuleTest::LoadLockTests() { return LoadModule(ModuleDir() + "/" + kLockTestModule + ".ko"); }

}  // namespace trak::vmtest
