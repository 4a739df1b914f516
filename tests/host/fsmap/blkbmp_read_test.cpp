// trak_blkbmp_read: choosing the reader, the segments and their layouts,
// and the bitmap it builds on each file system.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "captured_log.h"
#include "file_system_case.h"
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
constexpr uint32_t kSegmentChunks = 1U << 20;

std::vector<LogLine> AtLevel(const std::vector<LogLine>& log, int level) {
    std::vector<LogLine> lines;
    std::copy_if(log.begin(), log.end(), std::back_inserter(lines),
                 [level](const LogLine& line) { return line.level == level; });
    return lines;
}

BlockMap ChunkTests(const trak_blkbmp& bmp, uint64_t chunks) {
    BlockMap map(chunks);
    for (uint64_t c = 0; c < chunks; c++) {
        map[c] = trak_blkbmp_has_data(&bmp, c);
    }
    return map;
}

BlockMap Exported(const trak_blkbmp& bmp, s32 k) {
    const uint64_t bits = (static_cast<uint64_t>(bmp.chunks) + k - 1) / k;
    std::vector<u64> out((bits + 63) / 64);
    EXPECT_EQ(trak_blkbmp_export(&bmp, k, out.data(), static_cast<s32>((bits + 7) / 8)), 0);
    return BitsOf(reinterpret_cast<const uint8_t*>(out.data()), bits);
}

class BlkbmpRead : public testing::Test {
  protected:
    void SetUp() override {
        trak_blkbmp_init(&bmp_);
        TakeLog();
    }
    void TearDown() override { trak_blkbmp_destroy(&bmp_); }

    ScratchDir dir_;
    trak_blkbmp bmp_{};
};

TEST_F(BlkbmpRead, AnUnrecognisedPartitionLeavesTheBitmapInvalid) {
    OpenedImage dev(MakeBlankImage(dir_, "blank.img", 64 * kMiB));
    EXPECT_EQ(trak_blkbmp_read(&bmp_, dev.get(), 4096), -EINVAL);
    const std::vector<LogLine> expected = {
        {3, "ext2_reader_init(): hdd(7, 3) doesn't have ext2/ext3 FS."},
        {3, "reiserfs_reader_init(): hdd(7, 3) doesn't have ReiserFS."},
        {3, "xfs_reader_init(): hdd(7, 3) doesn't have XFS."},
        {1,
         "trak_blkbmp_read(): Cannot recognize file system on hdd(7, 3). Datablocks will be "
         "disabled"},
    };
    EXPECT_EQ(TakeLog(), expected);
    EXPECT_EQ(bmp_.valid, 0);
    EXPECT_EQ(bmp_.segments, 0);
    EXPECT_TRUE(trak_blkbmp_has_data(&bmp_, 0));
    EXPECT_TRUE(trak_blkbmp_has_data(&bmp_, 12345));

    // The export of an invalid bitmap fills exactly the buffer with ones.
    std::vector<u64> out(4, 0);
    EXPECT_EQ(trak_blkbmp_export(&bmp_, 16, out.data(), 20), 0);
    const auto* bytes = reinterpret_cast<const uint8_t*>(out.data());
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 32), [] {
        std::vector<uint8_t> v(32, 0);
        std::fill_n(v.begin(), 20, 0xFF);
        return v;
    }());
}

