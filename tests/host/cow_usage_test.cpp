// libtrak's reading of a snap's COW usage from its COW bitmap file.
#include <gtest/gtest.h>
#include <trak/cow_usage.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include "temp_dir.h"

namespace {

constexpr std::uint64_t kChunk = 4096;

class CowUsageTest : public ::testing::Test {
  protected:
    // A snap of `chunks` chunks whose COW bitmap file holds `bytes`.
    trak::SnapInfo snap(std::uint32_t chunks, const std::string& bytes) const {
        files.write("cow.bmp", bytes);
        return {.snap_valid = true,
                .stop_pending = false,
                .del_pending = false,
                .chunk_size = static_cast<std::uint32_t>(kChunk),
                .cow_chunks = chunks,
                .cow_bmp_size = ((chunks - 1) >> 3U) + 1,
                .cow_data_size = std::uint64_t{chunks} * kChunk,
                .cow_bmp_fname = (files.path() / "cow.bmp").string(),
                .cow_data_fname = (files.path() / "cow.data").string()};
    }

    trak_test::TempDir files;
};

TEST_F(CowUsageTest, CountsTheMarkedChunksLowestBitFirst) {
    // Chunks 0, 7, 8 and 19 of 20.
    const trak::SnapInfo info = snap(20, std::string("\x81\x01\x08", 3));

    const trak::CowUsage usage = trak::cow_usage(info, 20 * kChunk);

    EXPECT_EQ(usage.chunks, 4U);
    EXPECT_EQ(usage.bytes, 4U * kChunk);
}

TEST_F(CowUsageTest, BitsPastTheLastChunkAreNoChunks) {
    // 20 chunks: only the low four bits of the third byte are chunks 16-19.
    const trak::SnapInfo info = snap(20, std::string("\x00\x00\xFF", 3));

    EXPECT_EQ(trak::cow_usage(info, 20 * kChunk).chunks, 4U);
}

TEST_F(CowUsageTest, AWholeLastByteCountsWhenTheChunksFillIt) {
    const trak::SnapInfo info = snap(16, std::string("\xFF\xFF", 2));

    EXPECT_EQ(trak::cow_usage(info, 16 * kChunk).chunks, 16U);
}

TEST_F(CowUsageTest, TheLastChunkHoldsOnlyThePartitionsLastBytes) {
    // 19 whole chunks and 1000 bytes: chunk 19 is short.
    const std::uint64_t dev_size = 19 * kChunk + 1000;
    const trak::SnapInfo both = snap(20, std::string("\x01\x00\x08", 3));

    EXPECT_EQ(trak::cow_usage(both, dev_size).bytes, kChunk + 1000U);

    const trak::SnapInfo first_only = snap(20, std::string("\x01\x00\x00", 3));
    EXPECT_EQ(trak::cow_usage(first_only, dev_size).bytes, kChunk);
}

TEST_F(CowUsageTest, AnEmptyBitmapPreservedNothing) {
    const trak::SnapInfo info = snap(262144, std::string(32768, '\0'));

    const trak::CowUsage usage = trak::cow_usage(info, 262144ULL * kChunk);

    EXPECT_EQ(usage.chunks, 0U);
    EXPECT_EQ(usage.bytes, 0U);
}

TEST_F(CowUsageTest, CountsAcrossTheBlocksOfALargeFile) {
    // 70000 bytes: more than one block of reading.
    std::string bytes(70000, '\0');
    bytes[65535] = '\xFF';
    bytes[65536] = '\x0F';
    bytes[69999] = '\x80';
    const trak::SnapInfo info = snap(560000, bytes);

    EXPECT_EQ(trak::cow_usage(info, 560000ULL * kChunk).chunks, 13U);
}

TEST_F(CowUsageTest, AMissingFileCannotBeRead) {
    trak::SnapInfo info = snap(20, std::string(3, '\0'));
    info.cow_bmp_fname = (files.path() / "absent.bmp").string();

    try {
        trak::cow_usage(info, 20 * kChunk);
        FAIL() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_EQ(std::string(error.what()),
                  "cannot read " + info.cow_bmp_fname + ": No such file or directory");
    }
}

TEST_F(CowUsageTest, AFileOfAnotherLengthIsNotTheSnapsBitmap) {
    for (const std::size_t length : {2U, 4U, 0U}) {
        const trak::SnapInfo info = snap(20, std::string(length, '\xFF'));
        try {
            trak::cow_usage(info, 20 * kChunk);
            FAIL() << "no exception for " << length << " bytes";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(std::string(error.what()),
                      info.cow_bmp_fname + " holds " + std::to_string(length) +
                          " bytes, not the 3 bytes of the COW bitmap of a snap of 20 chunks");
        }
    }
}

}  // namespace
