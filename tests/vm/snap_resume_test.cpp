// RESUME_SNAP: bringing a snap back into service with the COW files of an
// earlier life, after the driver was unloaded and loaded again, with the
// validity and pending flags that user space restores; and every refusal
// of the command.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/bitmap_file.h"
#include "support/cow_files.h"
#include "support/device_image.h"
#include "support/extent_bits.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/open_file.h"
#include "support/raw_disk.h"
#include "support/snap_commands.h"
#include "support/snap_test.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
constexpr std::uint64_t kHddBytes = 16 << 20;
constexpr const char* kResumeFunction = "trak_ioctl_resume_snap(): ";

std::string ResumeLine(const std::string& text) { return kResumeFunction + text; }

class SnapResumeTest : public SnapTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SnapTest::SetUp());
        image_ = RandomBytes(kHddBytes, 51);
        hdd_ = AttachLoopHolding(image_);
        ASSERT_FALSE(hdd_.empty());
    }

    // Writes through the filter and into the model of the partition.
    ::testing::AssertionResult Write(const std::vector<ImageWrite>& writes) {
        const DirectWriter origin(NodeDevice(0));
        return WriteAll(origin, writes, image_);
    }

    static ::testing::AssertionResult SnapHolds(std::int32_t minor,
                                                const std::vector<std::uint8_t>& expected) {
        const ReadBack snap = ReadWholeDevice(NodeDevice(minor));
        if (snap.error != 0) {
            return ::testing::AssertionFailure()
                   << "reading snap " << minor << ": " << std::strerror(snap.error);
        }
        return SameImage(snap.bytes, expected, kChunk) << " (snap " << minor << ")";
    }

    // Snaps 1 and 2 taken with writes between and after them, then the
    // driver reloaded and the filter and both snaps added again, nothing
    // started. `at_t1` and `at_t2` receive the snaps' images.
    void TwoSnapsAddedAgainAfterAReload(std::vector<std::uint8_t>& at_t1,
                                        std::vector<std::uint8_t>& at_t2) {
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd_, kExtent, 0, true));
        ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
        at_t1 = image_;
        ASSERT_TRUE(Write(MixedWrites(kHddBytes, kChunk, 25, 52)));
        ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 2));
        at_t2 = image_;
        ASSERT_TRUE(Write(MixedWrites(kHddBytes, kChunk, 25, 53)));
        ASSERT_EQ(UnloadDriver(), 0);
        for (const std::int32_t minor : {1, 2}) {
            ASSERT_TRUE(std::filesystem::exists(CowBitmapPath(minor))) << "unloading deleted it";
            ASSERT_TRUE(std::filesystem::exists(CowDataPath(minor))) << "unloading deleted it";
        }
        ASSERT_NO_FATAL_FAILURE(LoadDriverAgain());
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd_, kExtent, 0, false));
        ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1));
        ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 2));
        log().Mark();
    }

    // A stopped snap on minor 1 whose COW files were made by an earlier
    // start, over a started filter.
    void StoppedSnapWithCowFiles() {
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd_, kExtent, 0, true));
        ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
        ASSERT_EQ(StopNode(control(), 1), 0);
        log().Mark();
    }

    [[nodiscard]] const std::string& hdd() const { return hdd_; }
    [[nodiscard]] const std::vector<std::uint8_t>& image() const { return image_; }

  private:
    std::string hdd_;
    std::vector<std::uint8_t> image_;
};

