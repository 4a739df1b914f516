// Device queries over filter nodes: the list of nodes, the clear and full
// flags of GET_INFO, and the size and block size the node shows.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

// BLKSSZGET of `path`; -1 with the error reported.
int LogicalBlockSize(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    int size = -1;
    if (fd < 0 || ioctl(fd, BLKSSZGET, &size) != 0) {
        ADD_FAILURE() << "BLKSSZGET of " << path << ": errno " << errno;
    }
    if (fd >= 0) {
        close(fd);
    }
    return size;
}

class HighestMinorTest : public FilterTest {
  protected:
    [[nodiscard]] std::string DriverParams() const override { return "trak_max_blk_minor=3"; }
};

TEST_F(HighestMinorTest, IsNotListedButDescribed) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, 65536, 3, false));
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kSpareDisk, 65536, 2, false));

    const NodeList filters = ListNodes(control(), TRAK_DEV_FILTER);
    ASSERT_EQ(filters.error, 0);
    EXPECT_EQ(filters.minors, std::vector<std::int32_t>{2});
    EXPECT_TRUE(ListNodes(control(), TRAK_DEV_SNAP).minors.empty());
    const NodeInfo highest = GetInfo(control(), 3);
    ASSERT_EQ(highest.error, 0);
    EXPECT_EQ(highest.info.minor, 3);
    EXPECT_EQ(highest.info.dev_type, static_cast<std::uint32_t>(TRAK_DEV_FILTER));
    EXPECT_STREQ(highest.info.hdd_name, kTrackedDisk);
}

// A filter over a loop device of 33 extents of 4096 bytes: 5 bitmap bytes,
// of which the last holds one extent's bit and seven bits past the end.
class ThirtyThreeExtentsTest : public FilterTest {
  protected:
    static constexpr std::uint32_t kExtent = 4096;
    static constexpr std::uint64_t kExtents = 33;

    void SetUp() override {
        FilterTest::SetUp();
        loop_ = AttachLoop(kExtents * kExtent, 512);
        ASSERT_FALSE(loop_.empty());
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(loop_, kExtent, 0, false));
    }

    std::string loop_;
};

struct FlagCase {
    const char* what;
    std::vector<std::uint8_t> bits;
    std::uint32_t clear;
    std::uint32_t full;
};

TEST_F(ThirtyThreeExtentsTest, ClearAndFullLookAtExactlyTheExtents) {
    const NodeInfo before = GetInfo(control(), 0);
    ASSERT_EQ(before.info.extent_cnt, kExtents);
    ASSERT_EQ(before.info.incr_bmp_size, 5U);
    const std::vector<FlagCase> cases = {
        {"no bit", {0, 0, 0, 0, 0}, 1, 0},
        {"only bit 32", {0, 0, 0, 0, 0x01}, 0, 0},
        {"bits 0 to 31", {0xFF, 0xFF, 0xFF, 0xFF, 0x00}, 0, 0},
        {"all 33 bits", {0xFF, 0xFF, 0xFF, 0xFF, 0x01}, 0, 1},
        {"all 33 bits and the rest of the word", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 0, 1},
        {"only bits past the end", {0, 0, 0, 0, 0xFE}, 1, 0},
    };
    for (const FlagCase& c : cases) {
        SCOPED_TRACE(c.what);
        // The other kind holds the opposite pattern, so that a mix-up of the
        // two bitmaps shows.
        std::vector<std::uint8_t> inverse = c.bits;
        for (std::uint8_t& b : inverse) {
            b = static_cast<std::uint8_t>(~b);
        }
        ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kIncremental, c.bits), 0);
        ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kDifferential, inverse), 0);

        const NodeInfo node = GetInfo(control(), 0);

        ASSERT_EQ(node.error, 0);
        EXPECT_EQ(node.info.incr_bmp_clear, c.clear);
        EXPECT_EQ(node.info.incr_bmp_full, c.full);
        ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kDifferential, c.bits), 0);
        const NodeInfo same = GetInfo(control(), 0);
        EXPECT_EQ(same.info.diff_bmp_clear, c.clear);
        EXPECT_EQ(same.info.diff_bmp_full, c.full);
    }
}

TEST_F(ThirtyThreeExtentsTest, NodeSizeIsHddSize) {
    ASSERT_EQ(StartNode(control(), 0), 0);

    const DeviceSize node = SizeOfDevice(NodeDevice(0));

    ASSERT_EQ(node.error, 0);
    EXPECT_EQ(node.bytes, kExtents * kExtent);
    EXPECT_EQ(GetInfo(control(), 0).info.dev_size, kExtents * kExtent);
}

class NodeGeometryTest : public FilterTest {};

TEST_F(NodeGeometryTest, SizeIsHddSize) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, 65536, 0, true));

    const DeviceSize node = SizeOfDevice(NodeDevice(0));
    const DeviceSize hdd = SizeOfDevice(kTrackedDisk);

    ASSERT_EQ(node.error, 0);
    ASSERT_EQ(hdd.error, 0);
    EXPECT_EQ(node.bytes, hdd.bytes);
}

TEST_F(NodeGeometryTest, LogicalBlockSizeIsHdds) {
    const std::string loop = AttachLoop(1 << 20, 4096);
    ASSERT_FALSE(loop.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(loop, 4096, 0, true));

    EXPECT_EQ(LogicalBlockSize(NodeDevice(0)), 4096);
}

}  // namespace
}  // namespace trak::vmtest
