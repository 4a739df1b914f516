// Failures of copy-on-write never hurt the origin: when the COW store
// fills up or cannot be synced, or a chunk cannot be read from the
// partition, the snap that was being served and every snap started before
// it are invalidated and their COW data files truncated; the held writes
// still land on the partition intact, reads of the invalid snaps fail with
// EIO, nothing hangs, the kernel warns of nothing, and the driver unloads.
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/command.h"
#include "support/cow_files.h"
#include "support/device_image.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/snap_test.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
constexpr std::uint64_t kHddBytes = 16 << 20;
constexpr std::chrono::seconds kWriteTimeout{120};

class SnapFailureTest : public SnapTest {
  protected:
    // Issues `writes` through the filter from a child process, which must
    // finish them all in time, and applies them to `image`.
    static ::testing::AssertionResult WriteThroughFilter(const std::vector<ImageWrite>& writes,
                                                         std::vector<std::uint8_t>& image) {
        ::testing::AssertionResult done = FinishesInChild(
            [&writes] {
                const DirectWriter origin(NodeDevice(0));
                std::vector<std::uint8_t> scratch(kHddBytes);
                const ::testing::AssertionResult written = WriteAll(origin, writes, scratch);
                return written ? std::string() : std::string(written.message());
            },
            kWriteTimeout);
        if (done) {
            for (const ImageWrite& write : writes) {
                std::copy(write.bytes.begin(), write.bytes.end(),
                          image.begin() + static_cast<std::ptrdiff_t>(write.offset));
            }
        }
        return done;
    }

    // The snap is started but invalid, its COW data file is empty, and
    // reading it fails.
    void ExpectInvalidated(std::int32_t minor, const std::string& cow_dir) {
        SCOPED_TRACE("snap " + std::to_string(minor));
        const NodeInfo snap = GetInfo(control(), minor);
        ASSERT_EQ(snap.error, 0);
        EXPECT_EQ(snap.info.snap_valid, 0U);
        EXPECT_EQ(snap.info.started, 1);
        const FileSpace data = SpaceOf(CowDataPath(minor, cow_dir));
        EXPECT_EQ(data.error, 0);
        EXPECT_EQ(data.size, 0U) << "the COW data file was not truncated";
        EXPECT_EQ(ReadBytes(NodeDevice(minor), 0, 4096).error, EIO);
        EXPECT_TRUE(log().Contains(
            LogPattern::Error("trak_make_request(): I/O request for " + NodeName(minor) +
                              ", which is in STOP_PENDING state or INVALID.")));
    }

    // The partition holds `image`, the driver unloads, and the kernel
    // logged no warning since the mark.
    void ExpectOriginIntactAndCleanUnload(const std::string& hdd,
                                          const std::vector<std::uint8_t>& image) {
        const ReadBack now = ReadWholeDevice(hdd);
        ASSERT_EQ(now.error, 0);
        EXPECT_TRUE(SameImage(now.bytes, image, kChunk)) << "the partition after the writes";
        EXPECT_EQ(UnloadDriver(), 0);
        EXPECT_TRUE(log().Absent(LogPattern::Matching("WARNING:|BUG:|Oops|blocked for more")));
    }

    // One write of a whole chunk to each chunk of the partition, in order.
    static std::vector<ImageWrite> EveryChunkOnce(std::uint32_t seed) {
        std::vector<ImageWrite> writes;
        for (std::uint64_t c = 0; c < kHddBytes / kChunk; ++c) {
            writes.push_back(
                {c * kChunk, RandomBytes(kChunk, seed + static_cast<std::uint32_t>(c))});
        }
        return writes;
    }
};

// S2's COW files are on a file system of 4 MiB, far less than the 16 MiB
// of chunks that the writes make it preserve.
TEST_F(SnapFailureTest, FullCowStoreInvalidatesTheSnapAndTheOnesBeforeIt) {
    constexpr const char* kSmallStore = "/mnt/trak-cow-small";
    ASSERT_NO_FATAL_FAILURE(
        MountSmallFileSystem(4 << 20, {"mkfs.ext2", "-q", "-F"}, "ext2", kSmallStore));
    std::vector<std::uint8_t> image = RandomBytes(kHddBytes, 41);
    const std::string hdd = AttachLoopHolding(image);
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 2, kSmallStore));
    log().Mark();

    EXPECT_TRUE(WriteThroughFilter(EveryChunkOnce(400), image));

    EXPECT_TRUE(log().ContainsInOrder(
        {ThreadLine("write_cowed_page(): Invalidating snap device " + NodeName(2)),
         ThreadLine("write_cowed_page(): Invalidating snap device " + NodeName(1))}));
    ExpectInvalidated(2, kSmallStore);
    ExpectInvalidated(1, kCowDir);
    // Writes after the invalidation are no longer held for the snaps.
    EXPECT_TRUE(WriteThroughFilter({{std::uint64_t{5} * kChunk, RandomBytes(4096, 44)}}, image));
    EXPECT_EQ(SpaceOf(CowDataPath(1)).size, 0U);
    EXPECT_EQ(SpaceOf(CowDataPath(2, kSmallStore)).size, 0U);
    ExpectOriginIntactAndCleanUnload(hdd, image);
}

