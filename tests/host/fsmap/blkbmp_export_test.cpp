// trak_blkbmp_export: downsampling and its argument checks, on bitmaps
// built by create_sa from known chunk bits.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "captured_log.h"
#include "fsmap_api.h"
#include "oracles.h"

namespace trak::fsmap_test {
namespace {

using host::LogLine;
using host::TakeLog;

// A valid one-segment bitmap holding `chunks`, in fragments of 4 bytes.
class KnownBitmap {
  public:
    explicit KnownBitmap(const BlockMap& chunks) {
        std::vector<uint8_t> bits((chunks.size() + 31) / 32 * 4, 0xFF);
        std::fill_n(bits.begin(), (chunks.size() + 7) / 8, 0);
        for (size_t c = 0; c < chunks.size(); c++) {
            if (chunks[c]) {
                bits[c / 8] |= 1U << (c % 8);
            }
        }
        create_sa(&sa_, static_cast<u32>(bits.size() / 4), 4, bits.data(), false);
        bmp_ = {1, static_cast<s32>(chunks.size()), 1, &sa_};
    }
    KnownBitmap(const KnownBitmap&) = delete;
    KnownBitmap& operator=(const KnownBitmap&) = delete;
    ~KnownBitmap() {
        vfree(sa_.idx);
        vfree(sa_.pool);
    }
    [[nodiscard]] const trak_blkbmp* get() const { return &bmp_; }

  private:
    trak_blkbmp_sa sa_{};
    trak_blkbmp bmp_{};
};

// 1,000 chunks: a used run, a free run, scattered used chunks.
BlockMap Pattern() {
    BlockMap map(1000, false);
    for (size_t c = 0; c < 40; c++) {
        map[c] = true;
    }
    for (size_t c = 300; c < 1000; c += 97) {
        map[c] = true;
    }
    map[999] = true;
    return map;
}

BlockMap Export(const KnownBitmap& bmp, s32 k, size_t bytes) {
    std::vector<u64> out((bytes + 7) / 8 + 1, ~0ULL);
    EXPECT_EQ(trak_blkbmp_export(bmp.get(), k, out.data(), static_cast<s32>(bytes)), 0);
    return BitsOf(reinterpret_cast<const uint8_t*>(out.data()), bytes * 8);
}

BlockMap Padded(BlockMap map, size_t bits) {
    map.resize(bits, false);
    return map;
}

TEST(BlkbmpExport, OneChunkPerBitReproducesTheChunks) {
    KnownBitmap bmp(Pattern());
    EXPECT_EQ(Difference(Export(bmp, 1, 125), Pattern()), "");
}

TEST(BlkbmpExport, TheLastBitCoversOnlyTheRemainingChunks) {
    KnownBitmap bmp(Pattern());
    // 1,000 = 142 * 7 + 6 and 3 * 300 + 100.
    EXPECT_EQ(Difference(Export(bmp, 7, 18), Padded(Downsample(Pattern(), 7), 144)), "");
    EXPECT_EQ(Difference(Export(bmp, 300, 1), Padded(BlockMap{true, true, true, true}, 8)), "");
    BlockMap tail_free = Pattern();
    tail_free[979] = false;
    tail_free[999] = false;
    KnownBitmap short_tail(tail_free);
    // Chunks 900 to 999 (the last bit of k = 300) hold nothing.
    EXPECT_EQ(Difference(Export(short_tail, 300, 1), Padded(BlockMap{true, true, true, false}, 8)),
              "");
}

TEST(BlkbmpExport, MoreChunksPerBitThanChunksGivesOneByte) {
    KnownBitmap used(Pattern());
    EXPECT_EQ(Difference(Export(used, 5000, 1), Padded(BlockMap{true}, 8)), "");
    KnownBitmap free_chunks(BlockMap(1000, false));
    EXPECT_EQ(Difference(Export(free_chunks, 5000, 1), BlockMap(8, false)), "");
}

TEST(BlkbmpExport, RefusesANullBuffer) {
    KnownBitmap bmp(Pattern());
    TakeLog();
    EXPECT_EQ(trak_blkbmp_export(bmp.get(), 1, nullptr, 125), -EINVAL);
    const std::vector<LogLine> expected = {
        {TRAK_LOG_ERR, "trak_blkbmp_export(): NULL buffer passed as input"}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST(BlkbmpExport, TakesABufferOfExactlyTheNeededSizeAndRefusesOneByteLess) {
    KnownBitmap bmp(Pattern());
    std::vector<u64> out(4);
    TakeLog();
    // ceil(ceil(1000 / 40) / 8) = 4 bytes.
    EXPECT_EQ(trak_blkbmp_export(bmp.get(), 40, out.data(), 4), 0);
    EXPECT_EQ(trak_blkbmp_export(bmp.get(), 40, out.data(), 3), -EINVAL);
    const std::vector<LogLine> expected = {
        {TRAK_LOG_ERR,
         "trak_blkbmp_export(): Insufficient buffer size passed as input: should be 4 instead of "
         "3"}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST(BlkbmpExport, ClearsOnlyTheNeededBytes) {
    KnownBitmap bmp(BlockMap(1000, false));
    std::vector<u64> out(4, ~0ULL);
    ASSERT_EQ(trak_blkbmp_export(bmp.get(), 40, out.data(), 32), 0);
    const auto* bytes = reinterpret_cast<const uint8_t*>(out.data());
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 6),
              (std::vector<uint8_t>{0, 0, 0, 0, 0xFF, 0xFF}));
}

}  // namespace
}  // namespace trak::fsmap_test
