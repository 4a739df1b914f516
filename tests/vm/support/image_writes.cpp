#include "support/image_writes.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <set>

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kSector = 512;

// Lengths in bytes and how often each is drawn: mostly small writes, some
// of a few chunks, a few of 1 MiB.
struct SizeClass {
    std::uint32_t bytes;
    int weight;
};
constexpr std::array<SizeClass, 7> kSizes = {
    {{512, 6}, {3 * 512, 3}, {4096, 4}, {3 * 4096, 3}, {65536, 2}, {3 * 65536, 1}, {1 << 20, 1}}};

std::uint32_t DrawSize(std::mt19937& random) {
    int total = 0;
    for (const SizeClass& size : kSizes) {
        total += size.weight;
    }
    int pick = std::uniform_int_distribution<int>(0, total - 1)(random);
    for (const SizeClass& size : kSizes) {
        if (pick < size.weight) {
            return size.bytes;
        }
        pick -= size.weight;
    }
    return kSizes.back().bytes;
}

std::uint64_t Between(std::mt19937& random, std::uint64_t low, std::uint64_t high) {
    return std::uniform_int_distribution<std::uint64_t>(low, high)(random);
}

// An offset for a write of `size` bytes: a lone sector off the 4096-byte
// grid, or (every other longer write) one that crosses a chunk boundary.
std::uint64_t DrawOffset(std::mt19937& random, std::uint64_t image_size, std::uint32_t chunk_size,
                         std::uint32_t size, bool across) {
    const std::uint64_t last_sector = (image_size - size) / kSector;
    if (size == kSector) {
        std::uint64_t sector = Between(random, 0, last_sector);
        if (sector % 8 == 0 && sector < last_sector) {
            ++sector;
        } else if (sector % 8 == 0) {
            --sector;
        }
        return sector * kSector;
    }
    const std::uint64_t chunks = image_size / chunk_size;
    if (across && chunks > 1 && size < image_size) {
        const std::uint64_t boundary = Between(random, 1, chunks - 1) * chunk_size;
        const std::uint64_t before = Between(random, 1, size / kSector - 1) * kSector;
        const std::uint64_t offset = boundary - std::min(before, boundary);
        return std::min(offset, last_sector * kSector);
    }
    return Between(random, 0, last_sector) * kSector;
}

}  // namespace

std::vector<std::uint8_t> RandomBytes(std::size_t size, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; i += 4) {
        const std::uint32_t word = random();
        std::memcpy(bytes.data() + i, &word, std::min<std::size_t>(4, size - i));
    }
    return bytes;
}

std::vector<ImageWrite> MixedWrites(std::uint64_t image_size, std::uint32_t chunk_size, int count,
                                    std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<ImageWrite> writes;
    bool across = false;
    for (int i = 0; i < count; ++i) {
        const std::uint32_t size =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(DrawSize(random), image_size));
        if (size > kSector) {
            across = !across;
        }
        const std::uint64_t offset = DrawOffset(random, image_size, chunk_size, size, across);
        writes.push_back({offset, RandomBytes(size, random())});
    }
    return writes;
}

::testing::AssertionResult WriteAll(const DirectWriter& writer, std::span<const ImageWrite> writes,
                                    std::vector<std::uint8_t>& image) {
    for (std::size_t i = 0; i < writes.size(); ++i) {
        const ImageWrite& write = writes[i];
        if (const int error = writer.Write(write.offset, write.bytes); error != 0) {
            return ::testing::AssertionFailure()
                   << "write " << i << " of " << writes.size() << " (" << write.bytes.size()
                   << " bytes at " << write.offset << ") failed: " << std::strerror(error);
        }
        std::copy(write.bytes.begin(), write.bytes.end(),
                  image.begin() + static_cast<std::ptrdiff_t>(write.offset));
    }
    return ::testing::AssertionSuccess();
}

std::vector<std::uint64_t> TouchedChunks(std::span<const ImageWrite> writes,
                                         std::uint32_t chunk_size) {
    std::set<std::uint64_t> chunks;
    for (const ImageWrite& write : writes) {
        const std::uint64_t last = (write.offset + write.bytes.size() - 1) / chunk_size;
        for (std::uint64_t c = write.offset / chunk_size; c <= last; ++c) {
            chunks.insert(c);
        }
    }
    return {chunks.begin(), chunks.end()};
}

}  // namespace trak::vmtest
