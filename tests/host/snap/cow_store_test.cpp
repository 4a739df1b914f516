// A snap's COW store: both files made at their full sizes at once, pieces
// written and read back at their partition offsets, and the refusal of a
// bitmap file too short for the snap.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include "captured_log.h"
#include "scratch_file.h"
#include "snap_api.h"

namespace trak::snap_test {
namespace {

using host::LogLine;
using host::TakeLog;

constexpr std::uint64_t kChunks = 4096;  // 256 MiB in 64 KiB chunks
constexpr std::uint64_t kDataSize = kChunks * 65536;
constexpr std::uint32_t kBitmapSize = kChunks / 8;

class CowStore : public testing::Test {
  protected:
    void SetUp() override { TakeLog(); }
    void TearDown() override { trak_cow_store_close(&store_); }

    [[nodiscard]] std::string Data() const { return files_.Path("data"); }
    [[nodiscard]] std::string Bitmap() const { return files_.Path("bitmap"); }

    ScratchFiles files_;
    trak_cow_store store_{};
};

TEST_F(CowStore, CreateMakesBothFilesAtFullSizeWithoutTakingSpace) {
    ASSERT_EQ(trak_cow_store_create(&store_, Data().c_str(), kDataSize, Bitmap().c_str(),
                                    kBitmapSize, kChunks),
              0);
    trak_cow_store_close(&store_);
    EXPECT_EQ(ReadAll(Bitmap()), std::vector<std::uint8_t>(kBitmapSize, 0));
    EXPECT_EQ(std::filesystem::file_size(Data()), kDataSize);
    EXPECT_LE(AllocatedBlocks(Data()), 8U);
}

TEST_F(CowStore, APreservedPieceIsReadBackFromItsPartitionOffset) {
    ASSERT_EQ(trak_cow_store_create(&store_, Data().c_str(), kDataSize, Bitmap().c_str(),
                                    kBitmapSize, kChunks),
              0);
    std::vector<std::uint8_t> page(4096);
    std::iota(page.begin(), page.end(), 0);
    const std::uint64_t offset = 77 * 65536 + 8192;
    ASSERT_EQ(trak_cow_store_write(&store_, offset, page.data(), 4096), 0);
    ASSERT_EQ(trak_cow_store_sync_data(&store_), 0);
    ASSERT_EQ(trak_cow_store_mark(&store_, 77, GFP_NOIO), 0);
    ASSERT_EQ(trak_cow_store_sync_bitmap(&store_), 0);

    std::vector<std::uint8_t> piece(512);
    ASSERT_EQ(trak_cow_store_read(&store_, offset + 1024, piece.data(), 512), 0);
    EXPECT_TRUE(std::equal(piece.begin(), piece.end(), page.begin() + 1024));
    EXPECT_TRUE(trak_cow_store_has(&store_, 77));
    EXPECT_FALSE(trak_cow_store_has(&store_, 76));
    trak_cow_store_close(&store_);
    const std::vector<std::uint8_t> bitmap = ReadAll(Bitmap());
    EXPECT_EQ(bitmap[77 / 8], 1U << (77 % 8));
}

TEST_F(CowStore, OpenLoadsTheBitmapOfAnEarlierLife) {
    ASSERT_EQ(trak_cow_store_create(&store_, Data().c_str(), kDataSize, Bitmap().c_str(),
                                    kBitmapSize, kChunks),
              0);
    ASSERT_EQ(trak_cow_store_mark(&store_, 4095, GFP_NOIO), 0);
    trak_cow_store_close(&store_);

    ASSERT_EQ(trak_cow_store_open(&store_, Data().c_str(), Bitmap().c_str(), kChunks), 0);
    EXPECT_TRUE(trak_cow_store_has(&store_, 4095));
    EXPECT_FALSE(trak_cow_store_has(&store_, 0));
}

TEST_F(CowStore, OpenRefusesABitmapFileTooShortForTheSnap) {
    WriteAll(Data(), {});
    WriteAll(Bitmap(), std::vector<std::uint8_t>(kBitmapSize - 1, 0));
    EXPECT_EQ(trak_cow_store_open(&store_, Data().c_str(), Bitmap().c_str(), kChunks), -EINVAL);
    EXPECT_EQ(store_.data_file, nullptr);
    EXPECT_EQ(store_.bmp_file, nullptr);
    std::vector<LogLine> log = TakeLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(),
              (LogLine{TRAK_LOG_ERR, "trak_ioctl_resume_snap(): COW bitmap " + Bitmap() +
                                         " covers 4088 chunks instead of 4096."}));
}

TEST_F(CowStore, AMissingDataFileFailsTheOpen) {
    WriteAll(Bitmap(), std::vector<std::uint8_t>(kBitmapSize, 0));
    EXPECT_EQ(trak_cow_store_open(&store_, Data().c_str(), Bitmap().c_str(), kChunks), -EIO);
    EXPECT_EQ(store_.bmp.segs, nullptr);
}

}  // namespace
}  // namespace trak::snap_test
