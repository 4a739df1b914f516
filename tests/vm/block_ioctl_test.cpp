// Block-device commands on the nodes: raw command passthrough (SCSI, ATA,
// NVMe) is refused with EPERM and every other command the block layer
// leaves to the driver with ENOTTY, on filter nodes over a virtio disk and
// over a loop device and on a snap node, so that nothing reaches the
// partition's driver around copy-on-write and change tracking; the size
// and geometry queries are still answered with the partition's values.
#include <fcntl.h>
#include <linux/cdrom.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <linux/loop.h>
#include <linux/nvme_ioctl.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/node_commands.h"
#include "support/open_file.h"
#include "support/snap_test.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint32_t kChunk = 65536;
constexpr std::uint64_t kLoopBytes = 16 << 20;
// trak0 over a loop device, trak1 over the virtio disk, trak2 a snap of trak0.
constexpr std::int32_t kLoopFilter = 0;
constexpr std::int32_t kVirtioFilter = 1;
constexpr std::int32_t kSnap = 2;
// A command no driver knows.
constexpr unsigned long kUnknownCommand = _IO(0xEE, 0x01);

struct Answer {
    int result;
    int error;
};

Answer IoctlOn(int fd, unsigned long request, void* arg) {
    const int result = ioctl(fd, request, arg);
    return {result, result < 0 ? errno : 0};
}

class BlockIoctlTest : public SnapTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SnapTest::SetUp());
        loop_ = AttachLoop(kLoopBytes, 512);
        ASSERT_FALSE(loop_.empty());
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(loop_, kExtent, kLoopFilter, true));
        ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, kVirtioFilter, true));
        ASSERT_NO_FATAL_FAILURE(TakeSnap(kLoopFilter, kChunk, kSnap));
    }

    // Each node with the flags it can be opened with.
    static std::vector<std::pair<std::int32_t, int>> Nodes() {
        return {{kLoopFilter, O_RDWR}, {kVirtioFilter, O_RDWR}, {kSnap, O_RDONLY}};
    }

    // `request` with `arg` fails with `error` on every node.
    static void ExpectRefusedOnEveryNode(unsigned long request, void* arg, int error) {
        for (const auto& [minor, flags] : Nodes()) {
            SCOPED_TRACE(NodeDevice(minor));
            const OpenFile node(NodeDevice(minor), flags);
            ASSERT_EQ(node.error(), 0);
            const Answer answer = IoctlOn(node.fd(), request, arg);
            EXPECT_EQ(answer.result, -1);
            EXPECT_EQ(answer.error, error) << std::strerror(answer.error);
        }
    }

    [[nodiscard]] const std::string& loop() const { return loop_; }

  private:
    std::string loop_;
};

TEST_F(BlockIoctlTest, ScsiPassthroughIsRefused) {
    std::array<std::uint8_t, 6> inquiry{0x12, 0, 0, 0, 96, 0};
    std::array<std::uint8_t, 96> reply{};
    std::array<std::uint8_t, 32> sense{};
    sg_io_hdr_t hdr{};
    hdr.interface_id = 'S';
    hdr.dxfer_direction = SG_DXFER_FROM_DEV;
    hdr.cmd_len = inquiry.size();
    hdr.cmdp = inquiry.data();
    hdr.dxfer_len = reply.size();
    hdr.dxferp = reply.data();
    hdr.mx_sb_len = sense.size();
    hdr.sbp = sense.data();
    hdr.timeout = 5000;
    ExpectRefusedOnEveryNode(SG_IO, &hdr, EPERM);

    // Lengths in, lengths out, then the command: WRITE SAME(10) of nothing.
    std::array<std::uint8_t, 64> command{};
    command[8] = 0x41;
    ExpectRefusedOnEveryNode(SCSI_IOCTL_SEND_COMMAND, command.data(), EPERM);

    cdrom_generic_command packet{};
    ExpectRefusedOnEveryNode(CDROM_SEND_PACKET, &packet, EPERM);
}

