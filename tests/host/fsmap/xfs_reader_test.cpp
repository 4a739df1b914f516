// The XFS reader against xfs_db's by-block free-space records, on version 4
// images made by mkfs.xfs and fragmented by freeing every other file.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <tuple>

#include "captured_log.h"
#include "chunk_properties.h"
#include "fsmap_api.h"
#include "images.h"
#include "opened_image.h"
#include "oracles.h"

namespace trak::fsmap_test {
namespace {

using host::LogLine;
using host::OpenedImage;
using host::TakeLog;

constexpr uint64_t kMiB = uint64_t{1024} * 1024;
constexpr uint32_t kSectorSize = 512;

struct XfsGeometry {
    uint32_t block_size;
    uint32_t agcount;
    uint32_t files_per_dir;  // enough free extents for a two-level tree
    uint64_t image_bytes;    // a multiple of every chunk size
};

void PrintTo(const XfsGeometry& g, std::ostream* os) {
    *os << g.block_size << "-byte blocks, " << g.agcount << " AGs";
}

class XfsReader : public testing::TestWithParam<XfsGeometry> {
  protected:
    void SetUp() override {
        const XfsGeometry& g = GetParam();
        image_ = MakeXfsImage(dir_, g.block_size, g.agcount, g.files_per_dir, g.image_bytes);
        xfs_ = XfsDb(image_, g.image_bytes / g.block_size);
        TakeLog();
    }

    ScratchDir dir_;
    std::string image_;
    XfsLayout xfs_;
};

TEST_P(XfsReader, BlockMapEqualsTheFreeSpaceRecords) {
    const XfsGeometry& g = GetParam();
    ASSERT_EQ(xfs_.agcount, g.agcount);
    for (const XfsAgf& agf : xfs_.agf) {
        ASSERT_GE(agf.bnolevel, 2U) << "a one-level tree";
    }

    OpenedImage dev(image_);
    const BlockMap map = ReadBlockMap(trak_xfs_reader, dev.get(), g.block_size, xfs_.used.size());
    ASSERT_FALSE(map.empty());
    EXPECT_EQ(Difference(map, xfs_.used), "");
}

TEST_P(XfsReader, ChunkMapsAgreeWithBlockMap) {
    OpenedImage dev(image_);
    void* ctx = trak_xfs_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    ExpectChunkMapsAgree(trak_xfs_reader, ctx, GetParam().block_size, xfs_.used);
    trak_xfs_reader.destroy(ctx);
    for (const LogLine& line : TakeLog()) {
        EXPECT_NE(line.level, TRAK_LOG_ERR) << line;
    }
}

TEST_P(XfsReader, LogsTheGeometryAndEveryAgf) {
    OpenedImage dev(image_);
    void* ctx = trak_xfs_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    trak_xfs_reader.destroy(ctx);
    std::vector<LogLine> expected = {
        {2, "xfs_reader_init(): Detected XFS on hdd(7, 3)"},
        {2, "   magic=0x58465342"},
        {2, "   blocksize=" + std::to_string(GetParam().block_size)},
        {2, "   sectsize=512"},
        {2, "   AG size=" + std::to_string(xfs_.agblocks) + " blocks"},
        {2, "   AG count=" + std::to_string(xfs_.agcount)},
    };
    for (size_t ag = 0; ag < xfs_.agf.size(); ag++) {
        const XfsAgf& a = xfs_.agf[ag];
        expected.push_back(
            {2, "      AGF[" + std::to_string(ag) + "]: roots=(" + std::to_string(a.bnoroot) +
                    ", " + std::to_string(a.cntroot) + "), levels=(" + std::to_string(a.bnolevel) +
                    ", " + std::to_string(a.cntlevel) + "), freeblks=" +
                    std::to_string(a.freeblks) + ", length=" + std::to_string(a.length)});
    }
    EXPECT_EQ(TakeLog(), expected);
}

INSTANTIATE_TEST_SUITE_P(Geometries, XfsReader,
                         testing::Values(XfsGeometry{512, 4, 300, 320 * kMiB},
                                         XfsGeometry{1024, 4, 400, 320 * kMiB},
                                         XfsGeometry{4096, 2, 600, 320 * kMiB}),
                         [](const auto& info) {
                             return std::to_string(info.param.block_size) + "_" +
                                    std::to_string(info.param.agcount) + "ags";
                         });

class XfsReaderDamage : public testing::Test {
  protected:
    void SetUp() override {
        image_ = MakeXfsImage(dir_, 1024, 4, 400, 320 * kMiB);
        xfs_ = XfsDb(image_, 320 * kMiB / 1024);
        TakeLog();
    }
    [[nodiscard]] uint64_t AgByte(uint32_t ag) const {
        return static_cast<uint64_t>(ag) * xfs_.agblocks * xfs_.block_size;
    }

