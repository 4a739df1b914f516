// The life of a snap node: starting it (which starts a stopped filter and
// the filter's kcowd, makes the COW files and freezes a mounted file system
// for the moment of the snapshot), stopping snaps in the order they depend
// on each other, the postponed stop and delete of a later snap, deleting
// snaps and their COW files, and the I/O a snap refuses.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/command.h"
#include "support/cow_files.h"
#include "support/device_image.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/open_file.h"
#include "support/proc_files.h"
#include "support/raw_disk.h"
#include "support/snap_test.h"
#include "support/wait.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
constexpr std::uint64_t kHddBytes = 16 << 20;
constexpr const char* kOriginMount = "/mnt/trak-origin";
constexpr const char* kSnapMount = "/mnt/trak-snap";

class SnapLifecycleTest : public SnapTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SnapTest::SetUp());
        hdd_ = AttachLoopHolding(RandomBytes(kHddBytes, 8));
        ASSERT_FALSE(hdd_.empty());
    }

    // A started filter on minor 0 with started snaps on minors 1 and 2, 1
    // before 2 in the filter's list.
    void TakeTwoSnaps() {
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd_, kExtent, 0, true));
        ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
        ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 2));
        log().Mark();
    }

    // The pid kcowd announced when it was started, from the log since the
    // mark.
    std::optional<int> AnnouncedKcowdPid() {
        static const std::regex kStarted(
            R"(: trak_cowthread_start\(\): Successfully started COW thread kcowd\. pid=(\d+)\.\.\.$)");
        for (const LogRecord& record : log().Records()) {
            std::smatch m;
            if (std::regex_search(record.text, m, kStarted)) {
                return std::stoi(m[1]);
            }
        }
        return std::nullopt;
    }

    void ExpectStarted(std::int32_t minor, int started, std::uint32_t stop_pending) {
        const NodeInfo node = GetInfo(control(), minor);
        ASSERT_EQ(node.error, 0) << "node " << minor;
        EXPECT_EQ(node.info.started, started) << "node " << minor;
        if (node.info.dev_type == TRAK_DEV_SNAP) {
            EXPECT_EQ(node.info.stop_pending, stop_pending) << "node " << minor;
        }
    }

    // The start of @minor is refused because @later, added after it, is
    // started; @minor stays stopped.
    void ExpectStartRefusedWhileLaterStarted(std::int32_t minor, std::int32_t later) {
        EXPECT_EQ(StartNode(control(), minor), EINVAL);

        EXPECT_TRUE(log().Contains(LogPattern::Error("trak_block_start_device(): Cannot start " +
                                                     NodeName(minor) + " while " + NodeName(later) +
                                                     ", added after it, is started.")));
        ExpectStarted(minor, 0, 0);
    }

    [[nodiscard]] const std::string& hdd() const { return hdd_; }

  private:
    std::string hdd_;
};

TEST_F(SnapLifecycleTest, StartingSnapStartsItsFilterAndKcowdAndMakesTheCowFiles) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, false));
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1));
    log().Mark();

    ASSERT_EQ(StartNode(control(), 1), 0);

    ExpectStarted(0, 1, 0);
    ExpectStarted(1, 1, 0);
    EXPECT_EQ(GetInfo(control(), 1).info.snap_valid, 1U);
    EXPECT_TRUE(
        log().Contains(LogPattern::Info("trak_ioctl_start_node(): Starting " + NodeName(1))));
    const std::optional<int> pid = AnnouncedKcowdPid();
    ASSERT_TRUE(pid.has_value()) << "kcowd was not started";
    EXPECT_EQ(ReadText("/proc/" + std::to_string(*pid) + "/comm").text, "kcowd\n");
    const NodeInfo snap = GetInfo(control(), 1);
    const FileSpace data = SpaceOf(CowDataPath(1));
    ASSERT_EQ(data.error, 0);
    EXPECT_EQ(data.size, snap.info.cow_data_size);
    EXPECT_LT(data.allocated, std::uint64_t{kChunk}) << "the data file is sparse";
    const MarkedChunks bitmap = MarkedInCowBitmap(CowBitmapPath(1));
    ASSERT_EQ(bitmap.error, 0);
    EXPECT_EQ(bitmap.bytes, snap.info.cow_bmp_size);
    EXPECT_TRUE(bitmap.chunks.empty()) << "no chunk is preserved yet";
    for (const std::string& path : {CowDataPath(1), CowBitmapPath(1)}) {
        struct stat st {};
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600U) << path;
    }
}

