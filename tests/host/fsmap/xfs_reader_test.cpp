// The XFS reader against xfs_db's by-block free-space records, on version 4
// and version 5 images made by mkfs.xfs and fragmented by freeing every
// other file.
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
    std::string name;
    std::string mkfs_options;
    uint32_t block_size;
    uint32_t agcount;
    uint32_t files_per_dir;  // enough free extents for a two-level tree
    uint64_t image_bytes;    // a multiple of every chunk size
};

void PrintTo(const XfsGeometry& g, std::ostream* os) { *os << g.name; }

class XfsReader : public testing::TestWithParam<XfsGeometry> {
  protected:
    void SetUp() override {
        const XfsGeometry& g = GetParam();
        image_ = MakeXfsImage(dir_, g.mkfs_options, g.block_size, g.agcount, g.files_per_dir,
                              g.image_bytes);
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
        {2, "   sectsize=" + std::to_string(xfs_.sector_size)},
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

// Enough files that every AG's by-block tree has more than one level: a
// leaf holds (block size - 16) / 8 records in version 4, (block size - 56) / 8
// in version 5.
INSTANTIATE_TEST_SUITE_P(
    Geometries, XfsReader,
    testing::Values(
        XfsGeometry{"v4_512", kXfsV4, 512, 4, 300, 320 * kMiB},
        XfsGeometry{"v4_1024", kXfsV4, 1024, 4, 400, 320 * kMiB},
        XfsGeometry{"v4_4096", kXfsV4, 4096, 2, 600, 320 * kMiB},
        XfsGeometry{"v5_defaults", kXfsV5, 4096, 4, 600, 640 * kMiB},
        XfsGeometry{"v5_reflink_rmapbt", "-m crc=1,reflink=1,rmapbt=1", 4096, 4, 600, 640 * kMiB},
        XfsGeometry{"v5_1024", kXfsV5, 1024, 4, 300, 320 * kMiB},
        XfsGeometry{"v5_4k_sectors", "-m crc=1 -s size=4096", 4096, 4, 600, 640 * kMiB}),
    [](const auto& info) { return info.param.name; });

struct XfsVersion {
    std::string name;
    std::string mkfs_options;
    std::string tree_magic;  // of the by-block tree's blocks, as logged
};

void PrintTo(const XfsVersion& v, std::ostream* os) { *os << v.name; }

// Damage to what both versions have; XfsReaderV5Damage has what version 5
// adds.
class XfsReaderDamage : public testing::TestWithParam<XfsVersion> {
  protected:
    void SetUp() override {
        image_ = MakeXfsImage(dir_, GetParam().mkfs_options, 1024, 4, 400, 320 * kMiB);
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

TEST_P(XfsReaderDamage, ADamagedSecondarySuperblockFailsTheReader) {
    WriteBytes(image_, AgByte(2), {'X', 'F', 'S', 'X'});
    OpenedImage dev(image_);
    EXPECT_EQ(trak_xfs_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> log = TakeLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), (LogLine{TRAK_LOG_ERR,
                                   "xfs_reader_init(): AG 2 of hdd(7, 3) has incorrect SB magic "
                                   "number: 0x58465358 instead of 0x58465342."}));
}

TEST_P(XfsReaderDamage, ADamagedAgfFailsTheReader) {
    WriteBytes(image_, AgByte(1) + kSectorSize, {'X', 'A', 'G', 'G'});
    OpenedImage dev(image_);
    EXPECT_EQ(trak_xfs_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> log = TakeLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), (LogLine{TRAK_LOG_ERR,
                                   "xfs_reader_init(): Incorrect AGF magic of AG 1 of hdd(7, 3): "
                                   "0x58414747 instead of 0x58414746"}));
}

TEST_P(XfsReaderDamage, ADamagedTreeRootFailsTheRead) {
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
        {TRAK_LOG_ERR, "xfs_find_leaf(): Invalid B+tree node block magic: 0x41425458 instead of " +
                           GetParam().tree_magic}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_P(XfsReaderDamage, ADamagedRightSiblingIsReportedAsItLiesOnDisk) {
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
         "xfs_reader_read(): Invalid B+tree node block magic: 0x58544241 instead of " +
             GetParam().tree_magic}};
    EXPECT_EQ(TakeLog(), expected);
}

TEST_P(XfsReaderDamage, DoesNotRecogniseAnImageWithoutTheMagic) {
    OpenedImage dev(MakeBlankImage(dir_, "blank.img", 8 * kMiB));
    EXPECT_EQ(trak_xfs_reader.init(dev.get(), nullptr), nullptr);
    const std::vector<LogLine> expected = {{3, "xfs_reader_init(): hdd(7, 3) doesn't have XFS."}};
    EXPECT_EQ(TakeLog(), expected);
}

// What version 5 adds: features, checksums, and tree blocks that say where
// they lie and whose they are. Fields are changed with xfs_db, which keeps
// the checksums right unless the checksum itself is what is damaged.
class XfsReaderV5Damage : public testing::Test {
  protected:
    void SetUp() override {
        image_ = MakeXfsImage(dir_, kXfsV5, 1024, 4, 400, 320 * kMiB);
        xfs_ = XfsDb(image_, 320 * kMiB / 1024);
        TakeLog();
    }
    [[nodiscard]] uint64_t AgByte(uint32_t ag) const {
        return static_cast<uint64_t>(ag) * xfs_.agblocks * xfs_.block_size;
    }
    [[nodiscard]] uint64_t RootByte(uint32_t ag) const {
        return AgByte(ag) + static_cast<uint64_t>(xfs_.agf[ag].bnoroot) * xfs_.block_size;
    }
    void XfsDbWrite(const std::string& where, const std::string& write) {
        fsmap_test::Run("xfs_db -x " + where + " -c 'write -d " + write + "' " + image_ +
                        " >/dev/null");
    }

