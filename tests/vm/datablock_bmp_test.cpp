// TRAK_GET_DATABLOCK_BMP: a started snap's data-block map, at the chunk
// size or downsampled to coarser extents, as the file system's own tools
// see the partition; every check of the command in the order it is made;
// and the answer for a snap whose file system was not recognised.
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "oracles.h"
#include "support/command.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/snap_commands.h"
#include "support/snap_test.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 8192;
constexpr std::uint32_t kFsBlock = 4096;
// One chunk more than a power of two, so that a coarse extent covers the
// last chunk alone.
constexpr std::uint64_t kHddBytes = (32 << 20) + kChunk;
constexpr std::uint64_t kChunks = kHddBytes / kChunk;
constexpr std::size_t kChunkBitmapBytes = (kChunks + 7) / 8;
constexpr std::uint8_t kUntouched = 0xA5;
constexpr const char* kFunction = "trak_ioctl_get_datablock_bmp(): ";
constexpr const char* kOriginMount = "/mnt/trak-origin";

std::string CommandLine(const std::string& text) { return kFunction + text; }

// Bytes of the map at `extent_size`: one bit per extent, rounded up.
std::size_t NeededBytes(std::uint32_t extent_size) {
    const std::uint64_t per_extent = extent_size / kChunk;
    return ((kChunks + per_extent - 1) / per_extent + 7) / 8;
}

// A started snap of an ext2 (4096-byte blocks) holding a few files, with
// one deleted again so that used and free chunks alternate.
class DatablockBmpTest : public SnapTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SnapTest::SetUp());
        const std::string hdd = AttachLoop(kHddBytes, 512);
        ASSERT_FALSE(hdd.empty());
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
        ASSERT_TRUE(Succeeds({"mkfs.ext2", "-q", "-F", "-b", "4096", NodeDevice(0)}));
        ASSERT_EQ(MountNode(NodeDevice(0), kOriginMount, "ext2", 0, ""), 0);
        for (int i = 0; i < 6; ++i) {
            const std::string file = std::string(kOriginMount) + "/f" + std::to_string(i);
            ASSERT_TRUE(Succeeds({"dd", "if=/dev/urandom", "of=" + file, "bs=64k",
                                  "count=" + std::to_string(1 + 2 * i), "status=none"}));
        }
        std::filesystem::remove(std::string(kOriginMount) + "/f2");
        ASSERT_EQ(UnmountNode(kOriginMount), 0);
        used_blocks_ = fsmap_test::DumpE2fs(NodeDevice(0), kHddBytes / kFsBlock).used;
        ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
        log().Mark();
    }

    // The map at `extent_size` as dumpe2fs sees the partition.
    [[nodiscard]] fsmap_test::BlockMap Expected(std::uint32_t extent_size) const {
        return fsmap_test::Downsample(used_blocks_, extent_size / kFsBlock);
    }

    // GET_DATABLOCK_BMP of snap 1 with a raw record; expects `error` and
    // the error line `message`, and the record's bmp_size as passed in.
    void ExpectRefused(std::uint32_t minor, std::uint32_t extent_size, std::int32_t bmp_size,
                       std::uintptr_t data, int error, const std::string& message) {
        trak_datablock_bmp_args record{};
        record.minor = minor;
        record.extent_size = extent_size;
        record.bmp_size = bmp_size;
        record.bmp_data = data;

        EXPECT_EQ(DatablockCommand(control(), record), error);

        EXPECT_TRUE(log().ContainsInOrder(
            {LogPattern::Info(CommandLine("Returning datablock bitmap of " +
                                          NodeName(static_cast<std::int32_t>(minor)))),
             LogPattern::Error(CommandLine(message))}));
        EXPECT_EQ(record.bmp_size, bmp_size) << "the record was copied back";
    }

  private:
    fsmap_test::BlockMap used_blocks_;
};

TEST_F(DatablockBmpTest, ExtentOfOneChunkGivesTheChunkBits) {
    const DatablockReply reply = GetDatablockBitmap(control(), 1, kChunk, kChunkBitmapBytes);

    ASSERT_EQ(reply.error, 0);
    EXPECT_EQ(reply.bmp_size, static_cast<std::int32_t>(kChunkBitmapBytes));
    EXPECT_EQ(
        fsmap_test::Difference(fsmap_test::BitsOf(reply.bits.data(), kChunks), Expected(kChunk)),
        "");
    EXPECT_TRUE(log().Contains(
        LogPattern::Info(CommandLine("Returning datablock bitmap of " + NodeName(1)))));
}

TEST_F(DatablockBmpTest, CoarserExtentHoldsDataWhenAnyOfItsChunksDoes) {
    for (const std::uint32_t extent : {4 * kChunk, 128 * kChunk, 1U << 30}) {
        SCOPED_TRACE(extent);
        const std::size_t needed = NeededBytes(extent);
        const std::uint64_t extents = (kChunks * kChunk + extent - 1) / extent;

        const DatablockReply reply = GetDatablockBitmap(control(), 1, extent, needed);

        ASSERT_EQ(reply.error, 0);
        EXPECT_EQ(reply.bmp_size, static_cast<std::int32_t>(needed));
        EXPECT_EQ(fsmap_test::Difference(fsmap_test::BitsOf(reply.bits.data(), extents),
                                         Expected(extent)),
                  "");
        // Bits past the last extent stay clear.
        for (std::uint64_t bit = extents; bit < needed * 8; ++bit) {
            EXPECT_EQ((reply.bits[bit / 8] >> (bit % 8)) & 1, 0) << "bit " << bit;
        }
    }
}

