// What a snap's COW store must hold whenever the power may fail: every
// chunk of the partition that differs from the snap's image is marked in
// the COW bitmap file, and the COW data file holds the chunk's image at
// the chunk's own offset. A chunk may change on the partition only once
// both are durable.
#ifndef TRAK_TESTS_VM_SUPPORT_COW_INVARIANT_H_
#define TRAK_TESTS_VM_SUPPORT_COW_INVARIANT_H_

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace trak::vmtest {

// The chunks of `chunk_size` bytes in which `partition` differs from
// `snap_image`, ascending.
std::vector<std::uint64_t> ChangedChunks(std::span<const std::uint8_t> partition,
                                         std::span<const std::uint8_t> snap_image,
                                         std::uint32_t chunk_size);

struct UnpreservedChunk {
    std::uint64_t chunk;
    std::string why;  // "bit missing", "no COW bitmap file", "data wrong", ...
};

// The chunks of `changed` that the COW files `cow_bitmap` and `cow_data`
// do not preserve as `snap_image` holds them.
std::vector<UnpreservedChunk> UnpreservedChunks(std::span<const std::uint64_t> changed,
                                                std::span<const std::uint8_t> snap_image,
                                                std::uint32_t chunk_size,
                                                const std::string& cow_bitmap,
                                                const std::string& cow_data);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_COW_INVARIANT_H_
