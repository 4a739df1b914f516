// The log verbosity: the trak_debug parameter, /proc/trak/debug, and which
// lines each level lets through.
#include <string>

#include "support/control_device.h"
#include "support/module_test.h"
#include "support/proc_files.h"
#include "trak_ioctl.h"

namespace trak::vmtest {
namespace {

constexpr const char* kDebugEntry = "/proc/trak/debug";

const LogPattern kListCommandLine =
    LogPattern::Info("trak_char_ioctl(): cmd=0xc4084306 (TRAK_GET_DEVICE_LIST)");

class DebugLevelTest : public ModuleTest {
  protected:
    // Lists the filter nodes through a freshly opened control device.
    static int ListFilters() {
        ControlDevice control;
        if (const int error = control.Open(); error != 0) {
            return error;
        }
        trak_device_list_args list{};
        list.dev_type = TRAK_DEV_FILTER;
        return control.Ioctl(TRAK_GET_DEVICE_LIST, &list);
    }

    static std::string DebugLevel() { return ReadText(kDebugEntry).text; }
};

TEST_F(DebugLevelTest, WritingLevelSetsIt) {
    ASSERT_EQ(LoadDriver(), 0);

    EXPECT_EQ(WriteText(kDebugEntry, "3\n"), 0);

    EXPECT_EQ(DebugLevel(), "3\n");
    EXPECT_EQ(ReadText("/sys/module/trak/parameters/trak_debug").text, "3\n");
    EXPECT_TRUE(log().Contains(LogPattern::Info("trak_write_proc(): trak_debug=3")));
}

TEST_F(DebugLevelTest, LevelFollowedByLetterIsRejected) {
    ASSERT_EQ(LoadDriver(), 0);

    EXPECT_EQ(WriteText(kDebugEntry, "3x"), EINVAL);

    EXPECT_EQ(DebugLevel(), "1\n");
}

TEST_F(DebugLevelTest, WritesUpTo1024BytesAreAccepted) {
    ASSERT_EQ(LoadDriver(), 0);

    EXPECT_EQ(WriteText(kDebugEntry, "2" + std::string(1024, ' ')), EINVAL);
    EXPECT_EQ(DebugLevel(), "1\n");

    EXPECT_EQ(WriteText(kDebugEntry, "2" + std::string(1023, ' ')), 0);
    EXPECT_EQ(DebugLevel(), "2\n");
}

TEST_F(DebugLevelTest, CommandTraceNeedsLevelTwo) {
    ASSERT_EQ(LoadDriver(), 0);

    ASSERT_EQ(ListFilters(), 0);
    EXPECT_TRUE(log().Absent(kListCommandLine));

    ASSERT_EQ(WriteText(kDebugEntry, "2\n"), 0);
    log().Mark();
    ASSERT_EQ(ListFilters(), 0);
    EXPECT_TRUE(log().ContainsInOrder({
        kListCommandLine,
        LogPattern::Info("trak_ioctl_get_device_list(): Returning the list of FILTER devices."),
    }));
}

TEST_F(DebugLevelTest, UnknownCommandIsTracedAsUnknown) {
    ASSERT_EQ(LoadDriver("trak_debug=2"), 0);
    ControlDevice control;
    ASSERT_EQ(control.Open(), 0);
    trak_minor_args record{};

    EXPECT_EQ(control.Ioctl(0x40044406, &record), ENOTTY);

    EXPECT_TRUE(log().Contains(LogPattern::Info("trak_char_ioctl(): cmd=0x40044406 (UNKNOWN)")));
}

TEST_F(DebugLevelTest, LoadAtLevelTwoLogsCharacterDeviceSetUp) {
    ASSERT_EQ(LoadDriver("trak_debug=2"), 0);

    EXPECT_EQ(DebugLevel(), "2\n");
    EXPECT_TRUE(log().ContainsInOrder({
        LogPattern::Info("trak_create_proc(): Creating /proc/trak filesystem"),
        LogPattern::Info("trak_char_init(): Initializing character device"),
        LogPattern::Info("trak_char_init(): trak_chr_major=100"),
    }));
}

TEST_F(DebugLevelTest, ReadingAnEntryIsTracedAtLevelTwo) {
    ASSERT_EQ(LoadDriver("trak_debug=2"), 0);

    EXPECT_EQ(ReadText("/proc/trak/chr_major").text, "100\n");

    EXPECT_TRUE(log().Contains(LogPattern::Info("trak_read_proc(): chr_major=100")));
}

TEST_F(DebugLevelTest, LevelZeroKeepsOnlyErrors) {
    ASSERT_EQ(LoadDriver("trak_debug=0"), 0);
    ControlDevice control;
    ASSERT_EQ(control.Open(), 0);
    trak_device_list_args list{};
    list.dev_type = 3;

    EXPECT_EQ(control.Ioctl(TRAK_GET_DEVICE_LIST, &list), EINVAL);

    EXPECT_TRUE(log().Absent(LogPattern::Matching(R"(^([0-9]{4,}| int): [a-z_]+\(\): )")));
    EXPECT_TRUE(log().Contains(LogPattern::Error(
        "trak_ioctl_get_device_list(): Invalid device type 0x03 passed as input.")));
}

}  // namespace
}  // namespace trak::vmtest
