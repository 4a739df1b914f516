// The virtual disks run-suite.sh gives the guest, and what they are for.
#ifndef TRAK_TESTS_VM_SUPPORT_TEST_DISKS_H_
#define TRAK_TESTS_VM_SUPPORT_TEST_DISKS_H_

namespace trak::vmtest {

// The partition that filter nodes are put over.
inline constexpr const char* kTrackedDisk = "/dev/vda";
// A second disk: mounted directly when a test needs a busy HDD or a file
// system of its own for bitmap files.
inline constexpr const char* kSpareDisk = "/dev/vdb";

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_TEST_DISKS_H_
