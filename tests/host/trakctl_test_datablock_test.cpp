// trakctl test-datablock: the path it sends and how it fails.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "trakctl_runner.h"

namespace {

using trak::Command;

std::string sent_path(const std::vector<std::uint8_t>& record) {
    return {reinterpret_cast<const char*>(record.data())};
}

TEST(TrakctlTestDatablock, SendsTheAbsolutePathAndPrintsNothing) {
    trak_test::TrakctlRunner runner;
    runner.driver().on(Command::TestDatablock, [](void*) { return 0; });

    const auto result = runner.run({"test-datablock", "dev/sdb1"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(runner.driver().requests(),
              std::vector<unsigned long>{trak::command_code(Command::TestDatablock)});
    ASSERT_EQ(runner.driver().last_record().size(), 1024U);
    EXPECT_EQ(sent_path(runner.driver().last_record()),
              (std::filesystem::current_path() / "dev/sdb1").string());
}

TEST(TrakctlTestDatablock, AMountedPartitionIsNamedAsSuch) {
    trak_test::TrakctlRunner runner;
    runner.driver().on(Command::TestDatablock, [](void*) { return -EBUSY; });

    const auto result = runner.run({"test-datablock", "/dev/sdb1"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: test-datablock /dev/sdb1: TRAK_TEST_DATABLOCK failed: EBUSY (the "
              "partition is mounted). See the kernel log (dmesg) for the driver's message.\n");
}

TEST(TrakctlTestDatablock, TakesExactlyOneDevice) {
    trak_test::TrakctlRunner runner;
    EXPECT_EQ(runner.run({"test-datablock"}).status, 2);
    EXPECT_EQ(runner.run({"test-datablock", "/dev/a", "/dev/b"}).status, 2);
    EXPECT_EQ(runner.run({"test-datablock", "--json", "/dev/a"}).status, 2);
    EXPECT_TRUE(runner.driver().requests().empty());
}

}  // namespace
