// trakctl datablock-map: the record it sends, what it prints, how it fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <span>

#include "error_reports.h"
#include "json_parser.h"
#include "record_bytes.h"
#include "temp_dir.h"
#include "trakctl_runner.h"

namespace {

using trak::Command;
using trak_test::field_at;

// A snap of a partition of 2 MiB + 4 KiB: 513 chunks of 4 KiB, 33 extents of
// 64 KiB, of which the last holds 4 KiB.
constexpr std::uint64_t kDevSize = 2101248;
constexpr std::uint32_t kChunks = 513;

trak_info_args small_snap() {
    trak_info_args record = trak_test::snap_record(4);
    record.started = 1;
    record.dev_size = kDevSize;
    record.chunk_size = 4096;
    record.cow_chunks = kChunks;
    record.cow_bmp_size = 65;
    return record;
}

// Answers GET_DATABLOCK_BMP for snap 4 with `map`, as the driver does: a
// buffer too small is refused, and the bytes written are returned.
class TrakctlDatablockMap : public ::testing::Test {
  protected:
    TrakctlDatablockMap() {
        runner.driver().add_node(small_snap());
        runner.driver().add_node(trak_test::filter_record(0));
        runner.driver().on(Command::GetDatablockBmp, [this](void* record) {
            auto& rec = *static_cast<trak_datablock_bmp_args*>(record);
            if (rec.minor != 4 || rec.bmp_data == 0 ||
                rec.bmp_size < static_cast<std::int32_t>(map.size())) {
                return -EINVAL;
            }
            std::copy(map.begin(), map.end(), reinterpret_cast<std::uint8_t*>(rec.bmp_data));
            rec.bmp_size = static_cast<std::int32_t>(map.size());
            return 0;
        });
    }

    const std::vector<std::uint8_t>& sent() const {
        return runner.driver().record_of(Command::GetDatablockBmp);
    }

    std::vector<std::uint8_t> map;
    trak_test::TempDir files;
    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlDatablockMap, ShowsTheExtentsHoldingDataAndTheirBytes) {
    map = {0x0F, 0x00, 0x02, 0x00, 0x01};

    const auto result = runner.run({"datablock-map", "4", "--extent-size", "65536"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "extents 0-3,17,32 of 33 (extent size 65536)\n"
              "bytes 0-262143,1114112-1179647,2097152-2101247 (6 extents set)\n");
    EXPECT_EQ(runner.driver().requests(),
              (std::vector<unsigned long>{trak::command_code(Command::GetInfo),
                                          trak::command_code(Command::GetDatablockBmp)}));
    EXPECT_EQ(field_at<std::uint32_t>(sent(), 0), 4U);
    EXPECT_EQ(field_at<std::uint32_t>(sent(), 4), 65536U);
    EXPECT_EQ(field_at<std::int32_t>(sent(), 8), 5);
    EXPECT_NE(field_at<std::uint64_t>(sent(), 16), 0U);
}

TEST_F(TrakctlDatablockMap, TheBufferFitsTheExtentSize) {
    // 513 chunks: 17 extents of 128 KiB (3 bytes), 513 of 4 KiB (65 bytes).
    map.assign(3, 0);
    ASSERT_EQ(runner.run({"datablock-map", "4", "--extent-size", "131072"}).status, 0);
    EXPECT_EQ(field_at<std::int32_t>(sent(), 8), 3);

    map.assign(65, 0xFF);
    const auto result = runner.run({"datablock-map", "4", "--extent-size", "4096"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(field_at<std::int32_t>(sent(), 8), 65);
    EXPECT_EQ(result.out,
              "extents 0-512 of 513 (extent size 4096)\n"
              "bytes 0-2101247 (513 extents set)\n");
}

TEST_F(TrakctlDatablockMap, OnlyTheBytesTheDriverWroteCount) {
    map = {0x00, 0x80};

    const auto result = runner.run({"datablock-map", "4", "--extent-size", "65536"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "extents 15 of 33 (extent size 65536)\n"
              "bytes 983040-1048575 (1 extents set)\n");
}

TEST_F(TrakctlDatablockMap, PrintsJson) {
    map = {0x0F, 0x00, 0x02, 0x00, 0x00};

    const auto result = runner.run({"datablock-map", "--json", "4", "--extent-size=65536"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "{\"minor\":4,\"extent_size\":65536,\"extent_cnt\":33,\"set_cnt\":5,"
              "\"ranges\":[[0,3],[17,17]],\"byte_ranges\":[[0,262143],[1114112,1179647]]}\n");
    EXPECT_EQ(trak_test::parse_json(result.out).at("set_cnt").text, "5");
}

TEST_F(TrakctlDatablockMap, WritesTheRawBitmapToAFile) {
    map = {0xFF, 0x01, 0x00, 0x80, 0x01};
    const std::string file = (files.path() / "map.bin").string();

    const auto result =
        runner.run({"datablock-map", "4", "--extent-size", "65536", "--output", file});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(files.read("map.bin"), std::string("\xFF\x01\x00\x80\x01", 5));
}

TEST_F(TrakctlDatablockMap, UsageErrors) {
    const std::string file = (files.path() / "map.bin").string();
    trak_test::expect_usage_errors(
        runner, "datablock-map",
        {
            {{"datablock-map", "4"}, "option '--extent-size' is required"},
            {{"datablock-map", "4", "--extent-size", "1M"},
             "invalid extent size '1M': expected a number from 0 to 4294967295"},
            {{"datablock-map", "4", "--extent-size", "65536", "--json", "--output", file},
             "option '--json' does not apply with --output"},
            {{"datablock-map", "4", "--extent-size", "65536", "--input", file},
             "unknown option '--input'"},
            {{"datablock-map", "--extent-size", "65536"}, "missing argument"},
        });
    EXPECT_TRUE(runner.driver().requests().empty());
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(TrakctlDatablockMap, RefusalsCarryTheDriversMeaning) {
    trak_test::expect_refusals(
        runner, Command::GetDatablockBmp, {"datablock-map", "4", "--extent-size", "65536"},
        "datablock-map 4",
        {
            {EINVAL,
             "EINVAL (no node with that minor, the node is not a snap or not started, the extent "
             "size is not a power of two at least the chunk size, or the buffer is too small)"},
            {ENOMEM,
             "ENOMEM (the snap's file system was not recognised, so it has no data-block map (or "
             "the driver ran out of memory))"},
            {ENOSYS, "ENOSYS (this driver build does not implement the command yet)"},
        });
}

TEST_F(TrakctlDatablockMap, AFilterGetsAnEmptyBufferForTheDriverToRefuse) {
    const auto result = runner.run({"datablock-map", "0", "--extent-size", "65536"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(field_at<std::int32_t>(sent(), 8), 0);
    EXPECT_TRUE(result.err.starts_with(
        "trakctl: datablock-map 0: TRAK_GET_DATABLOCK_BMP failed: EINVAL (no node with that "
        "minor, the node is not a snap"))
        << result.err;
}

TEST_F(TrakctlDatablockMap, AnUnknownMinorFailsOnItsInfo) {
    const auto result = runner.run({"datablock-map", "9", "--extent-size", "65536"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: datablock-map 9: TRAK_GET_INFO failed: EINVAL (no node with that minor)." +
                  std::string(trak_test::kSeeKernelLog));
    EXPECT_EQ(runner.driver().requests(),
              std::vector<unsigned long>{trak::command_code(Command::GetInfo)});
}

}  // namespace
