// A mixed file-system workload: creates, overwrites, appends, truncates,
// renames, deletes and fsyncs over a directory, the same every run.
#ifndef TRAK_TESTS_VM_SUPPORT_FS_WORKLOAD_H_
#define TRAK_TESTS_VM_SUPPORT_FS_WORKLOAD_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace trak::vmtest {

struct WorkloadSize {
    int files;                     // files created in the first round
    std::uint32_t max_file_bytes;  // size of the largest of them
};

// Runs the workload in `dir` (which must exist). Fails on the first error.
::testing::AssertionResult RunMixedWorkload(const std::string& dir, const WorkloadSize& size,
                                            std::uint32_t seed);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_FS_WORKLOAD_H_
