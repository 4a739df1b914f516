// A snap start reaches its point in time within a minute of the request,
// or gives up with EAGAIN and leaves the filter as it was. Here a write
// passed on to the partition before the start never ends (the partition is
// a device-mapper device suspended without flushing), so the start's drain
// of the writes before its moment could wait for as long as the disk
// stalls.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/device_image.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/snap_test.h"
#include "support/wait.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
constexpr std::uint64_t kHddBytes = 16 << 20;
constexpr const char* kStalledName = "trak-stalled";
constexpr std::uint64_t kStalledOffset = std::uint64_t{3} * kChunk;
// Well past the start's limit of a minute: a start still waiting then
// would wait for as long as the disk stalls.
constexpr std::chrono::seconds kPatience{150};

// Whether the thread `tid` of this process sleeps uninterruptibly, as a
// task waiting for its direct write does.
bool InUninterruptibleSleep(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const std::size_t end_of_name = line.rfind(')');
    return end_of_name != std::string::npos && end_of_name + 2 < line.size() &&
           line[end_of_name + 2] == 'D';
}

class SnapStartLimitTest : public SnapTest {
  protected:
    void TearDown() override {
        ResumeStalledDisk();
        SnapTest::TearDown();
    }

    // Lets the held writes reach the disk again; a no-op once done.
    void ResumeStalledDisk() {
        if (stalled_) {
            EXPECT_TRUE(Succeeds({"dmsetup", "resume", kStalledName}));
            stalled_ = false;
        }
    }

    void StallDisk() {
        ASSERT_TRUE(Succeeds({"dmsetup", "suspend", "--noflush", "--nolockfs", kStalledName}));
        stalled_ = true;
    }

  private:
    bool stalled_ = false;
};

TEST_F(SnapStartLimitTest, StartGivesUpWithinAMinuteWhileAWriteBeforeItIsStuck) {
    std::vector<std::uint8_t> image = RandomBytes(kHddBytes, 61);
    const std::string loop = AttachLoopHolding(image);
    ASSERT_FALSE(loop.empty());
    const std::string sectors = std::to_string(kHddBytes / 512);
    const std::string hdd =
        CreateMappedDevice(kStalledName, "0 " + sectors + " linear " + loop + " 0\n");
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    const std::vector<std::uint8_t> at_snap1 = image;
    // The chunk is preserved for snap 1 first, so that the next write to
    // it goes straight on to the partition.
    const DirectWriter writer(NodeDevice(0));
    ASSERT_EQ(writer.error(), 0);
    ASSERT_EQ(writer.Fill(kStalledOffset, 4096, 0x5a), 0);
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 2));

    ASSERT_NO_FATAL_FAILURE(StallDisk());
    std::atomic<pid_t> writer_tid{0};
    auto stuck_write = std::async(std::launch::async, [&] {
        writer_tid = static_cast<pid_t>(syscall(SYS_gettid));
        return writer.Fill(kStalledOffset + 4096, 4096, 0xa5);
    });
    ASSERT_TRUE(WaitUntil([&] { return writer_tid && InUninterruptibleSleep(writer_tid); },
                          std::chrono::seconds(30)))
        << "the write never reached the stalled disk";
    log().Mark();

    const auto asked = std::chrono::steady_clock::now();
    auto start = std::async(std::launch::async, [&] { return StartNode(control(), 2); });
    const bool gave_up_in_time = start.wait_for(kPatience) == std::future_status::ready;
    EXPECT_TRUE(gave_up_in_time) << "the start was still waiting after " << kPatience.count()
                                 << " s";
    ResumeStalledDisk();
    const int started = start.get();
    const auto waited =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - asked);
    EXPECT_EQ(started, EAGAIN) << "after " << waited.count() << " s";
    EXPECT_GE(waited.count(), 59) << "the start gave up before its minute was over";
    EXPECT_TRUE(
        log().Contains(LogPattern::Error("trak_block_start_device(): Timed out waiting for "
                                         "FS on " +
                                         NodeName(0) + " (" + hdd + ") to stabilize.")));
    ASSERT_EQ(stuck_write.get(), 0);
    std::fill_n(image.begin() + kStalledOffset, 4096, 0x5a);
    std::fill_n(image.begin() + kStalledOffset + 4096, 4096, 0xa5);

    // The filter is as it was: snap 2 starts now, at a point in time after
    // the write that held it up, and snap 1 still reads its own.
    ASSERT_EQ(StartNode(control(), 2), 0);
    ASSERT_EQ(writer.Fill(kStalledOffset, 8192, 0x3c), 0);
    const ReadBack snap2 = ReadWholeDevice(NodeDevice(2));
    ASSERT_EQ(snap2.error, 0);
    EXPECT_TRUE(SameImage(snap2.bytes, image, kChunk));
    const ReadBack snap1 = ReadWholeDevice(NodeDevice(1));
    ASSERT_EQ(snap1.error, 0);
    EXPECT_TRUE(SameImage(snap1.bytes, at_snap1, kChunk));
    EXPECT_TRUE(log().Absent(LogPattern::Matching("WARNING:|BUG:|Oops|blocked for more")));
}

}  // namespace
}  // namespace trak::vmtest
