// The ext2/ext3 reader on ext4 images made by mkfs.ext4, against dumpe2fs:
// 64-bit descriptors, flex_bg, uninitialised groups, bigalloc, checksums.
#include <gtest/gtest.h>

#include <optional>
#include <regex>
#include <string>
#include <vector>

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
constexpr uint64_t kGiB = 1024 * kMiB;
constexpr uint64_t kTiB = 1024 * kGiB;

struct Ext4Geometry {
    std::string name;
    uint32_t block_size;
    uint64_t image_bytes;
    std::string mkfs_options;
    uint32_t min_groups;
    bool flex_bg;  // some group's bitmap lies in another group
    bool uninit;   // some group's bitmap was never written
};

void PrintTo(const Ext4Geometry& g, std::ostream* os) { *os << g.name; }

std::vector<LogLine> Errors(const std::vector<LogLine>& log) {
    std::vector<LogLine> errors;
    for (const LogLine& line : log) {
        if (line.level == TRAK_LOG_ERR) {
            errors.push_back(line);
        }
    }
    return errors;
}

class Ext4Reader : public testing::TestWithParam<Ext4Geometry> {
  protected:
    void SetUp() override {
        const Ext4Geometry& g = GetParam();
        image_ = MakeExtImage(dir_, "ext4", g.block_size, g.image_bytes, 0, g.mkfs_options);
        ext_ = DumpE2fs(image_, g.image_bytes / g.block_size);
        TakeLog();
    }

    ScratchDir dir_;
    std::string image_;
    ExtLayout ext_;
};

TEST_P(Ext4Reader, BlockMapEqualsDumpe2fs) {
    const Ext4Geometry& g = GetParam();
    ASSERT_GE(ext_.groups, g.min_groups);
    ASSERT_EQ(ext_.uninit_groups > 0, g.uninit);
    ASSERT_EQ(ext_.bitmaps_elsewhere > 0, g.flex_bg);

    OpenedImage dev(image_);
    const BlockMap map = ReadBlockMap(trak_ext2_reader, dev.get(), g.block_size, ext_.used.size());
    ASSERT_FALSE(map.empty());
    EXPECT_EQ(Difference(map, ext_.used), "");
    EXPECT_EQ(Errors(TakeLog()), std::vector<LogLine>{});
}

TEST_P(Ext4Reader, ChunkMapsAgreeWithBlockMap) {
    OpenedImage dev(image_);
    void* ctx = trak_ext2_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    ExpectChunkMapsAgree(trak_ext2_reader, ctx, GetParam().block_size, ext_.used);
    trak_ext2_reader.destroy(ctx);
    EXPECT_EQ(Errors(TakeLog()), std::vector<LogLine>{});
}

// Flex groups of 16 groups of 128 MiB with 4 KiB blocks, of 8 MiB with 1 KiB
// blocks; with bigalloc a group holds 32768 clusters.
INSTANTIATE_TEST_SUITE_P(
    Geometries, Ext4Reader,
    testing::Values(
        Ext4Geometry{"defaults_512m", 4096, 512 * kMiB, "", 4, true, true},
        Ext4Geometry{"defaults_3g_two_flex_groups", 4096, 3 * kGiB, "", 24, true, true},
        Ext4Geometry{"defaults_5g_short_last_group", 4096, 5 * kGiB + 100 * kMiB, "", 41, true,
                     true},
        Ext4Geometry{"no_flex_bg", 4096, kGiB, "-O ^flex_bg", 8, false, true},
        Ext4Geometry{"blocks_1k", 1024, 256 * kMiB, "", 32, true, true},
        Ext4Geometry{"descriptors_32_bytes", 4096, kGiB, "-O ^64bit", 8, true, true},
        Ext4Geometry{"uninit_bg_crc16", 4096, kGiB, "-O ^metadata_csum,uninit_bg", 8, true, true},
        Ext4Geometry{"no_checksums", 4096, 384 * kMiB, "-O ^64bit,^metadata_csum", 3, true, false},
        Ext4Geometry{"sparse_super2", 4096, 2 * kGiB, "-O sparse_super2", 16, true, true},
        Ext4Geometry{"bigalloc_64k_clusters", 4096, 8 * kGiB, "-O bigalloc -C 65536", 4, true,
                     true},
        Ext4Geometry{"bigalloc_1k_blocks", 1024, 512 * kMiB, "-O bigalloc -C 16384", 4, true,
                     true}),
    [](const auto& info) { return info.param.name; });

