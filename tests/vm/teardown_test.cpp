// Deleting a node while its dirty-flag writes are slow: the bitmap
// directory sits behind dm-delay, a write through the node waits for its
// dirty mark, and the node is stopped and deleted over and over meanwhile.
// Until the writer has closed the node the delete is refused as busy; then
// it succeeds, nothing of the node is left behind for the driver's threads,
// and the kernel reports nothing.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/bitmap_file.h"
#include "support/command.h"
#include "support/delayed_disk.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;
constexpr std::uint64_t kWrittenExtent = 12;
constexpr const char* kBitmapMount = "/mnt/trak-teardown-bitmaps";
// Long enough to see the delete race the mark; short enough that neither a
// save nor a delete waiting for it comes near the VM's 20 s hung-task limit.
constexpr std::chrono::milliseconds kWriteDelay{150};
constexpr std::chrono::seconds kDeleteLimit{60};

class TeardownTest : public FilterTest {
  protected:
    // Outlives TearDown, which unmounts the file system on it.
    DelayedDisk bitmap_disk_{"trak-teardown-bitmaps"};
};

TEST_F(TeardownTest, DeleteWhileDirtyMarkIsSlowNeitherCrashesNorWarns) {
    ASSERT_TRUE(bitmap_disk_.Create(kSpareDisk, std::chrono::milliseconds(0)));
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", bitmap_disk_.path()}));
    ASSERT_EQ(Mount(bitmap_disk_.path(), kBitmapMount, "ext4"), 0);
    set_bmp_dir(kBitmapMount);
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    const std::uint32_t size = GetInfo(control(), 0).info.incr_bmp_size;
    ASSERT_TRUE(bitmap_disk_.SetWriteDelay(kWriteDelay));
    log().Mark();

    // The writer opens the node before the deletes begin.
    std::array<int, 2> opened{};
    ASSERT_EQ(pipe(opened.data()), 0);
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        const DirectWriter node(NodeDevice(0));
        close(opened[1]);
        _exit(node.error() == 0 && node.Fill(kWrittenExtent * kExtent, 4096, 0x3C) == 0 ? 0 : 1);
    }
    close(opened[1]);
    std::array<char, 1> eof{};
    ASSERT_EQ(read(opened[0], eof.data(), eof.size()), 0);
    close(opened[0]);
    const auto start = std::chrono::steady_clock::now();
    std::vector<int> refusals;
    IoctlOutcome deleted{-1, 0};
    while (std::chrono::steady_clock::now() - start < kDeleteLimit) {
        deleted = DeleteNodeRaw(control(), 0);
        if (deleted.result == 0) {
            break;
        }
        refusals.push_back(deleted.error);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ASSERT_EQ(WaitForChild(writer, std::chrono::seconds(10)), 0);

    ASSERT_EQ(deleted.result, 0) << "the node was never deleted";
    EXPECT_FALSE(refusals.empty()) << "the delete never met the writer";
    EXPECT_EQ(refusals, std::vector<int>(refusals.size(), EBUSY));
    EXPECT_TRUE(log().Absent(LogPattern::Matching("Can't unlock|not locked|not owner")));
    EXPECT_TRUE(ListNodes(control(), TRAK_DEV_FILTER).minors.empty());

    // The writer's close saved the write's extent; a new node on the same
    // minor picks it up from clean files.
    ASSERT_TRUE(bitmap_disk_.SetWriteDelay(std::chrono::milliseconds(0)));
    const std::vector<std::uint8_t> written =
        BitmapOf(size, std::vector<std::uint64_t>{kWrittenExtent});
    for (const BitmapKind kind : kBothKinds) {
        EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, kind), written)) << KindName(kind);
    }
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, false));
    for (const BitmapKind kind : kBothKinds) {
        const BitmapReply reply = GetBitmap(control(), 0, kind, size);
        ASSERT_EQ(reply.error, 0);
        EXPECT_EQ(reply.bits, written) << KindName(kind);
    }
}

}  // namespace
}  // namespace trak::vmtest
