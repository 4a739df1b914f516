// COW files on a file system whose device is stacked on the snapped filter
// node (device-mapper over the node, a loop device over the node or over a
// file on it) would send kcowd's own writes back into the filter it
// serves, and every writer would wait forever: such an add is refused like
// a file on the node itself. Each add is tried from a child with a time
// limit, with what an agent does after an accepted add (start the snap,
// write to the origin), so that an accepted add shows as a hang. COW files
// on a stack over another disk are still accepted.
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/command.h"
#include "support/node_commands.h"
#include "support/snap_commands.h"
#include "support/snap_test.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
constexpr std::int32_t kSnap = 1;
constexpr std::uint64_t kStoreBytes = 64 << 20;
constexpr std::chrono::seconds kAddTimeout{120};
// Where the file system on the node is mounted, and the one stacked on it.
constexpr const char* kOriginMount = "/mnt/trak-origin";
constexpr const char* kStackedMount = "/mnt/trak-stacked";
constexpr const char* kMappedName = "trak-stacked";
constexpr const char* kAddFunction = "trak_ioctl_add_snap_node(): ";

class StackedCowTest : public SnapTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SnapTest::SetUp());
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    }

    // The stack goes before the node it stands on.
    void TearDown() override {
        if (stacked_mounted_) {
            EXPECT_EQ(umount(kStackedMount), 0) << "errno " << errno;
        }
        if (!stacked_loop_.empty()) {
            EXPECT_TRUE(Succeeds({"losetup", "-d", stacked_loop_}));
        }
        if (mapped_) {
            EXPECT_TRUE(Succeeds({"dmsetup", "remove", kMappedName}));
        }
        SnapTest::TearDown();
    }

    // A linear device-mapper device over all of `device`.
    std::string MapLinearlyOver(const std::string& device) {
        const CommandResult size = RunCommand({"blockdev", "--getsz", device});
        if (size.status != 0) {
            ADD_FAILURE() << "blockdev --getsz " << device << ": " << size.output;
            return {};
        }
        const std::string table =
            "0 " + std::to_string(std::stoull(size.output)) + " linear " + device + " 0";
        if (!Succeeds({"modprobe", "dm_mod"}) ||
            !Succeeds({"dmsetup", "create", kMappedName, "--table", table})) {
            ADD_FAILURE() << "dmsetup create with " << table;
            return {};
        }
        mapped_ = true;
        // Without udev, only /dev/dm-N appears by itself.
        if (!Succeeds({"dmsetup", "mknodes", kMappedName})) {
            ADD_FAILURE() << "dmsetup mknodes";
            return {};
        }
        return std::string("/dev/mapper/") + kMappedName;
    }

    // A loop device over `backing` (a file or a device).
    std::string LoopOver(const std::string& backing) {
        EXPECT_TRUE(Succeeds({"modprobe", "loop"}));
        CommandResult attached = RunCommand({"losetup", "-f", "--show", backing});
        std::istringstream lines(attached.output);
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("/dev/loop")) {
                stacked_loop_ = line;
                return line;
            }
        }
        ADD_FAILURE() << "losetup over " << backing << ": " << attached.output;
        return {};
    }

    // An ext4 on the node, mounted; `kStoreBytes` of it as a file.
    std::string FileOnTheNode() {
        if (!Succeeds({"mkfs.ext4", "-q", "-F", "-E", "nodiscard", NodeDevice(0)}) ||
            MountNode(NodeDevice(0), kOriginMount, "ext4", 0, "") != 0) {
            ADD_FAILURE() << "ext4 on " << NodeDevice(0);
            return {};
        }
        std::string file = std::string(kOriginMount) + "/store.img";
        std::ofstream(file).close();
        std::filesystem::resize_file(file, kStoreBytes);
        return file;
    }

    // A new ext4 on `device` mounted on kStackedMount, for COW files.
    void MountStore(const std::string& device) {
        ASSERT_FALSE(device.empty());
        ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", "-E", "nodiscard", device}));
        std::filesystem::create_directories(kStackedMount);
        ASSERT_EQ(mount(device.c_str(), kStackedMount, "ext4", 0, nullptr), 0) << "errno " << errno;
        stacked_mounted_ = true;
    }

    // Adds a snap with its COW files in kStackedMount, starts it if it was
    // added, and writes and syncs a file on the stacked file system, all in
    // a child that must finish; returns the add's result (-1 if the child
    // did not finish).
    int AddSnapThenWrite() {
        const std::string result_file = "/tmp/trak-stacked-add-result";
        std::filesystem::remove(result_file);
        const ::testing::AssertionResult finished = FinishesInChild(
            [this, &result_file] {
                trak_add_snap_args record =
                    SnapRecord(0, kChunk, CowBitmapPath(kSnap, kStackedMount),
                               CowDataPath(kSnap, kStackedMount), kSnap);
                const int added = AddSnap(control(), record);
                std::ofstream(result_file) << added;
                if (added == 0 && StartNode(control(), kSnap) != 0) {
                    return std::string("the added snap did not start");
                }
                return WriteAndSync(std::string(kStackedMount) + "/written");
            },
            kAddTimeout);
        EXPECT_TRUE(finished) << "adding the snap and writing to the origin";
        int added = -1;
        std::ifstream(result_file) >> added;
        return added;
    }

    void ExpectRefused() {
        const std::string message = "File " + CowBitmapPath(kSnap, kStackedMount) +
                                    " can't be on the partition being snapped!";
        EXPECT_EQ(AddSnapThenWrite(), EINVAL);
        EXPECT_TRUE(log().Contains(LogPattern::Error(kAddFunction + message)));
        EXPECT_TRUE(ListNodes(control(), TRAK_DEV_SNAP).minors.empty());
    }

  private:
    static std::string WriteAndSync(const std::string& path) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0) {
            return "open " + path + ": " + std::strerror(errno);
        }
        const std::vector<char> bytes(1 << 20, 'w');
        const bool written =
            write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
            fsync(fd) == 0;
        const int error = errno;
        close(fd);
        return written ? std::string() : "writing " + path + ": " + std::strerror(error);
    }

    bool mapped_ = false;
    bool stacked_mounted_ = false;
    std::string stacked_loop_;
};

