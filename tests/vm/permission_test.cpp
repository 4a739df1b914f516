// Only a process with CAP_SYS_ADMIN may command the driver: without it,
// every command of the control device fails with EPERM before its handler
// runs, even when the device file itself was opened.
#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/test_disks.h"
#include "trak_ioctl.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;

constexpr std::array kEveryCommand = {
    TRAK_ADD_FILTER_NODE, TRAK_ADD_SNAP_NODE,   TRAK_DEL_NODE,          TRAK_START_NODE,
    TRAK_STOP_NODE,       TRAK_GET_DEVICE_LIST, TRAK_GET_INFO,          TRAK_LOAD_BMP,
    TRAK_SAVE_BMP,        TRAK_CLR_BMP,         TRAK_SET_BMP,           TRAK_MERGE_BMP,
    TRAK_GET_BMP,         TRAK_GET_AND_CLR_BMP, TRAK_GET_DATABLOCK_BMP, TRAK_TEST_DATABLOCK,
    TRAK_RESUME_SNAP,
};

// Removes CAP_SYS_ADMIN from the calling thread's capability sets.
// Returns 0 or errno.
int DropSysAdmin() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
    if (syscall(SYS_capget, &header, data.data()) != 0) {
        return errno;
    }
    const std::uint32_t bit = 1U << (CAP_SYS_ADMIN % 32);
    auto& word = data.at(CAP_SYS_ADMIN / 32);
    word.effective &= ~bit;
    word.permitted &= ~bit;
    word.inheritable &= ~bit;
    return syscall(SYS_capset, &header, data.data()) == 0 ? 0 : errno;
}

// Every command with a record that the driver would accept from root:
// the tracked disk's node 0, both bitmap kinds.
struct Records {
    trak_add_filter_args add_filter{};
    trak_minor_args minor{0};
    trak_device_list_args list{};
    trak_info_args info{};
    trak_bmp_args bmp{0, TRAK_BMP_INCR};
    std::vector<std::uint8_t> bits;
    trak_bmp_data_args bmp_data{};
    trak_test_datablock_args test_datablock{};
    std::array<std::uint64_t, 512> other{};  // any record, zeroed

    void* For(unsigned long code) {
        switch (code) {
            case TRAK_ADD_FILTER_NODE:
                return &add_filter;
            case TRAK_DEL_NODE:
            case TRAK_START_NODE:
            case TRAK_STOP_NODE:
                return &minor;
            case TRAK_GET_DEVICE_LIST:
                return &list;
            case TRAK_GET_INFO:
                return &info;
            case TRAK_LOAD_BMP:
            case TRAK_SAVE_BMP:
            case TRAK_CLR_BMP:
                return &bmp;
            case TRAK_SET_BMP:
            case TRAK_MERGE_BMP:
            case TRAK_GET_BMP:
            case TRAK_GET_AND_CLR_BMP:
                return &bmp_data;
            case TRAK_TEST_DATABLOCK:
                return &test_datablock;
            default:
                return other.data();
        }
    }
};

class PermissionTest : public FilterTest {};

TEST_F(PermissionTest, EveryCommandNeedsSysAdmin) {
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, false));
    const std::uint32_t size = GetInfo(control(), 0).info.incr_bmp_size;
    Records records;
    records.add_filter = FilterRecord(kSpareDisk, kExtent, bmp_dir(), 1);
    records.list.dev_type = TRAK_DEV_FILTER;
    records.bits.assign(size, 0);
    records.bmp_data = {0, TRAK_BMP_INCR, static_cast<std::int32_t>(size), 0,
                        reinterpret_cast<std::uintptr_t>(records.bits.data())};
    std::string(kSpareDisk)
        .copy(records.test_datablock.hdd_name, sizeof(records.test_datablock.hdd_name) - 1);
    std::array<int, 2> results{};
    ASSERT_EQ(pipe(results.data()), 0);

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(results[0]);
        std::vector<int> errors = {DropSysAdmin()};
        for (const unsigned long code : kEveryCommand) {
            errors.push_back(control().Ioctl(code, records.For(code)));
        }
        const auto bytes = static_cast<ssize_t>(errors.size() * sizeof(int));
        _exit(write(results[1], errors.data(), errors.size() * sizeof(int)) == bytes ? 0 : 1);
    }
    close(results[1]);
    std::vector<int> errors(kEveryCommand.size() + 1, -1);
    // The child's few results fit in the pipe: wait for it first, so that a
    // child stuck in a command fails the test instead of blocking the read.
    ASSERT_EQ(WaitForChild(child, std::chrono::seconds(30)), 0);
    const ssize_t got = read(results[0], errors.data(), errors.size() * sizeof(int));
    close(results[0]);
    ASSERT_EQ(got, static_cast<ssize_t>(errors.size() * sizeof(int)));

    ASSERT_EQ(errors[0], 0) << "dropping CAP_SYS_ADMIN";
    for (std::size_t i = 0; i < kEveryCommand.size(); ++i) {
        EXPECT_EQ(errors[i + 1], EPERM) << "command number " << _IOC_NR(kEveryCommand.at(i));
    }
    // Nothing was done: no second node; node 0 still there, stopped, and
    // its bitmap still all ones (it had no file), neither cleared nor
    // replaced by the child's all-zero SET.
    const NodeList nodes = ListNodes(control(), TRAK_DEV_FILTER);
    ASSERT_EQ(nodes.error, 0);
    EXPECT_EQ(nodes.minors, std::vector<std::int32_t>{0});
    const NodeInfo node = GetInfo(control(), 0);
    ASSERT_EQ(node.error, 0);
    EXPECT_EQ(node.info.started, 0);
    EXPECT_EQ(node.info.incr_bmp_full, 1U);
}

}  // namespace
}  // namespace trak::vmtest
