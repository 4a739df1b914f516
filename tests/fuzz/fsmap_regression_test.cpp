// Every input in regressions/fsmap once crashed a reader or made it ask for
// gigabytes. Each is replayed here through the reader it hit, which must
// now refuse the image with its exact log lines.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "captured_log.h"
#include "fuzz_image.h"
#include "trak_env.h"

extern "C" {
#include "reader.h"
}

namespace trak::fuzz {
namespace {

using trak::host::LogLine;
using trak::host::TakeLog;

struct Regression {
    const char* input;  // file name in regressions/fsmap
    const trak_blkbmp_reader* reader;
    std::vector<LogLine> log;
};

// Names the case by its input in test lists (the struct holds pointers).
void PrintTo(const Regression& r, std::ostream* os) { *os << r.input; }

std::vector<uint8_t> ReadInput(const std::string& name) {
    std::ifstream file(std::string(TRAK_FSMAP_REGRESSIONS) + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class FsmapRegressionTest : public ::testing::TestWithParam<Regression> {};

TEST_P(FsmapRegressionTest, ReaderRefusesTheImage) {
    const Regression& r = GetParam();
    const std::vector<uint8_t> input = ReadInput(r.input);
    ASSERT_FALSE(input.empty()) << r.input;
    const FuzzImage image = DecodeHeader(input);
    const int fd = memfd_create("trak-regression", MFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    WriteImage(input, image, fd);
    block_device bdev{fd, MKDEV(7, 3), static_cast<loff_t>(image.bytes)};
    TakeLog();
    EXPECT_EQ(r.reader->init(&bdev, nullptr), nullptr);
    EXPECT_EQ(TakeLog(), r.log);
    close(fd);
}

const std::vector<LogLine> kExt2Corrupt = {
    {2, "ext2_reader_init(): Detected ext2/ext3 FS on hdd(7, 3)"},
    {TRAK_LOG_ERR, "ext2_reader_init(): Superblock of hdd(7, 3) is corrupt."},
};

INSTANTIATE_TEST_SUITE_P(
    Inputs, FsmapRegressionTest,
    ::testing::Values(
        // Four billion blocks on an 8 MiB partition sized the group
        // descriptor table at 3.6 GiB.
        Regression{"ext2-blocks-count-beyond-device", &trak_ext2_reader, kExt2Corrupt},
        // As the fuzzer found it: 637534208 groups of 2055366801 blocks on
        // a 320 MiB partition.
        Regression{"xfs-fuzzed-agcount-beyond-device",
                   &trak_xfs_reader,
                   {{TRAK_LOG_ERR, "xfs_reader_init(): Superblock of hdd(7, 3) is corrupt."}}},
        // Four billion allocation groups of 16 blocks on a 1 MiB partition.
        Regression{"xfs-agcount-beyond-device",
                   &trak_xfs_reader,
                   {{TRAK_LOG_ERR, "xfs_reader_init(): Superblock of hdd(7, 3) is corrupt."}}}),
    [](const ::testing::TestParamInfo<Regression>& info) {
        std::string name = info.param.input;
        std::erase(name, '-');
        return name;
    });

}  // namespace
}  // namespace trak::fuzz
