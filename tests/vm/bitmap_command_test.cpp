// The seven bitmap commands: the checks of their records, with exact
// messages and codes, and what SET, MERGE and GET_AND_CLR do to the bits.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "support/bitmap_file.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

struct Handler {
    unsigned long request;
    const char* function;
};

const Handler kGet{TRAK_GET_BMP, "trak_ioctl_get_bmp"};
const Handler kGetAndClear{TRAK_GET_AND_CLR_BMP, "trak_ioctl_get_and_clr_bmp"};
const Handler kMerge{TRAK_MERGE_BMP, "trak_ioctl_merge_bmp"};
const Handler kSet{TRAK_SET_BMP, "trak_ioctl_set_bmp"};
const std::vector<Handler> kDataHandlers = {kGet, kGetAndClear, kMerge, kSet};
const std::vector<Handler> kShortHandlers = {{TRAK_CLR_BMP, "trak_ioctl_clr_bmp"},
                                             {TRAK_LOAD_BMP, "trak_ioctl_load_bmp"},
                                             {TRAK_SAVE_BMP, "trak_ioctl_save_bmp"}};

std::uintptr_t Address(const std::vector<std::uint8_t>& buffer) {
    return reinterpret_cast<std::uintptr_t>(buffer.data());
}

// An address with nothing mapped at it.
std::uintptr_t UnmappedAddress() {
    const long page = sysconf(_SC_PAGESIZE);
    void* gone = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(gone, MAP_FAILED);
    EXPECT_EQ(munmap(gone, page), 0);
    return reinterpret_cast<std::uintptr_t>(gone);
}

class BitmapCommandTest : public FilterTest {
  protected:
    void SetUp() override {
        FilterTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, 65536, 0, false));
        const NodeInfo node = GetInfo(control(), 0);
        ASSERT_EQ(node.error, 0);
        size_ = node.info.incr_bmp_size;
        ASSERT_EQ(node.info.diff_bmp_size, size_);
        log().Mark();
    }

    [[nodiscard]] std::vector<std::uint8_t> Get(BitmapKind kind) const {
        const BitmapReply reply = GetBitmap(control(), 0, kind, size_);
        EXPECT_EQ(reply.error, 0);
        return reply.bits;
    }

    std::uint32_t size_ = 0;
};

TEST_F(BitmapCommandTest, KindTwoIsRefusedByEveryCommand) {
    std::vector<std::uint8_t> buffer(size_, 0);
    for (const Handler& handler : kDataHandlers) {
        SCOPED_TRACE(handler.function);
        log().Mark();
        EXPECT_EQ(BitmapDataCommand(control(), handler.request, 0, 2,
                                    static_cast<std::int32_t>(size_), Address(buffer)),
                  EINVAL);
        EXPECT_TRUE(log().Contains(
            LogPattern::Error(std::string(handler.function) +
                              "(): Invalid bitmap type 2 (should be either 1 or 0)")));
    }
    for (const Handler& handler : kShortHandlers) {
        SCOPED_TRACE(handler.function);
        log().Mark();
        EXPECT_EQ(BitmapCommand(control(), handler.request, 0, 2), EINVAL);
        EXPECT_TRUE(log().Contains(
            LogPattern::Error(std::string(handler.function) +
                              "(): Invalid bitmap type 2 (should be either 1 or 0)")));
    }
}

TEST_F(BitmapCommandTest, WrongSizeIsRefused) {
    std::vector<std::uint8_t> buffer(size_ + 1, 0);
    for (const Handler& handler : kDataHandlers) {
        for (const std::int32_t wrong :
             {static_cast<std::int32_t>(size_ - 1), static_cast<std::int32_t>(size_ + 1)}) {
            SCOPED_TRACE(std::string(handler.function) + " " + std::to_string(wrong));
            log().Mark();
            EXPECT_EQ(BitmapDataCommand(control(), handler.request, 0, TRAK_BMP_INCR, wrong,
                                        Address(buffer)),
                      EINVAL);
            EXPECT_TRUE(log().Contains(LogPattern::Error(
                std::string(handler.function) + "(): Invalid bitmap size " + std::to_string(wrong) +
                ". Should have been " + std::to_string(size_))));
        }
    }
}

TEST_F(BitmapCommandTest, NullDataIsRefused) {
    for (const Handler& handler : {kGet, kGetAndClear, kMerge}) {
        SCOPED_TRACE(handler.function);
        log().Mark();
        EXPECT_EQ(BitmapDataCommand(control(), handler.request, 0, TRAK_BMP_DIFF,
                                    static_cast<std::int32_t>(size_), 0),
                  EINVAL);
        EXPECT_TRUE(log().Contains(LogPattern::Error(
            std::string(handler.function) + "(): NULL bitmap data pointer passed as input")));
    }
}

TEST_F(BitmapCommandTest, SetNeedsBothSizeAndDataOrNeither) {
    std::vector<std::uint8_t> buffer(size_, 0);
    ASSERT_EQ(ClearBitmap(control(), 0, BitmapKind::kIncremental), 0);
    log().Mark();

    EXPECT_EQ(BitmapDataCommand(control(), TRAK_SET_BMP, 0, TRAK_BMP_INCR, 0, Address(buffer)),
              EINVAL);
    EXPECT_EQ(BitmapDataCommand(control(), TRAK_SET_BMP, 0, TRAK_BMP_INCR,
                                static_cast<std::int32_t>(size_), 0),
              EINVAL);

    const LogPattern refusal = LogPattern::Error(
        "trak_ioctl_set_bmp(): bitmap size and bitmap data pointer must either be both NULL or "
        "both not-NULL");
    EXPECT_TRUE(log().ContainsInOrder({refusal, refusal}));
    EXPECT_TRUE(SetExtents(Get(BitmapKind::kIncremental)).empty());
}

