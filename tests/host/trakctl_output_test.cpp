// What trakctl's verbs print, as text and as JSON.
#include <gtest/gtest.h>

#include "json_parser.h"
#include "trakctl_runner.h"

namespace {

using trak_test::JsonValue;
using trak_test::parse_json;

class TrakctlOutput : public ::testing::Test {
  protected:
    TrakctlOutput() {
        runner.driver().add_node(trak_test::filter_record(0));
        trak_info_args lone = trak_test::filter_record(3);
        lone.snap_cnt = 0;
        runner.driver().add_node(lone);
        runner.driver().add_node(trak_test::snap_record(4));
        runner.driver().add_node(trak_test::snap_record(6));
    }

    // What status and info say of the fake's snaps, whose COW bitmap file
    // does not exist.
    static constexpr std::string_view kUnreadUsage =
        "stopped, chunk size 4096, preserved unknown (cannot read /srv/cow/snap.bmp: No such "
        "file or directory)";

    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlOutput, InfoOfAFilterShowsTheFilterFieldsAligned) {
    const auto result = runner.run({"info", "0"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "minor:                            0\n"
              "type:                             filter\n"
              "device size (bytes):              1073741824\n"
              "started:                          yes\n"
              "open count:                       2\n"
              "uuid:                             {0123abcd-4567-89ef-0123-456789abcdef}\n"
              "name:                             data\n"
              "partition:                        /dev/vdb1\n"
              "extent size (bytes):              65536\n"
              "extents:                          16384\n"
              "snaps:                            4 6\n"
              "snap count:                       2\n"
              "incremental bitmap size (bytes):  2048\n"
              "differential bitmap size (bytes): 2048\n"
              "incremental bitmap file:          /var/lib/trak/trak0.incr\n"
              "differential bitmap file:         /var/lib/trak/trak0.diff\n"
              "incremental bitmap clear:         yes\n"
              "differential bitmap clear:        no\n"
              "incremental bitmap full:          no\n"
              "differential bitmap full:         yes\n"
              "snap 4:                           " +
                  std::string(kUnreadUsage) +
                  "\n"
                  "snap 6:                           " +
                  std::string(kUnreadUsage) + "\n");
}

TEST_F(TrakctlOutput, InfoOfASnapShowsTheSnapFieldsAndNoFilterFields) {
    const auto result = runner.run({"info", "4"});

    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("type:                    snap\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("valid:                   yes\n"), std::string::npos);
    EXPECT_NE(result.out.find("delete pending:          yes\n"), std::string::npos);
    EXPECT_NE(result.out.find("COW data file:           /srv/cow/snap \"1\".data\n"),
              std::string::npos);
    EXPECT_EQ(result.out.find("partition"), std::string::npos);
    EXPECT_EQ(result.out.find("extent"), std::string::npos);
    EXPECT_EQ(result.out.find("incremental"), std::string::npos);
    EXPECT_EQ(result.out.find("differential"), std::string::npos);
}

TEST_F(TrakctlOutput, InfoJsonOfASnapHasTheRecordsSnapKeysInOrder) {
    const auto result = runner.run({"info", "--json", "4"});

    ASSERT_EQ(result.status, 0) << result.err;
    const JsonValue json = parse_json(result.out);
    EXPECT_EQ(json.keys, (std::vector<std::string>{"minor",
                                                   "dev_type",
                                                   "dev_size",
                                                   "started",
                                                   "use_cnt",
                                                   "uuid",
                                                   "name",
                                                   "snap_valid",
                                                   "stop_pending",
                                                   "del_pending",
                                                   "chunk_size",
                                                   "cow_chunks",
                                                   "cow_bmp_size",
                                                   "cow_data_size",
                                                   "cow_bmp_fname",
                                                   "cow_data_fname",
                                                   "state",
                                                   "preserved_chunks",
                                                   "preserved_bytes",
                                                   "cow_bmp_error"}));
    EXPECT_EQ(json.at("minor").text, "4");
    EXPECT_EQ(json.at("dev_type").text, "snap");
    EXPECT_EQ(json.at("started").kind, JsonValue::Kind::Bool);
    EXPECT_FALSE(json.at("started").flag);
    EXPECT_TRUE(json.at("del_pending").flag);
    EXPECT_EQ(json.at("cow_chunks").text, "262144");
    EXPECT_EQ(json.at("cow_data_fname").text, "/srv/cow/snap \"1\".data");
    EXPECT_EQ(result.out.back(), '\n');
}

TEST_F(TrakctlOutput, InfoJsonOfAFilterHasTheRecordsFilterKeys) {
    const auto result = runner.run({"info", "0", "--json"});

    ASSERT_EQ(result.status, 0) << result.err;
    const JsonValue json = parse_json(result.out);
    EXPECT_EQ(json.keys, (std::vector<std::string>{
                             "minor",          "dev_type",       "dev_size",       "started",
                             "use_cnt",        "uuid",           "name",           "hdd_name",
                             "extent_size",    "extent_cnt",     "snap_minors",    "snap_cnt",
                             "incr_bmp_size",  "diff_bmp_size",  "incr_bmp_fname", "diff_bmp_fname",
                             "incr_bmp_clear", "diff_bmp_clear", "incr_bmp_full",  "diff_bmp_full",
                             "snaps"}));
    const JsonValue& snaps = json.at("snap_minors");
    ASSERT_EQ(snaps.kind, JsonValue::Kind::Array);
    ASSERT_EQ(snaps.items.size(), 2U);
    EXPECT_EQ(snaps.items[0].text, "4");
    EXPECT_EQ(snaps.items[1].text, "6");
    EXPECT_EQ(json.at("dev_size").text, "1073741824");
    EXPECT_TRUE(json.at("diff_bmp_full").flag);
}

TEST_F(TrakctlOutput, ListShowsBothTypesByDefault) {
    const auto result = runner.run({"list"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              "filter nodes: 0 3\n"
              "snap nodes:   4 6\n");
}

TEST_F(TrakctlOutput, ListOfOneTypeAsJson) {
    const auto result = runner.run({"list", "--json", "snap"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "{\"snap\":[4,6]}\n");
}

TEST_F(TrakctlOutput, ListWithoutNodesSaysNone) {
    trak_test::TrakctlRunner empty;

    EXPECT_EQ(empty.run({"list", "filter"}).out, "filter nodes: none\n");
    EXPECT_EQ(empty.run({"list", "filter", "--json"}).out, "{\"filter\":[]}\n");
}

TEST_F(TrakctlOutput, StatusShowsDeviceMajorsDebugAndNodes) {
    const auto result = runner.run({"--device", "/dev/other", "status"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "control device:  /dev/other\n"
              "character major: 100\n"
              "block major:     101\n"
              "debug level:     1\n"
              "filter nodes:    0 3\n"
              "snap nodes:      4 6\n"
              "snap 4:          filter 0, " +
                  std::string(kUnreadUsage) +
                  "\n"
                  "snap 6:          filter 0, " +
                  std::string(kUnreadUsage) + "\n");
    EXPECT_EQ(runner.opened(), std::vector<std::string>{"/dev/other"});
}

TEST_F(TrakctlOutput, StatusJson) {
    const auto result = runner.run({"status", "--json"});

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "{\"device\":\"/dev/trakctl\",\"chr_major\":100,\"blk_major\":101,\"debug\":1,"
              "\"filter\":[0,3],\"snap\":[4,6],\"snaps\":["
              "{\"minor\":4,\"name\":\"trak4\",\"filter_minor\":0,\"state\":\"stopped\","
              "\"started\":false,\"snap_valid\":true,\"stop_pending\":false,"
              "\"del_pending\":true,\"chunk_size\":4096,\"preserved_chunks\":null,"
              "\"preserved_bytes\":null,\"cow_bmp_error\":\"cannot read /srv/cow/snap.bmp: No "
              "such file or directory\"},"
              "{\"minor\":6,\"name\":\"trak4\",\"filter_minor\":0,\"state\":\"stopped\","
              "\"started\":false,\"snap_valid\":true,\"stop_pending\":false,"
              "\"del_pending\":true,\"chunk_size\":4096,\"preserved_chunks\":null,"
              "\"preserved_bytes\":null,\"cow_bmp_error\":\"cannot read /srv/cow/snap.bmp: No "
              "such file or directory\"}]}\n");
    EXPECT_NO_THROW(parse_json(result.out));
}

TEST_F(TrakctlOutput, DebugShowsTheLevelWithoutOpeningTheDevice) {
    EXPECT_EQ(runner.run({"debug"}).out, "debug level: 1\n");
    EXPECT_EQ(runner.run({"debug", "--json"}).out, "{\"debug\":1}\n");
    EXPECT_TRUE(runner.opened().empty());
}

TEST_F(TrakctlOutput, DebugWithALevelSetsIt) {
    const auto result = runner.run({"debug", "3"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(runner.proc().read("debug"), "3\n");
}

}  // namespace
