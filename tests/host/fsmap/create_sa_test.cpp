// create_sa: the compressed store of one segment, and the chunk test over it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "fsmap_api.h"

namespace trak::fsmap_test {
namespace {

constexpr size_t kZ = 8;

// Fragments of 8 bytes: zeros, ones, data, zeros, data that starts with 0.
std::vector<uint8_t> MixedFragments() {
    std::vector<uint8_t> bits(5 * kZ, 0);
    std::fill_n(bits.begin() + kZ, kZ, 0xFF);
    for (uint32_t i = 0; i < kZ; i++) {
        bits[2 * kZ + i] = static_cast<uint8_t>(i + 1);
    }
    bits[5 * kZ - 1] = 0x80;
    return bits;
}

class BuiltSa : public testing::Test {
  protected:
    void TearDown() override {
        vfree(sa_.idx);
        vfree(sa_.pool);
    }
    trak_blkbmp_sa sa_{};
};

TEST(CreateSa, SizesWithoutBuilding) {
    const std::vector<uint8_t> bits = MixedFragments();
    // Slot table 2 * 5, one shared zero and one shared ones fragment, two copies.
    EXPECT_EQ(create_sa(nullptr, 5, kZ, bits.data(), true), 10 + 2 * 8 + 2 * 8);
}

TEST_F(BuiltSa, SharesUniformFragmentsAndCopiesTheOthersInOrder) {
    const std::vector<uint8_t> bits = MixedFragments();
    ASSERT_EQ(create_sa(&sa_, 5, kZ, bits.data(), false), 42);
    EXPECT_EQ(sa_.frag_cnt, 5U);
    EXPECT_EQ(sa_.frag_size, kZ);
    EXPECT_EQ(sa_.idx_shift, 6U);
    EXPECT_EQ(sa_.bit_mask, 63U);
    EXPECT_EQ(sa_.pool_shift, 3U);
    EXPECT_EQ(std::vector<uint16_t>(sa_.idx, sa_.idx + 5), (std::vector<uint16_t>{0, 1, 2, 0, 3}));
    std::vector<uint8_t> pool(4 * kZ, 0);
    std::fill_n(pool.begin() + kZ, kZ, 0xFF);
    std::copy_n(bits.begin() + 2 * kZ, kZ, pool.begin() + 2 * kZ);
    std::copy_n(bits.begin() + 4 * kZ, kZ, pool.begin() + 3 * kZ);
    EXPECT_EQ(std::vector<uint8_t>(sa_.pool, sa_.pool + 4 * kZ), pool);
}

TEST_F(BuiltSa, OnesTakeSlotZeroWhenNoFragmentIsZero) {
    const std::vector<uint8_t> bits = {0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    ASSERT_EQ(create_sa(&sa_, 3, 4, bits.data(), false), 6 + 4 + 4);
    EXPECT_EQ(std::vector<uint16_t>(sa_.idx, sa_.idx + 3), (std::vector<uint16_t>{0, 1, 0}));
}

TEST_F(BuiltSa, OneByteFragments) {
    const std::vector<uint8_t> bits = {0, 0xFF, 3, 0, 0xFE};
    ASSERT_EQ(create_sa(&sa_, 5, 1, bits.data(), false), 10 + 1 + 1 + 2);
    EXPECT_EQ(sa_.idx_shift, 3U);
    EXPECT_EQ(sa_.bit_mask, 7U);
    EXPECT_EQ(sa_.pool_shift, 0U);
    EXPECT_EQ(std::vector<uint16_t>(sa_.idx, sa_.idx + 5), (std::vector<uint16_t>{0, 1, 2, 0, 3}));
}

TEST_F(BuiltSa, TheChunkTestReadsEveryBitBack) {
    const std::vector<uint8_t> bits = MixedFragments();
    ASSERT_GT(create_sa(&sa_, 5, kZ, bits.data(), false), 0);
    const uint32_t chunks = 5 * kZ * 8 - 3;  // the last 3 bits lie past the chunks
    trak_blkbmp bmp{1, static_cast<s32>(chunks), 1, &sa_};
    for (uint32_t c = 0; c < chunks; c++) {
        EXPECT_EQ(trak_blkbmp_has_data(&bmp, c), ((bits[c / 8] >> (c % 8)) & 1) != 0) << c;
    }
    EXPECT_TRUE(trak_blkbmp_has_data(&bmp, chunks)) << "past the last chunk counts as data";
    bmp.valid = 0;
    EXPECT_TRUE(trak_blkbmp_has_data(&bmp, 0)) << "an invalid bitmap holds data everywhere";
}

}  // namespace
}  // namespace trak::fsmap_test
