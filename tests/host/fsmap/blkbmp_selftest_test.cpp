// trak_blkbmp_test, the self-test of a reader and the bitmap, run through
// the host environment on images of each file system.
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
constexpr uint32_t kMaxPortionChunk = 65536;
constexpr uint32_t kMinPortion = 128;

class BlkbmpSelfTest : public testing::TestWithParam<FileSystemCase> {};

TEST_P(BlkbmpSelfTest, PassesAndDumpsTheBlockMap) {
    const FileSystemCase& fs = GetParam();
    ScratchDir dir;
    const std::string image = fs.make(dir);
    OpenedImage dev(image);
    const uint64_t blocks = dev.size() / fs.block_size;
    TakeLog();

    for (const unsigned long ticks : {0UL, 7919UL, 123456789UL}) {
        SCOPED_TRACE("jiffies " + std::to_string(ticks));
        jiffies = ticks;
        EXPECT_EQ(trak_blkbmp_test(dev.get()), 0);
        const std::vector<LogLine> log = TakeLog();
        for (const LogLine& line : log) {
            EXPECT_NE(line.level, TRAK_LOG_ERR) << line;
        }
        EXPECT_EQ(log.front(),
                  (LogLine{2, "trak_blkbmp_test(): Testing datablock bitmap code for hdd(7, 3)"}));
        EXPECT_EQ(log.back(), (LogLine{2,
                                       "trak_blkbmp_test(): Datablock bitmap code tests completed "
                                       "successfully"}));

        // One round per chunk size up to 64 KiB and portion of over 127 bytes.
        std::vector<std::string> rounds;
        for (uint64_t cs = fs.block_size; cs <= kMaxPortionChunk; cs *= 2) {
            const uint64_t chunks = (dev.size() + cs - 1) / cs;
            for (uint64_t ps = (chunks + 7) / 8; ps >= kMinPortion; ps /= 2) {
                rounds.push_back("Testing chunk_size=" + std::to_string(cs) + ", chunks=" +
                                 std::to_string(chunks) + " (portion_size=" + std::to_string(ps) +
                                 "): /tmp/bmp." + std::to_string(cs) + "." + std::to_string(ps));
            }
        }
        std::vector<std::string> logged;
        for (const LogLine& line : log) {
            if (line.text.starts_with("Testing chunk_size=")) {
                logged.push_back(line.text);
            }
        }
        EXPECT_EQ(logged, rounds);
    }

    const uint64_t bytes = (blocks + 7) / 8;
    const std::string dump =
        "/tmp/bmp." + std::to_string(fs.block_size) + "." + std::to_string(bytes);
    const std::vector<uint8_t> dumped = ReadBytes(dump, 0, bytes);
    EXPECT_EQ(Difference(BitsOf(dumped.data(), blocks), fs.oracle(image, blocks)), "");
}

INSTANTIATE_TEST_SUITE_P(Images, BlkbmpSelfTest,
                         testing::Values(ExtCase("ext2_1k", "ext2", 1024, 30 * kMiB),
                                         ExtCase("ext3_2k", "ext3", 2048, 96 * kMiB),
                                         ExtCase("ext4_1k", "ext4", 1024, 96 * kMiB),
                                         ExtCase("ext4_4k", "ext4", 4096, 640 * kMiB),
                                         ExtCase("ext4_bigalloc", "ext4", 4096, 640 * kMiB,
                                                 "-O bigalloc -C 65536"),
                                         XfsCase("xfs_v5_4k", kXfsV5, 4096, 2, 600, 320 * kMiB),
                                         XfsCase("xfs_4k", kXfsV4, 4096, 2, 600, 320 * kMiB),
                                         ReiserfsCase("reiserfs_4k", 200 * kMiB)),
                         [](const auto& info) { return info.param.name; });

TEST(BlkbmpSelfTestEdges, ASmallFileSystemSkipsTheReaderRounds) {
    ScratchDir dir;
    // 1,000 blocks of 1 KiB: a block map of 125 bytes, below any portion.
    OpenedImage dev(MakeEmptyExt2Image(dir, uint64_t{1000} * 1024));
    TakeLog();
    EXPECT_EQ(trak_blkbmp_test(dev.get()), 0);
    const std::vector<LogLine> log = TakeLog();
    EXPECT_TRUE(std::none_of(log.begin(), log.end(), [](const LogLine& line) {
        return line.text.starts_with("Testing chunk_size=");
    }));
    EXPECT_EQ(
        log.back(),
        (LogLine{2, "trak_blkbmp_test(): Datablock bitmap code tests completed successfully"}));
}

TEST(BlkbmpSelfTestEdges, AnUnrecognisedPartitionFails) {
    ScratchDir dir;
    OpenedImage dev(MakeBlankImage(dir, "blank.img", 8 * kMiB));
    TakeLog();
    EXPECT_EQ(trak_blkbmp_test(dev.get()), -EINVAL);
    const std::vector<LogLine> log = TakeLog();
    EXPECT_EQ(log.back(),
              (LogLine{1, "trak_blkbmp_test(): Cannot recognize file system on hdd(7, 3)."}));
}

}  // namespace
}  // namespace trak::fsmap_test
