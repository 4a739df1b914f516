// Snapshots of mounted file systems: the start freezes the file system for
// its moment, and the snap, mounted read-only elsewhere while the origin
// keeps changing, holds every file as it was then. This holds whether the
// data-block map can be read (ext3, ext4 without 64bit and metadata_csum,
// XFS version 4: free chunks are not preserved) or not (a default ext4 or
// XFS: every chunk is preserved), so no chunk in use is ever taken for
// free.
#include <sys/mount.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/file_churn.h"
#include "support/file_tree.h"
#include "support/fs_workload.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/snap_test.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
constexpr const char* kOriginMount = "/mnt/trak-origin";
constexpr const char* kSnapMount = "/mnt/trak-snap";
constexpr std::chrono::seconds kChurnTimeout{120};

struct SnappedFileSystem {
    const char* name;
    const char* type;
    std::vector<std::string> mkfs;  // the device is appended
    // Mount options of the snapshot: its journal or log is never replayed
    // (the device is read-only), and XFS must accept a second file system
    // with the same uuid.
    const char* snap_options;
    // e2fsck -f -n passes on an ext3/ext4 taken frozen; XFS leaves its
    // summary counters to the log, so xfs_repair -n would not.
    bool check_with_e2fsck;
};

// Writes `files` files of `bytes` random bytes each into `dir` without
// syncing them: until the start freezes the file system they are only in
// the page cache.
::testing::AssertionResult WriteUnsynced(const std::string& dir, int files, std::size_t bytes,
                                         std::uint32_t seed) {
    std::filesystem::create_directories(dir);
    for (int i = 0; i < files; ++i) {
        const std::string path = dir + "/u" + std::to_string(i);
        const std::vector<std::uint8_t> contents = RandomBytes(bytes, seed + i);
        FILE* file = std::fopen(path.c_str(), "wb");
        if (file == nullptr) {
            return ::testing::AssertionFailure() << "creating " << path;
        }
        const std::size_t written = std::fwrite(contents.data(), 1, contents.size(), file);
        if (std::fclose(file) != 0 || written != contents.size()) {
            return ::testing::AssertionFailure() << "writing " << path;
        }
    }
    return ::testing::AssertionSuccess();
}

class SnapFileSystemTest : public SnapTest,
                           public ::testing::WithParamInterface<SnappedFileSystem> {};

TEST_P(SnapFileSystemTest, SnapMountedElsewhereHoldsEveryFileAsAtTheStart) {
    const SnappedFileSystem& fs = GetParam();
    ASSERT_TRUE(Succeeds({"modprobe", fs.type}));
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    std::vector<std::string> mkfs = fs.mkfs;
    mkfs.push_back(NodeDevice(0));
    ASSERT_TRUE(Succeeds(mkfs));
    ASSERT_EQ(MountNode(NodeDevice(0), kOriginMount, fs.type, 0, ""), 0);
    const std::string origin = kOriginMount;
    std::filesystem::create_directories(origin + "/data");
    ASSERT_TRUE(RunMixedWorkload(origin + "/data", {24, 256 * 1024}, 21));
    ASSERT_TRUE(WriteUnsynced(origin + "/late", 6, std::size_t{100} * 1024, 22));
    std::filesystem::create_directories(origin + "/churn");
    FileChurn churn(origin + "/churn", 6);
    churn.Start();
    ASSERT_TRUE(churn.AwaitRounds(2, kChurnTimeout));
    const TreeReading at_start = ReadTree(origin, {"churn"});
    ASSERT_EQ(at_start.error, 0) << at_start.failed;
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1));

    const FileChurn::Clock::time_point asked = FileChurn::Clock::now();
    ASSERT_EQ(StartNode(control(), 1), 0);
    const FileChurn::Clock::time_point returned = FileChurn::Clock::now();

    // The origin goes on changing: files deleted, rewritten and added.
    std::filesystem::remove_all(origin + "/data/small");
    ASSERT_TRUE(WriteUnsynced(origin + "/late", 6, std::size_t{64} * 1024, 23));
    std::filesystem::create_directories(origin + "/added");
    ASSERT_TRUE(RunMixedWorkload(origin + "/added", {12, 128 * 1024}, 24));
    ASSERT_EQ(MountNode(NodeDevice(1), kSnapMount, fs.type, MS_RDONLY, fs.snap_options), 0);
    const TreeReading snap = ReadTree(kSnapMount, {"churn"});
    ASSERT_TRUE(churn.Stop());

    ASSERT_EQ(snap.error, 0) << snap.failed;
    EXPECT_TRUE(SameTree(snap.contents, at_start.contents));
    EXPECT_TRUE(
        churn.CopyHoldsVersionsCurrentBetween(std::string(kSnapMount) + "/churn", asked, returned));
    ASSERT_EQ(UnmountNode(kSnapMount), 0);
    if (fs.check_with_e2fsck) {
        EXPECT_TRUE(Succeeds({"e2fsck", "-f", "-n", NodeDevice(1)}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Mounted, SnapFileSystemTest,
    ::testing::Values(
        SnappedFileSystem{"ext3", "ext3", {"mkfs.ext3", "-q", "-F"}, "noload", true},
        SnappedFileSystem{"ext4_default", "ext4", {"mkfs.ext4", "-q", "-F"}, "noload", true},
        SnappedFileSystem{"ext4_without_64bit",
                          "ext4",
                          {"mkfs.ext4", "-q", "-F", "-O", "^64bit,^metadata_csum"},
                          "noload",
                          true},
        SnappedFileSystem{
            "xfs_default", "xfs", {"mkfs.xfs", "-q", "-f"}, "norecovery,nouuid", false},
        SnappedFileSystem{
            "xfs_v4", "xfs", {"mkfs.xfs", "-q", "-f", "-m", "crc=0"}, "norecovery,nouuid", false}),
    [](const ::testing::TestParamInfo<SnappedFileSystem>& info) {
        return std::string(info.param.name);
    });

}  // namespace
}  // namespace trak::vmtest