// A file written just before the start and never synced is still only in
// the page cache; only the freeze at the start puts it on disk in time.
TEST_F(SnapLifecycleTest, StartFreezesTheMountedFileSystemForTheSnapshotAndThawsIt) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", NodeDevice(0)}));
    ASSERT_EQ(MountNode(NodeDevice(0), kOriginMount, "ext4", 0, ""), 0);
    const std::vector<std::uint8_t> unsynced = RandomBytes(std::size_t{96} * 1024, 3);
    const std::string name = std::string(kOriginMount) + "/unsynced";
    {
        const OpenFile file(name, O_WRONLY | O_CREAT);
        ASSERT_EQ(file.error(), 0);
        ASSERT_EQ(write(file.fd(), unsynced.data(), unsynced.size()),
                  static_cast<ssize_t>(unsynced.size()));
    }

    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));

    EXPECT_TRUE(FinishesInChild(
        [] {
            const std::string after = std::string(kOriginMount) + "/after";
            const OpenFile file(after, O_WRONLY | O_CREAT);
            const char byte = 'x';
            if (file.error() != 0 || write(file.fd(), &byte, 1) != 1 || fsync(file.fd()) != 0) {
                return std::string("writing ") + after + ": " + std::strerror(errno);
            }
            return std::string();
        },
        std::chrono::seconds(60)))
        << "the origin file system is not writable after the start";
    ASSERT_EQ(MountNode(NodeDevice(1), kSnapMount, "ext4", MS_RDONLY, "noload"), 0);
    const ReadBack copy = ReadWholeFile(std::string(kSnapMount) + "/unsynced");
    ASSERT_EQ(copy.error, 0) << std::strerror(copy.error);
    EXPECT_TRUE(copy.bytes == unsynced)
        << "the snapshot holds " << copy.bytes.size() << " bytes that differ from what was written";
    EXPECT_FALSE(std::filesystem::exists(std::string(kSnapMount) + "/after"));
}

TEST_F(SnapLifecycleTest, StopOfTheLaterSnapIsPostponedUntilTheEarlierOneStops) {
    ASSERT_NO_FATAL_FAILURE(TakeTwoSnaps());

    EXPECT_EQ(StopNode(control(), 2), 0);

    EXPECT_TRUE(log().Contains(
        LogPattern::Info("trak_block_stop_device(): Postponing stop of " + NodeName(2) +
                         ", since there are other snaps depending on this one.")));
    ExpectStarted(2, 1, 1);
    EXPECT_EQ(ReadText("/proc/trak/trak2/stop_pending").text, "1\n");
    ExpectStarted(1, 1, 0);

    EXPECT_EQ(StopNode(control(), 1), 0);

    ExpectStarted(1, 0, 0);
    ExpectStarted(2, 0, 0);
    ExpectStarted(0, 1, 0);
}

// A snap whose stop is pending is still started, so a start is refused as
// for any started node; it stays DEFUNCT and refuses reads.
TEST_F(SnapLifecycleTest, DefunctSnapCannotRestartAndRefusesReads) {
    ASSERT_NO_FATAL_FAILURE(TakeTwoSnaps());
    ASSERT_EQ(StopNode(control(), 2), 0);
    log().Mark();

    EXPECT_EQ(StartNode(control(), 2), EALREADY);
    const ReadBack read = ReadBytes(NodeDevice(2), 0, 4096);

    EXPECT_TRUE(log().Contains(LogPattern::Error("trak_block_start_device(): " + NodeName(2) +
                                                 " has already been started")));
    ExpectStarted(2, 1, 1);
    EXPECT_EQ(read.error, EIO);
    EXPECT_TRUE(
        log().Contains(LogPattern::Error("trak_make_request(): I/O request for " + NodeName(2) +
                                         ", which is in STOP_PENDING state or INVALID.")));
}

