// The bitmap files on disk, checked byte by byte with the tests' own
// parser: saves, the dirty mark of the first write after a save, and the
// loads of missing, dirty, truncated, foreign and valid files.
#include "support/bitmap_file.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/proc_files.h"
#include "support/raw_disk.h"
#include "support/test_disks.h"
#include "support/wait.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;
constexpr auto kDirtyFlagDelay = std::chrono::seconds(5);

std::string ProcDirtyFlag(BitmapKind kind) {
    return ReadText(std::string("/proc/trak/trak0/") +
                    (kind == BitmapKind::kIncremental ? "incr" : "diff") + "_bmp_dirty")
        .text;
}

TEST(BitmapFileParserTest, ChecksumIsJamcrc) {
    const std::string check = "123456789";
    const std::vector<std::uint8_t> bytes(check.begin(), check.end());

    // The check value of CRC-32 is 0xCBF43926; JAMCRC is its complement.
    EXPECT_EQ(Jamcrc(bytes), 0x340BC6D9U);
    EXPECT_EQ(Jamcrc({}), 0xFFFFFFFFU);
}

class BitmapFileTest : public FilterTest {
  protected:
    // Adds the node over the tracked disk, started, and learns its sizes.
    void AddNode() {
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
        const NodeInfo node = GetInfo(control(), 0);
        ASSERT_EQ(node.error, 0);
        size_ = node.info.incr_bmp_size;
    }

    [[nodiscard]] std::vector<std::uint8_t> Get(BitmapKind kind) const {
        const BitmapReply reply = GetBitmap(control(), 0, kind, size_);
        EXPECT_EQ(reply.error, 0);
        return reply.bits;
    }

    std::uint32_t size_ = 0;
};

TEST_F(BitmapFileTest, SaveWritesHeaderSizeChecksumAndBits) {
    ASSERT_NO_FATAL_FAILURE(AddNode());
    const std::vector<std::uint8_t> incr = BitmapOf(size_, std::vector<std::uint64_t>{1, 8, 200});
    const std::vector<std::uint8_t> diff = BitmapOf(size_, std::vector<std::uint64_t>{2, 4000});
    ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kIncremental, incr), 0);
    ASSERT_EQ(SetBitmap(control(), 0, BitmapKind::kDifferential, diff), 0);
    ASSERT_EQ(std::remove(BitmapPath(0, BitmapKind::kIncremental).c_str()), 0);

    EXPECT_EQ(SaveBitmap(control(), 0, BitmapKind::kIncremental), 0);

    EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, BitmapKind::kIncremental), incr));
    EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, BitmapKind::kDifferential), diff));
}

TEST_F(BitmapFileTest, ClearedBitmapFileHoldsZerosAndTheirChecksum) {
    ASSERT_NO_FATAL_FAILURE(AddNode());

    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));

    const std::vector<std::uint8_t> zeros(size_, 0);
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        EXPECT_TRUE(IsCleanBitmapFile(BitmapPath(0, kind), zeros));
        EXPECT_EQ(ProcDirtyFlag(kind), "0\n");
    }
}

TEST_F(BitmapFileTest, FirstWriteAfterSaveMarksFilesDirty) {
    ASSERT_NO_FATAL_FAILURE(AddNode());
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    // Held open: the last close saves the bitmaps.
    const DirectWriter writer(NodeDevice(0));
    ASSERT_EQ(writer.error(), 0);

    ASSERT_EQ(writer.Fill(3 * kExtent, 4096, 0x5A), 0);

    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        const std::string path = BitmapPath(0, kind);
        EXPECT_TRUE(WaitUntil([&] { return IsDirtyBitmapFile(path); }, kDirtyFlagDelay));
        EXPECT_TRUE(IsDirtyBitmapFile(path));
        EXPECT_EQ(ProcDirtyFlag(kind), "1\n");
    }
}

TEST_F(BitmapFileTest, SaveAfterDirtyMarkMakesFileCleanAgain) {
    ASSERT_NO_FATAL_FAILURE(AddNode());
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    const DirectWriter writer(NodeDevice(0));
    ASSERT_EQ(writer.Fill(5 * kExtent, 4096, 0x5A), 0);
    const std::string path = BitmapPath(0, BitmapKind::kIncremental);
    ASSERT_TRUE(WaitUntil([&] { return IsDirtyBitmapFile(path); }, kDirtyFlagDelay));

    EXPECT_EQ(SaveBitmap(control(), 0, BitmapKind::kIncremental), 0);

    EXPECT_TRUE(IsCleanBitmapFile(path, BitmapOf(size_, std::vector<std::uint64_t>{5})));
    EXPECT_EQ(ProcDirtyFlag(BitmapKind::kIncremental), "0\n");
}

