// Adding snap nodes to a filter: what a successful add creates and reports
// (record, GET_INFO, /proc, the device node and its size), every refusal
// of the add in the order the checks are made, the limit of 256 snaps per
// filter, and the chunk size raised for volumes of more than 2^30 chunks.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/node_commands.h"
#include "support/open_file.h"
#include "support/proc_files.h"
#include "support/snap_commands.h"
#include "support/snap_test.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
// 161 chunks of 64 KiB, the last one 4 KiB long.
constexpr std::uint64_t kHddBytes = (10 << 20) + 4096;
constexpr std::uint64_t kHddChunks = 161;
constexpr const char* kAddFunction = "trak_ioctl_add_snap_node(): ";
constexpr const char* kOriginMount = "/mnt/trak-origin";

std::string AddError(const std::string& text) { return kAddFunction + text; }

class SnapAddTest : public SnapTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SnapTest::SetUp());
        hdd_ = AttachLoop(kHddBytes, 512);
        ASSERT_FALSE(hdd_.empty());
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(hdd_, kExtent, 0, false));
        log().Mark();
    }

    // Adds with `record` and expects `error`, the error line `message`
    // after the function's name, no new snap, and the record as it was
    // passed in.
    void ExpectRefused(trak_add_snap_args record, int error, const std::string& message) {
        const trak_add_snap_args passed = record;
        const std::vector<std::int32_t> snaps = ListNodes(control(), TRAK_DEV_SNAP).minors;
        const std::uint32_t attached = GetInfo(control(), 0).info.snap_cnt;

        EXPECT_EQ(AddSnap(control(), record), error);

        EXPECT_TRUE(log().Contains(LogPattern::Error(AddError(message))));
        EXPECT_EQ(ListNodes(control(), TRAK_DEV_SNAP).minors, snaps);
        EXPECT_EQ(GetInfo(control(), 0).info.snap_cnt, attached);
        EXPECT_EQ(std::memcmp(&passed, &record, sizeof(record)), 0) << "the record was changed";
    }

    static trak_add_snap_args DefaultRecord(std::uint32_t chunk_size = kChunk) {
        return SnapRecord(0, chunk_size, CowBitmapPath(1), CowDataPath(1));
    }

    [[nodiscard]] const std::string& hdd() const { return hdd_; }

  private:
    std::string hdd_;
};

TEST_F(SnapAddTest, AddFillsRecordAndAttachesSnapToFilter) {
    trak_add_snap_args record = DefaultRecord();

    ASSERT_EQ(AddSnap(control(), record), 0);

    EXPECT_EQ(record.snap_minor, 1) << "the lowest free minor";
    EXPECT_EQ(record.chunk_size, kChunk);
    EXPECT_STREQ(record.name, "trak1");
    EXPECT_TRUE(std::regex_match(
        record.uuid,
        std::regex(R"(\{[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\})")))
        << record.uuid;
    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Info(
             AddError("Creating new snap node: snap_minor=-1, trak_minor=0, chunk_size=65536, "
                      "cow_bmp_fname=" +
                      CowBitmapPath(1) + ", cow_data_fname=" + CowDataPath(1))),
         LogPattern::Info(
             AddError("Attaching snap " + NodeName(1) + " to filter " + NodeName(0)))}));
    EXPECT_EQ(ListNodes(control(), TRAK_DEV_SNAP).minors, std::vector<std::int32_t>{1});
    const NodeInfo filter = GetInfo(control(), 0);
    ASSERT_EQ(filter.error, 0);
    EXPECT_EQ(filter.info.snap_cnt, 1U);
    EXPECT_EQ(filter.info.snap_minors[0], 1);
    EXPECT_EQ(ReadText("/proc/trak/trak0/snaps").text, "1\n");
    EXPECT_EQ(ReadText("/proc/trak/trak0/snap_minor").text, "1\n");
    struct stat st {};
    ASSERT_EQ(stat("/dev/trak/trak1", &st), 0) << "errno " << errno;
    EXPECT_TRUE(S_ISBLK(st.st_mode));
    EXPECT_EQ(static_cast<int>(minor(st.st_rdev)), 1);
    EXPECT_FALSE(std::filesystem::exists(CowBitmapPath(1))) << "made only when the snap starts";
    EXPECT_FALSE(std::filesystem::exists(CowDataPath(1))) << "made only when the snap starts";
}

