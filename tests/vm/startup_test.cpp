// Module start-up and shut-down: what a load publishes, logs and registers,
// and what an unload or a failed load leaves behind.
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>

#include <charconv>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "support/control_device.h"
#include "support/kernel_module.h"
#include "support/module_test.h"
#include "support/proc_devices.h"
#include "support/proc_files.h"
#include "trak_ioctl.h"

namespace trak::vmtest {
namespace {

constexpr const char* kProcDir = "/proc/trak";

std::string Proc(const std::string& entry) {
    return ReadText(std::string(kProcDir) + "/" + entry).text;
}

std::string Parameter(const std::string& name) {
    return ReadText("/sys/module/trak/parameters/" + name).text;
}

// The /proc value of a major, parsed; -1 when it is not "<number>\n".
int ProcMajor(const std::string& entry) {
    const std::string text = Proc(entry);
    int major = -1;
    const char* last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, major);
    return error == std::errc() && end + 1 == last && *end == '\n' ? major : -1;
}

std::set<std::string> ProcEntries() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kProcDir)) {
        names.insert(entry.path().filename());
    }
    return names;
}

::testing::AssertionResult IsControlDevice(int expected_major) {
    struct stat st {};
    if (stat(kControlDevicePath, &st) != 0) {
        return ::testing::AssertionFailure() << kControlDevicePath << " is missing";
    }
    if (!S_ISCHR(st.st_mode) || static_cast<int>(major(st.st_rdev)) != expected_major ||
        minor(st.st_rdev) != 0) {
        return ::testing::AssertionFailure()
               << kControlDevicePath << " is " << (S_ISCHR(st.st_mode) ? "char " : "non-char ")
               << major(st.st_rdev) << ":" << minor(st.st_rdev) << ", not char " << expected_major
               << ":0";
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult DriverIsGone() {
    if (std::filesystem::exists(kProcDir)) {
        return ::testing::AssertionFailure() << kProcDir << " is still there";
    }
    if (std::filesystem::exists(kControlDevicePath)) {
        return ::testing::AssertionFailure() << kControlDevicePath << " is still there";
    }
    if (!MajorsNamed(DeviceKind::kCharacter, "trak").empty() ||
        !MajorsNamed(DeviceKind::kBlock, "trak").empty()) {
        return ::testing::AssertionFailure() << "/proc/devices still lists trak";
    }
    return ::testing::AssertionSuccess();
}

class StartupTest : public ModuleTest {};

TEST_F(StartupTest, DefaultLoadPublishesSettingsUnderProc) {
    ASSERT_EQ(LoadDriver(), 0);

    EXPECT_EQ(Proc("chr_major"), "100\n");
    EXPECT_EQ(Proc("blk_major"), "100\n");
    EXPECT_EQ(Proc("debug"), "1\n");
    EXPECT_EQ(ProcEntries(), (std::set<std::string>{"blk_major", "chr_major", "debug"}));
}

TEST_F(StartupTest, DefaultLoadShowsParameterDefaults) {
    ASSERT_EQ(LoadDriver(), 0);

    EXPECT_EQ(Parameter("trak_chr_major"), "100\n");
    EXPECT_EQ(Parameter("trak_blk_major"), "100\n");
    EXPECT_EQ(Parameter("trak_max_blk_minor"), "255\n");
    EXPECT_EQ(Parameter("trak_debug"), "1\n");
}

TEST_F(StartupTest, DefaultLoadLogsStartupStepsInOrder) {
    utsname uts{};
    ASSERT_EQ(uname(&uts), 0);

    ASSERT_EQ(LoadDriver(), 0);

    EXPECT_TRUE(log().ContainsInOrder({
        LogPattern::Info("trak_init(): Initializing the driver."),
        LogPattern::InfoMatching(R"(trak_init\(\): Built: )"
                                 R"((Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) )"
                                 R"(( [1-9]|[12][0-9]|3[01]) [0-9]{4} )"
                                 R"(([01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9])"),
        LogPattern::Info(std::string("trak_init(): UTS_RELEASE: ") + uts.release),
        LogPattern::Info("trak_create_proc(): Creating /proc/trak filesystem"),
        LogPattern::Info("trak_char_init(): trak_chr_major=100"),
        LogPattern::Info("trak_block_init(): Initializing block device"),
        LogPattern::Info("trak_block_init(): trak_blk_major=100"),
        LogPattern::Info("trak_init(): rc=0"),
    }));
    // Level 2, above the default verbosity.
    EXPECT_TRUE(log().Absent(LogPattern::Matching("trak_char_init\\(\\): Initializing")));
    EXPECT_TRUE(log().Absent(LogPattern::Matching("^ERROR: ")));
}

TEST_F(StartupTest, DefaultLoadRegistersCharacterAndBlockMajor) {
    ASSERT_EQ(LoadDriver(), 0);

    EXPECT_EQ(MajorsNamed(DeviceKind::kCharacter, "trak"), std::vector<int>{100});
    EXPECT_EQ(MajorsNamed(DeviceKind::kBlock, "trak"), std::vector<int>{100});
    EXPECT_TRUE(IsControlDevice(100));
}

TEST_F(StartupTest, ZeroMajorsAreGrantedByTheKernelAndPublished) {
    ASSERT_EQ(LoadDriver("trak_chr_major=0 trak_blk_major=0"), 0);

    const int chr_major = ProcMajor("chr_major");
    const int blk_major = ProcMajor("blk_major");
    ASSERT_GT(chr_major, 0) << "chr_major reads \"" << Proc("chr_major") << "\"";
    ASSERT_GT(blk_major, 0) << "blk_major reads \"" << Proc("blk_major") << "\"";
    EXPECT_EQ(MajorsNamed(DeviceKind::kCharacter, "trak"), std::vector<int>{chr_major});
    EXPECT_EQ(MajorsNamed(DeviceKind::kBlock, "trak"), std::vector<int>{blk_major});
    EXPECT_TRUE(IsControlDevice(chr_major));
    EXPECT_EQ(Parameter("trak_chr_major"), std::to_string(chr_major) + "\n");
    EXPECT_EQ(Parameter("trak_blk_major"), std::to_string(blk_major) + "\n");
    EXPECT_TRUE(log().ContainsInOrder({
        LogPattern::Info("trak_char_init(): trak_chr_major=" + std::to_string(chr_major)),
        LogPattern::Info("trak_block_init(): trak_blk_major=" + std::to_string(blk_major)),
        LogPattern::Info("trak_init(): rc=0"),
    }));
}

TEST_F(StartupTest, RefusedBlockMajorFailsLoadAndUndoesIt) {
    // Block majors end below 512: the kernel refuses 4096.
    EXPECT_EQ(LoadDriver("trak_blk_major=4096"), EINVAL);

    EXPECT_TRUE(log().ContainsInOrder({
        LogPattern::Info("trak_char_init(): trak_chr_major=100"),
        LogPattern::Info("trak_block_init(): Initializing block device"),
        LogPattern::Error("trak_block_init(): Failed to register block device: rc=-22."),
        LogPattern::Info("trak_init(): rc=-22"),
    }));
    EXPECT_FALSE(ModuleLoaded(kDriverModule));
    EXPECT_TRUE(DriverIsGone());
}

TEST_F(StartupTest, UnloadLogsAndRemovesEverything) {
    ASSERT_EQ(LoadDriver(), 0);
    log().Mark();

    ASSERT_EQ(UnloadModule(kDriverModule), 0);

    EXPECT_TRUE(log().Contains(LogPattern::Info("trak_cleanup(): The driver is being unloaded.")));
    EXPECT_TRUE(log().Absent(LogPattern::Matching("^ERROR: ")));
    EXPECT_TRUE(DriverIsGone());
}

TEST_F(StartupTest, UnloadTakesDownControlDeviceBeforeProcTree) {
    ASSERT_EQ(LoadDriver("trak_debug=4"), 0);
    log().Mark();

    ASSERT_EQ(UnloadModule(kDriverModule), 0);

    EXPECT_TRUE(log().ContainsInOrder({
        LogPattern::Info("trak_cleanup(): The driver is being unloaded."),
        LogPattern::Info("trak_char_destroy(): Unregistering character device driver"),
        LogPattern::Info("trak_remove_proc(): Removing /proc/trak tree."),
    }));
}

TEST_F(StartupTest, SingleSlotRegistryRefusesMinorOne) {
    ASSERT_EQ(LoadDriver("trak_max_blk_minor=0"), 0);
    EXPECT_EQ(Parameter("trak_max_blk_minor"), "0\n");
    ControlDevice control;
    ASSERT_EQ(control.Open(), 0);
    log().Mark();

    trak_info_args info{};
    info.minor = 1;
    EXPECT_EQ(control.Ioctl(TRAK_GET_INFO, &info), EINVAL);

    EXPECT_TRUE(log().Contains(LogPattern::Error("trak_char_ioctl(): Invalid TRAK minor=1")));
}

}  // namespace
}  // namespace trak::vmtest