    // The reader must not recognise the image, its last line being `error`.
    void ExpectInitRefused(const std::string& error) {
        OpenedImage dev(image_);
        EXPECT_EQ(trak_xfs_reader.init(dev.get(), nullptr), nullptr);
        const std::vector<LogLine> log = TakeLog();
        ASSERT_FALSE(log.empty());
        EXPECT_EQ(log.back(), (LogLine{TRAK_LOG_ERR, "xfs_reader_init(): " + error}));
    }

    // A read of AG 0 must fail at AG 0's tree root with `error`.
    void ExpectRootRefused(const std::string& error) {
        OpenedImage dev(image_);
        void* ctx = trak_xfs_reader.init(dev.get(), nullptr);
        ASSERT_NE(ctx, nullptr);
        TakeLog();
        std::vector<u64> bits(xfs_.agblocks / 64 + 1);
        EXPECT_EQ(trak_xfs_reader.read(ctx, 0, xfs_.block_size, bits.data(), xfs_.agblocks),
                  -EINVAL);
        trak_xfs_reader.destroy(ctx);
        EXPECT_EQ(TakeLog(), std::vector<LogLine>({{TRAK_LOG_ERR, "xfs_find_leaf(): " + error}}));
    }

    [[nodiscard]] std::string Root0() const { return std::to_string(xfs_.agf[0].bnoroot); }

    ScratchDir dir_;
    std::string image_;
    XfsLayout xfs_;
};

TEST_F(XfsReaderV5Damage, AWrongSuperblockChecksumFailsTheReader) {
    constexpr uint64_t kSbCrc = 224;
    const std::string wrong = FlipChecksumBit(image_, kSbCrc);
    ExpectInitRefused("Checksum of Super Block of hdd(7, 3) is wrong: " + wrong + ".");
}

TEST_F(XfsReaderV5Damage, AWrongAgfChecksumFailsTheReader) {
    constexpr uint64_t kAgfCrc = 216;
    const std::string wrong = FlipChecksumBit(image_, AgByte(2) + kSectorSize + kAgfCrc);
    ExpectInitRefused("Checksum of AGF of AG 2 of hdd(7, 3) is wrong: " + wrong + ".");
}

TEST_F(XfsReaderV5Damage, RefusesAFileSystemThatNeedsRepairAndUnknownFeatures) {
    const std::string features =
        fsmap_test::Run("xfs_db -r -c 'sb 0' -c 'print features_incompat' " + image_);
    const uint32_t incompat = std::stoul(features.substr(features.find("0x")), nullptr, 16);
    XfsDbWrite("-c 'sb 0'", "features_incompat " + std::to_string(incompat | 0x10U | 0x80000000U));
    ExpectInitRefused(
        "Sorry, we don't support XFS with needsrepair, incompat 0x80000000 on hdd(7, 3).");
}

TEST_F(XfsReaderV5Damage, AWrongTreeBlockChecksumFailsTheRead) {
    constexpr uint64_t kBlockCrc = 52;
    const std::string wrong = FlipChecksumBit(image_, RootByte(0) + kBlockCrc);
    ExpectRootRefused("Checksum of B+tree node block " + Root0() + " is wrong: " + wrong);
}

TEST_F(XfsReaderV5Damage, ATreeBlockOfAnotherAgFailsTheRead) {
    XfsDbWrite("-c 'agf 0' -c 'addr bnoroot'", "owner 3");
    ExpectRootRefused("B+tree node block " + Root0() +
                      " is not a free-space block of AG 0 of this file system");
}

TEST_F(XfsReaderV5Damage, ATreeBlockOfAnotherPlaceFailsTheRead) {
    XfsDbWrite("-c 'agf 0' -c 'addr bnoroot'", "bno 8");
    ExpectRootRefused("B+tree node block " + Root0() +
                      " is not a free-space block of AG 0 of this file system");
}

TEST_F(XfsReaderV5Damage, AVersion4TreeBlockFailsTheRead) {
    XfsDbWrite("-c 'agf 0' -c 'addr bnoroot'", "magic 0x41425442");
    ExpectRootRefused("Invalid B+tree node block magic: 0x41425442 instead of 0x41423342");
}

INSTANTIATE_TEST_SUITE_P(Versions, XfsReaderDamage,
                         testing::Values(XfsVersion{"v4", kXfsV4, "0x41425442"},
                                         XfsVersion{"v5", kXfsV5, "0x41423342"}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace trak::fsmap_test
