// Data written through a started filter node reads back intact, through
// the node and from the HDD under it at the same offsets (fio with
// verification).
#include <string>
#include <vector>

#include "support/command.h"
#include "support/extent_bits.h"
#include "support/filter_test.h"
#include "support/node_commands.h"
#include "support/test_disks.h"

namespace trak::vmtest {
namespace {

constexpr std::uint64_t kExtent = 65536;

struct FioJob {
    const char* name;
    const char* rw;
    const char* block_size;
    std::uint64_t offset;
    std::uint64_t size;
    const char* engine;
    const char* depth;
};

std::vector<std::string> FioCommand(const FioJob& job, const std::string& device,
                                    bool verify_only) {
    std::vector<std::string> argv = {"fio",
                                     std::string("--name=") + job.name,
                                     "--filename=" + device,
                                     "--direct=1",
                                     std::string("--rw=") + job.rw,
                                     std::string("--bs=") + job.block_size,
                                     "--offset=" + std::to_string(job.offset),
                                     "--size=" + std::to_string(job.size),
                                     std::string("--ioengine=") + job.engine,
                                     std::string("--iodepth=") + job.depth,
                                     "--randrepeat=1",
                                     "--verify=crc32c",
                                     "--verify_fatal=1",
                                     "--do_verify=1"};
    if (verify_only) {
        argv.emplace_back("--verify_only");
    }
    return argv;
}

class DataIntegrityTest : public FilterTest, public ::testing::WithParamInterface<FioJob> {};

TEST_P(DataIntegrityTest, WrittenDataVerifiesThroughNodeAndOnHdd) {
    const FioJob& job = GetParam();
    ASSERT_NO_FATAL_FAILURE(AddFilterNode(kTrackedDisk, kExtent, 0, true));
    ASSERT_NO_FATAL_FAILURE(ClearBothBitmaps(0));

    EXPECT_TRUE(Succeeds(FioCommand(job, NodeDevice(0), false)));
    EXPECT_TRUE(Succeeds(FioCommand(job, kTrackedDisk, true)));

    const std::uint32_t size = GetInfo(control(), 0).info.incr_bmp_size;
    std::vector<std::uint64_t> written;
    for (std::uint64_t e = job.offset / kExtent; e < (job.offset + job.size) / kExtent; ++e) {
        written.push_back(e);
    }
    for (const BitmapKind kind : kBothKinds) {
        SCOPED_TRACE(KindName(kind));
        const BitmapReply reply = GetBitmap(control(), 0, kind, size);
        ASSERT_EQ(reply.error, 0);
        EXPECT_EQ(SetExtents(reply.bits), written);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Fio, DataIntegrityTest,
    ::testing::Values(FioJob{"sequential", "write", "64k", 0, 24 << 20, "psync", "1"},
                      FioJob{"random", "randwrite", "4k", 64 << 20, 8 << 20, "libaio", "16"}),
    [](const ::testing::TestParamInfo<FioJob>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace trak::vmtest
