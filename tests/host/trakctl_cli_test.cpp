// trakctl's command line: help, usage errors (exit 2) and refusals (exit 1).
#include <gtest/gtest.h>
#include <verb_table.h>

#include <cerrno>
#include <cstring>

#include "trakctl_runner.h"

namespace {

constexpr std::string_view kKernelLog = "See the kernel log (dmesg) for the driver's message.";

class TrakctlCli : public ::testing::Test {
  protected:
    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlCli, HelpListsEveryVerbAndExitsZero) {
    const auto result = runner.run({"--help"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(result.out.starts_with("Usage: trakctl [--device PATH] VERB"));
    for (const trakctl::Verb* verb : trakctl::verb_table()) {
        EXPECT_NE(result.out.find("\n  " + std::string(verb->name) + " "), std::string::npos)
            << verb->name;
    }
    EXPECT_TRUE(runner.opened().empty());
}

TEST_F(TrakctlCli, EveryVerbHasHelp) {
    for (const trakctl::Verb* verb : trakctl::verb_table()) {
        const auto result = runner.run({verb->name, "--help"});
        EXPECT_EQ(result.status, 0) << verb->name;
        EXPECT_TRUE(result.out.starts_with("Usage: trakctl " + std::string(verb->name)))
            << result.out;
        EXPECT_NE(result.out.find("\n  --help "), std::string::npos) << verb->name;
        EXPECT_TRUE(result.out.ends_with(" show this help\n")) << verb->name;
        EXPECT_EQ(result.out.find("--json") != std::string::npos, verb->prints) << verb->name;
    }
    EXPECT_TRUE(runner.opened().empty());
}

TEST_F(TrakctlCli, VerbHelpShowsItsSynopsis) {
    EXPECT_TRUE(runner.run({"info", "-h"}).out.starts_with("Usage: trakctl info [--json] MINOR\n"));
    EXPECT_TRUE(runner.run({"list", "--help"})
                    .out.starts_with("Usage: trakctl list [--json] [filter|snap]\n"));
}

TEST_F(TrakctlCli, VerbHelpListsItsOwnOptionsAligned) {
    const auto result = runner.run({"add-filter", "--help"});

    EXPECT_TRUE(result.out.starts_with(
        "Usage: trakctl add-filter [--json] HDD --extent-size N --bitmap-dir DIR [--minor M] "
        "[--name NAME] [--uuid UUID]\n"))
        << result.out;
    EXPECT_TRUE(
        result.out.ends_with("\nOptions:\n"
                             "  --extent-size N   tracking granule in bytes (required)\n"
                             "  --bitmap-dir DIR  directory of the bitmap files (required)\n"
                             "  --minor M         the node's minor (default: the lowest "
                             "free one)\n"
                             "  --name NAME       the node's name (default: trakM)\n"
                             "  --uuid UUID       the node's uuid (default: a new one)\n"
                             "  --json            print JSON instead of text\n"
                             "  --version         show trakctl's version\n"
                             "  --help            show this help\n"))
        << result.out;
}

TEST_F(TrakctlCli, HelpShowsHowToTrackAPartition) {
    const auto result = runner.run({"--help"});

    EXPECT_NE(result.out.find("  trakctl add-filter /dev/sdb1 --extent-size 65536 --bitmap-dir "
                              "/var/lib/trak\n  trakctl start 0\n"),
              std::string::npos)
        << result.out;
}

TEST_F(TrakctlCli, VerbOptionGivenTwiceIsAUsageError) {
    const auto result = runner.run(
        {"add-filter", "/dev/vda", "--minor", "1", "--minor=2", "--extent-size", "4096"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "trakctl: add-filter: option '--minor' given twice\n"
              "Try 'trakctl add-filter --help'.\n");
}

TEST_F(TrakctlCli, VerbOptionWithoutItsValueIsAUsageError) {
    const auto result = runner.run({"add-filter", "/dev/vda", "--extent-size"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "trakctl: add-filter: option '--extent-size' needs a value N\n"
              "Try 'trakctl add-filter --help'.\n");
}

TEST_F(TrakctlCli, AFlagTakesNoValue) {
    const auto result = runner.run({"bitmap", "set", "0", "incr", "--all=yes"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "trakctl: bitmap: option '--all' takes no value\nTry 'trakctl bitmap --help'.\n");
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlCli, AnOptionValueMayStartWithADash) {
    runner.driver().on(trak::Command::AddFilterNode, [](void*) { return -EINVAL; });

    const auto result = runner.run(
        {"add-filter", "/dev/vda", "--minor", "-3", "--extent-size", "4096", "--bitmap-dir", "/b"});

    EXPECT_EQ(result.status, 1);
    std::int32_t minor = 0;
    std::memcpy(&minor, runner.driver().last_record().data() + 1024, sizeof(minor));
    EXPECT_EQ(minor, -3);
}

TEST_F(TrakctlCli, NoVerbIsAUsageError) {
    const auto result = runner.run({});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "trakctl: no verb given\nTry 'trakctl --help'.\n");
}

TEST_F(TrakctlCli, UnknownVerbIsAUsageError) {
    const auto result = runner.run({"frobnicate"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "trakctl: unknown verb 'frobnicate'\nTry 'trakctl --help'.\n");
}

TEST_F(TrakctlCli, UnknownGlobalOptionIsAUsageError) {
    const auto result = runner.run({"--verbose", "list"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "trakctl: unknown option '--verbose'\nTry 'trakctl --help'.\n");
}

TEST_F(TrakctlCli, DeviceOptionWithoutAValueIsAUsageError) {
    const auto result = runner.run({"--device"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "trakctl: option '--device' needs a PATH\nTry 'trakctl --help'.\n");
}

TEST_F(TrakctlCli, DeviceOptionInItsJoinedForm) {
    EXPECT_EQ(runner.run({"--device=/dev/t", "list"}).status, 0);
    EXPECT_EQ(runner.opened(), std::vector<std::string>{"/dev/t"});
}

TEST_F(TrakctlCli, MissingArgumentNamesTheVerb) {
    const auto result = runner.run({"info"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "trakctl: info: missing argument\nTry 'trakctl info --help'.\n");
    EXPECT_TRUE(runner.opened().empty());
}

TEST_F(TrakctlCli, TooManyArguments) {
    const auto result = runner.run({"list", "filter", "snap"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "trakctl: list: too many arguments\nTry 'trakctl list --help'.\n");
}

TEST_F(TrakctlCli, UnknownVerbOption) {
    const auto result = runner.run({"status", "--all"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "trakctl: status: unknown option '--all'\nTry 'trakctl status --help'.\n");
}

TEST_F(TrakctlCli, BadMinorIsAUsageError) {
    for (const std::string_view minor : {"abc", "7x", "2147483648", ""}) {
        const auto result = runner.run({"info", minor});
        EXPECT_EQ(result.status, 2) << minor;
        EXPECT_EQ(result.err, "trakctl: info: invalid minor '" + std::string(minor) +
                                  "': expected a number from 0 to 2147483647\n"
                                  "Try 'trakctl info --help'.\n");
    }
}

TEST_F(TrakctlCli, NegativeMinorLooksLikeAnOption) {
    const auto result = runner.run({"info", "-1"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "trakctl: info: unknown option '-1'\nTry 'trakctl info --help'.\n");
}

TEST_F(TrakctlCli, DoubleDashEndsOptions) {
    const auto result = runner.run({"info", "--", "--json"});

    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(result.err.starts_with("trakctl: info: invalid minor '--json'")) << result.err;
}

TEST_F(TrakctlCli, BadListTypeIsAUsageError) {
    const auto result = runner.run({"list", "disk"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "trakctl: list: unknown node type 'disk': expected filter or snap\n"
              "Try 'trakctl list --help'.\n");
}

TEST_F(TrakctlCli, BadDebugLevelIsAUsageError) {
    const auto result = runner.run({"debug", "high"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(runner.proc().read("debug"), "1\n");
}

TEST_F(TrakctlCli, DriverRefusalExitsOneWithTheMeaning) {
    const auto result = runner.run({"info", "7"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "trakctl: info 7: TRAK_GET_INFO failed: EINVAL (no node with that minor). " +
                  std::string(kKernelLog) + "\n");
}

TEST_F(TrakctlCli, UnimplementedCommandIsReportedAsSuch) {
    runner.driver().on(trak::Command::GetDeviceList, [](void*) { return -ENOSYS; });

    const auto result = runner.run({"list", "snap"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: list snap: TRAK_GET_DEVICE_LIST failed: ENOSYS (this driver build does "
              "not implement the command yet). " +
                  std::string(kKernelLog) + "\n");
}

TEST_F(TrakctlCli, MissingControlDeviceExitsOne) {
    runner.remove_device();

    const auto result = runner.run({"list"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: list: cannot open the control device /dev/trakctl: No such file or "
              "directory\n");
}

TEST_F(TrakctlCli, MissingProcTreeExitsOne) {
    std::filesystem::remove(runner.proc().path() / "debug");

    const auto result = runner.run({"debug"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "trakctl: debug: cannot read " +
                              (runner.proc().path() / "debug").string() +
                              ": No such file or directory\n");
}

}  // namespace
