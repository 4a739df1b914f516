// TRAK_TEST_DATABLOCK: the data-block map's self-test on real, filled file
// systems made in the guest, and the refusals of what it cannot test.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "oracles.h"
#include "support/command.h"
#include "support/filter_test.h"
#include "support/test_disks.h"
#include "trak_ioctl.h"

namespace trak::vmtest {
namespace {

constexpr const char* kMountPoint = "/mnt/trak-datablock";

// A file system the readers know, and how to make it.
struct FileSystem {
    const char* name;
    const char* module;
    std::vector<std::string> mkfs;  // the device is appended
};

class DatablockTest : public FilterTest {
  protected:
    // The self-test's verdict is logged at level 2.
    [[nodiscard]] std::string DriverParams() const override { return "trak_debug=2"; }

    int TestDatablock(const std::string& path) {
        trak_test_datablock_args record{};
        path.copy(record.hdd_name, sizeof(record.hdd_name) - 1);
        return control().Ioctl(TRAK_TEST_DATABLOCK, &record);
    }

    static std::vector<std::filesystem::path> Dumps() {
        std::vector<std::filesystem::path> dumps;
        for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
            if (entry.path().filename().string().starts_with("bmp.")) {
                dumps.push_back(entry.path());
            }
        }
        return dumps;
    }

    // Makes the file system on the spare disk and fills it with files,
    // some of them deleted again so that free space is fragmented.
    void MakeFilled(const FileSystem& fs) {
        ASSERT_TRUE(Succeeds({"modprobe", fs.module}));
        std::vector<std::string> mkfs = fs.mkfs;
        mkfs.emplace_back(kSpareDisk);
        ASSERT_TRUE(Succeeds(mkfs));
        ASSERT_EQ(Mount(kSpareDisk, kMountPoint, fs.module), 0);
        for (int i = 0; i < 24; i++) {
            const std::string file = std::string(kMountPoint) + "/f" + std::to_string(i);
            ASSERT_TRUE(Succeeds({"dd", "if=/dev/urandom", "of=" + file, "bs=64k",
                                  "count=" + std::to_string(1 + i * 3), "status=none"}));
        }
        for (int i = 0; i < 24; i += 2) {
            std::filesystem::remove(std::string(kMountPoint) + "/f" + std::to_string(i));
        }
        ASSERT_EQ(Unmount(kMountPoint), 0);
    }
};

class DatablockOnFileSystem : public DatablockTest,
                              public ::testing::WithParamInterface<FileSystem> {};

TEST_P(DatablockOnFileSystem, SelfTestPassesAndLeavesItsDumps) {
    ASSERT_NO_FATAL_FAILURE(MakeFilled(GetParam()));
    for (const auto& dump : Dumps()) {
        std::filesystem::remove(dump);
    }
    log().Mark();

    EXPECT_EQ(TestDatablock(kSpareDisk), 0);

    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Info(std::string("trak_ioctl_test_datablock(): Testing datablocks on ") +
                          kSpareDisk),
         LogPattern::Matching(
             R"(trak_blkbmp_test\(\): Datablock bitmap code tests completed successfully$)")}));
    EXPECT_TRUE(log().Absent(LogPattern::Matching("ERROR: ")));
    // A 512 MiB partition has maps far above the 127 bytes below which the
    // reader rounds, and their dumps, are skipped.
    const auto dumps = Dumps();
    EXPECT_FALSE(dumps.empty());
    for (const auto& dump : dumps) {
        EXPECT_GT(std::filesystem::file_size(dump), 127U) << dump;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Readers, DatablockOnFileSystem,
    ::testing::Values(FileSystem{"ext2", "ext2", {"mkfs.ext2", "-q", "-F"}},
                      FileSystem{"ext3", "ext3", {"mkfs.ext3", "-q", "-F", "-b", "1024"}},
                      FileSystem{"xfs", "xfs", {"mkfs.xfs", "-q", "-f", "-m", "crc=0"}},
                      FileSystem{"reiserfs", "reiserfs", {"mkreiserfs", "-q", "-f", "-f"}}),
    [](const auto& info) { return std::string(info.param.name); });