TEST_F(SnapLifecycleTest, DeleteOfDefunctSnapIsCarriedOutByTheEarlierSnapsDelete) {
    ASSERT_NO_FATAL_FAILURE(TakeTwoSnaps());
    ASSERT_EQ(StopNode(control(), 2), 0);
    log().Mark();

    EXPECT_EQ(DeleteNode(control(), 2), 0);

    EXPECT_TRUE(
        log().Contains(LogPattern::Info("trak_block_destroy_device(): STOP is pending for " +
                                        NodeName(2) + ". Postponing delete as well.")));
    const NodeInfo pending = GetInfo(control(), 2);
    ASSERT_EQ(pending.error, 0) << "the snap was deleted at once";
    EXPECT_EQ(pending.info.del_pending, 1U);
    EXPECT_EQ(pending.info.started, 1);
    EXPECT_EQ(ReadText("/proc/trak/trak2/del_pending").text, "1\n");
    EXPECT_TRUE(std::filesystem::exists("/dev/trak/trak2"));
    EXPECT_TRUE(std::filesystem::exists(CowDataPath(2)));
    log().Mark();

    EXPECT_EQ(DeleteNode(control(), 1), 0);

    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Info("trak_block_destroy_device(): Destroying " + NodeName(1)),
         LogPattern::Info("trak_block_destroy_device(): Destroying " + NodeName(2))}));
    for (const std::int32_t minor : {1, 2}) {
        SCOPED_TRACE(minor);
        EXPECT_EQ(GetInfo(control(), minor).error, EINVAL);
        EXPECT_FALSE(std::filesystem::exists("/dev/trak/trak" + std::to_string(minor)));
        EXPECT_FALSE(std::filesystem::exists("/proc/trak/trak" + std::to_string(minor)));
        EXPECT_FALSE(std::filesystem::exists(CowDataPath(minor)));
        EXPECT_FALSE(std::filesystem::exists(CowBitmapPath(minor)));
    }
    EXPECT_EQ(GetInfo(control(), 0).info.snap_cnt, 0U);
    EXPECT_EQ(ReadText("/proc/trak/trak0/snaps").text, "");
}

// Snap 1 is stopped, not deleted, and stays first in the filter's list:
// the delete that waited for snap 2's stop is carried out all the same.
TEST_F(SnapLifecycleTest, DeleteOfDefunctSnapIsCarriedOutBehindAStoppedOlderSnap) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    ASSERT_EQ(StopNode(control(), 1), 0);
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 2));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 3));
    ASSERT_EQ(StopNode(control(), 3), 0);
    ASSERT_EQ(DeleteNode(control(), 3), 0);
    ASSERT_EQ(GetInfo(control(), 3).info.del_pending, 1U);
    log().Mark();

    EXPECT_EQ(DeleteNode(control(), 2), 0);

    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Info("trak_block_destroy_device(): Destroying " + NodeName(2)),
         LogPattern::Info("trak_block_destroy_device(): Destroying " + NodeName(3))}));
    for (const std::int32_t minor : {2, 3}) {
        SCOPED_TRACE(minor);
        EXPECT_EQ(GetInfo(control(), minor).error, EINVAL);
        EXPECT_FALSE(std::filesystem::exists(CowDataPath(minor)));
        EXPECT_FALSE(std::filesystem::exists(CowBitmapPath(minor)));
    }
    const NodeInfo kept = GetInfo(control(), 1);
    ASSERT_EQ(kept.error, 0) << "the stopped snap went too";
    EXPECT_EQ(kept.info.started, 0);
    EXPECT_TRUE(std::filesystem::exists(CowDataPath(1)));
    EXPECT_EQ(GetInfo(control(), 0).info.snap_cnt, 1U);
}

// A snap's disk is read-only, so the block layer refuses writes and
// zero-outs before they reach the driver; neither may change the snap or the
// HDD under it.
TEST_F(SnapLifecycleTest, WritesToASnapAreRefused) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    const ReadBack before = ReadBytes(NodeDevice(1), 0, std::size_t{2} * kChunk);
    ASSERT_EQ(before.error, 0);
    const OpenFile snap(NodeDevice(1), O_WRONLY);
    ASSERT_EQ(snap.error(), 0);

    const std::vector<std::uint8_t> bytes(4096, 0x5A);
    EXPECT_EQ(pwrite(snap.fd(), bytes.data(), bytes.size(), 0) < 0 ? errno : 0, EPERM);
    std::array<std::uint64_t, 2> range = {0, kChunk};
    EXPECT_EQ(ioctl(snap.fd(), BLKZEROOUT, range.data()) < 0 ? errno : 0, EPERM);

    const ReadBack after = ReadBytes(NodeDevice(1), 0, std::size_t{2} * kChunk);
    ASSERT_EQ(after.error, 0);
    EXPECT_TRUE(SameImage(after.bytes, before.bytes, kChunk));
    const ReadBack hdd_now = ReadBytes(hdd(), 0, std::size_t{2} * kChunk);
    EXPECT_TRUE(SameImage(hdd_now.bytes, before.bytes, kChunk)) << "the HDD under the snap changed";
}

