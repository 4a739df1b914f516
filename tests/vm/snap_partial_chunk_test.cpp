// A partition whose size is not a multiple of the chunk size ends in a
// partial chunk. Writes to it are preserved like any other: the part of
// the chunk inside the partition is copied, and the snap stays valid and
// shows the partition exactly as it was.
#include <cstdint>
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

struct PartialChunk {
    std::uint64_t hdd_bytes;
    std::uint32_t chunk_size;
};

class SnapPartialChunkTest : public SnapTest, public ::testing::WithParamInterface<PartialChunk> {};

TEST_P(SnapPartialChunkTest, WritesToTheLastChunkKeepTheSnapValidAndExact) {
    const auto [hdd_bytes, chunk_size] = GetParam();
    std::vector<std::uint8_t> image = RandomBytes(hdd_bytes, 81);
    const std::string hdd = AttachLoopHolding(image);
    ASSERT_FALSE(hdd.empty());
    ASSERT_EQ(SizeOfDevice(hdd).bytes, hdd_bytes);
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, chunk_size, 1));
    const std::vector<std::uint8_t> at_start = image;
    const std::uint64_t last_chunk = (hdd_bytes - 1) / chunk_size;
    log().Mark();

    // The partition's last sector, then the first one of its last chunk.
    const DirectWriter origin(NodeDevice(0));
    ASSERT_TRUE(WriteAll(origin,
                         std::vector<ImageWrite>{{hdd_bytes - 512, RandomBytes(512, 82)},
                                                 {last_chunk * chunk_size, RandomBytes(512, 83)}},
                         image));

    const NodeInfo snap = GetInfo(control(), 1);
    ASSERT_EQ(snap.error, 0);
    EXPECT_EQ(snap.info.snap_valid, 1U) << "the snap was invalidated";
    EXPECT_TRUE(log().Absent(LogPattern::Matching("Invalidating snap device|Failed to read")));
    const MarkedChunks marked = MarkedInCowBitmap(CowBitmapPath(1));
    EXPECT_EQ(marked.chunks, std::vector<std::uint64_t>{last_chunk});
    const ReadBack snap_image = ReadWholeDevice(NodeDevice(1));
    ASSERT_EQ(snap_image.error, 0);
    EXPECT_TRUE(SameImage(snap_image.bytes, at_start, chunk_size)) << "the snap";
    const ReadBack now = ReadWholeDevice(hdd);
    ASSERT_EQ(now.error, 0);
    EXPECT_TRUE(SameImage(now.bytes, image, chunk_size)) << "the partition after the writes";
}

// One sector past a whole number of 4 KiB chunks; one page past a whole
// number of 64 KiB chunks; 21 MiB in chunks of 4 MiB.
INSTANTIATE_TEST_SUITE_P(Sizes, SnapPartialChunkTest,
                         ::testing::Values(PartialChunk{(16 << 20) + 512, 4096},
                                           PartialChunk{(16 << 20) + 4096, 65536},
                                           PartialChunk{21 << 20, 4 << 20}),
                         [](const ::testing::TestParamInfo<PartialChunk>& info) {
                             return "Bytes" + std::to_string(info.param.hdd_bytes) + "Chunk" +
                                    std::to_string(info.param.chunk_size);
                         });

}  // namespace
}  // namespace trak::vmtest
