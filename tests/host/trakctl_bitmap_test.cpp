// trakctl bitmap: every action against a fake driver that keeps two bitmaps.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include "error_reports.h"
#include "json_parser.h"
#include "record_bytes.h"
#include "temp_dir.h"
#include "trakctl_runner.h"

namespace {

using trak::Command;
using trak_test::field_at;

// 33 extents of 64 KiB over 2 MiB + 4 KiB: the last extent holds 4 KiB, and
// the bitmaps have 5 bytes, of which the last has one bit that counts.
constexpr std::uint32_t kExtentSize = 65536;
constexpr std::uint32_t kExtents = 33;
constexpr std::uint64_t kDevSize = 2101248;
constexpr std::size_t kBitmapSize = 5;

using Bitmap = std::array<std::uint8_t, kBitmapSize>;

trak_info_args small_filter() {
    trak_info_args record = trak_test::filter_record(0);
    record.dev_size = kDevSize;
    record.extent_size = kExtentSize;
    record.extent_cnt = kExtents;
    record.incr_bmp_size = kBitmapSize;
    record.diff_bmp_size = kBitmapSize;
    return record;
}

// Answers the bitmap commands for filter 0 the way the driver does, and
// refuses them with EINVAL for any other minor, a bad kind or a bad size.
class TrakctlBitmap : public ::testing::Test {
  protected:
    TrakctlBitmap() {
        runner.driver().add_node(small_filter());
        runner.driver().add_node(trak_test::snap_record(4));
        on_data(Command::GetBmp, [](Bitmap& bits, std::span<std::uint8_t> user) {
            std::copy(bits.begin(), bits.end(), user.begin());
        });
        on_data(Command::GetAndClrBmp, [](Bitmap& bits, std::span<std::uint8_t> user) {
            std::copy(bits.begin(), bits.end(), user.begin());
            bits.fill(0);
        });
        on_data(Command::MergeBmp, [](Bitmap& bits, std::span<std::uint8_t> user) {
            std::transform(bits.begin(), bits.end(), user.begin(), bits.begin(),
                           [](std::uint8_t a, std::uint8_t b) { return a | b; });
        });
        runner.driver().on(Command::SetBmp, [this](void* record) {
            const auto& rec = *static_cast<trak_bmp_data_args*>(record);
            Bitmap* bits = bitmap(rec.minor, rec.kind);
            if (bits == nullptr) {
                return -EINVAL;
            }
            if (rec.size == 0 && rec.data == 0) {
                bits->fill(0xFF);
                return 0;
            }
            if (rec.size != static_cast<std::int32_t>(kBitmapSize) || rec.data == 0) {
                return -EINVAL;
            }
            std::memcpy(bits->data(), user_data(rec).data(), kBitmapSize);
            return 0;
        });
        runner.driver().on(Command::ClrBmp, [this](void* record) {
            const auto& rec = *static_cast<trak_bmp_args*>(record);
            Bitmap* bits = bitmap(rec.minor, rec.kind);
            if (bits == nullptr) {
                return -EINVAL;
            }
            bits->fill(0);
            return 0;
        });
        for (const Command command : {Command::LoadBmp, Command::SaveBmp}) {
            runner.driver().on(command, [](void*) { return 0; });
        }
    }

    static std::span<std::uint8_t> user_data(const trak_bmp_data_args& rec) {
        return {reinterpret_cast<std::uint8_t*>(rec.data), static_cast<std::size_t>(rec.size)};
    }

    Bitmap* bitmap(std::uint32_t minor, std::uint32_t kind) {
        if (minor != 0 || kind > 1) {
            return nullptr;
        }
        return kind == TRAK_BMP_INCR ? &incr : &diff;
    }

    // Installs a handler for a command with a data record of the bitmap's size.
    void on_data(Command command, void (*action)(Bitmap&, std::span<std::uint8_t>)) {
        runner.driver().on(command, [this, action](void* record) {
            const auto& rec = *static_cast<trak_bmp_data_args*>(record);
            Bitmap* bits = bitmap(rec.minor, rec.kind);
            if (bits == nullptr || rec.size != static_cast<std::int32_t>(kBitmapSize) ||
                rec.data == 0) {
                return -EINVAL;
            }
            action(*bits, user_data(rec));
            return 0;
        });
    }

