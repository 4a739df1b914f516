// Starting, stopping, opening and deleting filter nodes: the states a node
// passes through and the refusals of each.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;

// An open file descriptor of a node's block device, closed at the end.
class OpenNode {
  public:
    explicit OpenNode(std::int32_t minor)
        : fd_(open(NodeDevice(minor).c_str(), O_RDWR | O_CLOEXEC)), error_(fd_ < 0 ? errno : 0) {}
    ~OpenNode() { Close(); }
    OpenNode(const OpenNode&) = delete;
    OpenNode& operator=(const OpenNode&) = delete;

    void Close() {
        if (fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    [[nodiscard]] int error() const { return error_; }

  private:
    int fd_;
    int error_;
};

class NodeStateTest : public FilterTest {};

TEST_F(NodeStateTest, StartingTwiceIsAlready) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    log().Mark();

    EXPECT_EQ(StartNode(control(), 0), EALREADY);

    EXPECT_TRUE(log().Contains(LogPattern::Error("trak_block_start_device(): " + NodeName(0) +
                                                 " has already been started")));
    EXPECT_EQ(GetInfo(control(), 0).info.started, 1);
}

TEST_F(NodeStateTest, OpeningStoppedNodeIsIoError) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, false));
    log().Mark();

    const OpenNode node(0);

    EXPECT_EQ(node.error(), EIO);
    EXPECT_TRUE(log().Contains(
        LogPattern::Error("trak_block_open(): " + NodeName(0) + " hasn't been started yet.")));
    EXPECT_EQ(GetInfo(control(), 0).info.use_cnt, 0);
}

TEST_F(NodeStateTest, StoppingOpenNodeIsBusyUntilLastClose) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    OpenNode node(0);
    ASSERT_EQ(node.error(), 0);
    EXPECT_EQ(GetInfo(control(), 0).info.use_cnt, 1);
    log().Mark();

    EXPECT_EQ(StopNode(control(), 0), EBUSY);

    EXPECT_TRUE(log().Contains(
        LogPattern::Error("trak_block_stop_device(): " + NodeName(0) + " is still being used.")));
    EXPECT_EQ(GetInfo(control(), 0).info.started, 1);
    node.Close();
    EXPECT_EQ(StopNode(control(), 0), 0);
    EXPECT_EQ(GetInfo(control(), 0).info.started, 0);
}

TEST_F(NodeStateTest, DeletingOpenNodeIsBusyAndLeavesItStarted) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    const OpenNode node(0);
    ASSERT_EQ(node.error(), 0);

    EXPECT_EQ(DeleteNode(control(), 0), EBUSY);

    const NodeInfo info = GetInfo(control(), 0);
    EXPECT_EQ(info.error, 0);
    EXPECT_EQ(info.info.started, 1);
}

TEST_F(NodeStateTest, DeletingUnusedMinorReturnsPositive22) {
    for (const std::int32_t minor : {5, 256, -1}) {
        SCOPED_TRACE(minor);
        log().Mark();

        const IoctlOutcome outcome = DeleteNodeRaw(control(), minor);

        EXPECT_EQ(outcome.result, 22) << "the ioctl's own return value, errno " << outcome.error;
        EXPECT_EQ(outcome.error, 0);
        EXPECT_TRUE(log().Contains(
            LogPattern::Error("trak_ioctl_del_node(): Nothing is known about " + NodeName(minor))));
    }
}

TEST_F(NodeStateTest, StartAndStopOfUnusedMinorAreInvalid) {
    for (const std::int32_t minor : {7, 256}) {
        SCOPED_TRACE(minor);
        log().Mark();

        EXPECT_EQ(StartNode(control(), minor), EINVAL);
        EXPECT_EQ(StopNode(control(), minor), EINVAL);

        EXPECT_TRUE(log().ContainsInOrder(
            {LogPattern::Error("trak_ioctl_start_node(): Nothing is known about " +
                               NodeName(minor)),
             LogPattern::Error("trak_ioctl_stop_node(): Nothing is known about " +
                               NodeName(minor))}));
    }
}

TEST_F(NodeStateTest, DeleteRemovesNodeButKeepsBitmapFiles) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    ASSERT_EQ(StopNode(control(), 0), 0);

    EXPECT_EQ(DeleteNode(control(), 0), 0);

    EXPECT_FALSE(std::filesystem::exists("/dev/trak/trak0"));
    EXPECT_FALSE(std::filesystem::exists("/dev/trak0"));
    EXPECT_FALSE(std::filesystem::exists("/proc/trak/trak0"));
    EXPECT_EQ(GetInfo(control(), 0).error, EINVAL);
    EXPECT_TRUE(std::filesystem::exists(BitmapPath(0, BitmapKind::kIncremental)));
    EXPECT_TRUE(std::filesystem::exists(BitmapPath(0, BitmapKind::kDifferential)));
}

}  // namespace
}  // namespace trak::vmtest
