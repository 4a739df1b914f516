// A file descriptor owned by one object and closed when it goes out of
// scope, and the error of a failed access.
#pragma once

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace trak {

class FileDescriptor {
  public:
    FileDescriptor() = default;
    // Takes ownership of `fd`, which may be negative (nothing owned).
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    // Opens `path` with `flags` (O_CLOEXEC is added) and, when O_CREAT makes
    // the file, `mode`; valid() is false, and errno says why, when that fails.
    FileDescriptor(const std::filesystem::path& path, int flags, mode_t mode = 0644)
        : fd_(::open(path.c_str(), flags | O_CLOEXEC, mode)) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    ~FileDescriptor() { reset(); }

    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }

    // Closes the descriptor now; returns close()'s result, which tells
    // whether data written through it reached the file system.
    int reset() noexcept {
        const int result = fd_ >= 0 ? ::close(fd_) : 0;
        fd_ = -1;
        return result;
    }

  private:
    int fd_ = -1;
};

// Throws std::system_error for errno, e.g. "cannot read /x: No such file or
// directory".
[[noreturn]] inline void throw_errno(std::string_view action, const std::filesystem::path& path) {
    throw std::system_error(
        errno, std::generic_category(),
        std::string("cannot ").append(action).append(" ").append(path.string()));
}

// Opens `path` as FileDescriptor does; throws std::system_error naming
// `action` ("read", "write") and the path when that fails.
inline FileDescriptor open_file(const std::filesystem::path& path, int flags,
                                std::string_view action, mode_t mode = 0644) {
    FileDescriptor file(path, flags, mode);
    if (!file.valid()) {
        throw_errno(action, path);
    }
    return file;
}

}  // namespace trak
