#include "raw_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <system_error>

namespace trakctl {

namespace {

// Closes a file descriptor when it goes out of scope.
class OpenFile {
  public:
    OpenFile(const std::filesystem::path& path, int flags, std::string_view action)
        : fd_(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {
        if (fd_ < 0) {
            fail(action, path);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    OpenFile(OpenFile&&) = delete;
    OpenFile& operator=(OpenFile&&) = delete;
    ~OpenFile() { ::close(fd_); }

    int get() const noexcept { return fd_; }

    [[noreturn]] static void fail(std::string_view action, const std::filesystem::path& path) {
        throw std::system_error(
            errno, std::generic_category(),
            std::string("cannot ").append(action).append(" ").append(path.string()));
    }

  private:
    int fd_;
};

}  // namespace

std::vector<std::uint8_t> read_raw_file(const std::filesystem::path& path) {
    const OpenFile file(path, O_RDONLY, "read");
    std::vector<std::uint8_t> bytes;
    std::array<std::uint8_t, 65536> chunk{};
    for (;;) {
        const ssize_t got = ::read(file.get(), chunk.data(), chunk.size());
        if (got < 0) {
            OpenFile::fail("read", path);
        }
        if (got == 0) {
            return bytes;
        }
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + got);
    }
}

void write_raw_file(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) {
    const OpenFile file(path, O_WRONLY | O_CREAT | O_TRUNC, "write");
    while (!bytes.empty()) {
        const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
        if (written < 0) {
            OpenFile::fail("write", path);
        }
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
}

}  // namespace trakctl
