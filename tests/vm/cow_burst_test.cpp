// A gigabyte of buffered random writes, then a trim, through a file system
// on a filter node under a live snap, every chunk of it to be preserved:
// the queue must stay within its bound, without a stalled task or a failed
// allocation in the kernel log, and the snap must still show the
// partition exactly as it was wherever it held data. ext4 writes back
// runs of adjacent dirty pages as one request, so this load keeps the
// queue short (about a hundred requests); the bound itself is exercised
// by the queue's unit tests in trak_test.ko.
//
// Runs in a VM of its own (vm.cow-burst), with disks larger than the
// suite's: the partition is the first 1.25 GiB of /dev/vda, and the COW
// file system on /dev/vdb must hold a copy of nearly all of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/command.h"
#include "support/device_image.h"
#include "support/node_commands.h"
#include "support/proc_files.h"
#include "support/snap_commands.h"
#include "support/snap_test.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
// The driver's bound on the requests its COW queue holds.
constexpr std::uint64_t kQueueBound = 2048;
constexpr std::uint64_t kHddBytes = std::uint64_t{1280} << 20;
// The burst writes the first 1 GiB of a file of this size.
constexpr std::uint64_t kFileBytes = std::uint64_t{1088} << 20;
constexpr const char* kOriginMount = "/mnt/trak-origin";
constexpr const char* kQueueLength = "/proc/trak/trak0/cowqueue_len";
constexpr const char* kDebugEntry = "/proc/trak/debug";

struct BlockDigests {
    int error;  // 0 or errno of the first failed read
    std::vector<std::uint64_t> digests;
};

// FNV-1a of each 4096-byte block of the first `bytes` bytes of `path`:
// whole images of this size do not fit in the guest's memory twice.
BlockDigests DigestBlocks(const std::string& path, std::uint64_t bytes) {
    constexpr std::size_t kPiece = std::size_t{4} << 20;
    constexpr std::size_t kBlock = 4096;
    BlockDigests result{0, {}};
    for (std::uint64_t offset = 0; offset < bytes; offset += kPiece) {
        const ReadBack piece = ReadBytes(path, offset, kPiece);
        if (piece.error != 0) {
            result.error = piece.error;
            return result;
        }
        for (std::size_t block = 0; block < piece.bytes.size(); block += kBlock) {
            std::uint64_t digest = 14695981039346656037ULL;
            for (std::size_t i = block; i < block + kBlock; ++i) {
                digest = (digest ^ piece.bytes[i]) * 1099511628211ULL;
            }
            result.digests.push_back(digest);
        }
    }
    return result;
}

// Whether chunk `chunk` is set in the data-block bitmap `bits`.
bool HoldsData(const std::vector<std::uint8_t>& bits, std::size_t chunk) {
    return chunk / 8 < bits.size() && ((bits[chunk / 8] >> (chunk % 8)) & 1) != 0;
}

// `actual` equals `expected` in every block of a chunk that held data at
// the snap's moment: the snap shows free chunks as they are now.
::testing::AssertionResult SameDataBlocks(const BlockDigests& actual, const BlockDigests& expected,
                                          const std::vector<std::uint8_t>& data_chunks) {
    constexpr std::size_t kBlocksPerChunk = kChunk / 4096;
    if (actual.error != 0) {
        return ::testing::AssertionFailure() << "reading failed with errno " << actual.error;
    }
    if (actual.digests.size() != expected.digests.size()) {
        return ::testing::AssertionFailure()
               << actual.digests.size() << " blocks, not " << expected.digests.size();
    }
    std::vector<std::size_t> differing;
    for (std::size_t i = 0; i < actual.digests.size(); ++i) {
        if (HoldsData(data_chunks, i / kBlocksPerChunk) &&
            actual.digests[i] != expected.digests[i]) {
            differing.push_back(i);
        }
    }
    if (differing.empty()) {
        return ::testing::AssertionSuccess();
    }
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    failure << differing.size() << " 4096-byte blocks of data differ, the first of them";
    for (std::size_t i = 0; i < differing.size() && i < 8; ++i) {
        failure << " " << differing[i];
    }
    return failure;
}

// The longest the COW queue was while it ran, sampled every few
// milliseconds from /proc.
class QueueLengthWatch {
  public:
    QueueLengthWatch()
        : thread_([this](const std::stop_token& stop) {
              while (!stop.stop_requested()) {
                  const FileText text = ReadText(kQueueLength);
                  if (text.error != 0) {
                      error_ = text.error;
                      return;
                  }
                  const std::uint64_t length = std::strtoull(text.text.c_str(), nullptr, 10);
                  longest_ = std::max(longest_.load(), length);
                  std::this_thread::sleep_for(std::chrono::milliseconds(5));
              }
          }) {}