TEST_F(DatablockBmpTest, BufferOneByteShortIsRefusedAndTheExactSizeAccepted) {
    const auto needed = static_cast<std::int32_t>(kChunkBitmapBytes);
    const DatablockReply short_one =
        GetDatablockBitmap(control(), 1, kChunk, kChunkBitmapBytes - 1, kUntouched);

    EXPECT_EQ(short_one.error, EINVAL);
    EXPECT_EQ(short_one.bmp_size, needed - 1) << "the record was copied back";
    EXPECT_TRUE(log().Contains(LogPattern::Error(
        CommandLine("Bitmap buffer is not large enough: should be " + std::to_string(needed) +
                    "B instead of " + std::to_string(needed - 1) + "B."))));
    EXPECT_EQ(std::count(short_one.bits.begin(), short_one.bits.end(), kUntouched), needed - 1)
        << "the buffer was written";

    const DatablockReply exact = GetDatablockBitmap(control(), 1, kChunk, kChunkBitmapBytes);
    EXPECT_EQ(exact.error, 0);
    EXPECT_EQ(exact.bmp_size, needed);

    const DatablockReply larger =
        GetDatablockBitmap(control(), 1, kChunk, kChunkBitmapBytes + 100, kUntouched);
    EXPECT_EQ(larger.error, 0);
    EXPECT_EQ(larger.bmp_size, needed) << "bmp_size is the size written";
    EXPECT_TRUE(std::equal(exact.bits.begin(), exact.bits.end(), larger.bits.begin()));
    EXPECT_EQ(std::count(larger.bits.begin() + needed, larger.bits.end(), kUntouched), 100)
        << "bytes past the bitmap were written";
}

TEST_F(DatablockBmpTest, ExtentSizeMustBeAPowerOfTwoOfTwoOrMore) {
    std::vector<std::uint8_t> buffer(kChunkBitmapBytes);
    const auto data = reinterpret_cast<std::uintptr_t>(buffer.data());
    for (const std::uint32_t extent : {0U, 1U, 3U, 3 * kChunk}) {
        SCOPED_TRACE(extent);
        log().Mark();
        ExpectRefused(1, extent, static_cast<std::int32_t>(buffer.size()), data, EINVAL,
                      "Extent size (" + std::to_string(extent) + ") must have been a power of 2.");
    }
}

TEST_F(DatablockBmpTest, ExtentSmallerThanTheChunkIsRefused) {
    std::vector<std::uint8_t> buffer(2 * kChunkBitmapBytes);
    ExpectRefused(1, kChunk / 2, static_cast<std::int32_t>(buffer.size()),
                  reinterpret_cast<std::uintptr_t>(buffer.data()), EINVAL,
                  "Extent size (4096) must be bigger than chunk size (8192).");
}

TEST_F(DatablockBmpTest, NullBufferIsRefused) {
    ExpectRefused(1, kChunk, static_cast<std::int32_t>(kChunkBitmapBytes), 0, EINVAL,
                  "NULL bitmap data pointer passed as input");
}

TEST_F(DatablockBmpTest, FilterIsNotASnap) {
    std::vector<std::uint8_t> buffer(kChunkBitmapBytes);
    ExpectRefused(0, kChunk, static_cast<std::int32_t>(buffer.size()),
                  reinterpret_cast<std::uintptr_t>(buffer.data()), EINVAL,
                  NodeName(0) + " is not a snap device");
}

TEST_F(DatablockBmpTest, SnapThatIsNotStartedIsRefused) {
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 2));
    log().Mark();
    std::vector<std::uint8_t> buffer(kChunkBitmapBytes);
    ExpectRefused(2, kChunk, static_cast<std::int32_t>(buffer.size()),
                  reinterpret_cast<std::uintptr_t>(buffer.data()), EINVAL,
                  "Snap device " + NodeName(2) + " has not been started yet");
}

// Each record below fails two checks; the earlier one answers.
TEST_F(DatablockBmpTest, ChecksAreMadeInOrder) {
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 2));
    std::vector<std::uint8_t> buffer(kChunkBitmapBytes);
    const auto data = reinterpret_cast<std::uintptr_t>(buffer.data());
    const auto size = static_cast<std::int32_t>(buffer.size());
    log().Mark();
    ExpectRefused(0, 3, size, 0, EINVAL, NodeName(0) + " is not a snap device");
    log().Mark();
    ExpectRefused(2, kChunk, size, 0, EINVAL,
                  "Snap device " + NodeName(2) + " has not been started yet");
    log().Mark();
    ExpectRefused(1, 3, size, 0, EINVAL, "NULL bitmap data pointer passed as input");
    log().Mark();
    ExpectRefused(1, 3, 0, data, EINVAL, "Extent size (3) must have been a power of 2.");
    log().Mark();
    ExpectRefused(1, kChunk / 2, 0, data, EINVAL,
                  "Extent size (4096) must be bigger than chunk size (8192).");
}

// Without a recognised file system the map has no chunks: the bitmap
// needs 0 bytes, and allocating 0 bytes fails.
class UnrecognisedDatablockTest : public SnapTest {};

TEST_F(UnrecognisedDatablockTest, MapOfNoChunksAnswersNoMemory) {
    const std::string hdd = AttachLoop(16 << 20, 512);
    ASSERT_FALSE(hdd.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    log().Mark();

    const DatablockReply reply = GetDatablockBitmap(control(), 1, kChunk, 16, kUntouched);

    EXPECT_EQ(reply.error, ENOMEM);
    EXPECT_EQ(reply.bmp_size, 16) << "the record was copied back";
    EXPECT_TRUE(
        log().Contains(LogPattern::Error(CommandLine("Failed to allocated 0 bytes of memory"))));
    EXPECT_EQ(std::count(reply.bits.begin(), reply.bits.end(), kUntouched), 16);
}

}  // namespace
}  // namespace trak::vmtest
