#include "first_write.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <system_error>

namespace cbt {

namespace {

constexpr std::size_t kBlock = 4096;

// An O_DIRECT descriptor, closed when it goes out of scope.
class DirectDevice {
  public:
    explicit DirectDevice(const std::string& path)
        : fd_(::open(path.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC)) {
        if (fd_ < 0) {
            throw std::system_error(errno, std::generic_category(), "open " + path);
        }
    }
    DirectDevice(const DirectDevice&) = delete;
    DirectDevice& operator=(const DirectDevice&) = delete;
    DirectDevice(DirectDevice&&) = delete;
    DirectDevice& operator=(DirectDevice&&) = delete;
    ~DirectDevice() { ::close(fd_); }

    // Milliseconds that one write of `block` at `offset` took.
    double timed_write(const void* block, std::uint64_t offset) const {
        const auto start = std::chrono::steady_clock::now();
        if (::pwrite(fd_, block, kBlock, static_cast<off_t>(offset)) !=
            static_cast<ssize_t>(kBlock)) {
            throw std::system_error(errno, std::generic_category(), "pwrite");
        }
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
            .count();
    }

  private:
    int fd_;
};

}  // namespace

WritePair time_write_pair(const std::string& device, std::uint64_t first, std::uint64_t next) {
    const std::unique_ptr<void, decltype(&std::free)> block(std::aligned_alloc(kBlock, kBlock),
                                                            &std::free);
    if (!block) {
        throw std::bad_alloc();
    }
    std::fill_n(static_cast<char*>(block.get()), kBlock, 0x5A);
    const DirectDevice target(device);
    const double first_ms = target.timed_write(block.get(), first);
    return {.first_ms = first_ms, .next_ms = target.timed_write(block.get(), next)};
}

}  // namespace cbt
