// TRAK_TEST_DATABLOCK: the data-block map's self-test on real, filled file
// systems made in the guest (ext2, ext3, ext4, XFS versions 4 and 5,
// ReiserFS), and the refusals of what it cannot test.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <ostream>
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

// A filled file system whose map the self-test's first dump must equal, and
// its own tool's map of it; the oracle also checks that the file system has
// what makes the case worth running.
struct FilledFileSystem {
    FileSystem fs;
    std::uint64_t block_size;
    std::function<fsmap_test::BlockMap(const char* device, std::uint64_t blocks)> oracle;
};

void PrintTo(const FilledFileSystem& c, std::ostream* os) { *os << c.fs.name; }

class DatablockOnFilledFileSystem : public DatablockTest,
                                    public ::testing::WithParamInterface<FilledFileSystem> {};

// The self-test's first dump is the reader's map at one bit per block: on a
// file system filled by the guest's kernel it must equal the file system's
// own tool's map, block for block.
TEST_P(DatablockOnFilledFileSystem, SelfTestPassesAndItsBlockMapEqualsTheTools) {
    const FilledFileSystem& c = GetParam();
    ASSERT_NO_FATAL_FAILURE(MakeFilled(c.fs));
    const std::uint64_t blocks = DeviceBytes(kSpareDisk) / c.block_size;
    ASSERT_GT(blocks, 0U);
    const fsmap_test::BlockMap oracle = c.oracle(kSpareDisk, blocks);
    ASSERT_EQ(oracle.size(), blocks);
    log().Mark();

    ASSERT_EQ(TestDatablock(kSpareDisk), 0);

    EXPECT_TRUE(log().Contains(LogPattern::Matching(
        R"(trak_blkbmp_test\(\): Datablock bitmap code tests completed successfully$)")));
    EXPECT_TRUE(log().Absent(LogPattern::Matching("ERROR: ")));
    const std::uint64_t bytes = (blocks + 7) / 8;
    const auto dump =
        ReadFile("/tmp/bmp." + std::to_string(c.block_size) + "." + std::to_string(bytes));
    ASSERT_EQ(dump.size(), bytes);
    EXPECT_EQ(fsmap_test::Difference(fsmap_test::BitsOf(dump.data(), blocks), oracle), "");
}

INSTANTIATE_TEST_SUITE_P(
    Readers, DatablockOnFilledFileSystem,
    ::testing::Values(
        // mkfs.ext4's defaults for a partition under 512 MiB: 1 KiB blocks,
        // 64-bit descriptors, flex_bg, uninitialised groups, metadata_csum.
        FilledFileSystem{{"ext4", "ext4", {"mkfs.ext4", "-q", "-F"}},
                         1024,
                         [](const char* device, std::uint64_t blocks) {
                             const auto ext = fsmap_test::DumpE2fs(device, blocks);
                             EXPECT_EQ(ext.block_size, 1024U);
                             EXPECT_GT(ext.uninit_groups, 0U);
                             EXPECT_GT(ext.bitmaps_elsewhere, 0U);
                             return ext.used;
                         }},
        // mkfs.xfs's defaults: version 5, with reflink.
        FilledFileSystem{{"xfs_v5", "xfs", {"mkfs.xfs", "-q", "-f"}},
                         4096,
                         [](const char* device, std::uint64_t blocks) {
                             const auto xfs = fsmap_test::XfsDb(device, blocks);
                             EXPECT_EQ(xfs.block_size, 4096U);
                             EXPECT_GE(xfs.agcount, 2U);
                             return xfs.used;
                         }},
        // Only the guest's kernel can fill a ReiserFS.
        FilledFileSystem{{"reiserfs", "reiserfs", {"mkreiserfs", "-q", "-f", "-f"}},
                         4096,
                         [](const char* device, std::uint64_t blocks) {
                             const auto rfs = fsmap_test::DebugReiserfs(device, blocks);
                             EXPECT_EQ(rfs.block_size, 4096U);
                             EXPECT_GT(rfs.bitmaps, 1U)
                                 << "the partition must need several bitmap blocks";
                             return rfs.used;
                         }}),
    [](const auto& info) { return std::string(info.param.fs.name); });

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