TEST_F(SnapLifecycleTest, SnapThatIsNotStartedCannotBeOpened) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1));
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 2));
    ASSERT_EQ(StartNode(control(), 2), 0);
    ASSERT_EQ(StopNode(control(), 2), 0);
    for (const std::int32_t minor : {1, 2}) {
        SCOPED_TRACE(minor);
        log().Mark();

        const OpenFile snap(NodeDevice(minor), O_RDONLY);

        EXPECT_EQ(snap.error(), EIO);
        EXPECT_TRUE(log().Contains(LogPattern::Error("trak_block_open(): " + NodeName(minor) +
                                                     " hasn't been started yet.")));
        EXPECT_EQ(GetInfo(control(), minor).info.use_cnt, 0);
    }
}

TEST_F(SnapLifecycleTest, OpenSnapCannotStopUntilItIsClosed) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    OpenFile snap(NodeDevice(1), O_RDONLY);
    ASSERT_EQ(snap.error(), 0);
    log().Mark();

    EXPECT_EQ(StopNode(control(), 1), EBUSY);

    EXPECT_TRUE(log().Contains(
        LogPattern::Error("trak_block_stop_device(): " + NodeName(1) + " is still being used.")));
    ExpectStarted(1, 1, 0);
    snap.Close();
    EXPECT_EQ(StopNode(control(), 1), 0);
    ExpectStarted(1, 0, 0);
}

// The COW files go into a directory that does not exist yet: the snap is
// added (the file system holding the path is found), but its start cannot
// make them. The filter started on the way stays started.
TEST_F(SnapLifecycleTest, StartThatCannotMakeTheCowFilesFailsAndLeavesTheSnapStopped) {
    const std::string missing = std::string(kCowDir) + "/not-yet";
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, false));
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1, missing));
    log().Mark();

    EXPECT_EQ(StartNode(control(), 1), EIO);

    EXPECT_TRUE(log().Contains(LogPattern::Error("trak_fopen(): Failed to open file " +
                                                 CowDataPath(1, missing) +
                                                 " for reading and writing: errno=-2")));
    ExpectStarted(1, 0, 0);
    ExpectStarted(0, 1, 0);
    EXPECT_EQ(ReadBytes(NodeDevice(1), 0, 4096).error, EIO) << "the snap is in service";
    std::filesystem::create_directories(missing);
    EXPECT_EQ(StartNode(control(), 1), 0) << "once the directory exists";
    ExpectStarted(1, 1, 0);
}

TEST_F(SnapLifecycleTest, FilterStopWithAnOpenSnapIsBusyAndStopsNothing) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    OpenFile snap(NodeDevice(1), O_RDONLY);
    ASSERT_EQ(snap.error(), 0);
    log().Mark();

    EXPECT_EQ(StopNode(control(), 0), EBUSY);

    EXPECT_TRUE(log().Contains(
        LogPattern::Error("trak_block_stop_device(): " + NodeName(1) + " is still being used.")));
    ExpectStarted(0, 1, 0);
    ExpectStarted(1, 1, 0);
    snap.Close();
    EXPECT_EQ(StopNode(control(), 0), 0);
    ExpectStarted(0, 0, 0);
    ExpectStarted(1, 0, 0);
}

TEST_F(SnapLifecycleTest, FilterStopStopsItsSnapsAndKcowd) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    log().Mark();
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    const std::optional<int> pid = AnnouncedKcowdPid();
    ASSERT_TRUE(pid.has_value()) << "kcowd was not started";
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 2));
    log().Mark();

    EXPECT_EQ(StopNode(control(), 0), 0);

    ExpectStarted(0, 0, 0);
    ExpectStarted(1, 0, 0);
    ExpectStarted(2, 0, 0);
    EXPECT_TRUE(log().Contains(LogPattern::Info(
        "trak_cowthread_shutdown(): Stopping COW thread kcowd (pid=" + std::to_string(*pid) +
        ")...")));
    EXPECT_TRUE(WaitUntil([&] { return !std::filesystem::exists("/proc/" + std::to_string(*pid)); },
                          std::chrono::seconds(10)))
        << "kcowd (pid " << *pid << ") still runs";
}

