// trakctl snap add: the record it sends, the COW files it names, what it
// prints and how it fails.
#include <gtest/gtest.h>
#include <uuid.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "error_reports.h"
#include "json_parser.h"
#include "record_bytes.h"
#include "temp_dir.h"
#include "trakctl_runner.h"

namespace {

using trak::Command;
using trak_test::field_at;
using trak_test::string_at;

constexpr std::string_view kUuid = "{00000000-1111-2222-3333-444444444444}";

// Byte offsets in the ADD_SNAP_NODE record.
constexpr std::size_t kFilterMinor = 0;
constexpr std::size_t kSnapMinor = 4;
constexpr std::size_t kChunkSize = 8;
constexpr std::size_t kCowBmp = 12;
constexpr std::size_t kCowData = 1036;
constexpr std::size_t kUuidField = 2060;
constexpr std::size_t kName = 2099;

class TrakctlSnapAdd : public ::testing::Test {
  protected:
    TrakctlSnapAdd() {
        // Answers as the driver does: the lowest free minor is 5, a new uuid
        // unless one was given, the default name, and the chunk size raised
        // to `raised_chunk_size` when that is set.
        runner.driver().on(Command::AddSnapNode, [this](void* record) {
            auto& rec = *static_cast<trak_add_snap_args*>(record);
            if (rec.snap_minor < 0) {
                rec.snap_minor = 5;
            }
            if (rec.uuid[0] == '\0') {
                trak_test::set_string(rec.uuid, kUuid);
            }
            if (rec.name[0] == '\0') {
                trak_test::set_string(rec.name, "trak" + std::to_string(rec.snap_minor));
            }
            if (raised_chunk_size != 0) {
                rec.chunk_size = raised_chunk_size;
            }
            return 0;
        });
        runner.proc().write("trak5/dev_name", "/dev/trak/trak5\n");
    }

    const std::vector<std::uint8_t>& sent() const {
        return runner.driver().record_of(Command::AddSnapNode);
    }

    std::string cow_dir() const { return cow.path().string(); }