TEST_F(BitmapFileTest, LastCloseOfNodeSavesDirtyBitmaps) {
    ASSERT_NO_FATAL_FAILURE(AddNode());
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));

    ASSERT_EQ(FillDirect(NodeDevice(0), 6 * kExtent, 4096, 0x5A), 0);

    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        EXPECT_TRUE(
            IsCleanBitmapFile(BitmapPath(0, kind), BitmapOf(size_, std::vector<std::uint64_t>{6})));
        EXPECT_EQ(ProcDirtyFlag(kind), "0\n");
    }
}

// A process that ends with the node still open closes it on its way out,
// when it has no file-system context of its own any more.
TEST_F(BitmapFileTest, LastCloseAtProcessExitSavesDirtyBitmaps) {
    ASSERT_NO_FATAL_FAILURE(AddNode());
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const DirectWriter writer(NodeDevice(0));
        _exit(writer.Fill(9 * kExtent, 4096, 0x5A) == 0 ? 0 : 1);
    }
    ASSERT_EQ(WaitForChild(child, std::chrono::seconds(10)), 0);

    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        EXPECT_TRUE(
            IsCleanBitmapFile(BitmapPath(0, kind), BitmapOf(size_, std::vector<std::uint64_t>{9})));
    }
}

TEST_F(BitmapFileTest, MissingFileGivesAllOnesAndLoadFails) {
    ASSERT_NO_FATAL_FAILURE(AddNode());
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        EXPECT_TRUE(AllOnes(Get(kind))) << "no file when the node was added";
        EXPECT_EQ(ProcDirtyFlag(kind), "1\n");
    }
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        ASSERT_EQ(ClearBitmap(control(), 0, kind), 0);
        ASSERT_EQ(std::remove(BitmapPath(0, kind).c_str()), 0);

        EXPECT_EQ(LoadBitmap(control(), 0, kind), EIO);

        EXPECT_TRUE(AllOnes(Get(kind)));
        EXPECT_EQ(ProcDirtyFlag(kind), "1\n");
    }
}

TEST_F(BitmapFileTest, ValidFileLoadsExactly) {
    ASSERT_NO_FATAL_FAILURE(AddNode());
    const std::vector<std::uint8_t> bits = BitmapOf(size_, std::vector<std::uint64_t>{7, 77, 777});
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        ASSERT_EQ(WriteWholeFile(BitmapPath(0, kind), EncodeCleanBitmapFile(bits)), 0);

        EXPECT_EQ(LoadBitmap(control(), 0, kind), 0);

        EXPECT_EQ(Get(kind), bits);
        EXPECT_EQ(ProcDirtyFlag(kind), "0\n");
    }
    EXPECT_TRUE(log().Absent(LogPattern::Matching("Ignoring file contents")));
}

TEST_F(BitmapFileTest, FilesPresentAtAddAreLoaded) {
    const std::uint64_t bytes = BitmapBytes(SizeOfDevice(kTrackedDisk).bytes / kExtent);
    const std::vector<std::uint8_t> incr = BitmapOf(bytes, std::vector<std::uint64_t>{0, 11});
    const std::vector<std::uint8_t> diff = BitmapOf(bytes, std::vector<std::uint64_t>{12});
    ASSERT_EQ(WriteWholeFile(BitmapPath(0, BitmapKind::kIncremental), EncodeCleanBitmapFile(incr)),
              0);
    ASSERT_EQ(WriteWholeFile(BitmapPath(0, BitmapKind::kDifferential), EncodeCleanBitmapFile(diff)),
              0);

    ASSERT_NO_FATAL_FAILURE(AddNode());

    EXPECT_EQ(Get(BitmapKind::kIncremental), incr);
    EXPECT_EQ(Get(BitmapKind::kDifferential), diff);
}

TEST_F(BitmapFileTest, FilesOnTheFilteredPartitionAreRefused) {
    const std::string mount_point = "/mnt/trak-fs";
    set_bmp_dir(mount_point + "/bitmaps");
    ASSERT_NO_FATAL_FAILURE(AddNode());
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", NodeDevice(0)}));
    ASSERT_EQ(Mount(NodeDevice(0), mount_point, "ext4"), 0);
    ASSERT_TRUE(std::filesystem::create_directory(bmp_dir()));
    const std::string incr = BitmapPath(0, BitmapKind::kIncremental);
    log().Mark();

    EXPECT_EQ(SaveBitmap(control(), 0, BitmapKind::kIncremental), EINVAL);

    EXPECT_TRUE(
        log().Contains(LogPattern::Error("trak_block_save_bmp(): Can't save bitmap to " + incr +
                                         ". The file must be moved to a different "
                                         "partition.")));
    EXPECT_FALSE(std::filesystem::exists(incr));
    EXPECT_EQ(ProcDirtyFlag(BitmapKind::kIncremental), "1\n");

    // A file put there by hand loads; the first change after it must mark
    // it dirty, which is refused in the same way.
    ASSERT_EQ(WriteWholeFile(incr, EncodeCleanBitmapFile(std::vector<std::uint8_t>(size_, 0))), 0);
    ASSERT_TRUE(Succeeds({"sync"}));
    ASSERT_EQ(LoadBitmap(control(), 0, BitmapKind::kIncremental), 0);
    ASSERT_EQ(ProcDirtyFlag(BitmapKind::kIncremental), "0\n");
    log().Mark();
    ASSERT_EQ(WriteWholeFile(mount_point + "/data", std::vector<std::uint8_t>(8192, 0xEE)), 0);
    ASSERT_TRUE(Succeeds({"sync"}));

    const LogPattern refused =
        LogPattern::Error("trak_block_write_dirty_flag(): Can't set dirty flag in " + incr +
                          ". The file must be moved to a different partition.");
    EXPECT_TRUE(
        WaitUntil([&] { return static_cast<bool>(log().Contains(refused)); }, kDirtyFlagDelay));
    EXPECT_TRUE(log().Contains(refused));
    EXPECT_TRUE(IsCleanBitmapFile(incr, std::vector<std::uint8_t>(size_, 0)));
}