TEST_F(SnapAddTest, GetInfoDescribesTheSnap) {
    trak_add_snap_args record = DefaultRecord();
    ASSERT_EQ(AddSnap(control(), record), 0);

    const NodeInfo snap = GetInfo(control(), 1);

    ASSERT_EQ(snap.error, 0);
    EXPECT_EQ(snap.info.dev_type, static_cast<std::uint32_t>(TRAK_DEV_SNAP));
    EXPECT_EQ(snap.info.dev_size, kHddBytes) << "the filter's size";
    EXPECT_EQ(snap.info.started, 0);
    EXPECT_EQ(snap.info.use_cnt, 0);
    EXPECT_STREQ(snap.info.uuid, record.uuid);
    EXPECT_STREQ(snap.info.name, "trak1");
    EXPECT_EQ(snap.info.snap_valid, 0U);
    EXPECT_EQ(snap.info.stop_pending, 0U);
    EXPECT_EQ(snap.info.del_pending, 0U);
    EXPECT_EQ(snap.info.chunk_size, kChunk);
    EXPECT_EQ(snap.info.cow_chunks, kHddChunks);
    EXPECT_EQ(snap.info.cow_bmp_size, (kHddChunks - 1) / 8 + 1);
    EXPECT_EQ(snap.info.cow_data_size, kHddChunks * kChunk);
    EXPECT_EQ(std::string(snap.info.cow_bmp_fname), CowBitmapPath(1));
    EXPECT_EQ(std::string(snap.info.cow_data_fname), CowDataPath(1));
}

TEST_F(SnapAddTest, ProcDirectoryShowsEverySnapField) {
    trak_add_snap_args record = DefaultRecord();
    ASSERT_EQ(AddSnap(control(), record), 0);
    struct stat st {};
    ASSERT_EQ(stat(hdd().c_str(), &st), 0);

    const std::vector<std::pair<std::string, std::string>> expected = {
        {"dev_type", "snap"},
        {"minor", "1"},
        {"uuid", record.uuid},
        {"name", "trak1"},
        {"dev_name", "/dev/trak/trak1"},
        {"started", "0"},
        {"stop_pending", "0"},
        {"del_pending", "0"},
        {"use_cnt", "0"},
        {"filter_minor", "0"},
        {"hdd_major", std::to_string(major(st.st_rdev))},
        {"hdd_minor", std::to_string(minor(st.st_rdev))},
        {"hdd_name", hdd()},
        {"chunk_size", "65536"},
        {"cow_bmp_fname", CowBitmapPath(1)},
        {"cow_data_fname", CowDataPath(1)},
        {"cow_bmp_size", std::to_string((kHddChunks - 1) / 8 + 1)},
        {"cow_data_size", std::to_string(kHddChunks * kChunk)},
        {"snap_valid", "0"}};
    std::vector<std::string> names;
    for (const auto& [name, value] : expected) {
        SCOPED_TRACE(name);
        EXPECT_EQ(ReadText("/proc/trak/trak1/" + name).text, value + "\n");
        names.push_back(name);
    }
    std::vector<std::string> listed;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/trak/trak1")) {
        listed.push_back(entry.path().filename());
    }
    std::sort(listed.begin(), listed.end());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(listed, names);
}

