// Runs system tools (mkfs, losetup, fio, modprobe) from the tests.
#ifndef TRAK_TESTS_VM_SUPPORT_COMMAND_H_
#define TRAK_TESTS_VM_SUPPORT_COMMAND_H_

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace trak::vmtest {

struct CommandResult {
    int status;          // exit status; 128 + N when killed by signal N, 127 when
                         // not run, 124 when it did not end in time
    std::string output;  // stdout and stderr together
};

// How long a child process may take to end.
inline constexpr std::chrono::seconds kCommandTimeout{120};

// Waits up to `timeout` for the child `pid` to end and returns its status
// as CommandResult::status does. A child that does not end (killed with
// SIGKILL first) is left behind, so that a child stuck in the kernel does
// not stop the tests.
int WaitForChild(pid_t pid, std::chrono::milliseconds timeout);

// Runs `argv` (looked up in PATH) and waits for it.
CommandResult RunCommand(const std::vector<std::string>& argv);

// RunCommand that succeeded, with the command and its output otherwise.
::testing::AssertionResult Succeeds(const std::vector<std::string>& argv);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_COMMAND_H_