    std::uint32_t raised_chunk_size = 0;
    trak_test::TempDir cow;
    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlSnapAdd, SendsTheRecordWithTheGivenFilesAndDefaults) {
    const auto result = runner.run({"snap", "add", "0", "--chunk-size", "65536", "--cow-bitmap",
                                    "/srv/cow/a.bmp", "--cow-data", "/srv/cow/a.data"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(runner.driver().requests(),
              std::vector<unsigned long>{trak::command_code(Command::AddSnapNode)});
    ASSERT_EQ(sent().size(), sizeof(trak_add_snap_args));
    EXPECT_EQ(field_at<std::uint32_t>(sent(), kFilterMinor), 0U);
    EXPECT_EQ(field_at<std::int32_t>(sent(), kSnapMinor), -1);
    EXPECT_EQ(field_at<std::uint32_t>(sent(), kChunkSize), 65536U);
    EXPECT_EQ(string_at(sent(), kCowBmp), "/srv/cow/a.bmp");
    EXPECT_EQ(string_at(sent(), kCowData), "/srv/cow/a.data");
    EXPECT_EQ(string_at(sent(), kUuidField), "");
    EXPECT_EQ(string_at(sent(), kName), "");
}

TEST_F(TrakctlSnapAdd, PrintsWhatTheDriverChoseAndTheFiles) {
    const auto result = runner.run({"snap", "add", "2", "--chunk-size=65536",
                                    "--cow-bitmap=/srv/cow/a.bmp", "--cow-data=/srv/cow/a.data"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "filter:             2\n"
              "minor:              5\n"
              "name:               trak5\n"
              "uuid:               {00000000-1111-2222-3333-444444444444}\n"
              "chunk size (bytes): 65536\n"
              "COW bitmap file:    /srv/cow/a.bmp\n"
              "COW data file:      /srv/cow/a.data\n"
              "device file:        /dev/trak/trak5\n"
              "disk device:        /dev/trak5\n");
}

TEST_F(TrakctlSnapAdd, SendsTheGivenMinorNameAndUuid) {
    const auto result = runner.run({"snap", "add", "3", "--minor", "9", "--name", "nightly",
                                    "--uuid", std::string_view(kUuid), "--chunk-size", "4096",
                                    "--cow-bitmap", "/c/b", "--cow-data", "/c/d"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(field_at<std::uint32_t>(sent(), kFilterMinor), 3U);
    EXPECT_EQ(field_at<std::int32_t>(sent(), kSnapMinor), 9);
    EXPECT_EQ(field_at<std::uint32_t>(sent(), kChunkSize), 4096U);
    EXPECT_EQ(string_at(sent(), kUuidField), kUuid);
    EXPECT_EQ(string_at(sent(), kName), "nightly");
}

TEST_F(TrakctlSnapAdd, RelativeCowFilesReachTheDriverAbsolute) {
    const std::filesystem::path cwd = std::filesystem::current_path();

    const auto result = runner.run(
        {"snap", "add", "0", "--chunk-size", "4096", "--cow-bitmap", "b", "--cow-data", "d/x"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(string_at(sent(), kCowBmp), (cwd / "b").string());
    EXPECT_EQ(string_at(sent(), kCowData), (cwd / "d/x").string());
}

TEST_F(TrakctlSnapAdd, ACowDirectoryGetsFilesNamedAfterANewUuid) {
    const auto first =
        runner.run({"snap", "add", "0", "--chunk-size", "4096", "--cow-dir", cow_dir()});
    ASSERT_EQ(first.status, 0) << first.err;
    const std::string uuid = string_at(sent(), kUuidField);
    const std::string bitmap = string_at(sent(), kCowBmp);
    const std::string data = string_at(sent(), kCowData);

    EXPECT_TRUE(trakctl::is_uuid(uuid)) << uuid;
    EXPECT_EQ(uuid[15], '4') << "a random uuid is version 4: " << uuid;
    EXPECT_EQ(bitmap, cow_dir() + "/trak-snap-" + uuid.substr(1, 36) + ".cow-bitmap");
    EXPECT_EQ(data, cow_dir() + "/trak-snap-" + uuid.substr(1, 36) + ".cow-data");
    EXPECT_NE(first.out.find("uuid:               " + uuid + "\n"), std::string::npos) << first.out;
    EXPECT_NE(first.out.find("COW bitmap file:    " + bitmap + "\n"), std::string::npos);
    EXPECT_NE(first.out.find("COW data file:      " + data + "\n"), std::string::npos);

    const auto second =
        runner.run({"snap", "add", "0", "--chunk-size", "4096", "--cow-dir", cow_dir()});
    ASSERT_EQ(second.status, 0) << second.err;
    EXPECT_NE(string_at(sent(), kUuidField), uuid);
    EXPECT_NE(string_at(sent(), kCowBmp), bitmap);
}

TEST_F(TrakctlSnapAdd, ACowDirectoryAndAUuidFindTheSameFilesAgain) {
    const std::string uuid = "{0A1B2C3D-4E5F-6789-abcd-ef0123456789}";
    const std::string base = cow_dir() + "/trak-snap-0A1B2C3D-4E5F-6789-abcd-ef0123456789";

    for (int attempt = 0; attempt < 2; ++attempt) {
        const auto result = runner.run({"snap", "add", "0", "--chunk-size", "4096", "--cow-dir",
                                        cow_dir() + "/", "--uuid", uuid});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(string_at(sent(), kUuidField), uuid);
        EXPECT_EQ(string_at(sent(), kCowBmp), base + ".cow-bitmap");
        EXPECT_EQ(string_at(sent(), kCowData), base + ".cow-data");
    }
}

TEST_F(TrakctlSnapAdd, ACowDirectoryNeedsAUuidThatCanNameFiles) {
    std::vector<trak_test::UsageCase> cases;
    for (const std::string_view uuid : {"../../etc/x", "0a1b2c3d-4e5f-6789-abcd-ef0123456789",
                                        "{0a1b2c3d-4e5f-6789-abcd-ef012345678g}"}) {
        cases.push_back(
            {{"snap", "add", "0", "--chunk-size", "4096", "--cow-dir", cow_dir(), "--uuid", uuid},
             "--cow-dir names the COW files after the uuid, and '" + std::string(uuid) +
                 "' is not of the form {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}"});
    }
    trak_test::expect_usage_errors(runner, "snap", cases);
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlSnapAdd, ACowDirectoryThatIsMissingOrAFileFails) {
    cow.write("file", "x");
    const std::string missing = cow_dir() + "/absent";
    const std::string file = cow_dir() + "/file";

    const auto absent =
        runner.run({"snap", "add", "0", "--chunk-size", "4096", "--cow-dir", missing});
    const auto not_dir =
        runner.run({"snap", "add", "0", "--chunk-size", "4096", "--cow-dir", file});

    EXPECT_EQ(absent.status, 1);
    EXPECT_EQ(absent.err, "trakctl: snap add 0: cannot use the COW directory " + missing +
                              ": No such file or directory\n");
    EXPECT_EQ(not_dir.status, 1);
    EXPECT_EQ(not_dir.err,
              "trakctl: snap add 0: cannot use the COW directory " + file + ": Not a directory\n");
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlSnapAdd, TheCowFilesAreNamedOneWayOrTheOther) {
    const std::string dir = cow_dir();
    trak_test::expect_usage_errors(
        runner, "snap",
        {
            {{"snap", "add", "0", "--chunk-size", "4096"},
             "add needs --cow-dir DIR, or both --cow-bitmap FILE and --cow-data FILE"},
            {{"snap", "add", "0", "--chunk-size", "4096", "--cow-bitmap", "/c/b"},
             "add needs --cow-dir DIR, or both --cow-bitmap FILE and --cow-data FILE"},
            {{"snap", "add", "0", "--chunk-size", "4096", "--cow-data", "/c/d"},
             "add needs --cow-dir DIR, or both --cow-bitmap FILE and --cow-data FILE"},
            {{"snap", "add", "0", "--chunk-size", "4096", "--cow-dir", dir, "--cow-bitmap", "/c/b"},
             "--cow-dir and --cow-bitmap/--cow-data exclude each other"},
            {{"snap", "add", "0", "--chunk-size", "4096", "--cow-dir", dir, "--cow-data", "/c/d"},
             "--cow-dir and --cow-bitmap/--cow-data exclude each other"},
            {{"snap", "add", "0", "--chunk-size", "4096", "--cow-bitmap", "/c/f", "--cow-data",
              "/c/../c/f"},
             "the COW bitmap and the COW data must be two different files"},
        });
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlSnapAdd, TheChunkSizeIsRequiredAndAnUnsigned32BitNumber) {
    trak_test::expect_usage_errors(
        runner, "snap",
        {
            {{"snap", "add", "0", "--cow-dir", cow_dir()}, "option '--chunk-size' is required"},
            {{"snap", "add", "0", "--chunk-size", "64K", "--cow-dir", cow_dir()},
             "invalid chunk size '64K': expected a number from 0 to 4294967295"},
        });
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlSnapAdd, SaysSoWhenTheDriverRaisedTheChunkSize) {
    raised_chunk_size = 8192;

    const auto result = runner.run(
        {"snap", "add", "0", "--chunk-size", "4096", "--cow-bitmap", "/c/b", "--cow-data", "/c/d"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("chunk size (bytes): 8192\n"), std::string::npos) << result.out;
    EXPECT_TRUE(result.out.ends_with(
        "disk device:        /dev/trak5\n"
        "The driver raised the chunk size from 4096 to 8192 bytes: a snap has at most 2^30 "
        "chunks, and the partition is larger.\n"))
        << result.out;
}

TEST_F(TrakctlSnapAdd, PrintsJson) {
    const auto result = runner.run({"snap", "add", "--json", "1", "--chunk-size", "65536",
                                    "--cow-bitmap", "/c/b", "--cow-data", "/c/d"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "{\"filter_minor\":1,\"snap_minor\":5,\"name\":\"trak5\",\"uuid\":\"{00000000-1111-"
              "2222-3333-444444444444}\",\"chunk_size\":65536,\"chunk_size_raised\":false,"
              "\"cow_bmp_fname\":\"/c/b\",\"cow_data_fname\":\"/c/d\",\"dev_name\":\"/dev/trak/"
              "trak5\",\"disk\":\"/dev/trak5\"}\n");
    EXPECT_FALSE(trak_test::parse_json(result.out).at("chunk_size_raised").flag);
}

TEST_F(TrakctlSnapAdd, JsonSaysWhenTheChunkSizeWasRaised) {
    raised_chunk_size = 16384;

    const auto result = runner.run({"snap", "add", "--json", "1", "--chunk-size", "4096",
                                    "--cow-bitmap", "/c/b", "--cow-data", "/c/d"});

    ASSERT_EQ(result.status, 0) << result.err;
    const trak_test::JsonValue json = trak_test::parse_json(result.out);
    EXPECT_EQ(json.at("chunk_size").text, "16384");
    EXPECT_TRUE(json.at("chunk_size_raised").flag);
}

TEST_F(TrakctlSnapAdd, RefusalsCarryTheDriversMeaning) {
    trak_test::expect_refusals(
        runner, Command::AddSnapNode,
        {"snap", "add", "4", "--chunk-size", "4096", "--cow-bitmap", "/c/b", "--cow-data", "/c/d"},
        "snap add 4",
        {
            {EINVAL,
             "EINVAL (no filter node has that minor, a COW file lies on the partition being "
             "snapped or on a file system without a device (such as tmpfs), the chunk size is not "
             "a "
             "power of two of at least 4096 or differs from that of the filter's other snaps, or "
             "the "
             "minor is too big or taken)"},
            {ENOSPC, "ENOSPC (the filter has 256 snaps already, or every minor is in use)"},
            {ENOMEM, "ENOMEM (the driver ran out of memory)"},
            {ENOSYS, "ENOSYS (this driver build does not implement the command yet)"},
        });
}

TEST_F(TrakctlSnapAdd, ResumeOptionsDoNotApplyToAdd) {
    std::vector<trak_test::UsageCase> cases;
    for (const std::string_view option : {"--valid", "--stop-pending", "--del-pending"}) {
        cases.push_back(
            {{"snap", "add", "0", "--chunk-size", "4096", "--cow-dir", cow_dir(), option, "1"},
             "option '" + std::string(option) + "' does not apply to add"});
    }
    trak_test::expect_usage_errors(runner, "snap", cases);
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlSnapAdd, AnOverlongNameIsRefusedBeforeTheDriverSeesIt) {
    const auto result = runner.run({"snap", "add", "0", "--chunk-size", "4096", "--cow-bitmap",
                                    "/c/b", "--cow-data", "/c/d", "--name", std::string(128, 'n')});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "trakctl: snap add 0: name is longer than 127 bytes\n");
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlSnapAdd, UnknownActionsAndMissingArgumentsAreUsageErrors) {
    trak_test::expect_usage_errors(
        runner, "snap",
        {
            {{"snap", "take", "0"}, "unknown snap action 'take': expected add or resume"},
            {{"snap", "add"}, "missing argument"},
            {{"snap", "add", "x", "--cow-dir", cow_dir()},
             "invalid minor 'x': expected a number from 0 to 2147483647"},
        });
    EXPECT_TRUE(runner.driver().requests().empty());
}

}  // namespace
