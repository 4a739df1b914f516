// The snap states saved at shutdown for apply at boot.
#include <config_file.h>
#include <gtest/gtest.h>
#include <snap_state_file.h>

#include <filesystem>

#include "temp_dir.h"

namespace {

using trakctl::SavedSnap;

const std::vector<SavedSnap> kStates = {
    {.name = "nightly",
     .minor = 4,
     .snap_valid = true,
     .stop_pending = false,
     .del_pending = false},
    {.name = "weekly", .minor = 5, .snap_valid = false, .stop_pending = true, .del_pending = true},
};

TEST(SnapStateFile, TextHasOneLinePerSnap) {
    EXPECT_EQ(trakctl::format_snap_states(kStates),
              "# written by trakctl save-state: NAME MINOR VALID STOP_PENDING DEL_PENDING\n"
              "nightly 4 1 0 0\n"
              "weekly 5 0 1 1\n");
}

TEST(SnapStateFile, WrittenFileReadsBackAndLeavesNoTemporary) {
    const trak_test::TempDir dir;
    const std::filesystem::path path = dir.path() / "snaps.state";
    dir.write("snaps.state", "old\n");

    trakctl::write_snap_states(path, kStates);

    EXPECT_EQ(trakctl::read_snap_states(path), kStates);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "snaps.state.tmp"));
}

TEST(SnapStateFile, FirstWriteMakesTheMissingDirectory) {
    const trak_test::TempDir dir;
    const std::filesystem::path path = dir.path() / "var" / "lib" / "trak" / "snaps.state";

    trakctl::write_snap_states(path, kStates);

    EXPECT_EQ(trakctl::read_snap_states(path), kStates);
}

TEST(SnapStateFile, MissingFileHasNoSnaps) {
    const trak_test::TempDir dir;

    EXPECT_TRUE(trakctl::read_snap_states(dir.path() / "absent").empty());
}

TEST(SnapStateFile, BadLineIsNamed) {
    try {
        trakctl::parse_snap_states("# x\nnightly 4 1 0\n", "/var/lib/trak/snaps.state");
        FAIL() << "accepted a short line";
    } catch (const trakctl::ConfigError& error) {
        EXPECT_STREQ(error.what(),
                     "/var/lib/trak/snaps.state:2: expected NAME MINOR VALID STOP_PENDING "
                     "DEL_PENDING");
    }
    try {
        trakctl::parse_snap_states("nightly 4 2 0 0\n", "s");
        FAIL() << "accepted a flag of 2";
    } catch (const trakctl::ConfigError& error) {
        EXPECT_STREQ(error.what(), "s:1: invalid VALID '2': expected 0 or 1");
    }
}

}  // namespace
