// What a write through the filter costs a started snap, chunk by chunk: a
// chunk that the file system's data-block map calls free is not preserved
// (nothing is allocated in the COW data file, its COW bitmap bit stays
// clear, and the snap shows what the partition holds now), while a chunk in
// use is preserved once, at its own offset in the COW data file, before the
// write reaches the partition. The maps of ext2, XFS version 4 and
// ReiserFS are each trusted here; which blocks are free is asked of the
// file systems' own tools.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "oracles.h"
#include "support/command.h"
#include "support/cow_files.h"
#include "support/device_image.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/snap_test.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
constexpr std::uint32_t kFsBlock = 4096;
// Where in a chunk the test writes, and how much: less than a chunk, so
// that the rest of the chunk shows what was preserved.
constexpr std::uint64_t kWriteOffset = 8192;
constexpr std::size_t kWriteBytes = 4096;

struct MappedFileSystem {
    const char* name;
    std::vector<std::string> mkfs;  // the device is appended
    // XFS needs 300 MiB, so the tracked disk; the others do with a loop
    // device of 128 MiB.
    bool on_tracked_disk;
    // The used blocks of 4096 bytes as the file system's tools report them.
    std::function<fsmap_test::BlockMap(const std::string&, std::uint64_t)> used_blocks;
};

class SnapCowTest : public SnapTest, public ::testing::WithParamInterface<MappedFileSystem> {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SnapTest::SetUp());
        const MappedFileSystem& fs = GetParam();
        hdd_ = fs.on_tracked_disk ? std::string(kTrackedDisk) : AttachLoop(128 << 20, 512);
        ASSERT_FALSE(hdd_.empty());
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd_, kExtent, 0, true));
        std::vector<std::string> mkfs = fs.mkfs;
        mkfs.push_back(NodeDevice(0));
        ASSERT_TRUE(Succeeds(mkfs));
        const DeviceSize size = SizeOfDevice(NodeDevice(0));
        ASSERT_EQ(size.error, 0);
        chunks_ = fsmap_test::Downsample(fs.used_blocks(NodeDevice(0), size.bytes / kFsBlock),
                                         kChunk / kFsBlock);
        ASSERT_TRUE(chunks_[0]) << "chunk 0 holds the file system's first block";
        // A free chunk well inside the file system, away from its start
        // (metadata) and its end (which may lie past the last block).
        free_chunk_ = chunks_.size() * 3 / 4;
        while (free_chunk_ > 0 && chunks_[free_chunk_]) {
            --free_chunk_;
        }
        ASSERT_GT(free_chunk_, 0U) << "the new file system has no free chunk";
        ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));
    }

    // Writes kWriteBytes new bytes into `chunk` through the filter, and
    // returns them.
    static std::vector<std::uint8_t> WriteInto(std::uint64_t chunk, std::uint32_t seed) {
        std::vector<std::uint8_t> bytes = RandomBytes(kWriteBytes, seed);
        const DirectWriter origin(NodeDevice(0));
        EXPECT_EQ(origin.Write(chunk * kChunk + kWriteOffset, bytes), 0) << "chunk " << chunk;
        return bytes;
    }

    static std::vector<std::uint8_t> ChunkOf(const std::string& path, std::uint64_t chunk,
                                             ReadMode mode = ReadMode::kDirect) {
        ReadBack read = ReadBytes(path, chunk * kChunk, kChunk, mode);
        EXPECT_EQ(read.error, 0) << path << ", chunk " << chunk;
        return read.bytes;
    }

    [[nodiscard]] const std::string& hdd() const { return hdd_; }
    [[nodiscard]] std::uint64_t free_chunk() const { return free_chunk_; }

  private:
    std::string hdd_;
    fsmap_test::BlockMap chunks_;
    std::uint64_t free_chunk_ = 0;
};

