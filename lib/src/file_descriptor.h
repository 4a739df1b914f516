// Files opened by libtrak: a descriptor closed when it goes out of scope, and
// the error of a failed access.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

namespace trak::detail {

class FileDescriptor {
  public:
    // Opens `path` with `flags` (O_CLOEXEC is added); get() is negative, and
    // errno says why, when that fails.
    FileDescriptor(const std::filesystem::path& path, int flags)
        : fd_(::open(path.c_str(), flags | O_CLOEXEC)) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    FileDescriptor(FileDescriptor&&) = delete;
    FileDescriptor& operator=(FileDescriptor&&) = delete;
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    int get() const noexcept { return fd_; }

  private:
    int fd_;
};

// Throws std::system_error for errno, e.g. "cannot read /x: No such file or
// directory".
[[noreturn]] inline void throw_errno(std::string_view action, const std::filesystem::path& path) {
    throw std::system_error(
        errno, std::generic_category(),
        std::string("cannot ").append(action).append(" ").append(path.string()));
}

}  // namespace trak::detail