TEST_F(StackedCowTest, DeviceMapperOverTheNodeIsRefused) {
    ASSERT_NO_FATAL_FAILURE(MountStore(MapLinearlyOver(NodeDevice(0))));
    log().Mark();

    ExpectRefused();
}

TEST_F(StackedCowTest, LoopOverTheNodeIsRefused) {
    ASSERT_NO_FATAL_FAILURE(MountStore(LoopOver(NodeDevice(0))));
    log().Mark();

    ExpectRefused();
}

TEST_F(StackedCowTest, LoopOverAFileOnTheNodeIsRefused) {
    const std::string file = FileOnTheNode();
    ASSERT_FALSE(file.empty());
    ASSERT_NO_FATAL_FAILURE(MountStore(LoopOver(file)));
    log().Mark();

    ExpectRefused();
}

TEST_F(StackedCowTest, StackOverAnotherDiskIsAccepted) {
    const std::string other = AttachLoop(kStoreBytes, 512);
    ASSERT_FALSE(other.empty());
    ASSERT_NO_FATAL_FAILURE(MountStore(MapLinearlyOver(other)));

    EXPECT_EQ(AddSnapThenWrite(), 0);

    EXPECT_EQ(ListNodes(control(), TRAK_DEV_SNAP).minors, std::vector<std::int32_t>{kSnap});
    // Its open COW files would keep the stack busy when the test ends.
    EXPECT_EQ(StopNode(control(), kSnap), 0);
    EXPECT_EQ(DeleteNode(control(), kSnap), 0);
}

}  // namespace
}  // namespace trak::vmtest