TEST_F(SnapAddTest, StartedSnapNodeShowsTheHddsSizeAndIsReadOnly) {
    ASSERT_NO_FATAL_FAILURE(TakeSnap(0, kChunk, 1));

    const OpenFile snap(NodeDevice(1), O_RDONLY);

    ASSERT_EQ(snap.error(), 0);
    unsigned long sectors = 0;
    ASSERT_EQ(ioctl(snap.fd(), BLKGETSIZE, &sectors), 0) << "errno " << errno;
    EXPECT_EQ(sectors, kHddBytes / 512);
    std::uint64_t bytes = 0;
    ASSERT_EQ(ioctl(snap.fd(), BLKGETSIZE64, &bytes), 0) << "errno " << errno;
    EXPECT_EQ(bytes, kHddBytes);
    int read_only = 0;
    ASSERT_EQ(ioctl(snap.fd(), BLKROGET, &read_only), 0) << "errno " << errno;
    EXPECT_EQ(read_only, 1);
    const NodeInfo info = GetInfo(control(), 1);
    EXPECT_EQ(info.info.started, 1);
    EXPECT_EQ(info.info.snap_valid, 1U);
    EXPECT_EQ(info.info.use_cnt, 1);
    EXPECT_EQ(ReadText("/proc/trak/trak1/use_cnt").text, "1\n");
    EXPECT_EQ(ReadText("/proc/trak/trak1/started").text, "1\n");
    EXPECT_EQ(ReadText("/proc/trak/trak1/snap_valid").text, "1\n");
}

TEST_F(SnapAddTest, GivenMinorNameAndUuidAreKept) {
    constexpr const char* kUuid = "{01234567-89ab-cdef-0123-456789abcdef}";
    trak_add_snap_args record = SnapRecord(0, kChunk, CowBitmapPath(5), CowDataPath(5), 5);
    std::strcpy(record.uuid, kUuid);
    std::strcpy(record.name, "nightly");

    ASSERT_EQ(AddSnap(control(), record), 0);

    EXPECT_EQ(record.snap_minor, 5);
    EXPECT_STREQ(record.uuid, kUuid);
    EXPECT_STREQ(record.name, "nightly");
    const NodeInfo snap = GetInfo(control(), 5);
    EXPECT_STREQ(snap.info.uuid, kUuid);
    EXPECT_STREQ(snap.info.name, "nightly");
    EXPECT_EQ(ReadText("/proc/trak/trak5/dev_name").text, "/dev/trak/nightly\n");
    struct stat st {};
    ASSERT_EQ(stat("/dev/trak/nightly", &st), 0) << "errno " << errno;
    EXPECT_TRUE(S_ISBLK(st.st_mode));
    EXPECT_EQ(static_cast<int>(minor(st.st_rdev)), 5);
}

TEST_F(SnapAddTest, MinorAboveMaximumIsTooBig) {
    trak_add_snap_args record = SnapRecord(0, kChunk, CowBitmapPath(1), CowDataPath(1), 256);
    ExpectRefused(record, EINVAL, "Minor number 256 is too big: max=255");
}

TEST_F(SnapAddTest, MinorOfTheFilterIsTaken) {
    trak_add_snap_args record = SnapRecord(0, kChunk, CowBitmapPath(1), CowDataPath(1), 0);
    ExpectRefused(record, EINVAL, "Device minor number 0 is already taken");
}

TEST_F(SnapAddTest, FilterMinorMustNameAFilter) {
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1));
    for (const std::uint32_t filter : {7U, 256U, 1U}) {
        SCOPED_TRACE(filter);
        log().Mark();
        trak_add_snap_args record = SnapRecord(filter, kChunk, CowBitmapPath(2), CowDataPath(2));

        EXPECT_EQ(AddSnap(control(), record), EINVAL);

        EXPECT_TRUE(log().Contains(LogPattern::Error(
            AddError("Invalid filter node minor number " + std::to_string(filter) + " passed."))));
    }
    EXPECT_EQ(ListNodes(control(), TRAK_DEV_SNAP).minors, std::vector<std::int32_t>{1});
}

struct BadChunk {
    std::uint32_t chunk_size;
    const char* message;
};

class ChunkSizeTest : public SnapAddTest, public ::testing::WithParamInterface<BadChunk> {};

