// A snap's COW store: both files made at their full sizes at once, pieces
// written and read back at their partition offsets, marks that reach the
// bitmap file before memory, files emptied for good when the snap becomes
// invalid, and the refusal of files that cannot back a valid snap.
#include <gtest/gtest.h>
#include <unistd.h>

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

    // The files' names and their sizes while the snap is valid.
    [[nodiscard]] trak_cow_store_geometry Geometry() {
        data_ = Data();
        bitmap_ = Bitmap();
        return {.data_fname = data_.c_str(),
                .data_size = kDataSize,
                .bmp_fname = bitmap_.c_str(),
                .bmp_size = kBitmapSize,
                .chunks = kChunks};
    }
    int Create() {
        const trak_cow_store_geometry g = Geometry();
        return trak_cow_store_create(&store_, &g);
    }
    int Open(bool valid) {
        const trak_cow_store_geometry g = Geometry();
        return trak_cow_store_open(&store_, &g, valid);
    }
    // Marks `chunk` as the COW thread does: ahead in the file, synced, published.
    void Mark(u32 chunk) {
        ASSERT_EQ(trak_cow_store_mark_ahead(&store_, &chunk, 1, GFP_NOIO), 0);
        ASSERT_EQ(trak_cow_store_sync_bitmap(&store_), 0);
        trak_cow_store_publish(&store_, &chunk, 1);
    }

    ScratchFiles files_;
    trak_cow_store store_{};

  private:
    std::string data_;
    std::string bitmap_;
};

TEST_F(CowStore, CreateMakesBothFilesAtFullSizeWithoutTakingSpace) {
    ASSERT_EQ(Create(), 0);
    trak_cow_store_close(&store_);
    EXPECT_EQ(ReadAll(Bitmap()), std::vector<std::uint8_t>(kBitmapSize, 0));
    EXPECT_EQ(std::filesystem::file_size(Data()), kDataSize);
    EXPECT_LE(AllocatedBlocks(Data()), 8U);
}

TEST_F(CowStore, APreservedPieceIsReadBackFromItsPartitionOffset) {
    ASSERT_EQ(Create(), 0);
    std::vector<std::uint8_t> page(4096);
    std::iota(page.begin(), page.end(), 0);
    const std::uint64_t offset = 77 * 65536 + 8192;
    ASSERT_EQ(trak_cow_store_write(&store_, offset, page.data(), 4096), 0);
    ASSERT_EQ(trak_cow_store_sync_data(&store_), 0);
    ASSERT_NO_FATAL_FAILURE(Mark(77));

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
    ASSERT_EQ(Create(), 0);
    ASSERT_NO_FATAL_FAILURE(Mark(4095));
    trak_cow_store_close(&store_);

    ASSERT_EQ(Open(true), 0);
    EXPECT_TRUE(trak_cow_store_has(&store_, 4095));
    EXPECT_FALSE(trak_cow_store_has(&store_, 0));
}

TEST_F(CowStore, OpenAsValidRefusesABitmapFileOfAnotherSize) {
    WriteAll(Data(), {});
    ASSERT_EQ(truncate(Data().c_str(), kDataSize), 0);
    for (const std::uint32_t size : {0U, kBitmapSize - 1, kBitmapSize + 1}) {
        WriteAll(Bitmap(), std::vector<std::uint8_t>(size, 0));
        TakeLog();
        EXPECT_EQ(Open(true), -EINVAL) << size;
        EXPECT_EQ(store_.data_file, nullptr);
        EXPECT_EQ(store_.bmp_file, nullptr);
        const std::vector<LogLine> expected = {
            {2, "trak_cowbmp_init(): Allocating COW bitmap for 4096 chunks"},
            {TRAK_LOG_ERR, "trak_ioctl_resume_snap(): COW bitmap file " + Bitmap() + " holds " +
                               std::to_string(size) +
                               " bytes instead of 512: it cannot back a valid snap."}};
        EXPECT_EQ(TakeLog(), expected) << size;
    }
}

TEST_F(CowStore, OpenAsValidRefusesADataFileShorterThanThePartition) {
    WriteAll(Bitmap(), std::vector<std::uint8_t>(kBitmapSize, 0));
    WriteAll(Data(), std::vector<std::uint8_t>(4096, 1));
    EXPECT_EQ(Open(true), -EINVAL);
    std::vector<LogLine> log = TakeLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(),
              (LogLine{TRAK_LOG_ERR, "trak_ioctl_resume_snap(): COW data file " + Data() +
                                         " holds 4096 bytes instead of 268435456: it "
                                         "cannot back a valid snap."}));
}

TEST_F(CowStore, DiscardEmptiesBothFilesSoThatOnlyAnInvalidSnapOpensThem) {
    ASSERT_EQ(Create(), 0);
    std::vector<std::uint8_t> page(4096, 7);
    ASSERT_EQ(trak_cow_store_write(&store_, 65536, page.data(), 4096), 0);
    ASSERT_NO_FATAL_FAILURE(Mark(1));
    ASSERT_EQ(trak_cow_store_discard(&store_), 0);
    trak_cow_store_close(&store_);
    EXPECT_EQ(std::filesystem::file_size(Data()), 0U);
    EXPECT_EQ(std::filesystem::file_size(Bitmap()), 0U);

    EXPECT_EQ(Open(true), -EINVAL);
    ASSERT_EQ(Open(false), 0) << "an invalid snap resumes on its emptied files";
    EXPECT_FALSE(trak_cow_store_has(&store_, 1)) << "an invalid snap's bitmap is not loaded";
}

TEST_F(CowStore, AMissingDataFileFailsTheOpen) {
    WriteAll(Bitmap(), std::vector<std::uint8_t>(kBitmapSize, 0));
    EXPECT_EQ(Open(true), -EIO);
    EXPECT_EQ(store_.bmp.segs, nullptr);
}

}  // namespace
}  // namespace trak::snap_test
