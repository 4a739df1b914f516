// Unloading the driver while a started filter node exists stops and
// destroys the node and leaves its bitmap files saved on disk.
#include <filesystem>
#include <string>
#include <vector>

#include "support/bitmap_file.h"
#include "support/command.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;
constexpr const char* kBitmapMount = "/mnt/trak-bitmaps";

class UnloadNodesTest : public FilterTest {};

// Added without bitmap files, the node's bitmaps are all ones and unsaved;
// nothing but the unload writes the files.
TEST_F(UnloadNodesTest, StartedNodeIsStoppedDestroyedAndItsFilesSaved) {
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", kSpareDisk}));
    ASSERT_EQ(Mount(kSpareDisk, kBitmapMount, "ext4"), 0);
    set_bmp_dir(kBitmapMount);
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    const std::uint32_t size = GetInfo(control(), 0).info.incr_bmp_size;
    ASSERT_FALSE(std::filesystem::exists(BitmapPath(0, BitmapKind::kIncremental)));
    ASSERT_FALSE(std::filesystem::exists(BitmapPath(0, BitmapKind::kDifferential)));
    log().Mark();

    ASSERT_EQ(UnloadDriver(), 0);

    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Matching(R"(trak_block_destroy\(\): Stopping all minor nodes$)"),
         LogPattern::Matching(R"(trak_block_destroy\(\): Destroying all minor nodes$)"),
         LogPattern::Matching(R"(trak_block_destroy_device\(\): Destroying trak\(\d+, 0\)$)")}));
    EXPECT_TRUE(log().Absent(LogPattern::Matching("WARNING:|BUG:|ERROR: ")));
    EXPECT_FALSE(std::filesystem::exists("/dev/trak0"));
    EXPECT_FALSE(std::filesystem::exists("/dev/trak/trak0"));
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, kind), std::vector<std::uint8_t>(size, 0xFF)));
    }
}

}  // namespace
}  // namespace trak::vmtest
