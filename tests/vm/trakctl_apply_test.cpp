// trakctl apply and save-state against the real driver: boot-time set-up
// from a configuration, idempotence, refusal of a mounted partition, and a
// snap that survives a simulated reboot with the same image.
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/device_image.h"
#include "support/image_writes.h"
#include "support/node_commands.h"
#include "support/raw_disk.h"
#include "support/snap_test.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
constexpr std::uint64_t kHddBytes = 16 << 20;
constexpr const char* kSnapUuid = "{5a9e0c4e-61f1-4b8e-9d0a-7c1e2b3d4f50}";

class TrakctlApplyTest : public SnapTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SnapTest::SetUp());
        image_ = RandomBytes(kHddBytes, 61);
        hdd_ = AttachLoopHolding(image_);
        ASSERT_FALSE(hdd_.empty());
        std::filesystem::create_directories(Path("bitmaps"));
        std::filesystem::create_directories(Path("cow"));
        WriteConfig(hdd_);
    }

    static std::string Path(const std::string& name) { return std::string(kCowDir) + "/" + name; }

    static void WriteConfig(const std::string& device) {
        std::ofstream(Path("trak.conf"))
            << "[filter data]\ndevice = " << device
            << "\nminor = 0\nextent_size = 65536\nbitmap_dir = " << Path("bitmaps")
            << "\n\n[snap nightly]\nfilter = data\nminor = 1\nchunk_size = 65536\ncow_dir = "
            << Path("cow") << "\nuuid = " << kSnapUuid << "\n";
    }

    static CommandResult Trakctl(std::vector<std::string> args) {
        args.insert(args.begin(), TRAK_TRAKCTL);
        return RunCommand(args);
    }

    static CommandResult Apply() {
        return Trakctl({"apply", "--config", Path("trak.conf"), "--state", Path("snaps.state")});
    }

    std::string hdd_;
    std::vector<std::uint8_t> image_;
};

TEST_F(TrakctlApplyTest, ApplyAddsAndStartsTheFilterAndASecondApplyChangesNothing) {
    const CommandResult first = Apply();

    ASSERT_EQ(first.status, 0) << first.output;
    EXPECT_NE(first.output.find("changes made:  2\n"), std::string::npos) << first.output;
    EXPECT_NE(first.output.find("add-filter:    data (minor 0) over " + hdd_), std::string::npos)
        << first.output;
    const NodeInfo filter = GetInfo(control(), 0);
    EXPECT_EQ(filter.info.started, 1);
    EXPECT_STREQ(filter.info.name, "data");
    EXPECT_EQ(filter.info.extent_size, 65536U);

    const CommandResult second = Apply();

    ASSERT_EQ(second.status, 0) << second.output;
    EXPECT_NE(second.output.find("changes made:  0\n"), std::string::npos) << second.output;
    EXPECT_NE(second.output.find("filter data (minor 0): already added and started"),
              std::string::npos)
        << second.output;
}

TEST_F(TrakctlApplyTest, MountedPartitionIsRefusedAndNothingChanges) {
    // The spare disk holds the mounted COW file system.
    WriteConfig(kSpareDisk);

    const CommandResult result = Apply();

    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("trakctl: apply: refused, nothing was changed; filter data: the "
                                 "partition " +
                                 std::string(kSpareDisk) + " is mounted on " + kCowDir),
              std::string::npos)
        << result.output;
    const CommandResult list = Trakctl({"list", "filter"});
    EXPECT_EQ(list.output, "filter nodes: none\n");
}

TEST_F(TrakctlApplyTest, SimulatedRebootResumesTheSnapWithTheSameImage) {
    ASSERT_EQ(Apply().status, 0);
    ASSERT_TRUE(Succeeds({TRAK_TRAKCTL, "snap", "add", "0", "--chunk-size", "65536", "--cow-dir",
                          Path("cow"), "--uuid", kSnapUuid, "--minor", "1", "--name", "nightly"}));
    ASSERT_TRUE(Succeeds({TRAK_TRAKCTL, "start", "1"}));
    const std::vector<std::uint8_t> at_snap = image_;
    {
        const DirectWriter origin(NodeDevice(0));
        ASSERT_TRUE(WriteAll(origin, MixedWrites(kHddBytes, kChunk, 25, 62), image_));
    }
    const ReadBack before = ReadWholeDevice(NodeDevice(1));
    ASSERT_EQ(before.error, 0);
    ASSERT_TRUE(SameImage(before.bytes, at_snap, kChunk));
    const CommandResult saved =
        Trakctl({"save-state", "--config", Path("trak.conf"), "--state", Path("snaps.state")});
    ASSERT_EQ(saved.status, 0) << saved.output;
    std::ifstream state(Path("snaps.state"));
    const std::string state_text((std::istreambuf_iterator<char>(state)),
                                 std::istreambuf_iterator<char>());
    EXPECT_NE(state_text.find("\nnightly 1 1 0 0\n"), std::string::npos) << state_text;

    ASSERT_EQ(UnloadDriver(), 0);
    ASSERT_NO_FATAL_FAILURE(LoadDriverAgain());
    const CommandResult resumed = Apply();

    ASSERT_EQ(resumed.status, 0) << resumed.output;
    EXPECT_NE(resumed.output.find("changes made:  3\n"), std::string::npos) << resumed.output;
    EXPECT_NE(resumed.output.find("resume-snap:   nightly (minor 1) valid 1"), std::string::npos)
        << resumed.output;
    EXPECT_EQ(GetInfo(control(), 0).info.started, 1) << "resuming the snap starts its filter";
    const ReadBack after = ReadWholeDevice(NodeDevice(1));
    ASSERT_EQ(after.error, 0);
    EXPECT_TRUE(after.bytes == before.bytes) << "the snap's image changed across the reboot";
    EXPECT_TRUE(SameImage(after.bytes, at_snap, kChunk));
    EXPECT_EQ(Apply().status, 0);
}

}  // namespace
}  // namespace trak::vmtest
