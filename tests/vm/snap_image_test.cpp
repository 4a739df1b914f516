// A snap shows the partition exactly as it was when the snap started:
// after random writes of mixed sizes with the writers paused for the
// start, with writers that never pause, and for several snaps of one
// filter, each at its own point in time. The writes themselves always
// land on the partition intact.
#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string>
#include <vector>

#include "support/cow_files.h"
#include "support/device_image.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/open_file.h"
#include "support/raw_disk.h"
#include "support/snap_test.h"
#include "support/stamped_writers.h"

namespace trak::vmtest {
namespace {

// Raw images with no file system: the data-block map cannot be read, so
// every chunk counts as data and is preserved before it is overwritten.
constexpr std::uint64_t kHddBytes = 16 << 20;
constexpr std::chrono::seconds kWriterTimeout{120};

std::string ChunkName(const ::testing::TestParamInfo<std::uint32_t>& info) {
    return "Chunk" + std::to_string(info.param);
}

class PointInTimeTest : public SnapTest, public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(PointInTimeTest, SnapEqualsThePartitionAtItsStartAfterMixedWrites) {
    const std::uint32_t chunk = GetParam();
    std::vector<std::uint8_t> image = RandomBytes(kHddBytes, 1);
    const std::string hdd = AttachLoopHolding(image);
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    const DirectWriter origin(NodeDevice(0));
    ASSERT_EQ(origin.error(), 0);
    ASSERT_TRUE(WriteAll(origin, MixedWrites(kHddBytes, chunk, 40, 2), image));
    const std::vector<std::uint8_t> at_start = image;

    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, chunk, 1));
    const std::vector<ImageWrite> after = MixedWrites(kHddBytes, chunk, 80, 3);
    ASSERT_TRUE(WriteAll(origin, after, image));

    const ReadBack direct = ReadWholeDevice(NodeDevice(1), ReadMode::kDirect);
    ASSERT_EQ(direct.error, 0);
    EXPECT_TRUE(SameImage(direct.bytes, at_start, chunk)) << "read with O_DIRECT";
    const ReadBack buffered = ReadWholeDevice(NodeDevice(1), ReadMode::kBuffered);
    ASSERT_EQ(buffered.error, 0);
    EXPECT_TRUE(SameImage(buffered.bytes, at_start, chunk)) << "read through the page cache";
    const ReadBack now = ReadWholeDevice(hdd);
    ASSERT_EQ(now.error, 0);
    EXPECT_TRUE(SameImage(now.bytes, image, chunk)) << "the partition after the writes";
    // Exactly the chunks overwritten after the start were preserved, each
    // at its own offset in the COW data file.
    const MarkedChunks marked = MarkedInCowBitmap(CowBitmapPath(1));
    ASSERT_EQ(marked.error, 0);
    EXPECT_EQ(marked.chunks, TouchedChunks(after, chunk));
    for (const std::uint64_t c : marked.chunks) {
        const ReadBack kept = ReadBytes(CowDataPath(1), c * chunk, chunk, ReadMode::kBuffered);
        ASSERT_EQ(kept.error, 0) << "chunk " << c;
        const auto from = at_start.begin() + static_cast<std::ptrdiff_t>(c * chunk);
        EXPECT_TRUE(std::equal(kept.bytes.begin(), kept.bytes.end(), from))
            << "chunk " << c << " in the COW data file is not the chunk as it was at the start";
    }
}

// 4 MiB is the largest chunk: a COW group of one chunk.
INSTANTIATE_TEST_SUITE_P(ChunkSizes, PointInTimeTest, ::testing::Values(4096U, 65536U, 4194304U),
                         ChunkName);

class NeverPausedTest : public SnapTest, public ::testing::WithParamInterface<std::uint32_t> {};

