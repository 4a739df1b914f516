#include "support/command.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <thread>

namespace trak::vmtest {

int WaitForChild(pid_t pid, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    bool killed = false;
    for (;;) {
        int wstatus = 0;
        const pid_t done = waitpid(pid, &wstatus, WNOHANG);
        if (done == pid) {
            return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
        }
        if (done < 0 && errno != EINTR) {
            return 127;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            if (killed) {
                return 124;
            }
            kill(pid, SIGKILL);
            killed = true;
            deadline += std::chrono::seconds(5);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

CommandResult RunCommand(const std::vector<std::string>& argv) {
    std::vector<std::string> copies = argv;
    std::vector<char*> args;
    args.reserve(copies.size() + 1);
    for (std::string& arg : copies) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);

    std::array<int, 2> pipe_fds{};
    if (pipe2(pipe_fds.data(), O_CLOEXEC) != 0) {
        return {127, "pipe failed"};
    }
    const pid_t pid = fork();
    if (pid < 0) {
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        return {127, "fork failed"};
    }
    if (pid == 0) {
        dup2(pipe_fds[1], STDOUT_FILENO);
        dup2(pipe_fds[1], STDERR_FILENO);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(pipe_fds[1]);
    CommandResult result{0, {}};
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t n = read(pipe_fds[0], chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        result.output.append(chunk.data(), static_cast<std::size_t>(n));
    }
    close(pipe_fds[0]);
    result.status = WaitForChild(pid, kCommandTimeout);
    return result;
}

::testing::AssertionResult Succeeds(const std::vector<std::string>& argv) {
    const CommandResult result = RunCommand(argv);
    if (result.status == 0) {
        return ::testing::AssertionSuccess();
    }
    std::string line;
    for (const std::string& arg : argv) {
        line += (line.empty() ? "" : " ") + arg;
    }
    return ::testing::AssertionFailure()
           << "`" << line << "` exited with " << result.status << ":\n"
           << result.output;
}

}  // namespace trak::vmtest
