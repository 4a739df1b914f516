#include "support/cow_invariant.h"

#include <algorithm>
#include <cstring>

#include "support/device_image.h"
#include "support/extent_bits.h"

namespace trak::vmtest {

std::vector<std::uint64_t> ChangedChunks(std::span<const std::uint8_t> partition,
                                         std::span<const std::uint8_t> snap_image,
                                         std::uint32_t chunk_size) {
    std::vector<std::uint64_t> changed;
    for (std::size_t at = 0; at < snap_image.size(); at += chunk_size) {
        const std::size_t n = std::min<std::size_t>(chunk_size, snap_image.size() - at);
        if (std::memcmp(partition.data() + at, snap_image.data() + at, n) != 0) {
            changed.push_back(at / chunk_size);
        }
    }
    return changed;
}

std::vector<UnpreservedChunk> UnpreservedChunks(std::span<const std::uint64_t> changed,
                                                std::span<const std::uint8_t> snap_image,
                                                std::uint32_t chunk_size,
                                                const std::string& cow_bitmap,
                                                const std::string& cow_data) {
    std::vector<UnpreservedChunk> unpreserved;
    if (changed.empty()) {
        return unpreserved;
    }
    const ReadBack bitmap = ReadWholeFile(cow_bitmap);
    for (const std::uint64_t chunk : changed) {
        if (bitmap.error != 0) {
            unpreserved.push_back(
                {chunk, std::string("no COW bitmap file (") + std::strerror(bitmap.error) + ")"});
            continue;
        }
        if (chunk / 8 >= bitmap.bytes.size()) {
            unpreserved.push_back({chunk, "the COW bitmap file is too short for its bit"});
            continue;
        }
        if (!ExtentBit(bitmap.bytes, chunk)) {
            unpreserved.push_back({chunk, "bit missing"});
            continue;
        }
        const std::uint64_t offset = chunk * chunk_size;
        const std::size_t length = std::min<std::size_t>(chunk_size, snap_image.size() - offset);
        const ReadBack data = ReadBytes(cow_data, offset, length, ReadMode::kBuffered);
        if (data.error != 0) {
            unpreserved.push_back(
                {chunk, std::string("bit set, but the COW data file has no copy (") +
                            std::strerror(data.error) + ")"});
        } else if (!std::equal(data.bytes.begin(), data.bytes.end(),
                               snap_image.begin() + static_cast<std::ptrdiff_t>(offset))) {
            unpreserved.push_back({chunk, "bit set, but the COW data file holds other data"});
        }
    }
    return unpreserved;
}

}  // namespace trak::vmtest
