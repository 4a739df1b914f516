// Two filter nodes that keep their bitmap files on each other's mounted
// file systems: node 0 (over /dev/vda) on the file system of node 1 (over
// /dev/vdb), and node 1 on that of node 0. The first write after a save on
// either node waits for its dirty mark, and marking one node's file writes
// through the other node, whose own first write waits in turn. Saves, first
// writes and unmounts on both must complete.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/bitmap_file.h"
#include "support/command.h"
#include "support/filter_test.h"
#include "support/fs_workload.h"
#include "support/node_commands.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;
constexpr int kRounds = 4;
// Far more than a round takes, far less than the harness's patience.
constexpr std::chrono::seconds kRoundLimit{90};

struct CrossNode {
    std::int32_t minor;
    const char* hdd;
    const char* mount_point;
};

constexpr CrossNode kNodeA{0, kTrackedDisk, "/mnt/trak-cross-a"};
constexpr CrossNode kNodeB{1, kSpareDisk, "/mnt/trak-cross-b"};

std::string BitmapDirOn(const CrossNode& node) { return std::string(node.mount_point) + "/bm"; }

class CrossNodeBitmapsTest : public FilterTest {
  protected:
    // Adds and starts `node` with its bitmaps in bmp_dir(), makes a file
    // system on it (its inode tables written at once, so that nothing
    // writes behind the test's back) and mounts it with a bitmap
    // directory inside.
    void AddWithFileSystem(const CrossNode& node) {
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(node.hdd, kExtent, node.minor, true));
        ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", "-E",
                              "lazy_itable_init=0,lazy_journal_init=0", NodeDevice(node.minor)}));
        ASSERT_EQ(Mount(NodeDevice(node.minor), node.mount_point, "ext4"), 0);
        ASSERT_TRUE(std::filesystem::create_directories(BitmapDirOn(node)));
    }

    // Runs `step` in a child, so that a hang shows as a failure, not as a
    // test that never ends.
    static ::testing::AssertionResult CompletesInTime(const char* what,
                                                      const std::function<bool()>& step) {
        const pid_t child = fork();
        if (child < 0) {
            return ::testing::AssertionFailure() << "fork";
        }
        if (child == 0) {
            _exit(step() ? 0 : 1);
        }
        const int status = WaitForChild(child, kRoundLimit);
        if (status != 0) {
            return ::testing::AssertionFailure()
                   << what << ": status " << status << (status == 124 ? " (hung)" : "");
        }
        return ::testing::AssertionSuccess();
    }

    // Saves both bitmaps of both nodes.
    [[nodiscard]] bool SaveAll() const {
        for (const CrossNode& node : {kNodeA, kNodeB}) {
            for (const BitmapKind kind : kBothKinds) {
                if (SaveBitmap(control(), static_cast<std::uint32_t>(node.minor), kind) != 0) {
                    return false;
                }
            }
        }
        return true;
    }

    // The same workload on both file systems at once, from two processes.
    static bool WriteBoth(int round) {
        const pid_t other = fork();
        if (other == 0) {
            _exit(WriteOn(kNodeB, round) ? 0 : 1);
        }
        const bool here = WriteOn(kNodeA, round);
        return other > 0 && WaitForChild(other, kRoundLimit) == 0 && here;
    }

    static bool WriteOn(const CrossNode& node, int round) {
        const std::string dir = std::string(node.mount_point) + "/r" + std::to_string(round);
        return std::filesystem::create_directory(dir) &&
               static_cast<bool>(RunMixedWorkload(dir, {6, 64 * 1024}, round));
    }
};

TEST_F(CrossNodeBitmapsTest, SavesFirstWritesAndUnmountsComplete) {
    // Node B first, its bitmaps for now in the test's directory; then node
    // A with its bitmaps on B; then B again, with its bitmaps on A.
    ASSERT_NO_FATAL_FAILURE(AddWithFileSystem(kNodeB));
    set_bmp_dir(BitmapDirOn(kNodeB));
    ASSERT_NO_FATAL_FAILURE(AddWithFileSystem(kNodeA));
    ASSERT_EQ(Unmount(kNodeB.mount_point), 0);
    ASSERT_EQ(DeleteNode(control(), kNodeB.minor), 0);
    set_bmp_dir(BitmapDirOn(kNodeA));
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kNodeB.hdd, kExtent, kNodeB.minor, true));
    ASSERT_EQ(Mount(NodeDevice(kNodeB.minor), kNodeB.mount_point, "ext4"), 0);

    // Clean files everywhere: from now on the first write to each node
    // waits for a dirty mark written through the other node.
    for (const CrossNode& node : {kNodeA, kNodeB}) {
        ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(node.minor));
    }
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_TRUE(CompletesInTime("first writes on both", [round] { return WriteBoth(round); }));
        ASSERT_TRUE(CompletesInTime("saves on both", [this] { return SaveAll(); }));
        // Saves that find marks still to be written, on both nodes.
        ASSERT_TRUE(CompletesInTime("writes and saves on both at once", [this, round] {
            const pid_t saver = fork();
            if (saver == 0) {
                _exit(SaveAll() && SaveAll() ? 0 : 1);
            }
            const bool wrote = WriteBoth(kRounds + round);
            return saver > 0 && WaitForChild(saver, kRoundLimit) == 0 && wrote;
        }));
    }

    // A's unmount saves A's bitmaps on B; B's unmount finds A gone and
    // cannot save its own, which only leaves B's files dirty.
    ASSERT_EQ(Unmount(kNodeA.mount_point), 0);
    ASSERT_EQ(Unmount(kNodeB.mount_point), 0);
    std::vector<std::vector<std::uint8_t>> saved;
    for (const BitmapKind kind : kBothKinds) {
        const BitmapReply reply =
            GetBitmap(control(), 0, kind, GetInfo(control(), kNodeA.minor).info.incr_bmp_size);
        ASSERT_EQ(reply.error, 0);
        saved.push_back(reply.bits);
    }
    for (const CrossNode& node : {kNodeA, kNodeB}) {
        ASSERT_EQ(DeleteNode(control(), node.minor), 0);
    }

    // A's files, read from B's partition directly: clean saves of A's
    // bitmaps as they were at its unmount.
    ASSERT_EQ(Mount(kSpareDisk, kNodeB.mount_point, "ext4"), 0);
    set_bmp_dir(BitmapDirOn(kNodeB));
    EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(kNodeA.minor, BitmapKind::kIncremental), saved[0]));
    EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(kNodeA.minor, BitmapKind::kDifferential), saved[1]));
}

}  // namespace
}  // namespace trak::vmtest
