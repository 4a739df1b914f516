// trakctl status and info on snaps: each snap's state, chunk size and COW
// usage counted from its COW bitmap file.
#include <gtest/gtest.h>

#include <tuple>

#include "json_parser.h"
#include "temp_dir.h"
#include "trakctl_runner.h"

namespace {

using trak::Command;
using trak_test::JsonValue;
using trak_test::parse_json;

constexpr std::uint32_t kChunk = 4096;
constexpr std::uint32_t kChunks = 20;

// Filter 0 has snaps 4 (started; chunks 0, 7, 8 and 19 of 20 preserved, the
// last one short) and 6 (never started: no COW bitmap file yet); filter 3
// has none.
class TrakctlSnapStatus : public ::testing::Test {
  protected:
    TrakctlSnapStatus() {
        trak_info_args filter = trak_test::filter_record(0);
        filter.dev_size = kDevSize;
        runner.driver().add_node(filter);
        trak_info_args lone = trak_test::filter_record(3);
        lone.snap_cnt = 0;
        runner.driver().add_node(lone);
        runner.driver().add_node(snap(4, "cow4.bmp"));
        runner.driver().add_node(snap(6, "cow6.bmp"));
        trak_info_args& started = runner.driver().node(4);
        started.started = 1;
        started.snap_valid = 1;
        started.del_pending = 0;
        files.write("cow4.bmp", std::string("\x81\x01\x08", 3));
    }

    // 19 whole chunks and 1000 bytes.
    static constexpr std::uint64_t kDevSize = 19ULL * kChunk + 1000;

    trak_info_args snap(std::int32_t minor, std::string_view bitmap_file) const {
        trak_info_args record = trak_test::snap_record(minor);
        record.dev_size = kDevSize;
        record.snap_valid = 0;
        record.del_pending = 0;
        record.chunk_size = kChunk;
        record.cow_chunks = kChunks;
        record.cow_bmp_size = 3;
        record.cow_data_size = std::uint64_t{kChunks} * kChunk;
        trak_test::set_string(record.cow_bmp_fname, bitmap_path(bitmap_file));
        return record;
    }

    std::string bitmap_path(std::string_view file) const { return (files.path() / file).string(); }

    std::string missing_bitmap() const {
        return "cannot read " + bitmap_path("cow6.bmp") + ": No such file or directory";
    }