TEST_P(SnapCowTest, WriteIntoAFreeChunkPreservesNothing) {
    const FileSpace before = SpaceOf(CowDataPath(1));
    ASSERT_EQ(before.error, 0);

    const std::vector<std::uint8_t> written = WriteInto(free_chunk(), 31);

    const FileSpace after = SpaceOf(CowDataPath(1));
    EXPECT_EQ(after.allocated, before.allocated)
        << "the COW data file grew for free chunk " << free_chunk();
    EXPECT_TRUE(MarkedInCowBitmap(CowBitmapPath(1)).chunks.empty());
    const std::vector<std::uint8_t> kept =
        ChunkOf(CowDataPath(1), free_chunk(), ReadMode::kBuffered);
    EXPECT_TRUE(std::all_of(kept.begin(), kept.end(), [](std::uint8_t b) { return b == 0; }))
        << "chunk " << free_chunk() << " of the COW data file is not a hole";
    // No snap preserved the chunk, so the snap reads it from the partition.
    const std::vector<std::uint8_t> snap = ChunkOf(NodeDevice(1), free_chunk());
    EXPECT_TRUE(SameImage(snap, ChunkOf(hdd(), free_chunk()), kChunk));
    EXPECT_TRUE(std::equal(written.begin(), written.end(),
                           snap.begin() + static_cast<std::ptrdiff_t>(kWriteOffset)));
}

TEST_P(SnapCowTest, WriteIntoAUsedChunkPreservesItOnceAtItsOffset) {
    const std::vector<std::uint8_t> old = ChunkOf(hdd(), 0);
    const FileSpace before = SpaceOf(CowDataPath(1));
    ASSERT_EQ(before.error, 0);

    const std::vector<std::uint8_t> written = WriteInto(0, 32);

    const FileSpace after = SpaceOf(CowDataPath(1));
    EXPECT_GE(after.allocated, before.allocated + kChunk) << "chunk 0 was not preserved";
    EXPECT_EQ(after.size, before.size) << "the COW data file keeps the partition's size";
    EXPECT_EQ(MarkedInCowBitmap(CowBitmapPath(1)).chunks, std::vector<std::uint64_t>{0});
    EXPECT_TRUE(SameImage(ChunkOf(CowDataPath(1), 0, ReadMode::kBuffered), old, kChunk))
        << "chunk 0 in the COW data file";
    EXPECT_TRUE(SameImage(ChunkOf(NodeDevice(1), 0), old, kChunk)) << "chunk 0 of the snap";
    const std::vector<std::uint8_t> now = ChunkOf(hdd(), 0);
    EXPECT_TRUE(std::equal(written.begin(), written.end(),
                           now.begin() + static_cast<std::ptrdiff_t>(kWriteOffset)))
        << "the write did not land on the partition";

    WriteInto(0, 33);

    EXPECT_EQ(SpaceOf(CowDataPath(1)).allocated, after.allocated) << "chunk 0 was copied again";
    EXPECT_EQ(MarkedInCowBitmap(CowBitmapPath(1)).chunks, std::vector<std::uint64_t>{0});
    EXPECT_TRUE(SameImage(ChunkOf(CowDataPath(1), 0, ReadMode::kBuffered), old, kChunk))
        << "chunk 0 in the COW data file after a second write";
    EXPECT_TRUE(SameImage(ChunkOf(NodeDevice(1), 0), old, kChunk))
        << "chunk 0 of the snap after a second write";
}

INSTANTIATE_TEST_SUITE_P(
    Readers, SnapCowTest,
    ::testing::Values(MappedFileSystem{"ext2",
                                       {"mkfs.ext2", "-q", "-F", "-b", "4096"},
                                       false,
                                       [](const std::string& device, std::uint64_t blocks) {
                                           return fsmap_test::DumpE2fs(device, blocks).used;
                                       }},
                      MappedFileSystem{"xfs_v4",
                                       {"mkfs.xfs", "-q", "-f", "-m", "crc=0"},
                                       true,
                                       [](const std::string& device, std::uint64_t blocks) {
                                           return fsmap_test::XfsDb(device, blocks).used;
                                       }},
                      MappedFileSystem{"reiserfs",
                                       {"mkreiserfs", "-q", "-f", "-f"},
                                       false,
                                       [](const std::string& device, std::uint64_t blocks) {
                                           return fsmap_test::DebugReiserfs(device, blocks).used;
                                       }}),
    [](const ::testing::TestParamInfo<MappedFileSystem>& info) {
        return std::string(info.param.name);
    });

}  // namespace
}  // namespace trak::vmtest
