// The COW bitmap in memory and in its file: sparse segments, bits written
// to the file ahead of memory, and the file format (no header, byte k holds chunks 8k
// to 8k + 7, least significant bit first).
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "captured_log.h"
#include "scratch_file.h"
#include "snap_api.h"

namespace trak::snap_test {
namespace {

using host::LogLine;
using host::TakeLog;

constexpr std::uint64_t kSegChunks = 32768;

class CowBitmap : public testing::Test {
  protected:
    void SetUp() override { TakeLog(); }
    void TearDown() override {
        CloseFile();
        trak_cowbmp_destroy(&bmp_);
    }

    // Opens `name` for the write-through, creating it with `bytes` zeros.
    trak_file* OpenFile(const std::string& name, std::size_t bytes) {
        WriteAll(files_.Path(name), std::vector<std::uint8_t>(bytes, 0));
        file_ = trak_fopen(files_.Path(name).c_str(), O_RDWR, 0600);
        return file_;
    }
    void CloseFile() {
        if (file_ != nullptr) {
            trak_fclose(file_);
            file_ = nullptr;
        }
    }

    ScratchFiles files_;
    trak_cowbmp bmp_{};
    trak_file* file_ = nullptr;
};

TEST_F(CowBitmap, AChunkOfAnAbsentSegmentIsNotPreservedAndTakesNoMemory) {
    ASSERT_EQ(trak_cowbmp_init(&bmp_, 3 * kSegChunks), 0);
    EXPECT_EQ(bmp_.seg_cnt, 3);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, static_cast<u32>(kSegChunks + 5)), 0);
    for (int i = 0; i < bmp_.seg_cnt; i++) {
        EXPECT_EQ(bmp_.segs[i], nullptr) << "segment " << i;
    }
    const std::vector<LogLine> expected = {
        {2, "trak_cowbmp_init(): Allocating COW bitmap for 98304 chunks"}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(CowBitmap, WriteAheadWritesTheBytesOfTheBitsButSetsNoneInMemory) {
    ASSERT_EQ(trak_cowbmp_init(&bmp_, 100000), 0);
    ASSERT_NE(OpenFile("bmp", 12500), nullptr);
    const std::vector<u32> chunks = {70001, 70003, 70100};
    ASSERT_EQ(trak_cowbmp_write_ahead(&bmp_, chunks.data(), chunks.size(), GFP_NOIO, file_), 0);

    std::vector<std::uint8_t> expected(12500, 0);
    expected[70001 / 8] = 0b1010;  // chunks 70001 and 70003: bits 1 and 3
    expected[70100 / 8] = 1U << (70100 % 8);
    EXPECT_EQ(ReadAll(files_.Path("bmp")), expected);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, 70001), 0) << "published before it is durable";
    ASSERT_NE(bmp_.segs[2], nullptr) << "the segment the bits need is made ahead";
    EXPECT_EQ(bmp_.segs[0], nullptr) << "only the segment of the chunks is made";

    trak_cowbmp_publish(&bmp_, chunks.data(), chunks.size());
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, 70001), 1);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, 70002), 0);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, 70003), 1);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, 70100), 1);
}

TEST_F(CowBitmap, WriteAheadKeepsTheBitsAlreadySetInItsByte) {
    ASSERT_EQ(trak_cowbmp_init(&bmp_, 1000), 0);
    ASSERT_NE(OpenFile("bmp", 125), nullptr);
    const u32 first = 9;
    ASSERT_EQ(trak_cowbmp_write_ahead(&bmp_, &first, 1, GFP_NOIO, file_), 0);
    trak_cowbmp_publish(&bmp_, &first, 1);
    // Zeroed behind the bitmap's back: the next byte written holds both.
    WriteAll(files_.Path("bmp"), std::vector<std::uint8_t>(125, 0));
    const u32 second = 10;
    ASSERT_EQ(trak_cowbmp_write_ahead(&bmp_, &second, 1, GFP_NOIO, file_), 0);
    CloseFile();
    std::vector<std::uint8_t> expected(125, 0);
    expected[1] = 0b110;  // chunks 9 and 10
    EXPECT_EQ(ReadAll(files_.Path("bmp")), expected);
}

