// No change is ever missed: a file system made and used through a started
// filter node, and every extent whose bytes differ between a raw copy of
// the HDD before a mixed workload and one after it has its bit set in both
// bitmaps.
#include <sstream>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/fs_workload.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr const char* kMountPoint = "/mnt/trak-fs";

struct Tracked {
    const char* fs_type;
    std::uint32_t extent_size;
};

std::vector<std::string> MkfsCommand(const std::string& fs_type, const std::string& device) {
    if (fs_type == "xfs") {
        return {"mkfs.xfs", "-q", "-f", device};
    }
    if (fs_type == "reiserfs") {
        return {"mkreiserfs", "-f", "-q", device};
    }
    return {"mkfs." + fs_type, "-q", "-F", device};
}

std::string Join(const std::vector<std::uint64_t>& extents) {
    std::ostringstream out;
    for (const std::uint64_t e : extents) {
        out << ' ' << e;
    }
    return out.str();
}

class TrackingFilesystemTest : public FilterTest, public ::testing::WithParamInterface<Tracked> {};

TEST_P(TrackingFilesystemTest, EveryChangedExtentIsMarkedInBothBitmaps) {
    const std::string fs_type = GetParam().fs_type;
    const std::uint32_t extent = GetParam().extent_size;
    const std::string node = NodeDevice(0);
    ASSERT_TRUE(Succeeds({"modprobe", fs_type}));
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, extent, 0, true));
    ASSERT_TRUE(Succeeds(MkfsCommand(fs_type, node)));
    ASSERT_EQ(SyncDevice(node), 0);
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));
    DiskCopy before;
    ASSERT_EQ(before.Take(kTrackedDisk), 0);

    ASSERT_EQ(Mount(node, kMountPoint, fs_type), 0);
    ASSERT_TRUE(RunMixedWorkload(kMountPoint, {40, 512 * 1024}, extent));
    ASSERT_EQ(Unmount(kMountPoint), 0);

    const DiskCopy::Changes changes = before.ChangedExtents(kTrackedDisk, extent);
    ASSERT_EQ(changes.error, 0);
    ASSERT_FALSE(changes.extents.empty()) << "the workload changed nothing";
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        const BitmapReply reply =
            GetBitmap(control(), 0, kind, BitmapBytes(before.size() / extent));
        ASSERT_EQ(reply.error, 0);
        std::vector<std::uint64_t> missed;
        for (const std::uint64_t e : changes.extents) {
            if (!ExtentBit(reply.bits, e)) {
                missed.push_back(e);
            }
        }
        const std::size_t marked = SetExtents(reply.bits).size();
        EXPECT_TRUE(missed.empty()) << missed.size() << " of " << changes.extents.size()
                                    << " changed extents are not marked:" << Join(missed);
        EXPECT_LT(marked, before.size() / extent) << "every extent is marked";
        RecordProperty(std::string(KindName(kind)) + "_marked", static_cast<int>(marked));
    }
    RecordProperty("changed", static_cast<int>(changes.extents.size()));
}

INSTANTIATE_TEST_SUITE_P(Filesystems, TrackingFilesystemTest,
                         ::testing::Values(Tracked{"ext4", 65536}, Tracked{"xfs", 65536},
                                           Tracked{"reiserfs", 65536}, Tracked{"ext4", 4096}),
                         [](const ::testing::TestParamInfo<Tracked>& info) {
                             return std::string(info.param.fs_type) + "_" +
                                    std::to_string(info.param.extent_size);
                         });

}  // namespace
}  // namespace trak::vmtest