std::uint64_t DeviceBytes(const char* device) {
    std::uint64_t bytes = 0;
    const int fd = open(device, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        if (ioctl(fd, BLKGETSIZE64, &bytes) != 0) {
            bytes = 0;
        }
        close(fd);
    }
    return bytes;
}

std::vector<std::uint8_t> ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The self-test's first dump is the reader's map at one bit per block; on a
// filled ReiserFS (only the guest's kernel can fill one) it must equal the
// bitmap that debugreiserfs reports, block for block.
TEST_F(DatablockTest, FilledReiserfsBlockMapEqualsDebugreiserfs) {
    constexpr std::uint64_t kBlock = 4096;
    ASSERT_NO_FATAL_FAILURE(
        MakeFilled(FileSystem{"reiserfs", "reiserfs", {"mkreiserfs", "-q", "-f", "-f"}}));
    const std::uint64_t blocks = DeviceBytes(kSpareDisk) / kBlock;
    ASSERT_GT(blocks, 0U);
    const auto oracle = fsmap_test::DebugReiserfs(kSpareDisk, blocks);
    ASSERT_EQ(oracle.block_size, kBlock);
    ASSERT_GT(oracle.bitmaps, 1U) << "the partition must need several bitmap blocks";

    ASSERT_EQ(TestDatablock(kSpareDisk), 0);

    const std::uint64_t bytes = (blocks + 7) / 8;
    const auto dump = ReadFile("/tmp/bmp." + std::to_string(kBlock) + "." + std::to_string(bytes));
    ASSERT_EQ(dump.size(), bytes);
    std::uint64_t used = 0;
    for (std::uint64_t b = 0; b < blocks; b++) {
        const bool reader = ((dump[b / 8] >> (b % 8)) & 1) != 0;
        ASSERT_EQ(reader, static_cast<bool>(oracle.used[b])) << "block " << b;
        used += reader ? 1 : 0;
    }
    EXPECT_EQ(used, blocks - oracle.free_blocks);
}

TEST_F(DatablockTest, MountedPartitionIsRefused) {
    ASSERT_TRUE(Succeeds({"mkfs.ext2", "-q", "-F", kSpareDisk}));
    ASSERT_EQ(Mount(kSpareDisk, kMountPoint, "ext2"), 0);
    log().Mark();

    EXPECT_EQ(TestDatablock(kSpareDisk), EBUSY);

    EXPECT_TRUE(log().Contains(LogPattern::Error(
        std::string("trak_ioctl_test_datablock(): Can't test mounted HDD device ") + kSpareDisk)));
}

TEST_F(DatablockTest, CharacterDeviceAndRegularFileAreNotBlockDevices) {
    for (const std::string path : {"/dev/null", "/etc/hostname"}) {
        SCOPED_TRACE(path);
        log().Mark();
        EXPECT_EQ(TestDatablock(path), EINVAL);
        EXPECT_TRUE(log().Contains(
            LogPattern::Error("trak_ioctl_test_datablock(): " + path + " is not a block device.")));
    }
}

TEST_F(DatablockTest, EmptyPathIsRefused) {
    EXPECT_EQ(TestDatablock(""), EINVAL);
    EXPECT_TRUE(log().Contains(
        LogPattern::Error("trak_ioctl_test_datablock(): Empty HDD name passed as input.")));
}

TEST_F(DatablockTest, UnrecognisedPartitionFailsTheTest) {
    ASSERT_TRUE(Succeeds({"dd", "if=/dev/zero", std::string("of=") + kSpareDisk, "bs=1M", "count=4",
                          "oflag=direct", "status=none"}));
    EXPECT_EQ(TestDatablock(kSpareDisk), EINVAL);
    EXPECT_TRUE(log().Contains(LogPattern::Matching(
        R"(trak_blkbmp_test\(\): Cannot recognize file system on hdd\(\d+, \d+\)\.$)")));
}

}  // namespace
}  // namespace trak::vmtest
