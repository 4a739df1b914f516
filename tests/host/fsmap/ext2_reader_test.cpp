// The ext2/ext3 reader against dumpe2fs, on images made by mkfs.ext2/ext3.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "captured_log.h"
#include "chunk_properties.h"
#include "fsmap_api.h"
#include "images.h"
#include "opened_image.h"
#include "oracles.h"

namespace trak::fsmap_test {
namespace {

using host::LogLine;
using host::OpenedImage;
using host::TakeLog;

constexpr uint64_t kMiB = uint64_t{1024} * 1024;
constexpr uint32_t kDescSize = 32;
constexpr uint32_t kDescFreeBlocks = 12;
constexpr uint64_t kSuperblock = 1024;
constexpr uint64_t kSbBlocksPerGroup = 32;
constexpr uint64_t kSbIncompat = 96;
constexpr uint64_t kSbRoCompat = 100;

// Sets `bits` in byte `byte` of the 32-bit superblock field at `field`;
// returns the field as it was.
std::vector<uint8_t> SetSuperblockBits(const std::string& image, uint64_t field, size_t byte,
                                       uint8_t bits) {
    std::vector<uint8_t> was = ReadBytes(image, kSuperblock + field, 4);
    std::vector<uint8_t> set = was;
    set.at(byte) |= bits;
    WriteBytes(image, kSuperblock + field, set);
    return was;
}

// A group spans 8 * block size blocks: 8, 32 or 128 MiB. The images hold
// three or four groups, the last one shorter with 1 KiB blocks.
uint64_t ImageBytes(uint32_t block_size) {
    switch (block_size) {
        case 1024:
            return 30 * kMiB;
        case 2048:
            return 96 * kMiB;
        default:
            return 384 * kMiB;
    }
}

class Ext2Reader : public testing::TestWithParam<std::tuple<std::string, uint32_t>> {
  protected:
    void SetUp() override {
        const auto& [fs_type, block_size] = GetParam();
        image_ = MakeExtImage(dir_, fs_type, block_size, ImageBytes(block_size));
        TakeLog();
    }

    ScratchDir dir_;
    std::string image_;
};

TEST_P(Ext2Reader, BlockMapEqualsDumpe2fs) {
    const uint32_t block_size = std::get<1>(GetParam());
    OpenedImage dev(image_);
    const ExtLayout ext = DumpE2fs(image_, dev.size() / block_size);
    ASSERT_GE(ext.groups, 3U);

    const BlockMap map = ReadBlockMap(trak_ext2_reader, dev.get(), block_size, ext.used.size());
    ASSERT_FALSE(map.empty());
    EXPECT_EQ(Difference(map, ext.used), "");
    EXPECT_TRUE(map[0]) << "the boot block is always used";
}

TEST_P(Ext2Reader, ChunkMapsAgreeWithBlockMap) {
    const uint32_t block_size = std::get<1>(GetParam());
    OpenedImage dev(image_);
    const ExtLayout ext = DumpE2fs(image_, dev.size() / block_size);
    void* ctx = trak_ext2_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    ExpectChunkMapsAgree(trak_ext2_reader, ctx, block_size, ext.used);
    trak_ext2_reader.destroy(ctx);
    for (const LogLine& line : TakeLog()) {
        EXPECT_NE(line.level, TRAK_LOG_ERR) << line;
    }
}

TEST_P(Ext2Reader, LogsTheGeometryItRecognised) {
    const uint32_t block_size = std::get<1>(GetParam());
    OpenedImage dev(image_);
    const ExtLayout ext = DumpE2fs(image_, dev.size() / block_size);
    void* ctx = trak_ext2_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    trak_ext2_reader.destroy(ctx);

    const uint32_t desc_blocks =
        (ext.groups + block_size / kDescSize - 1) / (block_size / kDescSize);
    const uint64_t mib = static_cast<uint64_t>(ext.block_count) * block_size / kMiB;
    const std::vector<LogLine> expected = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {2, "   magic=0xef53"},
        {2, "   block_size=" + std::to_string(block_size)},
        {2,
         "   blocks_count=" + std::to_string(ext.block_count) + " (" + std::to_string(mib) + "MB)"},
        {2, "   blocks_per_group=" + std::to_string(ext.blocks_per_group)},
        {2, "   group_desc_count=" + std::to_string(ext.groups)},
        {2, "   desc_blocks=" + std::to_string(desc_blocks)},
    };
    EXPECT_EQ(TakeLog(), expected);
}

INSTANTIATE_TEST_SUITE_P(Geometries, Ext2Reader,
                         testing::Combine(testing::Values("ext2", "ext3"),
                                          testing::Values(1024U, 2048U, 4096U)),
                         [](const auto& info) {
                             return std::get<0>(info.param) + "_" +
                                    std::to_string(std::get<1>(info.param));
                         });

class Ext2ReaderEdges : public testing::Test {
  protected:
    void SetUp() override { TakeLog(); }
    ScratchDir dir_;
};

TEST_F(Ext2ReaderEdges, RefusesChunkSizesNotPowersOfTwoOrBelowTheBlockSize) {
    const std::string image = MakeExtImage(dir_, "ext2", 2048, 64 * kMiB);
    OpenedImage dev(image);
    void* ctx = trak_ext2_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    TakeLog();
    std::vector<u64> bits(4);
    EXPECT_EQ(trak_ext2_reader.read(ctx, 0, 3, bits.data(), 8), -EINVAL);
    EXPECT_EQ(trak_ext2_reader.read(ctx, 0, 1, bits.data(), 8), -EINVAL);
    EXPECT_EQ(trak_ext2_reader.read(ctx, 0, 1024, bits.data(), 8), -EINVAL);
    EXPECT_EQ(trak_ext2_reader.read(ctx, 0, 2048, bits.data(), 8), 0);
    trak_ext2_reader.destroy(ctx);
    const std::vector<LogLine> expected = {
        {TRAK_LOG_ERR, "ext2_reader_read(): Chunk size (3) must be a power of 2."},
        {TRAK_LOG_ERR, "ext2_reader_read(): Chunk size (1) must be a power of 2."},
        {TRAK_LOG_ERR,
         "ext2_reader_read(): Chunk size (1024) is smaller than FS block size (2048)."},
    };
    EXPECT_EQ(TakeLog(), expected);
}

// Such file systems scatter their descriptors, which the reader does not
// follow.
class Ext2ReaderMetaBg : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override { TakeLog(); }
    ScratchDir dir_;
};