// Never a used chunk taken for free: an ext4 whose descriptors the reader
// cannot find leaves every chunk counting as data.
TEST_F(BlkbmpRead, AnExt4WithMetaBlockGroupsLeavesTheBitmapInvalid) {
    OpenedImage dev(MakeExtImage(dir_, "ext4", 4096, 256 * kMiB, 0, "-O meta_bg,^resize_inode"));
    EXPECT_EQ(trak_blkbmp_read(&bmp_, dev.get(), 65536), -EINVAL);
    const std::vector<LogLine> expected = {
        {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
        {TRAK_LOG_ERR,
         "ext2_reader_init(): Sorry, we don't support ext2/ext3 with meta block groups."},
        {3, "reiserfs_reader_init(): hdd(7, 3) doesn't have ReiserFS."},
        {3, "xfs_reader_init(): hdd(7, 3) doesn't have XFS."},
        {1,
         "trak_blkbmp_read(): Cannot recognize file system on hdd(7, 3). Datablocks will be "
         "disabled"},
    };
    EXPECT_EQ(TakeLog(), expected);
    EXPECT_EQ(bmp_.valid, 0);
    for (uint64_t c = 0; c < 256 * kMiB / 65536; c++) {
        ASSERT_TRUE(trak_blkbmp_has_data(&bmp_, c)) << "chunk " << c;
    }
}

TEST_F(BlkbmpRead, APartitionTooSmallForTheSuperblocksIsNotRecognised) {
    OpenedImage dev(MakeBlankImage(dir_, "tiny.img", 1024));
    EXPECT_EQ(trak_blkbmp_read(&bmp_, dev.get(), 4096), -EINVAL);
    const std::vector<LogLine> expected = {
        {TRAK_LOG_ERR, "trak_bread(): Failed to read 1024-byte block #1"},
        {TRAK_LOG_ERR, "ext2_reader_init(): Failed to read Super Block of hdd(7, 3): rc=-5"},
        {TRAK_LOG_ERR, "trak_bread(): Failed to read 4096-byte block #16"},
        {TRAK_LOG_ERR,
         "reiserfs_reader_init(): Failed to read Super Block of hdd(7, 3) at offset 65536: "
         "rc=-5"},
        {3, "xfs_reader_init(): hdd(7, 3) doesn't have XFS."},
        {1,
         "trak_blkbmp_read(): Cannot recognize file system on hdd(7, 3). Datablocks will be "
         "disabled"},
    };
    EXPECT_EQ(TakeLog(), expected);
    EXPECT_EQ(bmp_.valid, 0);
}

TEST_F(BlkbmpRead, RefusesChunkSizesOneAndThree) {
    OpenedImage dev(MakeEmptyExt2Image(dir_, 8 * kMiB));
    for (const uint32_t chunk_size : {1U, 3U}) {
        EXPECT_EQ(trak_blkbmp_read(&bmp_, dev.get(), chunk_size), -EINVAL);
        const std::vector<LogLine> errors = {{TRAK_LOG_ERR, "trak_blkbmp_read(): Chunk size (" +
                                                                std::to_string(chunk_size) +
                                                                ") must be a power of 2"}};
        EXPECT_EQ(AtLevel(TakeLog(), TRAK_LOG_ERR), errors);
        EXPECT_EQ(bmp_.valid, 0);
        EXPECT_EQ(bmp_.segments, 0);
    }
}

TEST_F(BlkbmpRead, TwoToTheTwentyChunksMakeOneSegment) {
    const std::string image = MakeExtImage(dir_, "ext2", 1024, kGiB, 16384);
    OpenedImage dev(image);
    ASSERT_EQ(trak_blkbmp_read(&bmp_, dev.get(), 1024), 0);
    EXPECT_EQ(bmp_.valid, 1);
    EXPECT_EQ(bmp_.chunks, static_cast<s32>(kSegmentChunks));
    EXPECT_EQ(bmp_.segments, 1);
    EXPECT_EQ(AtLevel(TakeLog(), 3).size(), 1U);
    EXPECT_EQ(Difference(ChunkTests(bmp_, kSegmentChunks), DumpE2fs(image, kSegmentChunks).used),
              "");
}

TEST_F(BlkbmpRead, OneChunkMoreMakesATinySecondSegment) {
    const uint64_t chunks = kSegmentChunks + 1;
    const std::string image = MakeExtImage(dir_, "ext2", 1024, chunks * 1024, 16384);
    OpenedImage dev(image);
    ASSERT_EQ(trak_blkbmp_read(&bmp_, dev.get(), 1024), 0);
    EXPECT_EQ(bmp_.chunks, static_cast<s32>(chunks));
    ASSERT_EQ(bmp_.segments, 2);
    const std::vector<LogLine> layouts = AtLevel(TakeLog(), 3);
    ASSERT_EQ(layouts.size(), 2U);
    EXPECT_EQ(layouts[1],
              (LogLine{3, "Block Bitmap Fragment: 1B => 524288B (131072 x 1) (-52428700%)"}));
    EXPECT_EQ(bmp_.sa[1].frag_cnt, 131072U);
    EXPECT_EQ(bmp_.sa[1].frag_size, 1U);
    EXPECT_EQ(Difference(ChunkTests(bmp_, chunks), DumpE2fs(image, chunks).used), "");
    EXPECT_FALSE(trak_blkbmp_has_data(&bmp_, kSegmentChunks));
}

TEST_F(BlkbmpRead, AClearSegmentTakes1024BytesAndATinyOneTheNotionalLayout) {
    // A 16 MiB file system at the start of 2 GiB + 1 KiB: chunks of 1 KiB
    // fill segment 0, leave segment 1 all clear and segment 2 one chunk.
    const uint64_t chunks = 2 * kSegmentChunks + 1;
    const std::string image = MakeExtImage(dir_, "ext2", 1024, chunks * 1024, 16384);
    OpenedImage dev(image);
    ASSERT_EQ(trak_blkbmp_read(&bmp_, dev.get(), 1024), 0);
    EXPECT_EQ(bmp_.chunks, static_cast<s32>(chunks));
    ASSERT_EQ(bmp_.segments, 3);
    const std::vector<LogLine> log = TakeLog();

    const std::vector<LogLine> layouts = AtLevel(log, 3);
    ASSERT_EQ(layouts.size(), 3U);
    EXPECT_EQ(layouts[1],
              (LogLine{3, "Block Bitmap Fragment: 131072B => 1024B (256 x 512) (100%)"}));
    // 100 - 524288 * 100 / 1: the notional size, as chosen.
    EXPECT_EQ(layouts[2],
              (LogLine{3, "Block Bitmap Fragment: 1B => 524288B (131072 x 1) (-52428700%)"}));

    // Candidates of the clear segment: one shared zero fragment plus the
    // table, from 1 x 131072 down to 32768 x 4.
    const std::vector<LogLine> candidates = AtLevel(log, 4);
    std::vector<LogLine> clear_candidates;
    for (uint32_t c = 1, z = 131072; z >= 4; c *= 2, z /= 2) {
        clear_candidates.push_back({4, std::to_string(c) + " x " + std::to_string(z) +
                                           " (131072 bytes) will take " +
                                           std::to_string(z + 2 * c) + " bytes"});
    }
    ASSERT_EQ(candidates.size(), 2 * clear_candidates.size());
    EXPECT_EQ(std::vector<LogLine>(candidates.begin() + 16, candidates.end()), clear_candidates);

    EXPECT_EQ(bmp_.sa[1].frag_cnt, 256U);
    EXPECT_EQ(bmp_.sa[1].frag_size, 512U);
    EXPECT_TRUE(
        std::all_of(bmp_.sa[1].idx, bmp_.sa[1].idx + 256, [](uint16_t s) { return s == 0; }));
    EXPECT_EQ(bmp_.sa[2].frag_cnt, 131072U);
    EXPECT_EQ(bmp_.sa[2].frag_size, 1U);

    EXPECT_EQ(Difference(ChunkTests(bmp_, chunks), DumpE2fs(image, chunks).used), "");
    EXPECT_FALSE(trak_blkbmp_has_data(&bmp_, chunks - 1));
    EXPECT_TRUE(trak_blkbmp_has_data(&bmp_, chunks));
}

class BlkbmpOfFileSystem : public testing::TestWithParam<FileSystemCase> {};

// The bitmap at the block size and at 64 KiB equals the tool's map, and its
// export at k = 1, at a k that does not divide the chunk count and at a k
// beyond it equals the tool's map downsampled.
TEST_P(BlkbmpOfFileSystem, EqualsTheToolsMapAndExportsIt) {
    const FileSystemCase& fs = GetParam();
    ScratchDir dir;
    const std::string image = fs.make(dir);
    OpenedImage dev(image);
    const uint64_t blocks = dev.size() / fs.block_size;
    const BlockMap used = fs.oracle(image, blocks);

    for (const uint32_t chunk_size : {fs.block_size, 65536U}) {
        SCOPED_TRACE("chunk size " + std::to_string(chunk_size));
        const uint32_t k = chunk_size / fs.block_size;
        trak_blkbmp bmp{};
        trak_blkbmp_init(&bmp);
        ASSERT_EQ(trak_blkbmp_read(&bmp, dev.get(), chunk_size), 0);
        const BlockMap chunks = Downsample(used, k);
        ASSERT_EQ(bmp.chunks, static_cast<s32>(chunks.size()));
        EXPECT_EQ(Difference(ChunkTests(bmp, chunks.size()), chunks), "");

        EXPECT_EQ(Difference(Exported(bmp, 1), chunks), "");
        ASSERT_NE(chunks.size() % 7, 0U);
        EXPECT_EQ(Difference(Exported(bmp, 7), Downsample(chunks, 7)), "");
        EXPECT_EQ(Difference(Exported(bmp, bmp.chunks + 5), BlockMap{true}), "");
        trak_blkbmp_destroy(&bmp);
    }
    for (const LogLine& line : TakeLog()) {
        EXPECT_NE(line.level, TRAK_LOG_ERR) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(Images, BlkbmpOfFileSystem,
                         testing::Values(ExtCase("ext2_1k", "ext2", 1024, 30 * kMiB),
                                         ExtCase("ext3_4k", "ext3", 4096, 384 * kMiB),
                                         ExtCase("ext4_4k", "ext4", 4096, 3 * kGiB),
                                         ExtCase("ext4_bigalloc", "ext4", 4096, 2 * kGiB,
                                                 "-O bigalloc -C 65536"),
                                         XfsCase("xfs_v5_4k", kXfsV5, 4096, 4, 600, 640 * kMiB),
                                         XfsCase("xfs_1k", kXfsV4, 1024, 4, 400, 320 * kMiB),
                                         ReiserfsCase("reiserfs_4k", 200 * kMiB)),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace trak::fsmap_test