// The last 4096 bytes of chunk 100 sit on a device-mapper error target:
// preserving the chunk fails, while the write into its first 4096 bytes
// can still land.
TEST_F(SnapFailureTest, UnreadableChunkInvalidatesTheSnapAndTheOnesBeforeIt) {
    constexpr std::uint64_t kBadChunk = 100;
    constexpr std::uint64_t kBadSector = (kBadChunk * kChunk + kChunk - 4096) / 512;
    std::vector<std::uint8_t> image = RandomBytes(kHddBytes, 42);
    const std::string loop = AttachLoopHolding(image);
    ASSERT_FALSE(loop.empty());
    const std::uint64_t sectors = kHddBytes / 512;
    const std::string table = "0 " + std::to_string(kBadSector) + " linear " + loop + " 0\n" +
                              std::to_string(kBadSector) + " 8 error\n" +
                              std::to_string(kBadSector + 8) + " " +
                              std::to_string(sectors - kBadSector - 8) + " linear " + loop + " " +
                              std::to_string(kBadSector + 8) + "\n";
    const std::string hdd = CreateMappedDevice("trak-bad-chunk", table);
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 2));
    log().Mark();

    EXPECT_TRUE(WriteThroughFilter({{kBadChunk * kChunk, RandomBytes(4096, 45)}}, image));

    // The page's first sector shifted right by 12 names the block.
    EXPECT_TRUE(
        log().Contains(LogPattern::Error("cow_chunks(): Failed to read 4096-byte block #" +
                                         std::to_string(kBadSector >> 12) + " from " + hdd)));
    EXPECT_TRUE(log().ContainsInOrder(
        {ThreadLine("cow_chunks(): Invalidating snap device " + NodeName(2)),
         ThreadLine("cow_chunks(): Invalidating snap device " + NodeName(1))}));
    ExpectInvalidated(2, kCowDir);
    ExpectInvalidated(1, kCowDir);
    EXPECT_TRUE(WriteThroughFilter({{7 * kChunk + 512, RandomBytes(1024, 46)}}, image));
    ExpectOriginIntactAndCleanUnload(loop, image);
}

// S2's COW files are on a file system whose disk fails every write from
// after the start on: kcowd's copies reach the page cache, but their sync
// fails, so they would not survive a crash and preserve nothing.
TEST_F(SnapFailureTest, CowStoreThatCannotSyncInvalidatesTheSnapAndTheOnesBeforeIt) {
    constexpr const char* kFailingStore = "/mnt/trak-cow-failing";
    constexpr const char* kStoreName = "trak-cow-store";
    constexpr std::uint64_t kStoreBytes = 64 << 20;
    const std::string store_loop = AttachLoop(kStoreBytes, 512);
    ASSERT_FALSE(store_loop.empty());
    const std::string sectors = std::to_string(kStoreBytes / 512);
    const std::string store =
        CreateMappedDevice(kStoreName, "0 " + sectors + " linear " + store_loop + " 0\n");
    ASSERT_FALSE(store.empty());
    ASSERT_TRUE(Succeeds({"mkfs.ext2", "-q", "-F", store}));
    ASSERT_EQ(Mount(store, kFailingStore, "ext2"), 0);
    std::vector<std::uint8_t> image = RandomBytes(kHddBytes, 47);
    const std::string hdd = AttachLoopHolding(image);
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 2, kFailingStore));
    ASSERT_TRUE(ReplaceMappedTable(kStoreName, "0 " + sectors + " error\n"));
    log().Mark();

    EXPECT_TRUE(WriteThroughFilter({{std::uint64_t{3} * kChunk, RandomBytes(kChunk, 48)}}, image));

    EXPECT_TRUE(log().Contains(LogPattern::Error("write_cowed_page(): Failed to sync " +
                                                 CowDataPath(2, kFailingStore) + ": -5")));
    EXPECT_TRUE(log().ContainsInOrder(
        {ThreadLine("write_cowed_page(): Invalidating snap device " + NodeName(2)),
         ThreadLine("write_cowed_page(): Invalidating snap device " + NodeName(1))}));
    ExpectInvalidated(2, kFailingStore);
    ExpectInvalidated(1, kCowDir);
    EXPECT_TRUE(WriteThroughFilter({{std::uint64_t{9} * kChunk, RandomBytes(4096, 49)}}, image));
    ExpectOriginIntactAndCleanUnload(hdd, image);
    EXPECT_EQ(Unmount(kFailingStore), 0) << "before its device-mapper device goes";
}

}  // namespace
}  // namespace trak::vmtest