TEST_P(Ext2ReaderMetaBg, RefusesMetaBlockGroups) {
    const std::string image =
        MakeExtImage(dir_, GetParam(), 1024, 32 * kMiB, 0, "-O meta_bg,^resize_inode");
    OpenedImage dev(image);
    uint32_t block_size = 0;
    EXPECT_EQ(trak_ext2_reader.init(dev.get(), &block_size), nullptr);
    EXPECT_EQ(block_size, 1024U) << "the block size is returned before the checks";
    const std::vector<LogLine> expected = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {TRAK_LOG_ERR,
         "ext2_reader_init(): Sorry, we don't support ext2/ext3 with meta block groups."},
    };
    EXPECT_EQ(TakeLog(), expected);
}

INSTANTIATE_TEST_SUITE_P(FileSystems, Ext2ReaderMetaBg, testing::Values("ext3", "ext4"));

// A journal device has no inodes: the first check already refuses it.
TEST_F(Ext2ReaderEdges, RefusesAJournalDevice) {
    const std::string image = MakeBlankImage(dir_, "journal.img", 64 * kMiB);
    fsmap_test::Run("mke2fs -q -F -O journal_dev -b 4096 " + image);
    OpenedImage dev(image);
    EXPECT_EQ(trak_ext2_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> expected = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {TRAK_LOG_ERR, "ext2_reader_init(): Superblock of hdd(7, 3) is corrupt."},
    };
    EXPECT_EQ(TakeLog(), expected);
}