TEST_F(CowBitmap, WriteAheadWithoutAFileFailsAndSetsNothing) {
    ASSERT_EQ(trak_cowbmp_init(&bmp_, 1000), 0);
    const u32 chunk = 3;
    EXPECT_EQ(trak_cowbmp_write_ahead(&bmp_, &chunk, 1, GFP_NOIO, nullptr), -EIO);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, 3), 0);
    const std::vector<LogLine> expected = {
        {2, "trak_cowbmp_init(): Allocating COW bitmap for 1000 chunks"},
        {TRAK_LOG_ERR, "trak_cowbmp_write_ahead(): Failed to update changed byte in file."}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(CowBitmap, AnEmptyBitmapSavesAsZerosOfFullLengthInAHole) {
    ASSERT_EQ(trak_cowbmp_init(&bmp_, 8 * 1024 * 1024 + 1), 0);
    const std::string path = files_.Path("saved");
    ASSERT_EQ(trak_cowbmp_save(&bmp_, path.c_str()), 0);
    const std::vector<std::uint8_t> saved = ReadAll(path);
    EXPECT_EQ(saved.size(), 1024U * 1024 + 1);
    EXPECT_EQ(saved, std::vector<std::uint8_t>(saved.size(), 0));
    EXPECT_LE(AllocatedBlocks(path), 8U) << "absent segments stay holes";
}

TEST_F(CowBitmap, SavedBitsLoadBack) {
    const std::uint64_t chunks = 3 * kSegChunks + 17;
    ASSERT_EQ(trak_cowbmp_init(&bmp_, chunks), 0);
    ASSERT_NE(OpenFile("live", (chunks + 7) / 8), nullptr);
    const std::vector<u32> marked = {0, 7, 8, static_cast<u32>(kSegChunks * 2 + 1),
                                     static_cast<u32>(kSegChunks * 3 + 16)};
    ASSERT_EQ(trak_cowbmp_write_ahead(&bmp_, marked.data(), marked.size(), GFP_NOIO, file_), 0);
    trak_cowbmp_publish(&bmp_, marked.data(), marked.size());
    const std::string path = files_.Path("saved");
    ASSERT_EQ(trak_cowbmp_save(&bmp_, path.c_str()), 0);
    EXPECT_EQ(ReadAll(path), ReadAll(files_.Path("live"))) << "save equals the write-through";

    trak_cowbmp loaded{};
    ASSERT_EQ(trak_cowbmp_init(&loaded, 1), 0);
    ASSERT_EQ(trak_cowbmp_load(&loaded, path.c_str()), 0);
    EXPECT_EQ(loaded.chunks, ((chunks + 7) / 8) * 8);
    for (u32 c = 0; c < chunks; c++) {
        ASSERT_EQ(trak_cowbmp_test_bit(&loaded, c), trak_cowbmp_test_bit(&bmp_, c)) << c;
    }
    EXPECT_EQ(loaded.segs[1], nullptr) << "an all-zero segment stays absent";
    trak_cowbmp_destroy(&loaded);
}

TEST_F(CowBitmap, AFileOf4097BytesLoadsAs32776ChunksInTwoSegments) {
    std::vector<std::uint8_t> bytes(4097, 0);
    bytes[4096] = 0x81;
    const std::string path = files_.Path("odd");
    WriteAll(path, bytes);
    ASSERT_EQ(trak_cowbmp_init(&bmp_, 1), 0);
    ASSERT_EQ(trak_cowbmp_load(&bmp_, path.c_str()), 0);
    EXPECT_EQ(bmp_.chunks, 32776U);
    EXPECT_EQ(bmp_.seg_cnt, 2);
    EXPECT_EQ(bmp_.segs[0], nullptr);
    ASSERT_NE(bmp_.segs[1], nullptr);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, static_cast<u32>(kSegChunks)), 1);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, static_cast<u32>(kSegChunks + 7)), 1);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, static_cast<u32>(kSegChunks + 1)), 0);
}

TEST_F(CowBitmap, AFileOfZerosLoadsWithNoSegment) {
    const std::string path = files_.Path("zeros");
    WriteAll(path, std::vector<std::uint8_t>(10000, 0));
    ASSERT_EQ(trak_cowbmp_init(&bmp_, 1), 0);
    ASSERT_EQ(trak_cowbmp_load(&bmp_, path.c_str()), 0);
    EXPECT_EQ(bmp_.chunks, 80000U);
    for (int i = 0; i < bmp_.seg_cnt; i++) {
        EXPECT_EQ(bmp_.segs[i], nullptr) << "segment " << i;
    }
}

TEST_F(CowBitmap, AFileThatCannotBeOpenedLeavesTheBitmapAsItWas) {
    ASSERT_EQ(trak_cowbmp_init(&bmp_, 100), 0);
    TakeLog();
    const std::string missing = files_.Path("missing");
    EXPECT_EQ(trak_cowbmp_load(&bmp_, missing.c_str()), -EIO);
    EXPECT_EQ(bmp_.chunks, 100U);
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, 0), 0);
    const std::vector<LogLine> expected = {
        {2, "trak_cowbmp_load(): Loading COW bitmap from " + missing},
        {TRAK_LOG_ERR, "trak_fopen(): Failed to open file " + missing + " for reading: errno=-2"}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(CowBitmap, AnUninitialisedBitmapCountsEveryChunkAsPreserved) {
    EXPECT_EQ(trak_cowbmp_test_bit(&bmp_, 12), -EINVAL);
    const u32 chunk = 12;
    EXPECT_EQ(trak_cowbmp_write_ahead(&bmp_, &chunk, 1, GFP_NOIO, nullptr), -EINVAL);
    EXPECT_EQ(trak_cowbmp_save(&bmp_, files_.Path("out").c_str()), -EINVAL);
    EXPECT_EQ(trak_cowbmp_load(&bmp_, ""), -EINVAL);
    const std::vector<LogLine> expected = {
        {TRAK_LOG_ERR, "trak_cowbmp_test_bit(): Uninitialized COW bitmap."},
        {TRAK_LOG_ERR, "trak_cowbmp_write_ahead(): Uninitialized COW bitmap."},
        {TRAK_LOG_ERR, "trak_cowbmp_save(): Internal error: invalid params."},
        {TRAK_LOG_ERR, "trak_cowbmp_load(): Internal error: invalid params."}};
    EXPECT_EQ(TakeLog(), expected);
}

}  // namespace
}  // namespace trak::snap_test