TEST_F(SnapLifecycleTest, DeletingASnapRemovesItsNodeAndCowFiles) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    ASSERT_EQ(StopNode(control(), 1), 0);
    log().Mark();

    EXPECT_EQ(DeleteNode(control(), 1), 0);

    EXPECT_TRUE(
        log().Contains(LogPattern::Info("trak_block_destroy_device(): Destroying " + NodeName(1))));
    EXPECT_EQ(GetInfo(control(), 1).error, EINVAL);
    EXPECT_FALSE(std::filesystem::exists("/dev/trak/trak1"));
    EXPECT_FALSE(std::filesystem::exists("/proc/trak/trak1"));
    EXPECT_FALSE(std::filesystem::exists(CowDataPath(1)));
    EXPECT_FALSE(std::filesystem::exists(CowBitmapPath(1)));
    EXPECT_EQ(GetInfo(control(), 0).info.snap_cnt, 0U);
    EXPECT_EQ(ReadText("/proc/trak/trak0/snaps").text, "");
}

TEST_F(SnapLifecycleTest, DeletingAFilterDeletesItsSnapsAndTheirCowFiles) {
    ASSERT_NO_FATAL_FAILURE(TakeTwoSnaps());
    ASSERT_EQ(StopNode(control(), 0), 0);

    EXPECT_EQ(DeleteNode(control(), 0), 0);

    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Info("trak_block_destroy_device(): Destroying " + NodeName(0)),
         LogPattern::Info("trak_block_destroy_device(): Destroying " + NodeName(1)),
         LogPattern::Info("trak_block_destroy_device(): Destroying " + NodeName(2))}));
    for (const std::int32_t minor : {0, 1, 2}) {
        EXPECT_EQ(GetInfo(control(), minor).error, EINVAL) << "node " << minor;
    }
    for (const std::int32_t minor : {1, 2}) {
        EXPECT_FALSE(std::filesystem::exists(CowDataPath(minor))) << minor;
        EXPECT_FALSE(std::filesystem::exists(CowBitmapPath(minor))) << minor;
    }
}

// A stopped snap started again is a new snapshot: its COW files are made
// afresh and it shows the partition as it is now.
TEST_F(SnapLifecycleTest, RestartedSnapTakesANewPointInTime) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    {
        const DirectWriter origin(NodeDevice(0));
        ASSERT_EQ(origin.Fill(std::uint64_t{3} * kChunk, kChunk, 0x33), 0);
    }
    ASSERT_EQ(MarkedInCowBitmap(CowBitmapPath(1)).chunks, std::vector<std::uint64_t>{3});
    ASSERT_EQ(StopNode(control(), 1), 0);

    ASSERT_EQ(StartNode(control(), 1), 0);

    EXPECT_TRUE(MarkedInCowBitmap(CowBitmapPath(1)).chunks.empty());
    EXPECT_LT(SpaceOf(CowDataPath(1)).allocated, std::uint64_t{kChunk});
    const ReadBack snap = ReadWholeDevice(NodeDevice(1));
    const ReadBack now = ReadWholeDevice(hdd());
    ASSERT_EQ(snap.error, 0);
    ASSERT_EQ(now.error, 0);
    EXPECT_TRUE(SameImage(snap.bytes, now.bytes, kChunk));
}

// A write is preserved only for the newest started snap, and older snaps
// read what newer ones preserved; so a snap added earlier cannot start
// while a later one is started: it would read the later snap's older data.
TEST_F(SnapLifecycleTest, SnapCannotStartWhileOneAddedAfterItIsStarted) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1));
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 2));
    ASSERT_EQ(StartNode(control(), 2), 0);
    const ReadBack at_start = ReadWholeDevice(hdd());
    ASSERT_EQ(at_start.error, 0);
    {
        const DirectWriter origin(NodeDevice(0));
        ASSERT_EQ(origin.Fill(std::uint64_t{5} * kChunk, kChunk, 0x55), 0);
    }
    log().Mark();

    ExpectStartRefusedWhileLaterStarted(1, 2);
    EXPECT_FALSE(std::filesystem::exists(CowDataPath(1))) << "the refused start made COW files";
    const ReadBack snap = ReadWholeDevice(NodeDevice(2));
    ASSERT_EQ(snap.error, 0);
    EXPECT_TRUE(SameImage(snap.bytes, at_start.bytes, kChunk)) << "the later snap changed";

    // Restarting the earlier snap of two started ones is the same case.
    ASSERT_EQ(StopNode(control(), 2), 0);
    ASSERT_EQ(StartNode(control(), 1), 0);
    ASSERT_EQ(StartNode(control(), 2), 0);
    ASSERT_EQ(StopNode(control(), 1), 0);
    ExpectStarted(2, 1, 0);
    log().Mark();

    ExpectStartRefusedWhileLaterStarted(1, 2);
}

}  // namespace
}  // namespace trak::vmtest
