#include "support/fs_workload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <vector>

namespace trak::vmtest {
namespace {

class Workload {
  public:
    Workload(std::string dir, const WorkloadSize& size, std::uint32_t seed)
        : dir_(std::move(dir)), size_(size), random_(seed) {}

    ::testing::AssertionResult Run() {
        const int files = size_.files;
        // Creates, every third one synced.
        for (int i = 0; i < files; ++i) {
            const std::uint32_t bytes = Between(1, size_.max_file_bytes);
            if (!Write(Name(i), O_CREAT | O_TRUNC, 0, bytes, i % 3 == 0)) {
                return Failed();
            }
        }
        // Overwrites inside the first half, synced.
        for (int i = 0; i < files / 2; ++i) {
            const off_t at = Between(0, size_.max_file_bytes / 2);
            if (!Write(Name(i), 0, at, Between(1, 65536), true)) {
                return Failed();
            }
        }
        // Appends to the second half, not synced.
        for (int i = files / 2; i < files; ++i) {
            if (!Write(Name(i), O_APPEND, 0, Between(1, 131072), false)) {
                return Failed();
            }
        }
        // Truncates, renames and deletes among the first quarter.
        for (int i = 0; i < files / 4; ++i) {
            const std::string name = Name(i);
            bool ok = true;
            switch (i % 3) {
                case 0:
                    ok = truncate(name.c_str(), Between(0, 4096)) == 0;
                    break;
                case 1:
                    ok = rename(name.c_str(), (name + ".moved").c_str()) == 0;
                    break;
                default:
                    ok = unlink(name.c_str()) == 0;
                    break;
            }
            if (!ok) {
                return Failed(name);
            }
        }
        // Many small files in a subdirectory, then half of them deleted.
        const std::string sub = dir_ + "/small";
        if (mkdir(sub.c_str(), 0755) != 0) {
            return Failed(sub);
        }
        for (int i = 0; i < files * 2; ++i) {
            if (!Write(sub + "/s" + std::to_string(i), O_CREAT | O_TRUNC, 0, Between(1, 300),
                       false)) {
                return Failed();
            }
        }
        for (int i = 0; i < files * 2; i += 2) {
            const std::string name = sub + "/s" + std::to_string(i);
            if (unlink(name.c_str()) != 0) {
                return Failed(name);
            }
        }
        const int fd = open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0 || syncfs(fd) != 0) {
            return Failed(dir_);
        }
        close(fd);
        return ::testing::AssertionSuccess();
    }

  private:
    std::uint32_t Between(std::uint32_t low, std::uint32_t high) {
        return std::uniform_int_distribution<std::uint32_t>(low, high)(random_);
    }

    [[nodiscard]] std::string Name(int i) const { return dir_ + "/f" + std::to_string(i); }

    bool Write(const std::string& name, int flags, off_t at, std::uint32_t bytes, bool sync) {
        failed_ = name;
        std::vector<std::uint8_t> data(bytes);
        for (std::size_t i = 0; i < data.size(); i += 4) {
            const std::uint32_t word = random_();
            std::memcpy(data.data() + i, &word, std::min<std::size_t>(4, data.size() - i));
        }
        const int fd = open(name.c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
        if (fd < 0) {
            return false;
        }
        const ssize_t n = (flags & O_APPEND) != 0 ? write(fd, data.data(), data.size())
                                                  : pwrite(fd, data.data(), data.size(), at);
        const bool ok = n == static_cast<ssize_t>(data.size()) && (!sync || fsync(fd) == 0);
        const int error = errno;
        close(fd);
        errno = error;
        return ok;
    }

    ::testing::AssertionResult Failed(const std::string& name = {}) const {
        return ::testing::AssertionFailure()
               << (name.empty() ? failed_ : name) << ": " << std::strerror(errno);
    }

    std::string dir_;
    WorkloadSize size_;
    std::mt19937 random_;
    std::string failed_;
};

}  // namespace

::testing::AssertionResult RunMixedWorkload(const std::string& dir, const WorkloadSize& size,
                                            std::uint32_t seed) {
    return Workload(dir, size, seed).Run();
}

}  // namespace trak::vmtest