    trak_test::TempDir files;
    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlSnapStatus, StatusShowsEachSnapWithItsFilterStateChunkSizeAndUsage) {
    const auto result = runner.run({"status"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "control device:  /dev/trakctl\n"
              "character major: 100\n"
              "block major:     101\n"
              "debug level:     1\n"
              "filter nodes:    0 3\n"
              "snap nodes:      4 6\n"
              "snap 4:          filter 0, started, chunk size 4096, preserved 4 chunks (13288 "
              "bytes)\n"
              "snap 6:          filter 0, stopped, chunk size 4096, preserved unknown (" +
                  missing_bitmap() + ")\n");
}

TEST_F(TrakctlSnapStatus, StatusJsonHasAnObjectPerSnap) {
    const auto result = runner.run({"status", "--json"});

    ASSERT_EQ(result.status, 0) << result.err;
    const JsonValue json = parse_json(result.out);
    EXPECT_EQ(json.keys, (std::vector<std::string>{"device", "chr_major", "blk_major", "debug",
                                                   "filter", "snap", "snaps"}));
    const JsonValue& snaps = json.at("snaps");
    ASSERT_EQ(snaps.kind, JsonValue::Kind::Array);
    ASSERT_EQ(snaps.items.size(), 2U);
    const JsonValue& started = snaps.items[0];
    EXPECT_EQ(started.keys,
              (std::vector<std::string>{"minor", "name", "filter_minor", "state", "started",
                                        "snap_valid", "stop_pending", "del_pending", "chunk_size",
                                        "preserved_chunks", "preserved_bytes"}));
    EXPECT_EQ(started.at("minor").text, "4");
    EXPECT_EQ(started.at("filter_minor").text, "0");
    EXPECT_EQ(started.at("state").text, "started");
    EXPECT_TRUE(started.at("started").flag);
    EXPECT_TRUE(started.at("snap_valid").flag);
    EXPECT_EQ(started.at("chunk_size").text, "4096");
    EXPECT_EQ(started.at("preserved_chunks").text, "4");
    EXPECT_EQ(started.at("preserved_bytes").text, "13288");
    const JsonValue& unread = snaps.items[1];
    EXPECT_EQ(unread.at("minor").text, "6");
    EXPECT_EQ(unread.at("state").text, "stopped");
    EXPECT_EQ(unread.at("preserved_chunks").kind, JsonValue::Kind::Null);
    EXPECT_EQ(unread.at("preserved_bytes").kind, JsonValue::Kind::Null);
    EXPECT_EQ(unread.at("cow_bmp_error").text, missing_bitmap());
}

TEST_F(TrakctlSnapStatus, StatusWithoutSnapsAsksNothingAboutFilters) {
    trak_test::TrakctlRunner empty;
    empty.driver().add_node(trak_test::filter_record(0));

    const auto result = empty.run({"status", "--json"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(result.out.ends_with("\"filter\":[0],\"snap\":[],\"snaps\":[]}\n")) << result.out;
    EXPECT_EQ(empty.driver().requests(),
              std::vector<unsigned long>(2, trak::command_code(Command::GetDeviceList)));
}

TEST_F(TrakctlSnapStatus, InfoOfASnapShowsItsStateAndUsage) {
    const auto result = runner.run({"info", "4"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(result.out.ends_with("COW bitmap file:         " + bitmap_path("cow4.bmp") +
                                     "\n"
                                     "COW data file:           /srv/cow/snap \"1\".data\n"
                                     "state:                   started\n"
                                     "preserved chunks:        4\n"
                                     "preserved bytes:         13288\n"))
        << result.out;
}

TEST_F(TrakctlSnapStatus, InfoOfASnapWhoseBitmapCannotBeReadSaysWhy) {
    const auto text = runner.run({"info", "6"});
    const auto json = runner.run({"info", "6", "--json"});

    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_TRUE(
        text.out.ends_with("state:                   stopped\n"
                           "preserved chunks:        unknown\n"
                           "preserved bytes:         unknown\n"
                           "COW bitmap error:        " +
                           missing_bitmap() + "\n"))
        << text.out;
    ASSERT_EQ(json.status, 0) << json.err;
    const JsonValue parsed = parse_json(json.out);
    EXPECT_EQ(parsed.at("preserved_chunks").kind, JsonValue::Kind::Null);
    EXPECT_EQ(parsed.at("preserved_bytes").kind, JsonValue::Kind::Null);
    EXPECT_EQ(parsed.at("cow_bmp_error").text, missing_bitmap());
}

TEST_F(TrakctlSnapStatus, ABitmapFileOfTheWrongLengthIsNotCounted) {
    files.write("cow4.bmp", std::string("\xFF\xFF", 2));

    const auto result = runner.run({"info", "4", "--json"});

    ASSERT_EQ(result.status, 0) << result.err;
    const JsonValue json = parse_json(result.out);
    EXPECT_EQ(json.at("preserved_chunks").kind, JsonValue::Kind::Null);
    EXPECT_EQ(json.at("cow_bmp_error").text,
              bitmap_path("cow4.bmp") +
                  " holds 2 bytes, not the 3 bytes of the COW bitmap of a snap of 20 chunks");
}

TEST_F(TrakctlSnapStatus, InfoOfAFilterShowsEachOfItsSnaps) {
    const auto text = runner.run({"info", "0"});
    const auto json = runner.run({"info", "0", "--json"});

    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_TRUE(text.out.ends_with(
        "differential bitmap full:         yes\n"
        "snap 4:                           started, chunk size 4096, preserved 4 chunks (13288 "
        "bytes)\n"
        "snap 6:                           stopped, chunk size 4096, preserved unknown (" +
        missing_bitmap() + ")\n"))
        << text.out;
    ASSERT_EQ(json.status, 0) << json.err;
    const JsonValue parsed = parse_json(json.out);
    const JsonValue& snaps = parsed.at("snaps");
    ASSERT_EQ(snaps.items.size(), 2U);
    EXPECT_EQ(snaps.items[0].keys,
              (std::vector<std::string>{"minor", "name", "state", "started", "snap_valid",
                                        "stop_pending", "del_pending", "chunk_size",
                                        "preserved_chunks", "preserved_bytes"}));
    EXPECT_EQ(snaps.items[1].at("cow_bmp_error").text, missing_bitmap());
}

TEST_F(TrakctlSnapStatus, InfoOfAFilterWithoutSnapsListsNone) {
    const auto result = runner.run({"info", "3", "--json"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(result.out.ends_with("\"snaps\":[]}\n")) << result.out;
}

// started, snap_valid, stop_pending, del_pending, and the state they make.
using SnapFlags = std::tuple<int, int, int, int, std::string_view>;

class TrakctlSnapState : public TrakctlSnapStatus,
                         public ::testing::WithParamInterface<SnapFlags> {};

TEST_P(TrakctlSnapState, StatusAndInfoNameTheState) {
    const auto& [started, valid, stop_pending, del_pending, state] = GetParam();
    trak_info_args& record = runner.driver().node(4);
    record.started = started;
    record.snap_valid = valid;
    record.stop_pending = stop_pending;
    record.del_pending = del_pending;

    const auto info = runner.run({"info", "4", "--json"});
    const auto status = runner.run({"status"});

    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(parse_json(info.out).at("state").text, state);
    EXPECT_NE(status.out.find("snap 4:          filter 0, " + std::string(state) +
                              ", chunk size 4096, preserved 4 chunks"),
              std::string::npos)
        << status.out;
}

INSTANTIATE_TEST_SUITE_P(States, TrakctlSnapState,
                         ::testing::Values(SnapFlags{0, 0, 0, 0, "stopped"},
                                           SnapFlags{0, 1, 0, 0, "stopped"},
                                           SnapFlags{1, 1, 0, 0, "started"},
                                           SnapFlags{1, 0, 0, 0, "started, invalid"},
                                           SnapFlags{1, 1, 1, 0, "stop pending (DEFUNCT)"},
                                           SnapFlags{1, 0, 1, 0, "stop pending (DEFUNCT), invalid"},
                                           SnapFlags{1, 1, 1, 1, "delete pending (DEFUNCT)"}));

}  // namespace
