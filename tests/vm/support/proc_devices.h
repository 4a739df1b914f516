// The registered device majors listed in /proc/devices.
#ifndef TRAK_TESTS_VM_SUPPORT_PROC_DEVICES_H_
#define TRAK_TESTS_VM_SUPPORT_PROC_DEVICES_H_

#include <string_view>
#include <vector>

namespace trak::vmtest {

enum class DeviceKind { kCharacter, kBlock };

// The majors registered under `name` in the section of `kind`.
std::vector<int> MajorsNamed(DeviceKind kind, std::string_view name);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_PROC_DEVICES_H_