    ScratchDir dir_;
    std::string image_;
    XfsLayout xfs_;
};

TEST_F(XfsReaderDamage, ADamagedSecondarySuperblockFailsTheReader) {
    WriteBytes(image_, AgByte(2), {'X', 'F', 'S', 'X'});
    OpenedImage dev(image_);
    EXPECT_EQ(trak_xfs_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> log = TakeLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), (LogLine{TRAK_LOG_ERR,
                                   "xfs_reader_init(): AG 2 of hdd(7, 3) has incorrect SB magic "
                                   "number: 0x58465358 instead of 0x58465342."}));
}

TEST_F(XfsReaderDamage, ADamagedAgfFailsTheReader) {
    WriteBytes(image_, AgByte(1) + kSectorSize, {'X', 'A', 'G', 'G'});
    OpenedImage dev(image_);
    EXPECT_EQ(trak_xfs_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> log = TakeLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), (LogLine{TRAK_LOG_ERR,
                                   "xfs_reader_init(): Incorrect AGF magic of AG 1 of hdd(7, 3): "
                                   "0x58414747 instead of 0x58414746"}));
}

TEST_F(XfsReaderDamage, ADamagedTreeRootFailsTheRead) {
    const uint64_t root = AgByte(0) + static_cast<uint64_t>(xfs_.agf[0].bnoroot) * xfs_.block_size;
    WriteBytes(image_, root, {'A', 'B', 'T', 'X'});
    OpenedImage dev(image_);
    void* ctx = trak_xfs_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    TakeLog();
    std::vector<u64> bits(1);
    EXPECT_EQ(trak_xfs_reader.read(ctx, 0, xfs_.block_size, bits.data(), 64), -EINVAL);
    trak_xfs_reader.destroy(ctx);
    const std::vector<LogLine> expected = {
        {TRAK_LOG_ERR,
         "xfs_find_leaf(): Invalid B+tree node block magic: 0x41425458 instead of 0x41425442"}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(XfsReaderDamage, ADamagedRightSiblingIsReportedAsItLiesOnDisk) {
    // The second leaf of AG 3 is reached by the walk along the leaves.
    const std::string dump =
        fsmap_test::Run("xfs_db -r -c 'agf 3' -c 'addr bnoroot' -c 'print ptrs' " + image_);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(dump, m, std::regex(R"( 2:(\d+))"))) << dump;
    const uint64_t leaf = std::stoull(m[1]);
    WriteBytes(image_, AgByte(3) + leaf * xfs_.block_size, {'A', 'B', 'T', 'X'});

    OpenedImage dev(image_);
    void* ctx = trak_xfs_reader.init(dev.get(), nullptr);
    ASSERT_NE(ctx, nullptr);
    TakeLog();
    std::vector<u64> bits(xfs_.agblocks / 64 + 1);
    EXPECT_EQ(trak_xfs_reader.read(ctx, 3 * xfs_.agblocks, xfs_.block_size, bits.data(),
                                   xfs_.agf[3].length),
              -EINVAL);
    trak_xfs_reader.destroy(ctx);
    const std::vector<LogLine> expected = {
        {TRAK_LOG_ERR,
         "xfs_reader_read(): Invalid B+tree node block magic: 0x58544241 instead of 0x41425442"}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_F(XfsReaderDamage, DoesNotRecogniseAnImageWithoutTheMagic) {
    OpenedImage dev(MakeBlankImage(dir_, "blank.img", 8 * kMiB));
    EXPECT_EQ(trak_xfs_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> expected = {{3, "xfs_reader_init(): hdd(7, 3) doesn't have XFS."}};
    EXPECT_EQ(TakeLog(), expected);
}

}  // namespace
}  // namespace trak::fsmap_test
