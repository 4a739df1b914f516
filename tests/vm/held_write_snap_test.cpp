// A write held until its bitmap file is marked dirty, through a filter
// with a started snap: once the mark is written, the write goes on through
// copy-on-write like any other, so the snap keeps every chunk as it was at
// its start and the partition gets the write.
#include <span>
#include <string>
#include <vector>

#include "support/cow_files.h"
#include "support/device_image.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/snap_test.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kHddBytes = 16 << 20;
constexpr std::uint32_t kChunk = 65536;
constexpr int kWrites = 12;

class HeldWriteSnapTest : public SnapTest {};

TEST_F(HeldWriteSnapTest, WriteReleasedAfterItsMarkIsCopiedOnWrite) {
    std::vector<std::uint8_t> image = RandomBytes(kHddBytes, 7);
    const std::string hdd = AttachLoopHolding(image);
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    const std::vector<std::uint8_t> at_start = image;
    const DirectWriter origin(NodeDevice(0));
    ASSERT_EQ(origin.error(), 0);

    // A clear saves both files clean, so each write after one is the
    // first after a save: it waits for both dirty marks.
    const std::vector<ImageWrite> after = MixedWrites(kHddBytes, kChunk, kWrites, 11);
    for (const ImageWrite& write : after) {
        ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
        ASSERT_TRUE(WriteAll(origin, std::span(&write, 1), image));
    }

    // The snap shows the partition at its start; the partition every write.
    const ReadBack snap = ReadWholeDevice(NodeDevice(1));
    ASSERT_EQ(snap.error, 0) << "the snap";
    EXPECT_TRUE(SameImage(snap.bytes, at_start, kChunk)) << "the snap";
    const ReadBack partition = ReadWholeDevice(hdd);
    ASSERT_EQ(partition.error, 0) << "the partition";
    EXPECT_TRUE(SameImage(partition.bytes, image, kChunk)) << "the partition";
    // Each write's old chunks were preserved before it went on.
    const MarkedChunks marked = MarkedInCowBitmap(CowBitmapPath(1));
    ASSERT_EQ(marked.error, 0);
    EXPECT_EQ(marked.chunks, TouchedChunks(after, kChunk));
}

}  // namespace
}  // namespace trak::vmtest
