// Adding filter nodes: what a successful add creates and reports, every
// check of the HDD and the extent size, the names of the bitmap files, and
// the HDD claimed by the filter while it exists.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <string>

#include "support/command.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/proc_files.h"
#include "support/raw_disk.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kExtent = 65536;
constexpr const char* kAddFunction = "trak_ioctl_add_filter_node(): ";
constexpr const char* kSpareMount = "/mnt/trak-spare";
// The one device of null_blk loaded with zoned=1.
constexpr const char* kZonedDisk = "/dev/nullb0";

// A child process that holds a device file open until this is destroyed.
class OpenInAnotherProcess {
  public:
    explicit OpenInAnotherProcess(const std::string& path) {
        std::array<int, 2> ready{};
        if (pipe(ready.data()) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            const char opened = open(path.c_str(), O_RDONLY) >= 0 ? 1 : 0;
            if (write(ready[1], &opened, 1) != 1) {
                _exit(1);
            }
            pause();
            _exit(0);
        }
        close(ready[1]);
        char opened = 0;
        held_ = pid_ > 0 && read(ready[0], &opened, 1) == 1 && opened == 1;
        close(ready[0]);
    }
    ~OpenInAnotherProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    OpenInAnotherProcess(const OpenInAnotherProcess&) = delete;
    OpenInAnotherProcess& operator=(const OpenInAnotherProcess&) = delete;

    [[nodiscard]] bool held() const { return held_; }

  private:
    pid_t pid_ = -1;
    bool held_ = false;
};

class AddFilterTest : public FilterTest {
  protected:
    // Adds over `hdd` with `extent_size` and expects `error` and the error
    // line `message` after the function's name.
    void ExpectRefused(const std::string& hdd, std::uint32_t extent_size, int error,
                       const std::string& message) {
        trak_add_filter_args record = FilterRecord(hdd, extent_size, bmp_dir());
        EXPECT_EQ(AddFilter(control(), record), error);
        EXPECT_TRUE(log().Contains(LogPattern::Error(kAddFunction + message)));
        EXPECT_TRUE(ListNodes(control(), TRAK_DEV_FILTER).minors.empty());
    }
};

TEST_F(AddFilterTest, AddFillsRecordAndCreatesNode) {
    trak_add_filter_args record = FilterRecord(kTrackedDisk, kExtent, bmp_dir());

    ASSERT_EQ(AddFilter(control(), record), 0);

    EXPECT_EQ(record.minor, 0);
    EXPECT_STREQ(record.name, "trak0");
    EXPECT_EQ(std::string(record.uuid).size(), 38U) << record.uuid;
    EXPECT_TRUE(log().ContainsInOrder(
        {LogPattern::Info(std::string(kAddFunction) +
                          "Adding new node: HDD=/dev/vda, trak_minor=-1, "
                          "extent_size=65536, bmap_dir=" +
                          bmp_dir()),
         LogPattern::Info(std::string(kAddFunction) + "Attaching trak0 to /dev/vda")}));
    const DeviceSize hdd = SizeOfDevice(kTrackedDisk);
    const NodeInfo node = GetInfo(control(), 0);
    ASSERT_EQ(node.error, 0);
    EXPECT_EQ(node.info.dev_type, static_cast<std::uint32_t>(TRAK_DEV_FILTER));
    EXPECT_EQ(node.info.dev_size, hdd.bytes);
    EXPECT_EQ(node.info.started, 0);
    EXPECT_STREQ(node.info.hdd_name, kTrackedDisk);
    EXPECT_EQ(node.info.extent_size, kExtent);
    EXPECT_EQ(node.info.extent_cnt, hdd.bytes / kExtent);
    EXPECT_EQ(node.info.incr_bmp_size, (hdd.bytes / kExtent - 1) / 8 + 1);
    EXPECT_EQ(node.info.diff_bmp_size, node.info.incr_bmp_size);
    EXPECT_STREQ(node.info.uuid, record.uuid);
    struct stat st {};
    ASSERT_EQ(stat("/dev/trak/trak0", &st), 0) << "errno " << errno;
    EXPECT_TRUE(S_ISBLK(st.st_mode));
    EXPECT_EQ(static_cast<int>(minor(st.st_rdev)), 0);
    EXPECT_EQ(ReadText("/proc/trak/trak0/hdd_name").text, "/dev/vda\n");
    EXPECT_EQ(ReadText("/proc/trak/trak0/dev_name").text, "/dev/trak/trak0\n");
}

TEST_F(AddFilterTest, SecondFilterOverSameHddIsDuplicate) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, false));
    log().Mark();

    trak_add_filter_args again = FilterRecord(kTrackedDisk, kExtent, bmp_dir(), 1);
    EXPECT_EQ(AddFilter(control(), again), EINVAL);

    EXPECT_TRUE(log().Contains(
        LogPattern::Error(std::string(kAddFunction) +
                          "Found a duplicate trak0 node going to the same HDD device /dev/vda")));
    EXPECT_EQ(ListNodes(control(), TRAK_DEV_FILTER).minors, std::vector<std::int32_t>{0});
}

TEST_F(AddFilterTest, MountedHddIsBusy) {
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", kSpareDisk}));
    ASSERT_EQ(Mount(kSpareDisk, kSpareMount, "ext4"), 0);

    ExpectRefused(kSpareDisk, kExtent, EBUSY, "Can't attach to mounted HDD device /dev/vdb");
}

