// Runs a piece of a test in a child process with a time limit, so that I/O
// that never completes is reported as a hang instead of stopping the suite.
#ifndef TRAK_TESTS_VM_SUPPORT_CHILD_PROCESS_H_
#define TRAK_TESTS_VM_SUPPORT_CHILD_PROCESS_H_

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>

namespace trak::vmtest {

// Runs `body` in a forked child. `body` returns "" on success, else what
// went wrong. Succeeds when the child returned "" within `timeout`; a
// child still running then is killed (and left behind if even that does
// not end it, as a task stuck in the kernel would be).
::testing::AssertionResult FinishesInChild(const std::function<std::string()>& body,
                                           std::chrono::seconds timeout);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_CHILD_PROCESS_H_