// Three writers keep writing stamped blocks through the filter while the
// snap starts; the snapshot must hold, in every block, a version that was
// current at some moment between asking for the start and its return.
TEST_P(NeverPausedTest, EveryBlockHoldsAVersionCurrentAtTheStart) {
    const std::uint32_t chunk = GetParam();
    constexpr std::uint64_t kBlocks = kHddBytes / 4096;
    const std::string hdd = AttachLoopHolding(StampedWriters::InitialImage(kBlocks));
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, chunk, 1));
    StampedWriters writers(NodeDevice(0), kBlocks, 3, chunk);
    writers.Start();
    ASSERT_TRUE(writers.AwaitWrites(20, kWriterTimeout));

    const StampedWriters::Clock::time_point asked = StampedWriters::Clock::now();
    const int started = StartNode(control(), 1);
    const StampedWriters::Clock::time_point returned = StampedWriters::Clock::now();
    writers.FinishAfter(40);

    ASSERT_EQ(started, 0);
    ASSERT_EQ(writers.Failure(), "");
    RecordProperty("writes", static_cast<int>(writers.CompletedWrites()));
    const ReadBack snap = ReadWholeDevice(NodeDevice(1));
    ASSERT_EQ(snap.error, 0);
    EXPECT_TRUE(writers.HoldsVersionsCurrentBetween(snap.bytes, asked, returned));
    const ReadBack now = ReadWholeDevice(hdd);
    ASSERT_EQ(now.error, 0);
    EXPECT_TRUE(writers.HoldsLastVersions(now.bytes)) << "the partition after the writes";
}

INSTANTIATE_TEST_SUITE_P(ChunkSizes, NeverPausedTest, ::testing::Values(4096U, 65536U), ChunkName);

class SnapReadTest : public SnapTest {};

// A read whose memory is not page-aligned has pieces that straddle chunk
// boundaries; with chunks of 4096 bytes, preserved and unpreserved ones
// alternating, each part of a piece must come from its own chunk's source.
TEST_F(SnapReadTest, PiecesAcrossChunkBoundariesComeFromEachChunksSource) {
    constexpr std::uint32_t kChunk = 4096;
    constexpr std::uint64_t kFirst = 10;
    std::vector<std::uint8_t> image = RandomBytes(1 << 20, 71);
    const std::string hdd = AttachLoopHolding(image);
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    const std::vector<std::uint8_t> at_start = image;
    const DirectWriter origin(NodeDevice(0));
    const std::vector<ImageWrite> preserving = {{kFirst * kChunk, RandomBytes(kChunk, 72)},
                                                {(kFirst + 2) * kChunk, RandomBytes(kChunk, 73)}};
    ASSERT_TRUE(WriteAll(origin, preserving, image));
    ASSERT_EQ(MarkedInCowBitmap(CowBitmapPath(1)).chunks,
              (std::vector<std::uint64_t>{kFirst, kFirst + 2}));
    const OpenFile direct(NodeDevice(1), O_RDONLY | O_DIRECT);
    const OpenFile buffered(NodeDevice(1), O_RDONLY);
    ASSERT_EQ(direct.error(), 0);
    ASSERT_EQ(buffered.error(), 0);
    struct Read {
        const OpenFile& file;
        std::uint64_t offset;
        std::size_t length;
        std::size_t memory_offset;  // from a page boundary
    };
    for (const Read& read : {Read{direct, kFirst * kChunk + 512, std::size_t{3} * kChunk, 512},
                             Read{direct, kFirst * kChunk - 1024, std::size_t{4} * kChunk, 3584},
                             Read{buffered, kFirst * kChunk + 100, 9000, 7}}) {
        SCOPED_TRACE("offset " + std::to_string(read.offset) + ", length " +
                     std::to_string(read.length));
        DirectBuffer memory(read.length + 4096);
        const std::span<std::uint8_t> into =
            memory.bytes().subspan(read.memory_offset, read.length);

        ASSERT_EQ(ReadAt(read.file.fd(), read.offset, into), 0);

        const auto from = at_start.begin() + static_cast<std::ptrdiff_t>(read.offset);
        EXPECT_TRUE(std::equal(into.begin(), into.end(), from));
    }
}

