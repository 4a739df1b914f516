#include "support/snap_test.h"

#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

#include "support/command.h"
#include "support/kernel_module.h"
#include "support/module_test.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/snap_commands.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

std::string EscapeRegex(std::string_view text) {
    static const std::regex kSpecial(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(std::string(text), kSpecial, R"(\$&)");
}

}  // namespace

void SnapTest::SetUp() {
    ASSERT_NO_FATAL_FAILURE(FilterTest::SetUp());
    ASSERT_TRUE(Succeeds({"mkfs.ext4", "-q", "-F", "-E", "nodiscard", kSpareDisk}));
    ASSERT_EQ(Mount(kSpareDisk, kCowDir, "ext4"), 0);
    log().Mark();
}

void SnapTest::TearDown() {
    // Nodes are unmounted and the driver unloaded (which closes the COW
    // files) before the COW file systems and loop devices go.
    for (auto it = node_mounts_.rbegin(); it != node_mounts_.rend(); ++it) {
        EXPECT_EQ(umount(it->c_str()), 0) << "unmounting " << *it << ": errno " << errno;
    }
    node_mounts_.clear();
    if (ModuleLoaded(kDriverModule)) {
        EXPECT_EQ(UnloadDriver(), 0) << "unloading the driver";
    }
    for (const std::string& name : mapped_) {
        EXPECT_TRUE(Succeeds({"dmsetup", "remove", name}));
    }
    mapped_.clear();
    FilterTest::TearDown();
}

std::string SnapTest::CowBitmapPath(std::int32_t minor, const std::string& dir) {
    return dir + "/trak" + std::to_string(minor) + ".cowbmp";
}

std::string SnapTest::CowDataPath(std::int32_t minor, const std::string& dir) {
    return dir + "/trak" + std::to_string(minor) + ".cowdata";
}

void SnapTest::AddSnapNode(std::int32_t filter_minor, std::uint32_t chunk_size, std::int32_t minor,
                           const std::string& cow_dir) {
    trak_add_snap_args record =
        SnapRecord(static_cast<std::uint32_t>(filter_minor), chunk_size,
                   CowBitmapPath(minor, cow_dir), CowDataPath(minor, cow_dir), minor);
    const int error = AddSnap(control(), record);
    ASSERT_EQ(error, 0) << "adding snap " << minor << " to filter " << filter_minor << ": "
                        << std::strerror(error);
    ASSERT_EQ(record.snap_minor, minor);
}

void SnapTest::TakeSnap(std::int32_t filter_minor, std::uint32_t chunk_size, std::int32_t minor,
                        const std::string& cow_dir) {
    ASSERT_NO_FATAL_FAILURE(AddSnapNode(filter_minor, chunk_size, minor, cow_dir));
    const int error = StartNode(control(), minor);
    ASSERT_EQ(error, 0) << "starting snap " << minor << ": " << std::strerror(error);
}

std::string SnapTest::AttachLoopHolding(std::span<const std::uint8_t> image) {
    std::string loop = AttachLoop(image.size(), 512);
    if (loop.empty()) {
        return loop;
    }
    const DirectWriter writer(loop);
    if (const int error = writer.Write(0, image); error != 0) {
        ADD_FAILURE() << "filling " << loop << ": errno " << error;
        return {};
    }
    return loop;
}

int SnapTest::MountNode(const std::string& device, const std::string& dir,
                        const std::string& fs_type, unsigned long flags,
                        const std::string& options) {
    std::filesystem::create_directories(dir);
    if (mount(device.c_str(), dir.c_str(), fs_type.c_str(), flags,
              options.empty() ? nullptr : options.c_str()) != 0) {
        return errno;
    }
    node_mounts_.push_back(dir);
    return 0;
}

int SnapTest::UnmountNode(const std::string& dir) {
    if (umount(dir.c_str()) != 0) {
        return errno;
    }
    node_mounts_.erase(std::remove(node_mounts_.begin(), node_mounts_.end(), dir),
                       node_mounts_.end());
    return 0;
}

void SnapTest::MountSmallFileSystem(std::uint64_t bytes, std::vector<std::string> mkfs,
                                    const std::string& fs_type, const std::string& dir) {
    const std::string loop = AttachLoop(bytes, 512);
    ASSERT_FALSE(loop.empty());
    mkfs.push_back(loop);
    ASSERT_TRUE(Succeeds(mkfs));
    ASSERT_EQ(Mount(loop, dir, fs_type), 0) << "mounting " << loop << " on " << dir;
}

namespace {

// dmsetup reads a table of several lines from a file.
std::string TableFile(const std::string& name, const std::string& table) {
    std::string table_file = "/tmp/" + name + ".table";
    std::ofstream out(table_file);
    out << table;
    return table_file;
}

}  // namespace

std::string SnapTest::CreateMappedDevice(const std::string& name, const std::string& table) {
    const std::string table_file = TableFile(name, table);
    if (!Succeeds({"modprobe", "dm_mod"}) || !Succeeds({"dmsetup", "create", name, table_file})) {
        ADD_FAILURE() << "dmsetup create " << name << " with the table:\n" << table;
        return {};
    }
    mapped_.push_back(name);
    // Without udev, only /dev/dm-N appears by itself.
    if (!Succeeds({"dmsetup", "mknodes", name})) {
        ADD_FAILURE() << "dmsetup mknodes " << name;
        return {};
    }
    return "/dev/mapper/" + name;
}

bool SnapTest::ReplaceMappedTable(const std::string& name, const std::string& table) {
    return Succeeds({"dmsetup", "suspend", name}) &&
           Succeeds({"dmsetup", "load", name, TableFile(name, table)}) &&
           Succeeds({"dmsetup", "resume", name});
}

LogPattern SnapTest::ThreadLine(std::string_view text) {
    return LogPattern::Matching("^[0-9]{4,}: " + EscapeRegex(text) + "$");
}

}  // namespace trak::vmtest