TEST_P(ChunkSizeTest, IsRefusedWithItsReason) {
    ExpectRefused(DefaultRecord(GetParam().chunk_size), EINVAL, GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Refused, ChunkSizeTest,
    ::testing::Values(BadChunk{0, "Chunk size must be a power of 2"},
                      BadChunk{12288, "Chunk size must be a power of 2"},
                      BadChunk{2048, "Chunk size must be a multiple of page size (4096B)"},
                      BadChunk{512, "Chunk size must be a multiple of page size (4096B)"},
                      BadChunk{8U << 20,
                               "Chunk size 8388608 is larger than a COW group (4194304 bytes)."}),
    [](const ::testing::TestParamInfo<BadChunk>& info) {
        return "Chunk" + std::to_string(info.param.chunk_size);
    });

TEST_F(SnapAddTest, SnapsOfOneFilterShareTheirChunkSize) {
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1));
    log().Mark();

    trak_add_snap_args record = SnapRecord(0, 2 * kChunk, CowBitmapPath(2), CowDataPath(2));
    EXPECT_EQ(AddSnap(control(), record), EINVAL);

    EXPECT_TRUE(log().Contains(LogPattern::Error(
        AddError(NodeName(0) +
                 " already has one snap with chunk size 65536. All snaps must have identical "
                 "chunk sizes."))));
    EXPECT_EQ(ListNodes(control(), TRAK_DEV_SNAP).minors, std::vector<std::int32_t>{1});
}

TEST_F(SnapAddTest, CowFileWithoutBlockDeviceIsRefused) {
    // /tmp is the guest's tmpfs; nothing below /no-such-dir exists, so no
    // file system holds it at all.
    for (const std::string path : {"/tmp/trak1.cowbmp", "/no-such-dir/trak1.cowbmp"}) {
        SCOPED_TRACE(path);
        log().Mark();
        ExpectRefused(SnapRecord(0, kChunk, path, CowDataPath(1)), EINVAL,
                      "Failed to get ID of the device with " + path);
    }
    log().Mark();
    ExpectRefused(SnapRecord(0, kChunk, CowBitmapPath(1), "/tmp/trak1.cowdata"), EINVAL,
                  "Failed to get ID of the device with /tmp/trak1.cowdata");
}

TEST_F(SnapAddTest, CowFileOnTheSnappedPartitionIsRefused) {
    ASSERT_EQ(StartNode(control(), 0), 0);
    ASSERT_TRUE(Succeeds({"mkfs.ext2", "-q", "-F", NodeDevice(0)}));
    ASSERT_EQ(MountNode(NodeDevice(0), kOriginMount, "ext2", 0, ""), 0);
    const std::string on_origin = std::string(kOriginMount) + "/trak1.cow";
    log().Mark();

    ExpectRefused(SnapRecord(0, kChunk, on_origin, CowDataPath(1)), EINVAL,
                  "File " + on_origin + " can't be on the partition being snapped!");
    log().Mark();
    ExpectRefused(SnapRecord(0, kChunk, CowBitmapPath(1), on_origin), EINVAL,
                  "File " + on_origin + " can't be on the partition being snapped!");
}

TEST_F(SnapAddTest, CowFilesAreCheckedBeforeTheFilterAndTheFilterBeforeTheChunkSize) {
    ExpectRefused(SnapRecord(7, 0, "/tmp/trak1.cowbmp", CowDataPath(1)), EINVAL,
                  "Failed to get ID of the device with /tmp/trak1.cowbmp");
    EXPECT_TRUE(log().Absent(LogPattern::Matching("Invalid filter node minor number")));
    log().Mark();
    ExpectRefused(SnapRecord(7, 0, CowBitmapPath(1), CowDataPath(1)), EINVAL,
                  "Invalid filter node minor number 7 passed.");
    EXPECT_TRUE(log().Absent(LogPattern::Matching("Chunk size")));
}

class FewMinorsTest : public SnapAddTest {
  protected:
    [[nodiscard]] std::string DriverParams() const override { return "trak_max_blk_minor=1"; }
};

