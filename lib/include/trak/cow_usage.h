// How much of a snap's COW store holds preserved chunks, counted from the
// snap's COW bitmap file.
#pragma once

#include <cstdint>

#include "trak/types.h"

namespace trak {

struct CowUsage {
    std::uint64_t chunks{};  // chunks preserved so far
    std::uint64_t bytes{};   // the bytes of the partition that those chunks hold
};

// Counts the chunks marked in the COW bitmap file of `snap` (cow_bmp_fname),
// which the driver updates as it preserves chunks: no header, byte k holds
// chunks 8k to 8k + 7, the least significant bit the lowest chunk. Bits past
// cow_chunks are not chunks. The last chunk of a partition of `dev_size`
// bytes may hold fewer than chunk_size bytes of it.
// Throws std::system_error when the file cannot be read, and
// std::runtime_error when it does not hold exactly cow_bmp_size bytes (the
// driver makes it that long before it marks anything), since its bits would
// then not be the snap's chunks.
CowUsage cow_usage(const SnapInfo& snap, std::uint64_t dev_size);

}  // namespace trak