// Damage made with debugfs on a default ext4 of nine groups, the last one
// short.
class Ext4ReaderDamage : public testing::Test {
  protected:
    static constexpr uint32_t kBlockSize = 4096;
    static constexpr uint64_t kImageBytes = kGiB + 64 * kMiB;

    void SetUp() override {
        image_ = MakeExtImage(dir_, "ext4", kBlockSize, kImageBytes);
        ext_ = DumpE2fs(image_, kImageBytes / kBlockSize);
        dump_ = fsmap_test::Run("dumpe2fs " + image_ + " 2>/dev/null");
        TakeLog();
    }

    void Debugfs(const std::string& commands) {
        const std::string file = dir_.File("damage.cmds");
        fsmap_test::Run("printf '" + commands + "' > " + file + " && debugfs -w -f " + file + " " +
                        image_ + " >/dev/null");
    }

    // The first number in dumpe2fs's output after `pattern`, as it prints it.
    [[nodiscard]] std::string Dumped(const std::string& pattern) const {
        std::smatch m;
        EXPECT_TRUE(std::regex_search(dump_, m, std::regex(pattern + R"((0x[0-9a-f]+))")))
            << pattern;
        return m[1];
    }

    // Reads the whole block map: it must be dumpe2fs's, with the blocks of
    // `used_group`, when there is one, counted as used, and the reader must
    // log `log` while reading.
    void ExpectMap(std::optional<uint32_t> used_group, const std::vector<LogLine>& log) {
        OpenedImage dev(image_);
        void* ctx = trak_ext2_reader.init(dev.get(), nullptr);
        ASSERT_NE(ctx, nullptr);
        TakeLog();
        int rc = 0;
        const BlockMap map = ReadChunks(trak_ext2_reader, ctx, 0, kBlockSize,
                                        static_cast<uint32_t>(ext_.used.size()), rc);
        trak_ext2_reader.destroy(ctx);
        ASSERT_EQ(rc, 0);
        BlockMap expected = ext_.used;
        if (used_group) {
            const uint64_t first = ext_.first_block + uint64_t{*used_group} * ext_.blocks_per_group;
            for (uint64_t b = first; b < first + ext_.blocks_per_group && b < expected.size();
                 b++) {
                expected[b] = true;
            }
        }
        EXPECT_EQ(Difference(map, expected), "");
        EXPECT_EQ(TakeLog(), log);
    }

    ScratchDir dir_;
    std::string image_;
    ExtLayout ext_;
    std::string dump_;
};

TEST_F(Ext4ReaderDamage, TheImageHasComputedGroups) {
    ASSERT_EQ(ext_.groups, 9U);
    EXPECT_NE(dump_.find("Group 2: (Blocks 65536-98303) csum"), std::string::npos);
    EXPECT_NE(dump_.find("[INODE_UNINIT, BLOCK_UNINIT, ITABLE_ZEROED]"), std::string::npos);
}

TEST_F(Ext4ReaderDamage, AWrongDescriptorChecksumCountsTheGroupAsUsed) {
    const std::string stored = Dumped(R"(Group 3: \(Blocks \d+-\d+\) csum )");
    Debugfs("set_bg 3 checksum 0x1234\n");
    ExpectMap(3, {{TRAK_LOG_ERR,
                   "ext2_reader_read(): Checksum of the descriptor of block group 3 is wrong: "
                   "0x1234 instead of " +
                       stored + "."}});
}

TEST_F(Ext4ReaderDamage, AWrongBitmapChecksumCountsTheGroupAsUsed) {
    const std::string stored = Dumped(R"(Block bitmap at \d+ \(\+\d+\), csum )");
    Debugfs("set_bg 0 block_bitmap_csum 0x12345678\nset_bg 0 checksum calc\n");
    ExpectMap(0, {{TRAK_LOG_ERR,
                   "ext2_reader_read(): Checksum of Data Bitmap of Block Group 0 is wrong: "
                   "0x12345678 instead of " +
                       stored + "."}});
}

