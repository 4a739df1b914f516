// Reading and writing the driver's /proc tree, against a fake tree.
#include <gtest/gtest.h>
#include <trak/proc.h>

#include <cerrno>

#include "temp_dir.h"

namespace {

class ProcTreeTest : public ::testing::Test {
  protected:
    trak_test::TempDir dir;
    trak::ProcTree proc{dir.path()};
};

TEST_F(ProcTreeTest, ReadsTheGlobalEntries) {
    dir.write("chr_major", "100\n");
    dir.write("blk_major", "251\n");
    dir.write("debug", "3\n");

    EXPECT_EQ(proc.chr_major(), 100);
    EXPECT_EQ(proc.blk_major(), 251);
    EXPECT_EQ(proc.debug(), 3);
}

TEST_F(ProcTreeTest, SetDebugWritesTheLevelAndANewline) {
    dir.write("debug", "1\n");

    proc.set_debug(4);

    EXPECT_EQ(dir.read("debug"), "4\n");
}

TEST_F(ProcTreeTest, ReadsNodeEntriesWithoutTheirFinalNewline) {
    dir.write("trak12/hdd_name", "/dev/vdb1\n");
    dir.write("trak12/snaps", "3\n5\n");
    dir.write("trak12/dev_size", "5368709120\n");

    EXPECT_EQ(proc.node_entry(12, "hdd_name"), "/dev/vdb1");
    EXPECT_EQ(proc.node_entry(12, "snaps"), "3\n5");
    EXPECT_EQ(proc.node_number(12, "dev_size"), 5368709120);
}

TEST_F(ProcTreeTest, EmptyEntryReadsAsEmptyText) {
    dir.write("trak0/snaps", "");

    EXPECT_EQ(proc.node_entry(0, "snaps"), "");
}

TEST_F(ProcTreeTest, MissingEntryThrowsWithItsPath) {
    try {
        static_cast<void>(proc.debug());
        FAIL() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_EQ(std::string(error.what()),
                  "cannot read " + (dir.path() / "debug").string() + ": No such file or directory");
    }
}

TEST_F(ProcTreeTest, NonNumericEntryThrowsWithItsText) {
    dir.write("trak1/use_cnt", "two\n");

    try {
        static_cast<void>(proc.node_number(1, "use_cnt"));
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(
            std::string(error.what()),
            "unexpected contents of " + (dir.path() / "trak1/use_cnt").string() + ": \"two\"");
    }
}

TEST(ProcTree, DefaultsToTheDriversTree) {
    EXPECT_EQ(trak::ProcTree().root(), std::filesystem::path("/proc/trak"));
}

}  // namespace