// A file the load must not trust: LOAD's result and the error line after
// "File <path> ".
struct UntrustedFile {
    const char* what;
    std::vector<std::uint8_t> (*make)(std::uint32_t size);
    int load_error;
    const char* message;
};

class UntrustedFileTest : public BitmapFileTest,
                          public ::testing::WithParamInterface<UntrustedFile> {};

TEST_P(UntrustedFileTest, GivesAllOnes) {
    ASSERT_NO_FATAL_FAILURE(AddNode());
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        ASSERT_EQ(ClearBitmap(control(), 0, kind), 0);
        const std::string path = BitmapPath(0, kind);
        ASSERT_EQ(WriteWholeFile(path, GetParam().make(size_)), 0);
        log().Mark();

        EXPECT_EQ(LoadBitmap(control(), 0, kind), GetParam().load_error);

        EXPECT_TRUE(log().Contains(
            LogPattern::Error("trak_block_load_bmp(): File " + path + " " + GetParam().message)));
        EXPECT_TRUE(AllOnes(Get(kind)));
        EXPECT_EQ(ProcDirtyFlag(kind), "1\n");
    }
}

std::vector<std::uint8_t> SomeBits(std::uint32_t size) {
    return BitmapOf(size, std::vector<std::uint64_t>{1, 2, 3});
}

INSTANTIATE_TEST_SUITE_P(
    Rejected, UntrustedFileTest,
    ::testing::Values(UntrustedFile{"dirty mark",
                                    [](std::uint32_t) {
                                        return std::vector<std::uint8_t>{'T', 'R', 'A', 'K',
                                                                         'B', 'M', 'P', 1};
                                    },
                                    0, "is dirty. Ignoring file contents."},
                      UntrustedFile{"whole file with flag 1",
                                    [](std::uint32_t size) {
                                        const std::vector<std::uint8_t> bits = SomeBits(size);
                                        return EncodeBitmapFile(1, size, Jamcrc(bits), bits);
                                    },
                                    0, "is dirty. Ignoring file contents."},
                      UntrustedFile{"size one less",
                                    [](std::uint32_t size) {
                                        const std::vector<std::uint8_t> bits = SomeBits(size - 1);
                                        return EncodeBitmapFile(0, size - 1, Jamcrc(bits), bits);
                                    },
                                    0, "contains bitmap of invalid size. Ignoring file contents."},
                      UntrustedFile{"ordinary CRC-32",
                                    [](std::uint32_t size) {
                                        const std::vector<std::uint8_t> bits = SomeBits(size);
                                        return EncodeBitmapFile(0, size, ~Jamcrc(bits), bits);
                                    },
                                    0, "has invalid checksum. Ignoring file contents."},
                      UntrustedFile{"flipped bit",
                                    [](std::uint32_t size) {
                                        std::vector<std::uint8_t> bits = SomeBits(size);
                                        const std::uint32_t checksum = Jamcrc(bits);
                                        bits[size / 2] ^= 0x10;
                                        return EncodeBitmapFile(0, size, checksum, bits);
                                    },
                                    0, "has invalid checksum. Ignoring file contents."},
                      UntrustedFile{"foreign prefix",
                                    [](std::uint32_t size) {
                                        std::vector<std::uint8_t> file =
                                            EncodeCleanBitmapFile(SomeBits(size));
                                        file[0] = 'X';
                                        return file;
                                    },
                                    EIO, "is corrupt: Invalid prefix."}),
    [](const ::testing::TestParamInfo<UntrustedFile>& info) {
        std::string name = info.param.what;
        for (char& c : name) {
            c = std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
        }
        return name;
    });

}  // namespace
}  // namespace trak::vmtest