    // The record of the last request, with its command.
    void expect_last(Command command, std::uint32_t minor, std::uint32_t kind) {
        const auto& record = runner.driver().last_record();
        EXPECT_EQ(runner.driver().requests().back(), trak::command_code(command));
        EXPECT_EQ(field_at<std::uint32_t>(record, 0), minor);
        EXPECT_EQ(field_at<std::uint32_t>(record, 4), kind);
    }

    Bitmap incr{};
    Bitmap diff{};
    trak_test::TempDir files;
    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlBitmap, GetShowsTheSetExtentsAndTheirBytes) {
    incr = {0x0F, 0x00, 0x02, 0x00, 0x01};

    const auto result = runner.run({"bitmap", "get", "0", "incr"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "extents 0-3,17,32 of 33 (extent size 65536)\n"
              "bytes 0-262143,1114112-1179647,2097152-2101247 (6 extents set)\n");
    expect_last(Command::GetBmp, 0, TRAK_BMP_INCR);
    EXPECT_EQ(field_at<std::int32_t>(runner.driver().last_record(), 8), 5);
    EXPECT_EQ(incr, (Bitmap{0x0F, 0x00, 0x02, 0x00, 0x01}));
}

TEST_F(TrakctlBitmap, GetIgnoresBitsPastTheLastExtent) {
    diff.fill(0xFF);

    const auto result = runner.run({"bitmap", "get", "0", "diff"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "extents 0-32 of 33 (extent size 65536)\n"
              "bytes 0-2101247 (33 extents set)\n");
    expect_last(Command::GetBmp, 0, TRAK_BMP_DIFF);
}

TEST_F(TrakctlBitmap, GetOfAClearBitmapSaysNone) {
    const auto result = runner.run({"bitmap", "get", "0", "incr"});

    EXPECT_EQ(result.out,
              "extents none of 33 (extent size 65536)\n"
              "bytes none (0 extents set)\n");
}

TEST_F(TrakctlBitmap, GetAsJson) {
    incr = {0x0F, 0x00, 0x02, 0x00, 0x00};

    const auto result = runner.run({"bitmap", "--json", "get", "0", "incr"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "{\"minor\":0,\"kind\":\"incr\",\"extent_size\":65536,\"extent_cnt\":33,"
              "\"set_cnt\":5,\"ranges\":[[0,3],[17,17]],"
              "\"byte_ranges\":[[0,262143],[1114112,1179647]]}\n");
    const trak_test::JsonValue json = trak_test::parse_json(result.out);
    EXPECT_EQ(json.at("ranges").items.size(), 2U);
}

TEST_F(TrakctlBitmap, GetClearShowsWhatWasSetAndClearsIt) {
    diff = {0x00, 0x80, 0x01, 0x00, 0x00};

    const auto result = runner.run({"bitmap", "get-clear", "0", "diff"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "extents 15-16 of 33 (extent size 65536)\n"
              "bytes 983040-1114111 (2 extents set)\n");
    expect_last(Command::GetAndClrBmp, 0, TRAK_BMP_DIFF);
    EXPECT_EQ(diff, Bitmap{});
}

TEST_F(TrakctlBitmap, GetWritesTheRawBytesToAFile) {
    incr = {0xFF, 0x01, 0x00, 0x80, 0xFE};
    const std::string file = (files.path() / "incr.bin").string();

    const auto result = runner.run({"bitmap", "get", "0", "incr", "--output", file});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(files.read("incr.bin"), std::string("\xFF\x01\x00\x80\xFE", 5));
}

TEST_F(TrakctlBitmap, GetClearToAFileClearsToo) {
    incr = {0x01, 0x02, 0x03, 0x04, 0x01};
    const std::string file = (files.path() / "incr.bin").string();

    const auto result = runner.run({"bitmap", "get-clear", "--output=" + file, "0", "incr"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(files.read("incr.bin"), std::string("\x01\x02\x03\x04\x01", 5));
    EXPECT_EQ(incr, Bitmap{});
}

TEST_F(TrakctlBitmap, GetOfASnapIsRefusedByTheDriver) {
    const auto result = runner.run({"bitmap", "get", "4", "incr"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "trakctl: bitmap get 4 incr: TRAK_GET_BMP failed: EINVAL (no node with that minor, "
              "the node is not a filter, or the bitmap kind or size is bad)." +
                  std::string(trak_test::kSeeKernelLog));
}

TEST_F(TrakctlBitmap, GetOfAnUnknownMinorFailsOnItsInfo) {
    const auto result = runner.run({"bitmap", "get", "9", "diff"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: bitmap get 9 diff: TRAK_GET_INFO failed: EINVAL (no node with that "
              "minor)." +
                  std::string(trak_test::kSeeKernelLog));
}

TEST_F(TrakctlBitmap, ClearSendsTheShortRecord) {
    incr.fill(0x55);

    const auto result = runner.run({"bitmap", "clear", "0", "incr"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    expect_last(Command::ClrBmp, 0, TRAK_BMP_INCR);
    EXPECT_EQ(runner.driver().last_record().size(), 8U);
    EXPECT_EQ(incr, Bitmap{});
}

TEST_F(TrakctlBitmap, SetReplacesTheBitmapByTheFile) {
    files.write("in.bin", std::string("\x10\x20\x30\x40\x01", 5));
    diff.fill(0xFF);

    const auto result =
        runner.run({"bitmap", "set", "0", "diff", "--input", (files.path() / "in.bin").string()});

    ASSERT_EQ(result.status, 0) << result.err;
    expect_last(Command::SetBmp, 0, TRAK_BMP_DIFF);
    EXPECT_EQ(field_at<std::int32_t>(runner.driver().last_record(), 8), 5);
    EXPECT_EQ(diff, (Bitmap{0x10, 0x20, 0x30, 0x40, 0x01}));
}

TEST_F(TrakctlBitmap, SetAllSendsNoSizeAndNoAddress) {
    const auto result = runner.run({"bitmap", "set", "--all", "0", "incr"});

    ASSERT_EQ(result.status, 0) << result.err;
    expect_last(Command::SetBmp, 0, TRAK_BMP_INCR);
    EXPECT_EQ(field_at<std::int32_t>(runner.driver().last_record(), 8), 0);
    EXPECT_EQ(field_at<std::uint64_t>(runner.driver().last_record(), 16), 0U);
    EXPECT_EQ(incr, (Bitmap{0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST_F(TrakctlBitmap, SetTakesEitherAnInputFileOrAll) {
    files.write("in.bin", std::string(5, '\0'));
    const std::string file = (files.path() / "in.bin").string();

    const auto neither = runner.run({"bitmap", "set", "0", "incr"});
    const auto both = runner.run({"bitmap", "set", "0", "incr", "--all", "--input", file});

    EXPECT_EQ(neither.status, 2);
    EXPECT_EQ(neither.err,
              "trakctl: bitmap: set takes either --input FILE or --all\n"
              "Try 'trakctl bitmap --help'.\n");
    EXPECT_EQ(both.status, 2);
    EXPECT_EQ(both.err, neither.err);
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlBitmap, AnInputFileOfTheWrongSizeIsRefusedBeforeTheDriverSeesIt) {
    files.write("in.bin", std::string(4, '\xFF'));
    const std::string file = (files.path() / "in.bin").string();

    const auto result = runner.run({"bitmap", "set", "0", "incr", "--input", file});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "trakctl: bitmap set 0 incr: " + file +
                              " holds 4 bytes, but the incr bitmap of node 0 has 5\n");
    EXPECT_EQ(runner.driver().requests(),
              std::vector<unsigned long>{trak::command_code(Command::GetInfo)});
    EXPECT_EQ(incr, Bitmap{});
}

TEST_F(TrakctlBitmap, AMissingInputFileFails) {
    const std::string file = (files.path() / "absent.bin").string();

    const auto result = runner.run({"bitmap", "merge", "0", "incr", "--input", file});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "trakctl: bitmap merge 0 incr: cannot read " + file +
                              ": No such file or directory\n");
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlBitmap, MergeOrsTheFileIn) {
    incr = {0x01, 0x00, 0x00, 0x00, 0x00};
    files.write("in.bin", std::string("\x02\x00\x00\x00\x01", 5));

    const auto result =
        runner.run({"bitmap", "merge", "0", "incr", "--input", (files.path() / "in.bin").string()});

    ASSERT_EQ(result.status, 0) << result.err;
    expect_last(Command::MergeBmp, 0, TRAK_BMP_INCR);
    EXPECT_EQ(incr, (Bitmap{0x03, 0x00, 0x00, 0x00, 0x01}));
}

TEST_F(TrakctlBitmap, MergeNeedsAnInputFile) {
    const auto result = runner.run({"bitmap", "merge", "0", "incr"});

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "trakctl: bitmap: merge needs --input FILE\nTry 'trakctl bitmap --help'.\n");
}

TEST_F(TrakctlBitmap, LoadAndSaveSendTheShortRecord) {
    ASSERT_EQ(runner.run({"bitmap", "load", "0", "diff"}).status, 0);
    expect_last(Command::LoadBmp, 0, TRAK_BMP_DIFF);
    EXPECT_EQ(runner.driver().last_record().size(), 8U);

    ASSERT_EQ(runner.run({"bitmap", "save", "0", "incr"}).status, 0);
    expect_last(Command::SaveBmp, 0, TRAK_BMP_INCR);
}

TEST_F(TrakctlBitmap, LoadOfAMissingFileSaysTheBitmapIsNowAllOnes) {
    runner.driver().on(Command::LoadBmp, [](void*) { return -EIO; });

    const auto result = runner.run({"bitmap", "load", "0", "incr"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: bitmap load 0 incr: TRAK_LOAD_BMP failed: EIO (the bitmap file is "
              "missing, unreadable or has a bad prefix (the bitmap is now all ones: every extent "
              "counts as changed))." +
                  std::string(trak_test::kSeeKernelLog));
}

TEST_F(TrakctlBitmap, SaveOntoTheFilteredPartitionIsRefused) {
    runner.driver().on(Command::SaveBmp, [](void*) { return -EINVAL; });

    const auto result = runner.run({"bitmap", "save", "0", "diff"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "trakctl: bitmap save 0 diff: TRAK_SAVE_BMP failed: EINVAL (no node with that "
              "minor, the node is not a filter, the bitmap kind is bad, or the bitmap file lies "
              "on the filtered partition)." +
                  std::string(trak_test::kSeeKernelLog));
}

TEST_F(TrakctlBitmap, OptionsThatDoNotApplyAreUsageErrors) {
    const std::string file = (files.path() / "f").string();
    trak_test::expect_usage_errors(
        runner, "bitmap",
        {
            {{"bitmap", "clear", "0", "incr", "--output", file},
             "option '--output' does not apply to clear"},
            {{"bitmap", "get", "0", "incr", "--all"}, "option '--all' does not apply to get"},
            {{"bitmap", "merge", "0", "incr", "--all"}, "option '--all' does not apply to merge"},
            {{"bitmap", "set", "0", "incr", "--output", file},
             "option '--output' does not apply to set"},
            {{"bitmap", "load", "0", "incr", "--json"}, "option '--json' does not apply to load"},
            {{"bitmap", "get", "0", "incr", "--json", "--output", file},
             "option '--json' does not apply to get with --output"},
        });
    EXPECT_TRUE(runner.driver().requests().empty());
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(TrakctlBitmap, UnknownActionAndKindAreUsageErrors) {
    const auto action = runner.run({"bitmap", "dump", "0", "incr"});
    const auto kind = runner.run({"bitmap", "get", "0", "full"});
    const auto missing = runner.run({"bitmap", "get", "0"});

    EXPECT_EQ(action.status, 2);
    EXPECT_EQ(action.err,
              "trakctl: bitmap: unknown bitmap action 'dump': expected get, get-clear, clear, "
              "set, merge, load or save\nTry 'trakctl bitmap --help'.\n");
    EXPECT_EQ(kind.status, 2);
    EXPECT_EQ(kind.err,
              "trakctl: bitmap: unknown bitmap kind 'full': expected incr or diff\n"
              "Try 'trakctl bitmap --help'.\n");
    EXPECT_EQ(missing.status, 2);
    EXPECT_TRUE(runner.driver().requests().empty());
}

}  // namespace
