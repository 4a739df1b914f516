// The control device's ioctl dispatcher with no nodes: command checks, user
// memory, minor look-up, the registry queries, and the commands
// whose handlers are still to come.
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/control_device.h"
#include "support/module_test.h"
#include "trak_ioctl.h"

namespace trak::vmtest {
namespace {

// A command code and its name as the driver logs it.
struct NamedCommand {
    unsigned long code;
    const char* name;
};

// Large enough for every command's record.
using RecordBuffer = std::array<std::uint64_t, 1024>;

// Any record of the driver's type letter shows up as one of these words.
const LogPattern kAnyDriverLine = LogPattern::Matching("trak|ERROR");

class DispatcherTest : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        ASSERT_EQ(LoadDriver(), 0);
        ASSERT_EQ(control_.Open(), 0);
        log().Mark();
    }

    void TearDown() override {
        control_.Close();
        ModuleTest::TearDown();
    }

    [[nodiscard]] const ControlDevice& control() const { return control_; }

  private:
    ControlDevice control_;
};

TEST_F(DispatcherTest, ForeignTypeLetterIsNotTtyAndSilent) {
    trak_device_list_args list{};
    list.dev_type = TRAK_DEV_FILTER;

    EXPECT_EQ(control().Ioctl(_IOWR('D', 6, trak_device_list_args), &list), ENOTTY);

    EXPECT_TRUE(log().Absent(kAnyDriverLine));
}

TEST_F(DispatcherTest, KnownNumberWithWrongSizeIsInappropriate) {
    trak_minor_args record{};

    EXPECT_EQ(control().Ioctl(0x40044306, &record), ENOTTY);

    EXPECT_TRUE(
        log().Contains(LogPattern::Error("trak_char_ioctl(): Inappropriate ioctl cmd=1074021126")));
}

TEST_F(DispatcherTest, UnknownNumberIsInappropriateAndLoggedSigned) {
    RecordBuffer record{};

    // _IOWR('C', 0, 1032 bytes): above 2^31, so printed negative.
    EXPECT_EQ(control().Ioctl(0xC4084300, record.data()), ENOTTY);

    EXPECT_TRUE(log().Contains(
        LogPattern::Error("trak_char_ioctl(): Inappropriate ioctl cmd=-1006091520")));
}

TEST_F(DispatcherTest, UnmappedRecordIsFaultWithCopyMessage) {
    const long page = sysconf(_SC_PAGESIZE);
    void* gone = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(gone, MAP_FAILED);
    ASSERT_EQ(munmap(gone, page), 0);

    EXPECT_EQ(control().Ioctl(TRAK_GET_DEVICE_LIST, gone), EFAULT);

    EXPECT_TRUE(log().Contains(LogPattern::Error("trak_char_ioctl(): copy_from_user() failed.")));
}

TEST_F(DispatcherTest, KernelAddressIsFaultWithoutMessage) {
    EXPECT_EQ(control().IoctlAt(TRAK_GET_DEVICE_LIST, 0xffff888000000000), EFAULT);

    EXPECT_TRUE(log().Absent(kAnyDriverLine));
}

// GET_INFO of a minor the registry cannot resolve: EINVAL, the minor in the
// message, and nothing copied back into the caller's record.
class InvalidMinorTest : public DispatcherTest,
                         public ::testing::WithParamInterface<std::int32_t> {};

TEST_P(InvalidMinorTest, GetInfoIsInvalidAndLeavesRecord) {
    trak_info_args info{};
    std::memset(&info, 0x5a, sizeof(info));
    info.minor = GetParam();
    const trak_info_args before = info;

    EXPECT_EQ(control().Ioctl(TRAK_GET_INFO, &info), EINVAL);

    EXPECT_TRUE(log().Contains(
        LogPattern::Error("trak_char_ioctl(): Invalid TRAK minor=" + std::to_string(GetParam()))));
    EXPECT_EQ(std::memcmp(&info, &before, sizeof(info)), 0) << "the record was written";
}

// -1 is too big as an unsigned number; 256 is past the default highest
// minor 255; 0 is in range but has no node.
INSTANTIATE_TEST_SUITE_P(NoSuchNode, InvalidMinorTest, ::testing::Values(-1, 256, 0));

TEST_F(DispatcherTest, EveryCommandWithMinorChecksItFirst) {
    const std::vector<NamedCommand> commands = {
        {TRAK_LOAD_BMP, "TRAK_LOAD_BMP"},
        {TRAK_SAVE_BMP, "TRAK_SAVE_BMP"},
        {TRAK_CLR_BMP, "TRAK_CLR_BMP"},
        {TRAK_SET_BMP, "TRAK_SET_BMP"},
        {TRAK_MERGE_BMP, "TRAK_MERGE_BMP"},
        {TRAK_GET_BMP, "TRAK_GET_BMP"},
        {TRAK_GET_AND_CLR_BMP, "TRAK_GET_AND_CLR_BMP"},
        {TRAK_GET_DATABLOCK_BMP, "TRAK_GET_DATABLOCK_BMP"},
    };
    for (const NamedCommand& command : commands) {
        SCOPED_TRACE(command.name);
        log().Mark();
        RecordBuffer record{};
        record[0] = 7;  // the minor, in the record's first 32 bits

        EXPECT_EQ(control().Ioctl(command.code, record.data()), EINVAL);

        EXPECT_TRUE(log().Contains(LogPattern::Error("trak_char_ioctl(): Invalid TRAK minor=7")));
    }
}

TEST_F(DispatcherTest, DeviceListRejectsUnknownTypes) {
    struct Case {
        std::uint32_t dev_type;
        const char* shown;
    };
    for (const Case& c : {Case{0, "0x00"}, Case{3, "0x03"}, Case{0x100, "0x100"}}) {
        SCOPED_TRACE(c.shown);
        log().Mark();
        trak_device_list_args list{};
        std::memset(&list, 0xa5, sizeof(list));
        list.dev_type = c.dev_type;
        const trak_device_list_args before = list;

        EXPECT_EQ(control().Ioctl(TRAK_GET_DEVICE_LIST, &list), EINVAL);

        EXPECT_TRUE(log().Contains(
            LogPattern::Error(std::string("trak_ioctl_get_device_list(): Invalid device type ") +
                              c.shown + " passed as input.")));
        EXPECT_EQ(std::memcmp(&list, &before, sizeof(list)), 0) << "the record was written";
    }
}

TEST_F(DispatcherTest, DeviceListsAreEmptyWithoutNodes) {
    for (const std::uint32_t dev_type : {TRAK_DEV_FILTER, TRAK_DEV_SNAP}) {
        SCOPED_TRACE(dev_type);
        trak_device_list_args list{};
        std::memset(&list, 0xa5, sizeof(list));
        list.dev_type = dev_type;

        EXPECT_EQ(control().Ioctl(TRAK_GET_DEVICE_LIST, &list), 0);

        EXPECT_EQ(list.dev_type, dev_type);
        EXPECT_EQ(list.count, 0U);
    }
    EXPECT_TRUE(log().Absent(LogPattern::Matching("^ERROR: ")));
}

TEST_F(DispatcherTest, ReadWriteAndSeekTransferNothing) {
    std::array<char, 16> buffer{};

    EXPECT_EQ(read(control().fd(), buffer.data(), buffer.size()), 0);
    EXPECT_EQ(write(control().fd(), "data", 4), 0);
    EXPECT_EQ(lseek(control().fd(), 100, SEEK_SET), 0);
}

}  // namespace
}  // namespace trak::vmtest
