#include "command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace bench {

namespace {

// A pipe whose ends close when it goes out of scope.
class Pipe {
  public:
    Pipe() {
        if (::pipe2(fds_.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    Pipe(Pipe&&) = delete;
    Pipe& operator=(Pipe&&) = delete;
    ~Pipe() {
        close_read();
        close_write();
    }

    int read_end() const { return fds_[0]; }
    int write_end() const { return fds_[1]; }
    void close_read() { close_end(fds_[0]); }
    void close_write() { close_end(fds_[1]); }

  private:
    static void close_end(int& fd) {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }

    std::array<int, 2> fds_{-1, -1};
};

std::string read_all(int fd) {
    std::string text;
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t got = ::read(fd, chunk.data(), chunk.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return text;
        }
        text.append(chunk.data(), static_cast<std::size_t>(got));
    }
}

std::string joined(const std::vector<std::string>& argv) {
    std::string text;
    for (const std::string& arg : argv) {
        text.append(text.empty() ? "" : " ").append(arg);
    }
    return text;
}

}  // namespace

std::string run_command(const std::vector<std::string>& argv) {
    Pipe out;
    Pipe err;
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out.write_end(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.write_end(), STDERR_FILENO);
    std::vector<std::string> strings = argv;
    std::vector<char*> args;
    args.reserve(strings.size() + 1);
    for (std::string& arg : strings) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);
    pid_t pid = 0;
    const int spawned = ::posix_spawnp(&pid, args.front(), &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        throw std::system_error(spawned, std::generic_category(), "cannot run " + argv.front());
    }
    out.close_write();
    err.close_write();
    // fio and dmsetup write little to stderr: reading stdout first cannot
    // fill the other pipe.
    std::string output = read_all(out.read_end());
    const std::string errors = read_all(err.read_end());
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("'" + joined(argv) + "' failed: " + errors);
    }
    return output;
}

void load_module(const std::filesystem::path& module) {
    std::string depends = run_command({"modinfo", "-F", "depends", module.string()});
    std::replace(depends.begin(), depends.end(), ',', ' ');
    std::istringstream names(depends);
    for (std::string name; names >> name;) {
        run_command({"modprobe", name});
    }
    run_command({"insmod", module.string()});
}

}  // namespace bench
