#include "support/filter_test.h"

#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <string>

#include "support/command.h"
#include "support/kernel_module.h"
#include "support/node_commands.h"
#include "support/proc_files.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr const char* kBitmapDir = "/tmp/trak-bitmaps";
constexpr const char* kLoopImageDir = "/tmp/trak-loops";

}  // namespace

void FilterTest::SetUp() {
    ModuleTest::SetUp();
    std::filesystem::remove_all(kBitmapDir);
    std::filesystem::create_directories(kBitmapDir);
    bmp_dir_ = kBitmapDir;
    ASSERT_NO_FATAL_FAILURE(LoadDriverAgain());
}

int FilterTest::UnloadDriver() {
    control_.Close();
    return UnloadModule(kDriverModule);
}

void FilterTest::LoadDriverAgain() {
    ASSERT_EQ(LoadDriver(DriverParams()), 0);
    ASSERT_EQ(control_.Open(), 0);
    blk_major_ = std::stoi(ReadText("/proc/trak/blk_major").text);
    log().Mark();
}

void FilterTest::TearDown() {
    for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) {
        EXPECT_EQ(umount(it->c_str()), 0) << "unmounting " << *it << ": errno " << errno;
    }
    mounts_.clear();
    control_.Close();
    ModuleTest::TearDown();
    for (const std::string& loop : loops_) {
        EXPECT_TRUE(Succeeds({"losetup", "-d", loop}));
    }
    loops_.clear();
    std::filesystem::remove_all(kLoopImageDir);
}

std::string FilterTest::BitmapPath(std::int32_t minor, BitmapKind kind) const {
    return bmp_dir_ + "/trak" + std::to_string(minor) +
           (kind == BitmapKind::kIncremental ? ".incr" : ".diff");
}

std::string FilterTest::NodeName(std::int32_t minor) const {
    return "trak(" + std::to_string(blk_major_) + ", " + std::to_string(minor) + ")";
}

void FilterTest::AddFilterNode(const std::string& hdd, std::uint32_t extent_size,
                               std::int32_t minor, bool started) {
    trak_add_filter_args record = FilterRecord(hdd, extent_size, bmp_dir_, minor);
    ASSERT_EQ(AddFilter(control_, record), 0) << "adding a filter over " << hdd;
    ASSERT_EQ(record.minor, minor);
    if (started) {
        ASSERT_EQ(StartNode(control_, minor), 0);
    }
}

void FilterTest::ClearBothBitmaps(std::int32_t minor) {
    for (const BitmapKind kind : kBothKinds) {
        ASSERT_EQ(ClearBitmap(control_, static_cast<std::uint32_t>(minor), kind), 0)
            << KindName(kind);
    }
}

void FilterTest::KeepBitmapsOnSpareDisk(const std::string& dir) {
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", kSpareDisk}));
    ASSERT_EQ(Mount(kSpareDisk, dir, "ext4"), 0);
    set_bmp_dir(dir);
}

int FilterTest::Mount(const std::string& device, const std::string& dir,
                      const std::string& fs_type) {
    std::filesystem::create_directories(dir);
    if (mount(device.c_str(), dir.c_str(), fs_type.c_str(), 0, nullptr) != 0) {
        return errno;
    }
    mounts_.push_back(dir);
    return 0;
}

int FilterTest::Unmount(const std::string& dir) {
    if (umount(dir.c_str()) != 0) {
        return errno;
    }
    mounts_.erase(std::remove(mounts_.begin(), mounts_.end(), dir), mounts_.end());
    return 0;
}

std::string FilterTest::AttachLoop(std::uint64_t bytes, std::uint32_t sector_size) {
    std::filesystem::create_directories(kLoopImageDir);
    const std::string image = std::string(kLoopImageDir) + "/image" + std::to_string(loops_.size());
    std::filesystem::remove(image);
    {
        const CommandResult made = RunCommand({"truncate", "-s", std::to_string(bytes), image});
        EXPECT_EQ(made.status, 0) << made.output;
    }
    EXPECT_TRUE(Succeeds({"modprobe", "loop"}));
    CommandResult attached = RunCommand(
        {"losetup", "--sector-size", std::to_string(sector_size), "-f", "--show", image});
    if (attached.status != 0) {
        ADD_FAILURE() << "losetup: " << attached.output;
        return {};
    }
    // The output holds losetup's warnings too (such as for an empty file).
    std::istringstream lines(attached.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("/dev/loop")) {
            loops_.push_back(line);
            return line;
        }
    }
    ADD_FAILURE() << "losetup named no device: " << attached.output;
    return {};
}

}  // namespace trak::vmtest
