// Allocation maps as the file systems' own tools report them: the
// independent reference that the readers are checked against.
#ifndef TRAK_TESTS_HOST_FSMAP_ORACLES_H
#define TRAK_TESTS_HOST_FSMAP_ORACLES_H

#include <cstdint>
#include <string>
#include <vector>

namespace trak::fsmap_test {

// One entry per block of the partition: whether the reader must report it as
// used at a chunk size of one block.
using BlockMap = std::vector<bool>;

struct ExtLayout {
    uint32_t block_size = 0;
    uint32_t cluster_size = 0;  // the block size unless bigalloc
    uint64_t block_count = 0;
    uint32_t first_block = 0;
    uint32_t blocks_per_group = 0;
    uint32_t groups = 0;
    std::vector<uint32_t> group_free;  // free clusters of each group
    uint32_t uninit_groups = 0;        // whose block bitmap was never written
    uint32_t bitmaps_elsewhere = 0;    // groups whose block bitmap another holds
    // Blocks [first, first + used.size()): blocks 0 to the first data block
    // are used; blocks past the file system are clear; the rest are used
    // unless dumpe2fs lists them free.
    uint64_t first = 0;
    BlockMap used;
};
// `blocks` blocks from block `first`. Only the lines it needs are taken from
// dumpe2fs, which lists every group: on a file system of 2^32 blocks that
// is 60 MB of text.
ExtLayout DumpE2fs(const std::string& image, uint64_t blocks, uint64_t first = 0);

struct XfsAgf {
    uint32_t length = 0;
    uint32_t bnoroot = 0;
    uint32_t cntroot = 0;
    uint32_t bnolevel = 0;
    uint32_t cntlevel = 0;
    uint32_t freeblks = 0;
};
struct XfsLayout {
    uint32_t block_size = 0;
    uint32_t sector_size = 0;
    uint32_t agblocks = 0;
    uint32_t agcount = 0;
    std::vector<XfsAgf> agf;
    // Free only where a record of the by-block free-space tree (as xfs_db
    // dumps it) covers the block; clear past agcount * agblocks.
    BlockMap used;
};
XfsLayout XfsDb(const std::string& image, uint64_t partition_blocks);

struct ReiserfsLayout {
    uint32_t block_size = 0;
    uint32_t block_count = 0;
    uint32_t free_blocks = 0;
    uint32_t bitmaps = 0;
    std::vector<uint64_t> bitmap_blocks;
    // Used unless debugreiserfs -m lists the block free; clear past the end.
    BlockMap used;
};
ReiserfsLayout DebugReiserfs(const std::string& image, uint64_t partition_blocks);

// Chunk c of the result is used when any block of [c * k, (c + 1) * k) is.
BlockMap Downsample(const BlockMap& blocks, uint64_t k);

// The first `n` chunk bits of a buffer in the driver's bit order.
BlockMap BitsOf(const uint8_t* bits, uint64_t n);

// "" when equal, else where and how the two maps first differ.
std::string Difference(const BlockMap& actual, const BlockMap& expected);

}  // namespace trak::fsmap_test

#endif
