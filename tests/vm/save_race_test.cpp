// Saves racing each other: SAVE commands in a loop while another thread
// writes a new extent through the node and closes it, which saves too, over
// and over. After every SAVE the file is read back: whenever it is a valid
// clean save, it must hold every extent whose write had completed by then.
// A clean file without a completed write is a change that a crash at that
// moment would lose, even if a later save repairs it.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/bitmap_file.h"
#include "support/command.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;
constexpr int kWrites = 40;
constexpr std::chrono::milliseconds kPause{30};
constexpr const char* kBitmapMount = "/mnt/trak-race-bitmaps";

std::uint64_t ExtentOf(int write) { return 3 + 5 * static_cast<std::uint64_t>(write); }

class SaveRaceTest : public FilterTest {};

TEST_F(SaveRaceTest, NoCleanFileEverLacksACompletedWrite) {
    ASSERT_NO_FATAL_FAILURE(KeepBitmapsOnSpareDisk(kBitmapMount));
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    const std::uint32_t size = GetInfo(control(), 0).info.incr_bmp_size;

    std::atomic<int> completed{0};
    std::thread writer([&] {
        for (int i = 0; i < kWrites; ++i) {
            // A failure here must still end the save loop below.
            if (FillDirect(NodeDevice(0), ExtentOf(i) * kExtent, 4096, 0x77) != 0) {
                ADD_FAILURE() << "write " << i << " failed";
                completed = kWrites;
                return;
            }
            completed = i + 1;
            // Room for saves that find nothing new, so that clean files
            // are there to be checked.
            std::this_thread::sleep_for(kPause);
        }
    });
    int clean_checks = 0;
    std::vector<std::string> stale;
    for (int round = 0; completed < kWrites; ++round) {
        const BitmapKind kind =
            round % 2 == 0 ? BitmapKind::kIncremental : BitmapKind::kDifferential;
        // Not an ASSERT: the writer must be joined before the test ends.
        const int saved = SaveBitmap(control(), 0, kind);
        if (saved != 0) {
            ADD_FAILURE() << "SAVE failed with " << saved;
            break;
        }
        const int done = completed;
        const BitmapFile file = ReadBitmapFile(BitmapPath(0, kind));
        if (file.error != 0 || file.magic != "TRAKBMP" || file.dirty != 0 || file.size != size ||
            file.bits.size() != size || file.checksum != Jamcrc(file.bits)) {
            continue;  // dirty, or not a whole save: the next load rejects it
        }
        ++clean_checks;
        for (int i = 0; i < done; ++i) {
            if (!ExtentBit(file.bits, ExtentOf(i))) {
                stale.push_back(std::string(KindName(kind)) + " file without write " +
                                std::to_string(i) + " of " + std::to_string(done));
                break;
            }
        }
    }
    writer.join();
    RecordProperty("clean_checks", clean_checks);

    EXPECT_TRUE(stale.empty()) << stale.size()
                               << " stale clean files, the first: " << stale.front();
    EXPECT_GE(clean_checks, 10) << "too few clean files were seen";
    std::vector<std::uint64_t> written;
    written.reserve(kWrites);
    for (int i = 0; i < kWrites; ++i) {
        written.push_back(ExtentOf(i));
    }
    const std::vector<std::uint8_t> expected = BitmapOf(size, written);
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        const BitmapReply reply = GetBitmap(control(), 0, kind, size);
        ASSERT_EQ(reply.error, 0);
        EXPECT_EQ(reply.bits, expected);
    }
}

}  // namespace
}  // namespace trak::vmtest