    // Stops sampling; the longest length seen, or a failure to read it.
    ::testing::AssertionResult StayedWithin(std::uint64_t bound) {
        thread_.request_stop();
        thread_.join();
        if (error_ != 0) {
            return ::testing::AssertionFailure()
                   << "reading " << kQueueLength << ": errno " << error_;
        }
        if (longest_ > bound) {
            return ::testing::AssertionFailure()
                   << "the COW queue held " << longest_ << " requests, more than " << bound;
        }
        return ::testing::AssertionSuccess() << "at most " << longest_ << " requests";
    }

  private:
    std::atomic<std::uint64_t> longest_{0};
    std::atomic<int> error_{0};
    std::jthread thread_;
};

class CowBurstTest : public SnapTest {};

TEST_F(CowBurstTest, RandomWriteBurstAndTrimStayWithinTheQueueBound) {
    const std::string hdd =
        CreateMappedDevice("trak-burst-hdd", "0 " + std::to_string(kHddBytes / 512) + " linear " +
                                                 kTrackedDisk + " 0\n");
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", "-E", "nodiscard", NodeDevice(0)}));
    // The file's blocks are in use at the snap's moment, so every chunk
    // the burst writes, or the trim discards, must be preserved first.
    ASSERT_EQ(MountNode(NodeDevice(0), kOriginMount, "ext4", 0, ""), 0);
    const std::string burst = std::string(kOriginMount) + "/burst";
    ASSERT_TRUE(Succeeds({"fallocate", "-l", std::to_string(kFileBytes), burst}));
    ASSERT_EQ(UnmountNode(kOriginMount), 0);
    // Unmounted, the partition holds still while its image is taken.
    const BlockDigests at_start = DigestBlocks(NodeDevice(0), kHddBytes);
    ASSERT_EQ(at_start.error, 0);
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    const DatablockReply data = GetDatablockBitmap(control(), 1, kChunk, kHddBytes / kChunk / 8);
    ASSERT_EQ(data.error, 0);
    std::size_t data_chunks = 0;
    for (std::size_t chunk = 0; chunk < kHddBytes / kChunk; ++chunk) {
        data_chunks += HoldsData(data.bits, chunk) ? 1 : 0;
    }
    ASSERT_GE(data_chunks, kFileBytes / kChunk);
    ASSERT_EQ(MountNode(NodeDevice(0), kOriginMount, "ext4", 0, ""), 0);

    QueueLengthWatch watch;
    EXPECT_TRUE(Succeeds({"fio", "--name=burst", "--filename=" + burst, "--rw=randwrite", "--bs=4k",
                          "--size=1g", "--ioengine=psync", "--direct=0", "--end_fsync=1",
                          "--randseed=11"}));
    ASSERT_EQ(std::remove(burst.c_str()), 0);
    ASSERT_TRUE(Succeeds({"sync", "-f", kOriginMount}));
    // With nothing left to write back, the trim's discards are the only
    // requests that can join the queue while it runs: those of the file's
    // last 64 MiB, which the burst did not write and so did not preserve.
    const std::string debug = ReadText(kDebugEntry).text;
    ASSERT_EQ(WriteText(kDebugEntry, "3\n"), 0);
    const CommandResult trim = RunCommand({"fstrim", "-v", kOriginMount});
    EXPECT_EQ(WriteText(kDebugEntry, debug), 0);
    EXPECT_EQ(trim.status, 0) << trim.output;
    EXPECT_TRUE(log().Contains(
        LogPattern::Matching(R"(trak_cowqueue_append\(\): Appending new request\.\.\.$)")));
    ASSERT_EQ(UnmountNode(kOriginMount), 0);
    const ::testing::AssertionResult bounded = watch.StayedWithin(kQueueBound);
    EXPECT_TRUE(bounded);
    std::printf("cowqueue_len during the burst and the trim: %s\n", bounded.message());

    EXPECT_TRUE(SameDataBlocks(DigestBlocks(NodeDevice(1), kHddBytes), at_start, data.bits));
    EXPECT_TRUE(log().NoBugReports());
    EXPECT_TRUE(log().Absent(LogPattern::Matching("page allocation failure")));
    EXPECT_TRUE(log().Absent(LogPattern::Matching("Memory allocation failed")));
}

}  // namespace
}  // namespace trak::vmtest
