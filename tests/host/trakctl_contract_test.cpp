// The promises trakctl keeps to programs that drive it: --version, a
// format_version in every JSON object, half-open ranges, and failures as
// JSON on stdout under --json.
#include <gtest/gtest.h>
#include <verb_table.h>

#include <cerrno>

#include "json_parser.h"
#include "trakctl_runner.h"

namespace {

using trak_test::JsonValue;
using trak_test::parse_json;

class TrakctlContract : public ::testing::Test {
  protected:
    TrakctlContract() {
        runner.driver().add_node(trak_test::filter_record(0));
        runner.driver().add_node(trak_test::snap_record(4));
    }

    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlContract, VersionOnTrakctlAndOnEveryVerb) {
    const auto result = runner.run({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "trakctl " TRAK_PROJECT_VERSION "\n");
    EXPECT_EQ(result.err, "");
    for (const trakctl::Verb* verb : trakctl::verb_table()) {
        const auto verb_result = runner.run({verb->name, "--version"});
        EXPECT_EQ(verb_result.status, 0) << verb->name;
        EXPECT_EQ(verb_result.out, "trakctl " TRAK_PROJECT_VERSION "\n") << verb->name;
    }
    EXPECT_TRUE(runner.opened().empty());
}

TEST_F(TrakctlContract, ShortHelpOnEveryVerb) {
    for (const trakctl::Verb* verb : trakctl::verb_table()) {
        const auto result = runner.run({verb->name, "-h"});
        EXPECT_EQ(result.status, 0) << verb->name;
        EXPECT_TRUE(result.out.starts_with("Usage: trakctl " + std::string(verb->name)))
            << result.out;
        EXPECT_NE(result.out.find("\n  --version "), std::string::npos) << verb->name;
    }
}

TEST_F(TrakctlContract, EveryJsonObjectStartsWithItsFormatVersion) {
    for (const auto& args : std::vector<std::vector<std::string_view>>{{"status", "--json"},
                                                                       {"debug", "--json"},
                                                                       {"list", "--json"},
                                                                       {"info", "--json", "4"}}) {
        const auto result = runner.run(args);
        ASSERT_EQ(result.status, 0) << args.front() << result.err;
        const JsonValue json = parse_json(result.out);
        ASSERT_FALSE(json.keys.empty());
        EXPECT_EQ(json.keys.front(), "format_version") << args.front();
        EXPECT_EQ(json.at("format_version").text, "1") << args.front();
    }
}

TEST_F(TrakctlContract, DriverRefusalUnderJsonIsAnObjectOnStdoutAndTextOnStderr) {
    const auto result = runner.run({"info", "--json", "7"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "{\"format_version\":1,\"command\":\"info 7\",\"exit_status\":1,"
              "\"errno\":\"EINVAL\",\"meaning\":\"no node with that minor\","
              "\"message\":\"TRAK_GET_INFO failed: EINVAL (no node with that minor). See the "
              "kernel log (dmesg) for the driver's message.\"}\n");
    EXPECT_EQ(result.err,
              "trakctl: info 7: TRAK_GET_INFO failed: EINVAL (no node with that minor). See the "
              "kernel log (dmesg) for the driver's message.\n");
}

TEST_F(TrakctlContract, SystemFailureUnderJsonNamesTheErrno) {
    runner.remove_device();

    const auto result = runner.run({"list", "--json"});

    EXPECT_EQ(result.status, 1);
    const JsonValue json = parse_json(result.out);
    EXPECT_EQ(json.at("command").text, "list");
    EXPECT_EQ(json.at("errno").text, "ENOENT");
    EXPECT_EQ(json.at("meaning").text, "No such file or directory");
}

TEST_F(TrakctlContract, UsageErrorUnderJsonHasNoErrnoAndExitsTwo) {
    // --json comes after the bad argument, and still counts.
    const auto result = runner.run({"info", "x", "--json"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out,
              "{\"format_version\":1,\"command\":\"info\",\"exit_status\":2,\"errno\":null,"
              "\"meaning\":null,\"message\":\"invalid minor 'x': expected a number from 0 to "
              "2147483647\"}\n");
    EXPECT_EQ(result.err,
              "trakctl: info: invalid minor 'x': expected a number from 0 to 2147483647\n"
              "Try 'trakctl info --help'.\n");
}

TEST_F(TrakctlContract, FailureWithoutJsonPrintsNothingOnStdout) {
    const auto result = runner.run({"info", "7"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
}

}  // namespace
