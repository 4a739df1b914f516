// Loads and unloads kernel modules through the module system calls.
#ifndef TRAK_TESTS_VM_SUPPORT_KERNEL_MODULE_H_
#define TRAK_TESTS_VM_SUPPORT_KERNEL_MODULE_H_

#include <string>

namespace trak::vmtest {

// Directory of the modules under test: $TRAK_MODULE_DIR, else
// $TRAK_SRC/driver.
std::string ModuleDir();

// Loads the module file `path` with `params` ("name=value ..."), after the
// kernel's modules it depends on (its modinfo "depends"), which the load
// system call does not load by itself. Returns 0, or the errno of opening
// the file or of the load (the module's own init result when its init
// failed); ENOENT when a module it depends on cannot be loaded.
int LoadModule(const std::string& path, const std::string& params = "");

// Unloads module `name` without waiting for its users. Returns 0 or errno.
int UnloadModule(const std::string& name);

bool ModuleLoaded(const std::string& name);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_KERNEL_MODULE_H_