TEST_F(Ext4ReaderDamage, AComputedBitmapThatDisagreesWithTheFreeCountCountsAsUsed) {
    Debugfs("set_bg 2 free_blocks_count 100\nset_bg 2 checksum calc\n");
    ExpectMap(2, {{TRAK_LOG_ERR,
                   "ext2_reader_read(): Number of free blocks (100) in block group 2 is "
                   "inconsistent with the bitmap (32768)."}});
}

TEST_F(Ext4ReaderDamage, AnUninitialisedFirstGroupCountsAsUsed) {
    Debugfs("set_bg 0 flags 6\nset_bg 0 checksum calc\n");
    ExpectMap(0, {{TRAK_LOG_ERR,
                   "ext2_reader_read(): Block group 0 is marked uninitialised, which it cannot "
                   "be."}});
}

// mkfs initialises the last group; an uninitialised one must have the bits
// past its end set, as the kernel sets them, or its free count disagrees.
TEST_F(Ext4ReaderDamage, AnUninitialisedShortLastGroupIsComputedToItsEnd) {
    ASSERT_NE(dump_.find("Group 8: (Blocks 262144-278527) csum"), std::string::npos);
    ASSERT_EQ(ext_.group_free[8], 16384U) << "the last group holds something";
    Debugfs("set_bg 8 flags 6\nset_bg 8 checksum calc\n");
    ExpectMap(std::nullopt, {});
}

TEST_F(Ext4ReaderDamage, AWrongSuperblockChecksumFailsTheReader) {
    constexpr uint64_t kSbChecksum = 1024 + 0x3FC;
    const std::string wrong = FlipChecksumBit(image_, kSbChecksum);

    OpenedImage dev(image_);
    EXPECT_EQ(trak_ext2_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> expected = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {TRAK_LOG_ERR,
         "ext2_reader_init(): Checksum of Super Block of hdd(7, 3) is wrong: " + wrong + "."}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(Ext4ReaderDamage, ADescriptorSizeNotAPowerOfTwoIsCorrupt) {
    constexpr uint64_t kSbDescSize = 1024 + 0xFE;
    WriteBytes(image_, kSbDescSize, {48, 0});
    OpenedImage dev(image_);
    EXPECT_EQ(trak_ext2_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> expected = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {TRAK_LOG_ERR, "ext2_reader_init(): Superblock of hdd(7, 3) is corrupt."}};
    EXPECT_EQ(TakeLog(), expected);
}

// More than 2^32 blocks: the block count's upper half, descriptors of more
// than 2^32 groups' worth of blocks, and the bitmaps of the groups past
// 16 TiB, which lie at block numbers above 2^32. The window compared starts
// a flex group before 2^32 blocks and runs to the end, whose group is short.
TEST(Ext4ReaderHuge, AFileSystemOver16TiBEqualsDumpe2fsAroundAndPast2To32Blocks) {
    constexpr uint32_t kBlockSize = 4096;
    constexpr uint64_t kBytes = 16 * kTiB + kGiB + 64 * kMiB;
    constexpr uint64_t kBlocks = kBytes / kBlockSize;
    constexpr uint64_t kGroupBlocks = 32768;
    constexpr uint64_t kWindow = (uint64_t{1} << 32) - 16 * kGroupBlocks;
    ScratchDir dir("/dev/shm");
    const std::string image = MakeHugeExt4Image(dir, kBytes);
    const ExtLayout ext = DumpE2fs(image, kBlocks - kWindow, kWindow);
    ASSERT_EQ(ext.block_count, kBlocks);
    ASSERT_EQ(ext.groups, 131081U);

    OpenedImage dev(image);
    TakeLog();
    void* ctx = trak_ext2_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    const std::vector<LogLine> geometry = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {2, "   magic=0xef53"},
        {2, "   block_size=4096"},
        {2, "   blocks_count=4295245824 (16778304MB)"},
        {2, "   blocks_per_group=32768"},
        {2, "   group_desc_count=131081"},
        {2, "   desc_blocks=2049"},
    };
    EXPECT_EQ(TakeLog(), geometry);

    ExpectChunkMapsAgree(trak_ext2_reader, ctx, kBlockSize, ext.used, kWindow);
    trak_ext2_reader.destroy(ctx);
    EXPECT_EQ(Errors(TakeLog()), std::vector<LogLine>{});
}

}  // namespace
}  // namespace trak::fsmap_test
