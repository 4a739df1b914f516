#include "support/bitmap_follower.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <vector>

#include "support/extent_bits.h"
#include "support/raw_disk.h"

namespace trak::vmtest {
namespace {

constexpr std::size_t kBlock = 4096;
constexpr std::chrono::milliseconds kPollInterval{1};

}  // namespace

BitmapFollower::BitmapFollower(std::string cow_bitmap, std::string filter_device,
                               std::uint32_t chunk_size, std::uint32_t seed)
    : cow_bitmap_(std::move(cow_bitmap)),
      filter_device_(std::move(filter_device)),
      chunk_size_(chunk_size),
      seed_(seed) {}

BitmapFollower::~BitmapFollower() { Stop(); }

void BitmapFollower::Start() {
    stop_ = false;
    thread_ = std::thread([this] { Run(); });
}

std::string BitmapFollower::Stop() {
    stop_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    return failure_;
}

void BitmapFollower::Run() {
    const DirectWriter writer(filter_device_);
    // Buffered reads: they see the file's page cache, where kcowd's
    // marks appear at once, durable or not.
    const int fd = open(cow_bitmap_.c_str(), O_RDONLY | O_CLOEXEC);
    if (writer.error() != 0 || fd < 0) {
        failure_ = "opening " + (fd < 0 ? cow_bitmap_ : filter_device_) + ": " +
                   std::strerror(fd < 0 ? errno : writer.error());
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    std::mt19937 random(seed_);
    std::uniform_int_distribution<std::uint64_t> block_in_chunk(0, chunk_size_ / kBlock - 1);
    std::vector<std::uint8_t> seen;
    std::vector<std::uint8_t> now(kBlock);
    while (!stop_ && failure_.empty()) {
        const ssize_t n = pread(fd, now.data(), now.size(), 0);
        if (n < 0) {
            failure_ = "reading " + cow_bitmap_ + ": " + std::strerror(errno);
            break;
        }
        seen.resize(static_cast<std::size_t>(n), 0);
        const std::span<const std::uint8_t> bits(now.data(), static_cast<std::size_t>(n));
        for (const std::uint64_t chunk : SetExtents(bits)) {
            if (ExtentBit(seen, chunk)) {
                continue;
            }
            SetExtentBit(seen, chunk);
            const std::uint64_t offset = chunk * chunk_size_ + block_in_chunk(random) * kBlock;
            if (const int error = writer.Fill(offset, kBlock, kFill); error != 0) {
                failure_ = "writing the block at byte " + std::to_string(offset) + " of " +
                           filter_device_ + ": " + std::strerror(error);
                break;
            }
            ++writes_;
        }
        std::this_thread::sleep_for(kPollInterval);
    }
    close(fd);
}

}  // namespace trak::vmtest
