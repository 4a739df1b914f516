// The set extents of a bitmap as ranges of extents and of bytes.
#include <extent_ranges.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

using trakctl::ExtentRange;

using Ranges = std::vector<ExtentRange>;

TEST(SetExtentRanges, BitEIsBitEMod8OfByteEDiv8) {
    // Extents 0-3, 9 and 17: bits 0-3 of byte 0, bit 1 of byte 1, bit 1 of byte 2.
    const std::vector<std::uint8_t> bits = {0x0F, 0x02, 0x02, 0x00};

    EXPECT_EQ(trakctl::set_extent_ranges(bits, 32), (Ranges{{0, 3}, {9, 9}, {17, 17}}));
}

TEST(SetExtentRanges, RunsJoinAcrossByteBoundaries) {
    const std::vector<std::uint8_t> bits = {0x80, 0xFF, 0x01};

    EXPECT_EQ(trakctl::set_extent_ranges(bits, 24), (Ranges{{7, 16}}));
}

TEST(SetExtentRanges, BitsPastTheExtentCountAreIgnored) {
    // 33 extents: only bit 0 of the fifth byte is an extent.
    const std::vector<std::uint8_t> bits = {0x00, 0x00, 0x00, 0x00, 0xFF};

    EXPECT_EQ(trakctl::set_extent_ranges(bits, 33), (Ranges{{32, 32}}));
}

TEST(SetExtentRanges, AnExtentCountPastTheBitmapStopsAtItsEnd) {
    const std::vector<std::uint8_t> bits = {0xFF};

    EXPECT_EQ(trakctl::set_extent_ranges(bits, 100), (Ranges{{0, 7}}));
}

TEST(SetExtentRanges, AnEmptyBitmapHasNoRanges) {
    EXPECT_TRUE(trakctl::set_extent_ranges(std::vector<std::uint8_t>(4, 0), 32).empty());
    EXPECT_TRUE(trakctl::set_extent_ranges({}, 0).empty());
}

TEST(ExtentCount, SumsTheRanges) {
    EXPECT_EQ(trakctl::extent_count({{0, 3}, {17, 17}}), 5U);
    EXPECT_EQ(trakctl::extent_count({}), 0U);
}

TEST(ByteRanges, ScaleByTheExtentSize) {
    EXPECT_EQ(trakctl::byte_ranges({{0, 3}, {17, 17}}, 65536, 268435456),
              (Ranges{{0, 262143}, {1114112, 1179647}}));
}

TEST(ByteRanges, TheLastExtentEndsWithTheDevice) {
    // 33 extents of 64 KiB over 2 MiB + 4 KiB: the last extent holds 4 KiB.
    EXPECT_EQ(trakctl::byte_ranges({{31, 32}}, 65536, 2101248), (Ranges{{2031616, 2101247}}));
}

TEST(FormatRanges, SingleExtentsStandAlone) {
    EXPECT_EQ(trakctl::format_ranges({{0, 3}, {17, 17}, {20, 21}}), "0-3,17,20-21");
}

TEST(FormatRanges, NoRangesReadNone) { EXPECT_EQ(trakctl::format_ranges({}), "none"); }

}  // namespace
