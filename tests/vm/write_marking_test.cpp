// Which bits a request through a started filter node sets: exactly the
// extents a write touches, every one of a write that spans several, and
// none for reads and for the empty flush request of an fsync.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "support/bitmap_file.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/proc_files.h"
#include "support/raw_disk.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;

class WriteMarkingTest : public FilterTest {
  protected:
    void SetUp() override {
        FilterTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
        size_ = GetInfo(control(), 0).info.incr_bmp_size;
        ASSERT_GT(size_, 8U);
        ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    }

    // Both bitmaps have exactly the bits of `extents`.
    void ExpectMarked(const std::vector<std::uint64_t>& extents) const {
        for (const BitmapKind kind : kBothKinds) {
            SCOPED_TRACE(KindName(kind));
            const BitmapReply reply = GetBitmap(control(), 0, kind, size_);
            ASSERT_EQ(reply.error, 0);
            EXPECT_EQ(SetExtents(reply.bits), extents);
        }
    }

    std::uint32_t size_ = 0;
};

TEST_F(WriteMarkingTest, DirectWritesMarkExactlyTheirExtents) {
    const std::string node = NodeDevice(0);

    ASSERT_EQ(FillDirect(node, 0, 4096, 0x11), 0);
    ASSERT_EQ(FillDirect(node, 3 * kExtent, 4096, 0x22), 0);
    ASSERT_EQ(FillDirect(node, 11 * kExtent - 512, 512, 0x33), 0);
    ASSERT_EQ(FillDirect(node, 40 * kExtent + 8192, kExtent - 8192, 0x44), 0);
    const std::uint64_t last = static_cast<std::uint64_t>(size_) * 8 - 1;
    ASSERT_EQ(FillDirect(node, SizeOfDevice(node).bytes - 512, 512, 0x55), 0);

    ExpectMarked({0, 3, 10, 40, last});
}

TEST_F(WriteMarkingTest, SpanningWriteMarksEveryExtentItTouches) {
    const std::string node = NodeDevice(0);

    // From inside extent 5 to inside extent 8.
    ASSERT_EQ(FillDirect(node, 5 * kExtent + 4096, 3 * kExtent, 0x66), 0);
    // The last sector of extent 20 and the first of extent 21.
    ASSERT_EQ(FillDirect(node, 21 * kExtent - 512, 1024, 0x77), 0);

    ExpectMarked({5, 6, 7, 8, 20, 21});
}

TEST_F(WriteMarkingTest, ReadsMarkNothing) {
    const std::string node = NodeDevice(0);
    DiskCopy copy;

    ASSERT_EQ(copy.Take(node), 0);

    ExpectMarked({});
}

TEST_F(WriteMarkingTest, EmptyFlushMarksNothing) {
    const std::string node = NodeDevice(0);
    const int fd = open(node.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0) << "errno " << errno;
    // The request trace shows the empty request arriving.
    ASSERT_EQ(WriteText("/proc/trak/debug", "4"), 0);
    log().Mark();

    EXPECT_EQ(fsync(fd), 0);

    ASSERT_EQ(WriteText("/proc/trak/debug", "1"), 0);
    close(fd);
    EXPECT_TRUE(
        log().Contains(LogPattern::Matching(R"(\(\): minor=0, sector=\d+, sectors=0, rw=1$)")))
        << "fsync of the node sent no empty flush request through the filter";
    ExpectMarked({});
    for (const BitmapKind kind : kBothKinds) {
        EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, kind), std::vector<std::uint8_t>(size_, 0)));
    }
}

}  // namespace
}  // namespace trak::vmtest
