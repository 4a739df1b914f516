#include "trak/cow_usage.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <span>
#include <stdexcept>
#include <string>

#include "file_descriptor.h"

namespace trak {

namespace {

using detail::FileDescriptor;
using detail::throw_errno;

// The marked chunks of a COW bitmap of `chunks` chunks, read block by block.
class MarkCounter {
  public:
    explicit MarkCounter(std::uint64_t chunks)
        : chunks_(chunks), bytes_(chunks / 8 + (chunks % 8 != 0 ? 1 : 0)) {}

    // Bytes still to be counted.
    std::uint64_t bytes_left() const { return bytes_ - offset_; }

    // Counts the next bytes of the file, at most bytes_left() of them.
    void count(std::span<const std::uint8_t> block) {
        for (const std::uint8_t byte : block) {
            const bool last = ++offset_ == bytes_;
            const std::uint8_t chunk_bits = last ? last_byte_mask() : 0xFFU;
            marked_ += static_cast<std::uint64_t>(
                std::popcount(static_cast<std::uint8_t>(byte & chunk_bits)));
            if (last) {
                last_marked_ = ((byte >> ((chunks_ - 1) % 8)) & 1U) != 0;
            }
        }
    }

    std::uint64_t marked() const { return marked_; }
    // Whether the partition's last chunk is marked.
    bool last_marked() const { return last_marked_; }

  private:
    // The bits of the last byte that are chunks.
    std::uint8_t last_byte_mask() const {
        const std::uint64_t used = chunks_ % 8;
        return used == 0 ? 0xFFU : static_cast<std::uint8_t>((1U << used) - 1U);
    }

    std::uint64_t chunks_;
    std::uint64_t bytes_;
    std::uint64_t offset_ = 0;
    std::uint64_t marked_ = 0;
    bool last_marked_ = false;
};

void check_length(int fd, const std::filesystem::path& path, const SnapInfo& snap) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        throw_errno("read", path);
    }
    if (static_cast<std::uint64_t>(status.st_size) != snap.cow_bmp_size) {
        throw std::runtime_error(path.string() + " holds " + std::to_string(status.st_size) +
                                 " bytes, not the " + std::to_string(snap.cow_bmp_size) +
                                 " bytes of the COW bitmap of a snap of " +
                                 std::to_string(snap.cow_chunks) + " chunks");
    }
}

}  // namespace

CowUsage cow_usage(const SnapInfo& snap, std::uint64_t dev_size) {
    const std::filesystem::path path(snap.cow_bmp_fname);
    const FileDescriptor file(path, O_RDONLY);
    if (file.get() < 0) {
        throw_errno("read", path);
    }
    check_length(file.get(), path, snap);
    MarkCounter counter(snap.cow_chunks);
    std::array<std::uint8_t, 65536> block{};
    while (counter.bytes_left() > 0) {
        const std::size_t wanted = std::min<std::uint64_t>(block.size(), counter.bytes_left());
        const ssize_t got = ::read(file.get(), block.data(), wanted);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw_errno("read", path);
        }
        if (got == 0) {
            throw std::runtime_error(path.string() + " was cut short while it was read");
        }
        counter.count(std::span(block).first(static_cast<std::size_t>(got)));
    }
    const std::uint64_t chunk_size = snap.chunk_size;
    std::uint64_t bytes = counter.marked() * chunk_size;
    const std::uint64_t covered = std::uint64_t{snap.cow_chunks} * chunk_size;
    if (counter.last_marked() && dev_size < covered) {
        bytes -= covered - dev_size;
    }
    return {.chunks = counter.marked(), .bytes = bytes};
}

}  // namespace trak