class SeveralSnapsTest : public SnapTest {
  protected:
    static constexpr std::uint32_t kChunk = 65536;
};

// S1 at T1, writes, S2 at T2, writes. Chunks first overwritten after T2 are
// preserved only in S2's files, and S1 must find its T1 contents there.
TEST_F(SeveralSnapsTest, EachSnapEqualsThePartitionAtItsOwnStart) {
    std::vector<std::uint8_t> image = RandomBytes(kHddBytes, 11);
    const std::string hdd = AttachLoopHolding(image);
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    const DirectWriter origin(NodeDevice(0));
    ASSERT_EQ(origin.error(), 0);
    ASSERT_TRUE(WriteAll(origin, MixedWrites(kHddBytes, kChunk, 20, 12), image));

    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    const std::vector<std::uint8_t> at_t1 = image;
    const std::vector<ImageWrite> between = MixedWrites(kHddBytes, kChunk, 30, 13);
    ASSERT_TRUE(WriteAll(origin, between, image));
    const std::vector<std::uint64_t> changed_between = TouchedChunks(between, kChunk);

    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 2));
    const std::vector<std::uint8_t> at_t2 = image;
    const ReadBack s1_bitmap_at_t2 = ReadWholeFile(CowBitmapPath(1));
    ASSERT_EQ(s1_bitmap_at_t2.error, 0);
    std::vector<ImageWrite> later = MixedWrites(kHddBytes, kChunk, 30, 14);
    // One chunk unchanged since T1 and one changed between T1 and T2, so
    // that both kinds are overwritten after T2 whatever the random writes
    // hit.
    std::uint64_t unchanged = 0;
    while (std::binary_search(changed_between.begin(), changed_between.end(), unchanged)) {
        ++unchanged;
    }
    later.push_back({unchanged * kChunk + 4096, RandomBytes(8192, 15)});
    later.push_back({changed_between.front() * kChunk, RandomBytes(512, 16)});
    ASSERT_TRUE(WriteAll(origin, later, image));

    for (const ReadMode mode : {ReadMode::kDirect, ReadMode::kBuffered}) {
        SCOPED_TRACE(mode == ReadMode::kDirect ? "read with O_DIRECT" : "read through the cache");
        const ReadBack s1 = ReadWholeDevice(NodeDevice(1), mode);
        const ReadBack s2 = ReadWholeDevice(NodeDevice(2), mode);
        ASSERT_EQ(s1.error, 0);
        ASSERT_EQ(s2.error, 0);
        EXPECT_TRUE(SameImage(s1.bytes, at_t1, kChunk)) << "S1 against the partition at T1";
        EXPECT_TRUE(SameImage(s2.bytes, at_t2, kChunk)) << "S2 against the partition at T2";
    }
    const ReadBack now = ReadWholeDevice(hdd);
    ASSERT_EQ(now.error, 0);
    EXPECT_TRUE(SameImage(now.bytes, image, kChunk)) << "the partition after the writes";
    const ReadBack s1_bitmap = ReadWholeFile(CowBitmapPath(1));
    EXPECT_TRUE(s1_bitmap.bytes == s1_bitmap_at_t2.bytes) << "S1's COW bitmap changed after T2";
    const MarkedChunks s1_marked = MarkedInCowBitmap(CowBitmapPath(1));
    const MarkedChunks s2_marked = MarkedInCowBitmap(CowBitmapPath(2));
    EXPECT_EQ(s1_marked.chunks, changed_between);
    EXPECT_EQ(s2_marked.chunks, TouchedChunks(later, kChunk));
    std::vector<std::uint64_t> only_in_s2;
    std::set_difference(s2_marked.chunks.begin(), s2_marked.chunks.end(), s1_marked.chunks.begin(),
                        s1_marked.chunks.end(), std::back_inserter(only_in_s2));
    EXPECT_TRUE(std::binary_search(only_in_s2.begin(), only_in_s2.end(), unchanged))
        << "chunk " << unchanged << " is not preserved in S2's files alone";
}

}  // namespace
}  // namespace trak::vmtest