// What changes how descriptors or block bitmaps must be read, and that the
// reader does not follow, is refused by name; the map then stays invalid
// rather than calling used blocks free.
TEST_F(Ext2ReaderEdges, RefusesCompressionBeforeCheckingTheChecksum) {
    const std::string image = MakeExtImage(dir_, "ext4", 4096, 64 * kMiB);
    SetSuperblockBits(image, kSbIncompat, 0, 0x01);
    OpenedImage dev(image);
    EXPECT_EQ(trak_ext2_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> expected = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {TRAK_LOG_ERR,
         "ext2_reader_init(): Sorry, we don't support ext2/ext3 with compression on hdd(7, 3)."},
    };
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(Ext2ReaderEdges, RefusesFeatureBitsItDoesNotKnow) {
    const std::string image = MakeExtImage(dir_, "ext2", 1024, 32 * kMiB);
    const std::vector<uint8_t> incompat = SetSuperblockBits(image, kSbIncompat, 3, 0x80);
    {
        OpenedImage dev(image);
        EXPECT_EQ(trak_ext2_reader.init(dev.get(), nullptr), nullptr);
    }
    WriteBytes(image, kSuperblock + kSbIncompat, incompat);
    SetSuperblockBits(image, kSbRoCompat, 3, 0x40);
    {
        OpenedImage dev(image);
        EXPECT_EQ(trak_ext2_reader.init(dev.get(), nullptr), nullptr);
    }
    const std::vector<LogLine> expected = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {TRAK_LOG_ERR,
         "ext2_reader_init(): Sorry, we don't support ext2/ext3 with incompat 0x80000000 on "
         "hdd(7, 3)."},
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {TRAK_LOG_ERR,
         "ext2_reader_init(): Sorry, we don't support ext2/ext3 with ro_compat 0x40000000 on "
         "hdd(7, 3)."},
    };
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(Ext2ReaderEdges, RefusesASuperblockWithoutBlocksPerGroup) {
    const std::string image = MakeExtImage(dir_, "ext2", 1024, 32 * kMiB);
    WriteBytes(image, kSuperblock + kSbBlocksPerGroup, {0, 0, 0, 0});
    OpenedImage dev(image);
    EXPECT_EQ(trak_ext2_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> expected = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {TRAK_LOG_ERR, "ext2_reader_init(): Superblock of hdd(7, 3) is corrupt."},
    };
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(Ext2ReaderEdges, DoesNotRecogniseAnImageWithoutTheMagic) {
    OpenedImage dev(MakeBlankImage(dir_, "blank.img", 8 * kMiB));
    EXPECT_EQ(trak_ext2_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> expected = {
        {3, "ext2_reader_init(): hdd(7, 3) doesn't have ext2/ext3 FS."}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(Ext2ReaderEdges, CountsAGroupWhoseFreeCountDisagreesAsAllUsed) {
    const uint32_t block_size = 1024;
    const std::string image = MakeExtImage(dir_, "ext2", block_size, 32 * kMiB);
    const uint64_t blocks = 32 * kMiB / block_size;
    const ExtLayout ext = DumpE2fs(image, blocks);
    ASSERT_GT(ext.group_free[1], 0U);
    // Group 1's descriptor, in the table that starts after block 1.
    const uint64_t desc = 2 * block_size + kDescSize + kDescFreeBlocks;
    const uint32_t wrong = ext.group_free[1] + 1;
    WriteBytes(image, desc, {static_cast<uint8_t>(wrong), static_cast<uint8_t>(wrong >> 8)});

    OpenedImage dev(image);
    void* ctx = trak_ext2_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    TakeLog();
    int rc = 0;
    const BlockMap map =
        ReadChunks(trak_ext2_reader, ctx, 0, block_size, static_cast<uint32_t>(blocks), rc);
    trak_ext2_reader.destroy(ctx);
    ASSERT_EQ(rc, 0);

    BlockMap expected = ext.used;
    const uint64_t group1 = ext.first_block + ext.blocks_per_group;
    for (uint64_t b = group1; b < group1 + ext.blocks_per_group; b++) {
        expected[b] = true;
    }
    EXPECT_EQ(Difference(map, expected), "");
    const std::vector<LogLine> log = {
        {TRAK_LOG_ERR, "ext2_reader_read(): Number of free blocks (" + std::to_string(wrong) +
                           ") in block group 1 is inconsistent with the bitmap (" +
                           std::to_string(ext.group_free[1]) + ")."}};
    EXPECT_EQ(TakeLog(), log);
}

TEST_F(Ext2ReaderEdges, AJumpOverAUsedChunkCarriesIntoTheNextGroup) {
    // With 1 KiB blocks group g starts at block 1 + 8192 * g, so chunks of
    // two or more blocks straddle the groups; a file larger than group 0
    // makes its last block used.
    const uint32_t block_size = 1024;
    const std::string image = MakeExt2ImageWithFile(dir_, 12 * kMiB, 17 * kMiB / 2);
    OpenedImage dev(image);
    const ExtLayout ext = DumpE2fs(image, dev.size() / block_size);
    ASSERT_EQ(ext.first_block, 1U);
    ASSERT_TRUE(ext.used[ext.blocks_per_group]) << "the last block of group 0 is free";
    void* ctx = trak_ext2_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    ExpectChunkMapsAgree(trak_ext2_reader, ctx, block_size, ext.used);
    trak_ext2_reader.destroy(ctx);
}

TEST_F(Ext2ReaderEdges, LeavesChunksPastTheFileSystemClear) {
    const uint32_t block_size = 4096;
    const uint64_t fs_blocks = 40000;  // two groups, the partition has more
    const std::string image = MakeExtImage(dir_, "ext2", block_size, 256 * kMiB, fs_blocks);
    OpenedImage dev(image);
    const ExtLayout ext = DumpE2fs(image, dev.size() / block_size);
    ASSERT_EQ(ext.block_count, fs_blocks);
    void* ctx = trak_ext2_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    ExpectChunkMapsAgree(trak_ext2_reader, ctx, block_size, ext.used);
    int rc = 0;
    // The file system ends inside MiB 156 of the 256.
    const BlockMap tail = ReadChunks(trak_ext2_reader, ctx, 157, 1024 * 1024, 99, rc);
    trak_ext2_reader.destroy(ctx);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(Difference(tail, BlockMap(99, false)), "");
}

}  // namespace
}  // namespace trak::fsmap_test