TEST_F(AddFilterTest, HddOpenInAnotherProcessIsBusy) {
    const OpenInAnotherProcess holder(kTrackedDisk);
    ASSERT_TRUE(holder.held());

    ExpectRefused(kTrackedDisk, kExtent, EBUSY, "Can't attach to an open HDD device /dev/vda");
}

TEST_F(AddFilterTest, MissingHddIsNotFound) {
    ExpectRefused("/dev/no-such-disk", kExtent, ENOENT,
                  "Unable to lookup /dev/no-such-disk: rc=-2");
}

TEST_F(AddFilterTest, CharacterDeviceIsNotBlockDevice) {
    ExpectRefused("/dev/null", kExtent, EINVAL, "/dev/null is not a block device.");
}

TEST_F(AddFilterTest, EmptyHddNameIsInvalid) {
    ExpectRefused("", kExtent, EINVAL, "Empty HDD name passed as input.");
}

struct BadExtent {
    std::uint32_t extent_size;
    const char* message;
};

class ExtentSizeTest : public AddFilterTest, public ::testing::WithParamInterface<BadExtent> {};

TEST_P(ExtentSizeTest, IsRefusedWithItsReason) {
    ExpectRefused(kTrackedDisk, GetParam().extent_size, EINVAL, GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    OnDiskWith512ByteBlocks, ExtentSizeTest,
    ::testing::Values(BadExtent{2048, "Extent size can't be smaller than page size (4096B)"},
                      BadExtent{12288, "Extent size must be a power of 2"},
                      BadExtent{0, "Extent size must be a power of 2"}));

// A loop device over an empty file has no sectors: counting its extents
// from its size less one would make bitmaps of 2^32 extents.
TEST_F(AddFilterTest, EmptyHddIsRefused) {
    const std::string loop = AttachLoop(0, 512);
    ASSERT_FALSE(loop.empty());

    ExpectRefused(loop, kExtent, EINVAL, "HDD device " + loop + " is empty.");
}

// Zone resets and appends would change a zoned device around the change
// bitmaps and copy-on-write: such a device is never filtered.
TEST_F(AddFilterTest, ZonedHddIsRefused) {
    ASSERT_TRUE(
        Succeeds({"modprobe", "null_blk", "nr_devices=1", "zoned=1", "gb=1", "zone_size=64"}));

    ExpectRefused(kZonedDisk, kExtent, EINVAL,
                  std::string("Can't attach to zoned HDD device ") + kZonedDisk);

    // A filter added by mistake would hold the device until the driver goes.
    EXPECT_EQ(UnloadDriver(), 0);
    EXPECT_TRUE(Succeeds({"modprobe", "-r", "null_blk"}));
    ASSERT_NO_FATAL_FAILURE(LoadDriverAgain());
}

TEST_F(AddFilterTest, ExtentSizeMustBeMultipleOfBlockSize) {
    const std::string loop = AttachLoop(1 << 20, 4096);
    ASSERT_FALSE(loop.empty());

    ExpectRefused(loop, 2048, EINVAL, "Extent size must be a multiple of block size (4096B)");

    trak_add_filter_args record = FilterRecord(loop, 4096, bmp_dir());
    EXPECT_EQ(AddFilter(control(), record), 0) << "extent size 4096 over 4096-byte blocks";
}

struct DirectoryName {
    const char* given;
    const char* kept;
};

class BitmapDirectoryTest : public AddFilterTest,
                            public ::testing::WithParamInterface<DirectoryName> {};

TEST_P(BitmapDirectoryTest, NamesFilesInIt) {
    trak_add_filter_args record = FilterRecord(kTrackedDisk, kExtent, GetParam().given);
    ASSERT_EQ(AddFilter(control(), record), 0);

    const NodeInfo node = GetInfo(control(), 0);
    ASSERT_EQ(node.error, 0);
    EXPECT_EQ(std::string(node.info.incr_bmp_fname), std::string(GetParam().kept) + "/trak0.incr");
    EXPECT_EQ(std::string(node.info.diff_bmp_fname), std::string(GetParam().kept) + "/trak0.diff");
    EXPECT_EQ(ReadText("/proc/trak/trak0/bmp_dir").text, std::string(GetParam().kept) + "\n");
    // Deleted while stopped: nothing is saved into the directory.
    EXPECT_EQ(DeleteNode(control(), 0), 0);
}

INSTANTIATE_TEST_SUITE_P(TrailingSlashes, BitmapDirectoryTest,
                         ::testing::Values(DirectoryName{"/x///", "/x"}, DirectoryName{"/", "/"}));

TEST_F(AddFilterTest, FilterClaimsHddExclusively) {
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", kSpareDisk}));
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kSpareDisk, kExtent, 0, false));

    EXPECT_EQ(Mount(kSpareDisk, kSpareMount, "ext4"), EBUSY);
    const int exclusive = open(kSpareDisk, O_RDONLY | O_EXCL | O_CLOEXEC);
    EXPECT_EQ(exclusive < 0 ? errno : 0, EBUSY);
    if (exclusive >= 0) {
        close(exclusive);
    }
    std::array<char, 512> sector{};
    const int plain = open(kSpareDisk, O_RDONLY | O_CLOEXEC);
    ASSERT_GE(plain, 0) << "errno " << errno;
    EXPECT_EQ(pread(plain, sector.data(), sector.size(), 0), 512);
    close(plain);

    ASSERT_EQ(DeleteNode(control(), 0), 0);
    EXPECT_EQ(Mount(kSpareDisk, kSpareMount, "ext4"), 0) << "the HDD is free again";
}

}  // namespace
}  // namespace trak::vmtest
