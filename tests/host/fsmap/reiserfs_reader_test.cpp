// The ReiserFS reader against debugreiserfs, on an empty ReiserFS 3.6 made
// by mkreiserfs (this host cannot mount ReiserFS to fill it).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

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
constexpr uint32_t kBlockSize = 4096;
constexpr uint64_t kImageBytes = 200 * kMiB;  // two bitmap blocks
constexpr uint64_t kSuperblock = 65536;
constexpr uint64_t kSbFreeBlocks = kSuperblock + 4;
constexpr uint64_t kSbUmountState = kSuperblock + 50;
constexpr uint64_t kSbMagic = kSuperblock + 52;

std::vector<uint8_t> Le32(uint32_t v) {
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 24)};
}

class ReiserfsReader : public testing::Test {
  protected:
    void SetUp() override {
        image_ = MakeReiserfsImage(dir_, kImageBytes);
        rfs_ = DebugReiserfs(image_, kImageBytes / kBlockSize);
        TakeLog();
    }

    ScratchDir dir_;
    std::string image_;
    ReiserfsLayout rfs_;
};

TEST_F(ReiserfsReader, BlockMapEqualsDebugreiserfs) {
    ASSERT_EQ(rfs_.bitmaps, 2U);
    // Bitmap 0 follows the superblock; bitmap 1 starts its own range.
    EXPECT_EQ(rfs_.bitmap_blocks, (std::vector<uint64_t>{17, 32768}));

    OpenedImage dev(image_);
    const BlockMap map =
        ReadBlockMap(trak_reiserfs_reader, dev.get(), kBlockSize, rfs_.used.size());
    ASSERT_FALSE(map.empty());
    EXPECT_EQ(Difference(map, rfs_.used), "");
    EXPECT_TRUE(map[32768]) << "bitmap 1 marks itself used";
}

TEST_F(ReiserfsReader, ChunkMapsAgreeWithBlockMap) {
    OpenedImage dev(image_);
    void* ctx = trak_reiserfs_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    ExpectChunkMapsAgree(trak_reiserfs_reader, ctx, kBlockSize, rfs_.used);
    trak_reiserfs_reader.destroy(ctx);
    for (const LogLine& line : TakeLog()) {
        EXPECT_NE(line.level, TRAK_LOG_ERR) << line;
    }
}

TEST_F(ReiserfsReader, LogsTheSuperblock) {
    OpenedImage dev(image_);
    void* ctx = trak_reiserfs_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    trak_reiserfs_reader.destroy(ctx);
    const std::vector<uint8_t> sb = ReadBytes(image_, kSuperblock, 80);
    const uint32_t version = sb[72] | (sb[73] << 8);
    const uint32_t generation = sb[76] | (sb[77] << 8) | (sb[78] << 16) | (sb[79] << 24);
    const std::vector<LogLine> expected = {
        {2, "reiserfs_reader_init(): Detected ReiserFS on hdd(7, 3)"},
        {2, "   magic=\"ReIsEr2Fs\""},
        {2, "   block_size=4096"},
        {2, "   block_count=" + std::to_string(rfs_.block_count)},
        {2, "   free_count=" + std::to_string(rfs_.free_blocks)},
        {2, "   bitmaps=2"},
        {2, "   state=1 (VALID)"},
        {2, "   version=" + std::to_string(version)},
        {2, "   inode_generation=" + std::to_string(generation)},
    };
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(ReiserfsReader, RefusesAFreeCountOffByOne) {
    WriteBytes(image_, kSbFreeBlocks, Le32(rfs_.free_blocks + 1));
    OpenedImage dev(image_);
    EXPECT_EQ(trak_reiserfs_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> log = TakeLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(),
              (LogLine{TRAK_LOG_ERR,
                       "reiserfs_reader_init(): Unexpected inconsistency of ReiserFS SB on "
                       "hdd=(7, 3) says that it has " +
                           std::to_string(rfs_.free_blocks + 1) +
                           " blocks, but bitmaps argue for " + std::to_string(rfs_.free_blocks)}));
}

TEST_F(ReiserfsReader, OnlyReportsAnUncleanState) {
    WriteBytes(image_, kSbUmountState, {2, 0});
    OpenedImage dev(image_);
    void* ctx = trak_reiserfs_reader.init(dev.get(), nullptr);
    EXPECT_NE(ctx, nullptr);
    trak_reiserfs_reader.destroy(ctx);
    const std::vector<LogLine> log = TakeLog();
    EXPECT_NE(std::find(log.begin(), log.end(), LogLine{2, "   state=2 (ERROR)"}), log.end());
}

TEST_F(ReiserfsReader, DoesNotRecogniseAnotherFormatVersion) {
    WriteBytes(image_, kSbMagic, {'R', 'e', 'I', 's', 'E', 'r', 'F', 's', 0, 0});
    OpenedImage dev(image_);
    EXPECT_EQ(trak_reiserfs_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> expected = {
        {3, "reiserfs_reader_init(): hdd(7, 3) doesn't have ReiserFS."}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(ReiserfsReader, RefusesChunkSizesBelowTheBlockSize) {
    OpenedImage dev(image_);
    void* ctx = trak_reiserfs_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    TakeLog();
    std::vector<u64> bits(1);
    EXPECT_EQ(trak_reiserfs_reader.read(ctx, 0, 2048, bits.data(), 8), -EINVAL);
    EXPECT_EQ(trak_reiserfs_reader.read(ctx, 0, 6, bits.data(), 8), -EINVAL);
    trak_reiserfs_reader.destroy(ctx);
    const std::vector<LogLine> expected = {
        {TRAK_LOG_ERR,
         "reiserfs_reader_read(): Chunk size (2048) is smaller than FS block size (4096)."},
        {TRAK_LOG_ERR, "reiserfs_reader_read(): Chunk size (6) must be a power of 2."},
    };
    EXPECT_EQ(TakeLog(), expected);
}

}  // namespace
}  // namespace trak::fsmap_test
