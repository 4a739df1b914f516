#include "support/child_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "support/command.h"

namespace trak::vmtest {

::testing::AssertionResult FinishesInChild(const std::function<std::string()>& body,
                                           std::chrono::seconds timeout) {
    std::array<int, 2> pipe_fds{};
    if (pipe2(pipe_fds.data(), O_CLOEXEC) != 0) {
        return ::testing::AssertionFailure() << "pipe failed";
    }
    const pid_t pid = fork();
    if (pid < 0) {
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        return ::testing::AssertionFailure() << "fork failed";
    }
    if (pid == 0) {
        close(pipe_fds[0]);
        const std::string failure = body();
        std::size_t done = 0;
        while (done < failure.size()) {
            const ssize_t n = write(pipe_fds[1], failure.data() + done, failure.size() - done);
            if (n <= 0) {
                break;
            }
            done += static_cast<std::size_t>(n);
        }
        _exit(failure.empty() ? 0 : 1);
    }
    close(pipe_fds[1]);
    const int status = WaitForChild(pid, timeout);
    // The child has ended: what it wrote is all in the pipe (the first
    // 4096 bytes of it are plenty to say what went wrong).
    std::array<char, 4096> message{};
    const ssize_t length = status == 124 ? 0 : read(pipe_fds[0], message.data(), message.size());
    const std::string failure(message.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    close(pipe_fds[0]);
    if (status == 0) {
        return ::testing::AssertionSuccess();
    }
    if (status == 124 || status == 128 + 9) {
        return ::testing::AssertionFailure()
               << "did not finish within " << timeout.count() << " s (hung)";
    }
    return ::testing::AssertionFailure()
           << (failure.empty() ? "the child exited with " + std::to_string(status) : failure);
}

}  // namespace trak::vmtest
