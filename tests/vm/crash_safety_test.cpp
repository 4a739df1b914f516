// Crash safety over two boots on the same disks (crash-test.sh runs each
// case in its own boot, in this order). The first powers the VM off in the
// middle of writes through a started filter node, without an unmount or a
// stop; the second finds the bitmap files dirty (in either form a mark
// can leave) and the node's bitmaps all ones. Run alone, the first case
// ends the VM it runs in.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "support/bitmap_file.h"
#include "support/command.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/fs_workload.h"
#include "support/node_commands.h"
#include "support/power_off.h"
#include "support/test_disks.h"
#include "support/wait.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;
constexpr const char* kBitmapMount = "/mnt/trak-crash-bitmaps";
constexpr const char* kFsMount = "/mnt/trak-crash-fs";
// Left in $TRAK_OUT just before the power-off, for crash-test.sh.
constexpr const char* kReadyMarker = "crash-ready";

// Writes through the file system at `dir` until the VM goes down.
[[noreturn]] void WriteForever(const std::string& dir) {
    for (std::uint32_t round = 0;; ++round) {
        const std::string sub = dir + "/round" + std::to_string(round);
        if (mkdir(sub.c_str(), 0755) != 0 || !RunMixedWorkload(sub, {20, 256 * 1024}, round)) {
            _exit(1);
        }
    }
}

class CrashSafetyTest : public FilterTest {};

TEST_F(CrashSafetyTest, PowerOffDuringWrites) {
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", kSpareDisk}));
    ASSERT_EQ(Mount(kSpareDisk, kBitmapMount, "ext4"), 0);
    set_bmp_dir(kBitmapMount);
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", NodeDevice(0)}));
    ASSERT_EQ(Mount(NodeDevice(0), kFsMount, "ext4"), 0);
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    const std::uint32_t size = GetInfo(control(), 0).info.incr_bmp_size;
    for (const BitmapKind kind : kBothKinds) {
        ASSERT_TRUE(IsCleanBitmapFile(BitmapPath(0, kind), std::vector<std::uint8_t>(size, 0)));
    }

    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        WriteForever(kFsMount);
    }
    for (const BitmapKind kind : kBothKinds) {
        const std::string path = BitmapPath(0, kind);
        ASSERT_TRUE(WaitUntil([&] { return IsDirtyBitmapFile(path); }, std::chrono::seconds(10)));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    PowerOffNow(kReadyMarker, "writing; both files dirty");
}

TEST_F(CrashSafetyTest, DirtyFilesAfterPowerOffGiveAllOnes) {
    ASSERT_EQ(Mount(kSpareDisk, kBitmapMount, "ext4"), 0);
    set_bmp_dir(kBitmapMount);
    for (const BitmapKind kind : kBothKinds) {
        ASSERT_TRUE(IsMarkedDirtyBitmapFile(BitmapPath(0, kind))) << "left by the first boot";
    }

    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, false));

    const NodeInfo node = GetInfo(control(), 0);
    ASSERT_EQ(node.error, 0);
    EXPECT_EQ(node.info.incr_bmp_full, 1U);
    EXPECT_EQ(node.info.diff_bmp_full, 1U);
    EXPECT_EQ(node.info.incr_bmp_clear, 0U);
    EXPECT_EQ(node.info.diff_bmp_clear, 0U);
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        EXPECT_TRUE(
            log().Contains(LogPattern::Error("trak_block_load_bmp(): File " + BitmapPath(0, kind) +
                                             " is dirty. Ignoring file contents.")));
        const BitmapReply reply = GetBitmap(control(), 0, kind, node.info.incr_bmp_size);
        ASSERT_EQ(reply.error, 0);
        EXPECT_TRUE(AllOnes(reply.bits));
    }
    // The file system written through the node recovers through it.
    ASSERT_EQ(StartNode(control(), 0), 0);
    EXPECT_EQ(Mount(NodeDevice(0), kFsMount, "ext4"), 0);
}

}  // namespace
}  // namespace trak::vmtest