// Resumed newest first: an older snap reads what its newer ones preserved.
TEST_F(SnapResumeTest, AfterAReloadResumedSnapsShowTheirImagesAndKeepThem) {
    std::vector<std::uint8_t> at_t1;
    std::vector<std::uint8_t> at_t2;
    ASSERT_NO_FATAL_FAILURE(TwoSnapsAddedAgainAfterAReload(at_t1, at_t2));
    const MarkedChunks s1_marked = MarkedInCowBitmap(CowBitmapPath(1));
    const MarkedChunks s2_marked = MarkedInCowBitmap(CowBitmapPath(2));
    ASSERT_FALSE(s1_marked.chunks.empty());
    ASSERT_FALSE(s2_marked.chunks.empty());

    ASSERT_EQ(ResumeSnap(control(), 2), 0);
    ASSERT_EQ(ResumeSnap(control(), 1), 0);

    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Info(ResumeLine("Resuming snap " + NodeName(2))),
         LogPattern::Info(ResumeLine(NodeName(2) + " has been resumed successfully")),
         LogPattern::Info(ResumeLine("Resuming snap " + NodeName(1))),
         LogPattern::Info(ResumeLine(NodeName(1) + " has been resumed successfully"))}));
    EXPECT_EQ(GetInfo(control(), 0).info.started, 1) << "the resume starts the filter";
    for (const std::int32_t minor : {1, 2}) {
        const NodeInfo snap = GetInfo(control(), minor);
        EXPECT_EQ(snap.info.started, 1) << "snap " << minor;
        EXPECT_EQ(snap.info.snap_valid, 1U) << "snap " << minor;
    }
    EXPECT_TRUE(SnapHolds(1, at_t1));
    EXPECT_TRUE(SnapHolds(2, at_t2));

    // Later writes: random ones, one into a chunk S1 preserved and one
    // into a chunk that neither snap did.
    std::vector<ImageWrite> later = MixedWrites(kHddBytes, kChunk, 25, 54);
    later.push_back({s1_marked.chunks.front() * kChunk, RandomBytes(4096, 55)});
    std::uint64_t untouched = 0;
    while (std::binary_search(s1_marked.chunks.begin(), s1_marked.chunks.end(), untouched) ||
           std::binary_search(s2_marked.chunks.begin(), s2_marked.chunks.end(), untouched)) {
        ++untouched;
    }
    later.push_back({untouched * kChunk + 512, RandomBytes(512, 56)});
    ASSERT_TRUE(Write(later));

    EXPECT_TRUE(SnapHolds(1, at_t1));
    EXPECT_TRUE(SnapHolds(2, at_t2));
    const ReadBack now = ReadWholeDevice(hdd());
    ASSERT_EQ(now.error, 0);
    EXPECT_TRUE(SameImage(now.bytes, image(), kChunk)) << "the partition after the writes";
    EXPECT_EQ(MarkedInCowBitmap(CowBitmapPath(1)).chunks, s1_marked.chunks)
        << "S1 gained chunks while S2 is the newer snap";
    const MarkedChunks s2_after = MarkedInCowBitmap(CowBitmapPath(2));
    EXPECT_TRUE(std::binary_search(s2_after.chunks.begin(), s2_after.chunks.end(), untouched))
        << "chunk " << untouched << " was not preserved for S2";
}

TEST_F(SnapResumeTest, ResumeIsRefusedForUnknownNodesFiltersAndStartedSnaps) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    struct Refusal {
        std::uint32_t minor;
        int error;
        std::string message;
    };
    const std::vector<Refusal> refusals = {
        {9, EINVAL, "Nothing is known about " + NodeName(9)},
        {256, EINVAL, "Nothing is known about " + NodeName(256)},
        {0, EINVAL, NodeName(0) + " is not a snap device"},
        {1, EALREADY, "Can't resume snap " + NodeName(1) + ": it's been started already."}};
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(refusal.minor);
        log().Mark();

        EXPECT_EQ(ResumeSnap(control(), refusal.minor), refusal.error);

        EXPECT_TRUE(log().ContainsInOrder(
            {LogPattern::Info(
                 ResumeLine("Resuming snap " + NodeName(static_cast<std::int32_t>(refusal.minor)))),
             LogPattern::Error(ResumeLine(refusal.message))}));
    }
    EXPECT_EQ(GetInfo(control(), 1).info.started, 1);
}

TEST_F(SnapResumeTest, ResumeWithoutItsCowFilesFailsAndLeavesTheSnapStopped) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, false));
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1));
    log().Mark();

    EXPECT_EQ(ResumeSnap(control(), 1), EIO) << "no COW data file";

    EXPECT_EQ(GetInfo(control(), 1).info.started, 0);
    EXPECT_EQ(GetInfo(control(), 0).info.started, 1) << "the filter is started first";
    EXPECT_FALSE(std::filesystem::exists(CowDataPath(1))) << "a resume makes no COW file";
    ASSERT_EQ(WriteWholeFile(CowDataPath(1), {}), 0);

    EXPECT_EQ(ResumeSnap(control(), 1), EIO) << "no COW bitmap file";

    EXPECT_EQ(GetInfo(control(), 1).info.started, 0);
    EXPECT_FALSE(std::filesystem::exists(CowBitmapPath(1))) << "a resume makes no COW file";
    EXPECT_EQ(ReadBytes(NodeDevice(1), 0, 4096).error, EIO) << "the snap is in service";
}