TEST_F(FewMinorsTest, LastFreeMinorIsTakenThenAllAreUsedUp) {
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, 1));
    log().Mark();

    ExpectRefused(SnapRecord(0, kChunk, CowBitmapPath(2), CowDataPath(2)), ENOSPC,
                  "All 2 of TRAK minor nodes have already been used up.");
}

class ManySnapsTest : public SnapAddTest {
  protected:
    [[nodiscard]] std::string DriverParams() const override { return "trak_max_blk_minor=300"; }
};

TEST_F(ManySnapsTest, FilterTakes256SnapsAndRefusesThe257th) {
    std::vector<std::int32_t> minors;
    std::string listed;
    for (std::int32_t minor = 1; minor <= 256; ++minor) {
        ASSERT_NO_FATAL_FAILURE(AddSnapNode(0, kChunk, minor)) << "snap " << minor;
        minors.push_back(minor);
        listed += std::to_string(minor) + "\n";
    }
    log().Mark();

    trak_add_snap_args record = SnapRecord(0, kChunk, CowBitmapPath(257), CowDataPath(257), 257);
    EXPECT_EQ(AddSnap(control(), record), ENOSPC);

    EXPECT_TRUE(log().Contains(LogPattern::Error(
        AddError("Too many snaps already associated with " + NodeName(0) + "."))));
    EXPECT_EQ(GetInfo(control(), 257).error, EINVAL) << "the 257th snap exists";
    const NodeInfo filter = GetInfo(control(), 0);
    ASSERT_EQ(filter.error, 0);
    EXPECT_EQ(filter.info.snap_cnt, 256U);
    EXPECT_EQ(std::vector<std::int32_t>(filter.info.snap_minors, filter.info.snap_minors + 256),
              minors);
    EXPECT_EQ(ReadText("/proc/trak/trak0/snaps").text, listed);
}

// A filter over a sparse loop device larger than 4096 x 2^30 bytes: the
// chunk size is doubled until 2^30 chunks cover the volume.
class LargeVolumeTest : public SnapTest {};

TEST_F(LargeVolumeTest, ChunkSizeIsRaisedUntil2To30ChunksCoverTheVolume) {
    constexpr std::uint64_t kFourTiB = 4096ULL << 30;
    const std::string exact = AttachLoop(kFourTiB, 512);
    const std::string larger = AttachLoop(kFourTiB + (1 << 20), 512);
    ASSERT_FALSE(exact.empty());
    ASSERT_FALSE(larger.empty());
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(exact, 1 << 20, 0, false));
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(larger, 1 << 20, 1, false));
    log().Mark();

    trak_add_snap_args kept = SnapRecord(0, 4096, CowBitmapPath(2), CowDataPath(2), 2);
    ASSERT_EQ(AddSnap(control(), kept), 0);
    EXPECT_EQ(kept.chunk_size, 4096U) << "2^30 chunks of 4096 bytes cover exactly 4 TiB";
    EXPECT_TRUE(log().Absent(LogPattern::Matching("is too small for such a large volume")));
    trak_add_snap_args raised = SnapRecord(1, 4096, CowBitmapPath(3), CowDataPath(3), 3);
    ASSERT_EQ(AddSnap(control(), raised), 0);

    EXPECT_EQ(raised.chunk_size, 8192U);
    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Error(AddError("Chunk size 4096 is too small for such a large volume " +
                                    std::to_string(kFourTiB + (1 << 20)))),
         LogPattern::Error(AddError("We have automatically increased it to 8192"))}));
    const NodeInfo info = GetInfo(control(), 3);
    ASSERT_EQ(info.error, 0);
    EXPECT_EQ(info.info.chunk_size, 8192U);
    EXPECT_EQ(info.info.cow_chunks, ((kFourTiB + (1 << 20) - 1) >> 13) + 1);
    EXPECT_EQ(GetInfo(control(), 2).info.chunk_size, 4096U);
}

}  // namespace
}  // namespace trak::vmtest
