// Bitmaps survive a clean stop and a reload of the driver exactly, with
// their files on a disk file system of their own.
#include <string>
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
constexpr const char* kBitmapMount = "/mnt/trak-bitmaps";

class BitmapReloadTest : public FilterTest {
  protected:
    void SetUp() override {
        FilterTest::SetUp();
        ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", kSpareDisk}));
        ASSERT_EQ(Mount(kSpareDisk, kBitmapMount, "ext4"), 0);
        set_bmp_dir(kBitmapMount);
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
        size_ = GetInfo(control(), 0).info.incr_bmp_size;
    }

    // Stops node 0, unloads and loads the driver, and adds the node again.
    void StopAndReload() {
        ASSERT_EQ(StopNode(control(), 0), 0);
        ASSERT_EQ(UnloadDriver(), 0);
        ASSERT_NO_FATAL_FAILURE(LoadDriverAgain());
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, false));
    }

    [[nodiscard]] std::vector<std::uint8_t> Get(BitmapKind kind) const {
        const BitmapReply reply = GetBitmap(control(), 0, kind, size_);
        EXPECT_EQ(reply.error, 0);
        return reply.bits;
    }

    std::uint32_t size_ = 0;
};

TEST_F(BitmapReloadTest, SetPatternsComeBackExactly) {
    std::vector<std::uint8_t> incr(size_);
    std::vector<std::uint8_t> diff(size_);
    for (std::size_t i = 0; i < size_; ++i) {
        incr[i] = static_cast<std::uint8_t>(i * 37 + 1);
        diff[i] = static_cast<std::uint8_t>(0xA5 ^ i);
    }
    ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kIncremental, incr), 0);
    ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kDifferential, diff), 0);

    ASSERT_NO_FATAL_FAILURE(StopAndReload());

    EXPECT_EQ(Get(BitmapKind::kIncremental), incr);
    EXPECT_EQ(Get(BitmapKind::kDifferential), diff);
    EXPECT_TRUE(log().Absent(LogPattern::Matching("Ignoring file contents|corrupt")));
}

TEST_F(BitmapReloadTest, WritesBeforeStopComeBackExactly) {
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    ASSERT_EQ(FillDirect(NodeDevice(0), 2 * kExtent, 4096, 0x12), 0);
    ASSERT_EQ(FillDirect(NodeDevice(0), 9 * kExtent + 512, 512, 0x34), 0);

    ASSERT_NO_FATAL_FAILURE(StopAndReload());

    const std::vector<std::uint64_t> written = {2, 9};
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        EXPECT_EQ(SetExtents(Get(kind)), written);
        EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, kind), BitmapOf(size_, written)));
    }
}

}  // namespace
}  // namespace trak::vmtest