TEST_F(BlockIoctlTest, AtaAndNvmePassthroughIsRefused) {
    // SECURITY ERASE PREPARE with no data.
    std::array<std::uint8_t, 4> drive_cmd{0xF3, 0, 0, 0};
    ExpectRefusedOnEveryNode(HDIO_DRIVE_CMD, drive_cmd.data(), EPERM);
    std::array<std::uint8_t, 7> task{};
    ExpectRefusedOnEveryNode(HDIO_DRIVE_TASK, task.data(), EPERM);

    // A write of one block at LBA 0.
    nvme_passthru_cmd io_cmd{};
    io_cmd.opcode = 0x01;
    ExpectRefusedOnEveryNode(NVME_IOCTL_IO_CMD, &io_cmd, EPERM);
    nvme_user_io submit{};
    submit.opcode = 0x01;
    ExpectRefusedOnEveryNode(NVME_IOCTL_SUBMIT_IO, &submit, EPERM);
    nvme_admin_cmd admin{};
    ExpectRefusedOnEveryNode(NVME_IOCTL_ADMIN_CMD, &admin, EPERM);
}

TEST_F(BlockIoctlTest, OtherCommandsAreNotPassedOn) {
    // The loop driver under trak0 would answer these for its device.
    loop_info64 info{};
    ExpectRefusedOnEveryNode(LOOP_GET_STATUS64, &info, ENOTTY);
    EXPECT_EQ(info.lo_file_name[0], '\0') << "the loop device's status came through";
    ExpectRefusedOnEveryNode(LOOP_SET_CAPACITY, nullptr, ENOTTY);
    ExpectRefusedOnEveryNode(CDROM_GET_CAPABILITY, nullptr, ENOTTY);
    ExpectRefusedOnEveryNode(kUnknownCommand, nullptr, ENOTTY);
}

TEST_F(BlockIoctlTest, SizeAndGeometryAreThePartitions) {
    const std::vector<std::pair<std::int32_t, std::string>> under = {
        {kLoopFilter, loop()}, {kVirtioFilter, kTrackedDisk}, {kSnap, loop()}};
    for (const auto& [minor, hdd_path] : under) {
        SCOPED_TRACE(NodeDevice(minor));
        const OpenFile node(NodeDevice(minor), O_RDONLY);
        const OpenFile hdd(hdd_path, O_RDONLY);
        ASSERT_EQ(node.error(), 0);
        ASSERT_EQ(hdd.error(), 0);

        std::uint64_t node_bytes = 0;
        std::uint64_t hdd_bytes = 0;
        ASSERT_EQ(ioctl(node.fd(), BLKGETSIZE64, &node_bytes), 0) << "errno " << errno;
        ASSERT_EQ(ioctl(hdd.fd(), BLKGETSIZE64, &hdd_bytes), 0) << "errno " << errno;
        EXPECT_EQ(node_bytes, hdd_bytes);
        unsigned long sectors = 0;
        ASSERT_EQ(ioctl(node.fd(), BLKGETSIZE, &sectors), 0) << "errno " << errno;
        EXPECT_EQ(sectors, hdd_bytes / 512);
        for (const unsigned long query : {BLKSSZGET, BLKPBSZGET}) {
            int node_size = 0;
            int hdd_size = 0;
            ASSERT_EQ(ioctl(node.fd(), query, &node_size), 0) << "errno " << errno;
            ASSERT_EQ(ioctl(hdd.fd(), query, &hdd_size), 0) << "errno " << errno;
            EXPECT_EQ(node_size, hdd_size) << "query 0x" << std::hex << query;
        }
        int read_only = -1;
        ASSERT_EQ(ioctl(node.fd(), BLKROGET, &read_only), 0) << "errno " << errno;
        EXPECT_EQ(read_only, minor == kSnap ? 1 : 0);

        hd_geometry node_geo{};
        hd_geometry hdd_geo{};
        const Answer node_answer = IoctlOn(node.fd(), HDIO_GETGEO, &node_geo);
        const Answer hdd_answer = IoctlOn(hdd.fd(), HDIO_GETGEO, &hdd_geo);
        EXPECT_EQ(node_answer.error, hdd_answer.error);
        if (hdd_answer.result == 0) {
            EXPECT_EQ(node_geo.heads, hdd_geo.heads);
            EXPECT_EQ(node_geo.sectors, hdd_geo.sectors);
            EXPECT_EQ(node_geo.cylinders, hdd_geo.cylinders);
        }
    }
}

}  // namespace
}  // namespace trak::vmtest