// COW files written here by hand, not by the driver: chunk c is bit c & 7
// of byte c >> 3 of the bitmap, and its contents lie at offset c x chunk
// size of the data file.
TEST_F(SnapResumeTest, ResumedSnapReadsTheChunksItsCowFilesHold) {
    ASSERT_NO_FATAL_FAILURE(StoppedSnapWithCowFiles());
    const NodeInfo info = GetInfo(control(), 1);
    ASSERT_EQ(info.error, 0);
    std::vector<std::uint8_t> bitmap(info.info.cow_bmp_size, 0);
    std::vector<std::uint8_t> expected = image();
    const OpenFile data(CowDataPath(1), O_WRONLY);
    ASSERT_EQ(data.error(), 0);
    for (const std::uint64_t chunk : {1U, 9U, 250U}) {
        SetExtentBit(bitmap, chunk);
        const std::vector<std::uint8_t> kept = RandomBytes(kChunk, 60 + chunk);
        ASSERT_EQ(pwrite(data.fd(), kept.data(), kept.size(), static_cast<off_t>(chunk * kChunk)),
                  static_cast<ssize_t>(kept.size()));
        std::copy(kept.begin(), kept.end(),
                  expected.begin() + static_cast<std::ptrdiff_t>(chunk * kChunk));
    }
    ASSERT_EQ(WriteWholeFile(CowBitmapPath(1), bitmap), 0);

    ASSERT_EQ(ResumeSnap(control(), 1), 0);

    EXPECT_TRUE(SnapHolds(1, expected));
}

TEST_F(SnapResumeTest, ResumedInvalidSnapRefusesReadsAndHoldsNoWrite) {
    ASSERT_NO_FATAL_FAILURE(StoppedSnapWithCowFiles());

    ASSERT_EQ(ResumeSnap(control(), 1, {.valid = 0}), 0);

    const NodeInfo snap = GetInfo(control(), 1);
    EXPECT_EQ(snap.info.started, 1);
    EXPECT_EQ(snap.info.snap_valid, 0U);
    EXPECT_EQ(ReadBytes(NodeDevice(1), 0, 4096).error, EIO);
    EXPECT_TRUE(
        log().Contains(LogPattern::Error("trak_make_request(): I/O request for " + NodeName(1) +
                                         ", which is in STOP_PENDING state or INVALID.")));
    ASSERT_TRUE(Write({{std::uint64_t{3} * kChunk, RandomBytes(4096, 57)}}));
    EXPECT_TRUE(MarkedInCowBitmap(CowBitmapPath(1)).chunks.empty())
        << "a write was held for an invalid snap";
}

TEST_F(SnapResumeTest, ResumedSnapWithStopPendingIsDefunct) {
    ASSERT_NO_FATAL_FAILURE(StoppedSnapWithCowFiles());

    ASSERT_EQ(ResumeSnap(control(), 1, {.valid = 1, .stop_pending = 1, .del_pending = 1}), 0);

    const NodeInfo snap = GetInfo(control(), 1);
    EXPECT_EQ(snap.info.started, 1);
    EXPECT_EQ(snap.info.stop_pending, 1U);
    EXPECT_EQ(snap.info.del_pending, 1U);
    EXPECT_EQ(ReadBytes(NodeDevice(1), 0, 4096).error, EIO);
    EXPECT_TRUE(
        log().Contains(LogPattern::Error("trak_make_request(): I/O request for " + NodeName(1) +
                                         ", which is in STOP_PENDING state or INVALID.")));
}

// A resume trusts nothing it can check: a snap whose origin was written
// since its COW files were last in use, whose files an invalidation
// emptied, or whose newer snaps are not in service as valid resumed snaps
// would show a wrong image, so it comes back only as invalid, if at all.
TEST_F(SnapResumeTest, ASnapWhoseOriginWasWrittenSinceItStoppedResumesOnlyAsInvalid) {
    ASSERT_NO_FATAL_FAILURE(StoppedSnapWithCowFiles());
    ASSERT_TRUE(Write({{std::uint64_t{3} * kChunk, RandomBytes(4096, 90)}}));

    EXPECT_EQ(ResumeSnap(control(), 1), ESTALE);

    EXPECT_TRUE(log().Contains(
        LogPattern::Error(ResumeLine("Cannot resume " + NodeName(1) + " as valid: " + NodeName(0) +
                                     " has been written since its COW files were last in use."))));
    EXPECT_EQ(GetInfo(control(), 1).info.started, 0);
    ASSERT_EQ(ResumeSnap(control(), 1, {.valid = 0}), 0);
    EXPECT_EQ(GetInfo(control(), 1).info.snap_valid, 0U);
    EXPECT_EQ(ReadBytes(NodeDevice(1), 0, 4096).error, EIO);
}