TEST_F(BitmapCommandTest, SetWithoutSizeAndDataSetsEveryBit) {
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        ASSERT_EQ(ClearBitmap(control(), 0, kind), 0);

        EXPECT_EQ(SetWholeBitmap(control(), 0, kind), 0);

        EXPECT_TRUE(AllOnes(Get(kind)));
        EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, kind), std::vector<std::uint8_t>(size_, 0xFF)));
    }
}

TEST_F(BitmapCommandTest, SetReplacesAndMergeOrsIn) {
    const std::vector<std::uint64_t> first = {0, 9, 100};
    const std::vector<std::uint64_t> second = {9, 17, static_cast<std::uint64_t>(size_) * 8 - 1};
    const std::vector<std::uint64_t> both = {0, 9, 17, 100,
                                             static_cast<std::uint64_t>(size_) * 8 - 1};
    ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kIncremental, BitmapOf(size_, first)), 0);
    ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kDifferential, BitmapOf(size_, second)), 0);
    EXPECT_EQ(SetExtents(Get(BitmapKind::kIncremental)), first);
    EXPECT_EQ(SetExtents(Get(BitmapKind::kDifferential)), second);

    EXPECT_EQ(MergeBitmap(control(), 0, BitmapKind::kIncremental, BitmapOf(size_, second)), 0);

    EXPECT_EQ(SetExtents(Get(BitmapKind::kIncremental)), both);
    EXPECT_EQ(SetExtents(Get(BitmapKind::kDifferential)), second);
    EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, BitmapKind::kIncremental), BitmapOf(size_, both)));
    EXPECT_TRUE(
        IsCleanBitmapFile(BitmapPath(0, BitmapKind::kDifferential), BitmapOf(size_, second)));
}

TEST_F(BitmapCommandTest, MergeOfNothingStillRewritesFile) {
    const std::vector<std::uint64_t> bits = {3, 4};
    ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kDifferential, BitmapOf(size_, bits)), 0);
    ASSERT_EQ(std::remove(BitmapPath(0, BitmapKind::kDifferential).c_str()), 0);

    EXPECT_EQ(
        MergeBitmap(control(), 0, BitmapKind::kDifferential, std::vector<std::uint8_t>(size_, 0)),
        0);

    EXPECT_EQ(SetExtents(Get(BitmapKind::kDifferential)), bits);
    EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, BitmapKind::kDifferential), BitmapOf(size_, bits)));
}

TEST_F(BitmapCommandTest, GetIntoUnmappedMemoryIsFault) {
    const std::uintptr_t nowhere = UnmappedAddress();

    EXPECT_EQ(BitmapDataCommand(control(), TRAK_GET_BMP, 0, TRAK_BMP_INCR,
                                static_cast<std::int32_t>(size_), nowhere),
              EFAULT);

    EXPECT_TRUE(
        log().Contains(LogPattern::Error("trak_ioctl_get_bmp(): Failed to copyout the bitmap")));
}

TEST_F(BitmapCommandTest, GetAndClearIntoUnmappedMemoryKeepsBits) {
    const std::vector<std::uint64_t> bits = {1, 2, 30};
    ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kIncremental, BitmapOf(size_, bits)), 0);
    const std::uintptr_t nowhere = UnmappedAddress();
    log().Mark();

    EXPECT_EQ(BitmapDataCommand(control(), TRAK_GET_AND_CLR_BMP, 0, TRAK_BMP_INCR,
                                static_cast<std::int32_t>(size_), nowhere),
              EFAULT);

    EXPECT_TRUE(log().Contains(
        LogPattern::Error("trak_ioctl_get_and_clr_bmp(): Failed to copyout the bitmap")));
    EXPECT_EQ(SetExtents(Get(BitmapKind::kIncremental)), bits);
}

TEST_F(BitmapCommandTest, GetAndClearReturnsBitsAndLeavesEmptyCleanFile) {
    const std::vector<std::uint64_t> bits = {0, 63, 64};
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        ASSERT_EQ(SetBitmap(control(), 0, kind, BitmapOf(size_, bits)), 0);

        const BitmapReply reply = GetAndClearBitmap(control(), 0, kind, size_);

        ASSERT_EQ(reply.error, 0);
        EXPECT_EQ(SetExtents(reply.bits), bits);
        EXPECT_TRUE(SetExtents(Get(kind)).empty());
        EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, kind), std::vector<std::uint8_t>(size_, 0)));
    }
}

TEST_F(BitmapCommandTest, CommandsLogTheirProgressWithKindName) {
    std::vector<std::uint8_t> buffer(size_, 0);
    ASSERT_EQ(GetBitmap(control(), 0, BitmapKind::kIncremental, size_).error, 0);
    ASSERT_EQ(ClearBitmap(control(), 0, BitmapKind::kDifferential), 0);

    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Info("trak_ioctl_get_bmp(): Getting Incremental bitmap of " + NodeName(0)),
         LogPattern::Info("trak_ioctl_clr_bmp(): Clearing Differential bitmap of " +
                          NodeName(0))}));
}

}  // namespace
}  // namespace trak::vmtest
