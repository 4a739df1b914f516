// The first write after a save never reaches the disk before its dirty mark
// does. crash-window.sh boots the VM once per power-off on the same disks
// and runs this one case each time with TRAK_CRASH_CYCLE = 0, 1, ...,
// TRAK_CRASH_CYCLES. Every boot but the first checks what the previous
// power-off left behind; every boot but the last clears the bitmaps (clean
// files), makes the bitmap directory's writes slow, writes and fsyncs one
// block through the node in a child, and powers the VM off while the child
// may still be waiting, at a different moment each cycle.
//
// What must hold after each power-off: if the block reached the partition,
// each bitmap is all ones (its file was marked dirty) or has the block's
// extent set. A clean file without that extent is a change lost for good.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "support/command.h"
#include "support/delayed_disk.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/power_off.h"
#include "support/raw_disk.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;
constexpr std::size_t kBlock = 4096;
constexpr const char* kBitmapMount = "/mnt/trak-window-bitmaps";
// How long each write to the bitmap directory's disk takes.
constexpr std::chrono::milliseconds kMarkDelay{1500};

int EnvNumber(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::atoi(value) : -1;
}

// Each cycle writes its own extent of the fresh (zeroed) partition, with
// its own non-zero byte.
std::uint64_t ExtentOf(int cycle) { return 100 + 37 * static_cast<std::uint64_t>(cycle); }
std::uint8_t FillOf(int cycle) { return static_cast<std::uint8_t>(0xA0 ^ cycle); }

// When a cycle powers off, counted from the start of its write: before the
// mark can be on disk, around the time it gets there, or only once the
// write has returned.
std::chrono::milliseconds PowerOffAfter(int cycle) {
    switch (cycle % 4) {
        case 0:
            return kMarkDelay / 5;
        case 1:
            return kMarkDelay / 2;
        case 2:
            return kMarkDelay;
        default:
            return kMarkDelay * 10;
    }
}

class CrashWindowTest : public FilterTest {
  protected:
    // Whether any byte of the cycle's block reached the partition.
    static bool BlockOnDisk(int cycle) {
        const DiskBytes block = ReadDirect(kTrackedDisk, ExtentOf(cycle) * kExtent, kBlock);
        EXPECT_EQ(block.error, 0);
        return std::any_of(block.bytes.begin(), block.bytes.end(),
                           [](std::uint8_t b) { return b != 0; });
    }

    // The check of what cycle `cycle` left behind. The node is added, not
    // started, so that it loads the files as the power-off left them.
    void CheckCycle(int cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        const bool on_disk = BlockOnDisk(cycle);
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, false));
        const std::uint32_t size = GetInfo(control(), 0).info.incr_bmp_size;
        std::string outcome = on_disk ? "write on disk" : "write held";
        for (const BitmapKind kind : kBothKinds) {
            const BitmapReply reply = GetBitmap(control(), 0, kind, size);
            ASSERT_EQ(reply.error, 0);
            const bool all_ones = static_cast<bool>(AllOnes(reply.bits));
            const bool marked = ExtentBit(reply.bits, ExtentOf(cycle));
            outcome += std::string(", ") + KindName(kind) +
                       (all_ones ? " all ones"
                        : marked ? " has the extent"
                                 : " clean without it");
            if (on_disk) {
                EXPECT_TRUE(all_ones || marked)
                    << KindName(kind) << " bitmap lost the change: " << outcome;
            }
        }
        std::ofstream(std::string(std::getenv("TRAK_OUT")) + "/outcomes", std::ios::app)
            << "cycle " << cycle << ": " << outcome << '\n';
    }

    // Starts the write of the cycle's block through the node in a child;
    // returns its pid.
    static pid_t StartWrite(int cycle) {
        const pid_t child = fork();
        if (child == 0) {
            const DirectWriter writer(NodeDevice(0));
            const bool written = writer.Fill(ExtentOf(cycle) * kExtent, kBlock, FillOf(cycle)) == 0;
            _exit(written && writer.Sync() == 0 ? 0 : 1);
        }
        return child;
    }

    // Outlives TearDown, which unmounts the file system on it.
    DelayedDisk bitmap_disk_{"trak-window-bitmaps"};
};

TEST_F(CrashWindowTest, WriteNeverReachesDiskBeforeItsDirtyMark) {
    const int cycle = EnvNumber("TRAK_CRASH_CYCLE");
    const int cycles = EnvNumber("TRAK_CRASH_CYCLES");
    ASSERT_GE(cycle, 0) << "run by crash-window.sh";
    ASSERT_LE(cycle, cycles);
    ASSERT_TRUE(bitmap_disk_.Create(kSpareDisk, std::chrono::milliseconds(0)));
    if (cycle == 0) {
        ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", bitmap_disk_.path()}));
    }
    ASSERT_EQ(Mount(bitmap_disk_.path(), kBitmapMount, "ext4"), 0);
    set_bmp_dir(kBitmapMount);

    if (cycle > 0) {
        ASSERT_NO_FATAL_FAILURE(CheckCycle(cycle - 1));
        ASSERT_FALSE(HasFailure()) << "stopping here: the next power-off would hide this one";
        ASSERT_EQ(DeleteNode(control(), 0), 0);
    }
    if (cycle == cycles) {
        return;
    }

    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    ASSERT_TRUE(bitmap_disk_.SetWriteDelay(kMarkDelay));
    const auto start = std::chrono::steady_clock::now();
    const pid_t writer = StartWrite(cycle);
    ASSERT_GT(writer, 0);
    int status = 0;
    while (waitpid(writer, &status, WNOHANG) == 0 &&
           std::chrono::steady_clock::now() - start < PowerOffAfter(cycle)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    PowerOffNow("crash-ready-" + std::to_string(cycle),
                "cycle " + std::to_string(cycle) + ": powering off");
}

}  // namespace
}  // namespace trak::vmtest