// The COW store, a file system of 4 MiB, fills up long before the 16 MiB
// of chunks the writes make the snap preserve.
TEST_F(SnapResumeTest, AnInvalidatedSnapResumesOnlyAsInvalidAfterAReload) {
    constexpr const char* kSmallStore = "/mnt/trak-cow-small";
    ASSERT_NO_FATAL_FAILURE(
        MountSmallFileSystem(4 << 20, {"mkfs.ext2", "-q", "-F"}, "ext2", kSmallStore));
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1, kSmallStore));
    std::vector<ImageWrite> every_chunk;
    for (std::uint64_t c = 0; c < kHddBytes / kChunk; ++c) {
        every_chunk.push_back({c * kChunk, RandomBytes(4096, 100 + static_cast<std::uint32_t>(c))});
    }
    ASSERT_TRUE(Write(every_chunk));
    ASSERT_EQ(GetInfo(control(), 1).info.snap_valid, 0U);
    EXPECT_EQ(SpaceOf(CowBitmapPath(1, kSmallStore)).size, 0U) << "the bitmap file was kept";
    EXPECT_EQ(SpaceOf(CowDataPath(1, kSmallStore)).size, 0U) << "the data file was kept";
    ASSERT_EQ(UnloadDriver(), 0);
    ASSERT_NO_FATAL_FAILURE(LoadDriverAgain());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd(), kExtent, 0, false));
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1, kSmallStore));
    log().Mark();

    EXPECT_EQ(ResumeSnap(control(), 1), EINVAL);

    EXPECT_TRUE(log().Contains(LogPattern::Error(
        ResumeLine("COW bitmap file " + CowBitmapPath(1, kSmallStore) +
                   " holds 0 bytes instead of 32: it cannot back a valid snap."))));
    EXPECT_EQ(GetInfo(control(), 1).info.started, 0);
    ASSERT_EQ(ResumeSnap(control(), 1, {.valid = 0}), 0);
    EXPECT_EQ(ReadBytes(NodeDevice(1), 0, 4096).error, EIO);
}

TEST_F(SnapResumeTest, AnOlderSnapResumesAsValidOnlyBehindItsNewerOnes) {
    std::vector<std::uint8_t> at_t1;
    std::vector<std::uint8_t> at_t2;
    ASSERT_NO_FATAL_FAILURE(TwoSnapsAddedAgainAfterAReload(at_t1, at_t2));
    const std::string behind_2 = "Cannot resume " + NodeName(1) + " as valid: " + NodeName(2) +
                                 ", added after it, is not a valid resumed snap.";

    EXPECT_EQ(ResumeSnap(control(), 1), EINVAL) << "before snap 2";
    ASSERT_EQ(StartNode(control(), 2), 0);
    EXPECT_EQ(ResumeSnap(control(), 1), EINVAL) << "behind a fresh start of snap 2";
    ASSERT_EQ(StopNode(control(), 2), 0);
    ASSERT_EQ(ResumeSnap(control(), 2, {.valid = 0}), 0);
    EXPECT_EQ(ResumeSnap(control(), 1), EINVAL) << "behind an invalid snap 2";

    const LogPattern refused = LogPattern::Error(ResumeLine(behind_2));
    EXPECT_TRUE(log().ContainsInOrder({refused, refused, refused}));
    EXPECT_EQ(GetInfo(control(), 1).info.started, 0);
}

TEST_F(SnapResumeTest, ANewerSnapDoesNotResumeWhileAnOlderOneIsStarted) {
    std::vector<std::uint8_t> at_t1;
    std::vector<std::uint8_t> at_t2;
    ASSERT_NO_FATAL_FAILURE(TwoSnapsAddedAgainAfterAReload(at_t1, at_t2));
    ASSERT_EQ(ResumeSnap(control(), 1, {.valid = 0}), 0);

    EXPECT_EQ(ResumeSnap(control(), 2), EINVAL);
    EXPECT_EQ(ResumeSnap(control(), 2, {.valid = 0}), EINVAL);

    const LogPattern refused =
        LogPattern::Error(ResumeLine("Cannot resume " + NodeName(2) + " while " + NodeName(1) +
                                     ", added before it, is started."));
    EXPECT_TRUE(log().ContainsInOrder({refused, refused}));
    EXPECT_EQ(GetInfo(control(), 2).info.started, 0);
}

}  // namespace
}  // namespace trak::vmtest
