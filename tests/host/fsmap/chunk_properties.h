// The properties every file-system reader must have at every chunk size.
#ifndef TRAK_TESTS_HOST_FSMAP_CHUNK_PROPERTIES_H
#define TRAK_TESTS_HOST_FSMAP_CHUNK_PROPERTIES_H

#include <cstdint>

#include "fsmap_api.h"
#include "oracles.h"

namespace trak::fsmap_test {

// The largest chunk the driver uses.
constexpr uint32_t kMaxChunkSize = 2 * 1024 * 1024;

// Reads `n` chunks from `start` and checks that the reader wrote exactly
// ceil(n / 8) bytes with no bit set past `n`. Stores the result in `rc`.
BlockMap ReadChunks(const trak_blkbmp_reader& reader, void* ctx, uint32_t start,
                    uint32_t chunk_size, uint32_t n, int& rc);

// The whole partition's map at one bit per block, read with a fresh context
// of `reader`, which must recognise `dev` and report `block_size`. A failed
// expectation is reported, and the map is then empty.
BlockMap ReadBlockMap(const trak_blkbmp_reader& reader, block_device* dev, uint32_t block_size,
                      size_t blocks);

// For every chunk size from the block size up to 2 MiB: a chunk is used
// exactly when one of its blocks is used in `blocks`, whether the map is read
// in one call, in portions, or from arbitrary start chunks. `blocks` may be a
// window of the partition from block `first_block`, a multiple of 2 MiB's
// blocks; chunk sizes whose chunk numbers there do not fit 32 bits are
// skipped.
void ExpectChunkMapsAgree(const trak_blkbmp_reader& reader, void* ctx, uint32_t block_size,
                          const BlockMap& blocks, uint64_t first_block = 0);

}  // namespace trak::fsmap_test

#endif
