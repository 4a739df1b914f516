#include "support/proc_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace trak::vmtest {
namespace {

// No entry of the tests is longer; a driver that ignores the file offset
// would otherwise be read forever.
constexpr size_t kMaxFileSize = 1 << 20;

}  // namespace

FileText ReadText(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return {errno, {}};
    }
    FileText result{0, {}};
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t n = read(fd, chunk.data(), chunk.size());
        if (n < 0) {
            result.error = errno;
            break;
        }
        if (n == 0) {
            break;
        }
        result.text.append(chunk.data(), static_cast<size_t>(n));
        if (result.text.size() > kMaxFileSize) {
            result.error = EFBIG;
            break;
        }
    }
    close(fd);
    return result;
}

int WriteText(const std::string& path, std::string_view data) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const ssize_t n = write(fd, data.data(), data.size());
    const int error = n < 0 ? errno : (static_cast<size_t>(n) == data.size() ? 0 : EIO);
    close(fd);
    return error;
}

}  // namespace trak::vmtest
