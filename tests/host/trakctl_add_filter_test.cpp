// trakctl add-filter: the record it sends, what it prints, how it fails.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "json_parser.h"
#include "record_bytes.h"
#include "trakctl_runner.h"

namespace {

using trak_test::field_at;
using trak_test::string_at;

constexpr std::string_view kUuid = "{00000000-1111-2222-3333-444444444444}";

// Byte offsets in the ADD_FILTER_NODE record.
constexpr std::size_t kHddName = 0;
constexpr std::size_t kMinor = 1024;
constexpr std::size_t kExtentSize = 1028;
constexpr std::size_t kBmpDir = 1032;
constexpr std::size_t kUuidField = 2056;
constexpr std::size_t kName = 2095;

class TrakctlAddFilter : public ::testing::Test {
  protected:
    TrakctlAddFilter() {
        // Answers as the driver does: the lowest free minor is 2, a new uuid,
        // and the default name.
        runner.driver().on(trak::Command::AddFilterNode, [](void* record) {
            auto& rec = *static_cast<trak_add_filter_args*>(record);
            if (rec.minor < 0) {
                rec.minor = 2;
            }
            if (rec.uuid[0] == '\0') {
                std::memcpy(rec.uuid, kUuid.data(), kUuid.size());
            }
            if (rec.name[0] == '\0') {
                const std::string name = "trak" + std::to_string(rec.minor);
                std::memcpy(rec.name, name.data(), name.size());
            }
            return 0;
        });
        runner.proc().write("trak2/dev_name", "/dev/trak/trak2\n");
    }

    trak_test::TrakctlRunner runner;
};

TEST_F(TrakctlAddFilter, SendsTheRecordWithDefaults) {
    const auto result = runner.run(
        {"add-filter", "/dev/vda", "--extent-size", "65536", "--bitmap-dir", "/mnt/bitmaps/"});

    ASSERT_EQ(result.status, 0) << result.err;
    const auto& record = runner.driver().last_record();
    ASSERT_EQ(record.size(), sizeof(trak_add_filter_args));
    EXPECT_EQ(string_at(record, kHddName), "/dev/vda");
    EXPECT_EQ(field_at<std::int32_t>(record, kMinor), -1);
    EXPECT_EQ(field_at<std::uint32_t>(record, kExtentSize), 65536U);
    EXPECT_EQ(string_at(record, kBmpDir), "/mnt/bitmaps/");
    EXPECT_EQ(string_at(record, kUuidField), "");
    EXPECT_EQ(string_at(record, kName), "");
}

TEST_F(TrakctlAddFilter, SendsTheGivenMinorNameAndUuid) {
    runner.proc().write("trak7/dev_name", "/dev/trak/data\n");

    const auto result =
        runner.run({"add-filter", "--minor=7", "--name", "data", "--uuid", std::string_view(kUuid),
                    "/dev/vdb1", "--extent-size=4096", "--bitmap-dir=/var/lib/trak"});

    ASSERT_EQ(result.status, 0) << result.err;
    const auto& record = runner.driver().last_record();
    EXPECT_EQ(string_at(record, kHddName), "/dev/vdb1");
    EXPECT_EQ(field_at<std::int32_t>(record, kMinor), 7);
    EXPECT_EQ(field_at<std::uint32_t>(record, kExtentSize), 4096U);
    EXPECT_EQ(string_at(record, kBmpDir), "/var/lib/trak");
    EXPECT_EQ(string_at(record, kUuidField), kUuid);
    EXPECT_EQ(string_at(record, kName), "data");
    EXPECT_EQ(result.out,
              "minor:       7\n"
              "name:        data\n"
              "uuid:        {00000000-1111-2222-3333-444444444444}\n"
              "device file: /dev/trak/data\n"
              "disk device: /dev/trak7\n");
}

TEST_F(TrakctlAddFilter, RelativePathsReachTheDriverAbsolute) {
    const std::filesystem::path cwd = std::filesystem::current_path();

    const auto result =
        runner.run({"add-filter", "disk.img", "--extent-size", "65536", "--bitmap-dir", "bmp"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(string_at(runner.driver().last_record(), kHddName), (cwd / "disk.img").string());
    EXPECT_EQ(string_at(runner.driver().last_record(), kBmpDir), (cwd / "bmp").string());
}

TEST_F(TrakctlAddFilter, PrintsWhatTheDriverChose) {
    const auto result = runner.run(
        {"add-filter", "/dev/vda", "--extent-size", "65536", "--bitmap-dir", "/mnt/bitmaps"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "minor:       2\n"
              "name:        trak2\n"
              "uuid:        {00000000-1111-2222-3333-444444444444}\n"
              "device file: /dev/trak/trak2\n"
              "disk device: /dev/trak2\n");
}

TEST_F(TrakctlAddFilter, PrintsJson) {
    const auto result = runner.run({"add-filter", "--json", "/dev/vda", "--extent-size", "65536",
                                    "--bitmap-dir", "/mnt/bitmaps"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "{\"format_version\":1,\"minor\":2,\"name\":\"trak2\",\"uuid\":\"{00000000-1111-2222-"
              "3333-444444444444}\","
              "\"dev_name\":\"/dev/trak/trak2\",\"disk\":\"/dev/trak2\"}\n");
    EXPECT_EQ(trak_test::parse_json(result.out).at("minor").text, "2");
}

TEST_F(TrakctlAddFilter, ANodeWithoutADeviceFileShowsAnEmptyOne) {
    std::filesystem::remove(runner.proc().path() / "trak2" / "dev_name");

    const auto result = runner.run({"add-filter", "--json", "/dev/vda", "--extent-size", "65536",
                                    "--bitmap-dir", "/mnt/bitmaps"});

    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(trak_test::parse_json(result.out).at("dev_name").text, "");
}

TEST_F(TrakctlAddFilter, ExtentSizeAndBitmapDirAreRequired) {
    const auto no_size = runner.run({"add-filter", "/dev/vda", "--bitmap-dir", "/b"});
    const auto no_dir = runner.run({"add-filter", "/dev/vda", "--extent-size", "4096"});

    EXPECT_EQ(no_size.status, 2);
    EXPECT_EQ(no_size.err,
              "trakctl: add-filter: option '--extent-size' is required\n"
              "Try 'trakctl add-filter --help'.\n");
    EXPECT_EQ(no_dir.status, 2);
    EXPECT_EQ(no_dir.err,
              "trakctl: add-filter: option '--bitmap-dir' is required\n"
              "Try 'trakctl add-filter --help'.\n");
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlAddFilter, ExtentSizeMustBeAnUnsigned32BitNumber) {
    for (const std::string_view size : {"64K", "-4096", "4294967296", ""}) {
        const auto result =
            runner.run({"add-filter", "/dev/vda", "--extent-size", size, "--bitmap-dir", "/b"});
        EXPECT_EQ(result.status, 2) << size;
        EXPECT_EQ(result.err, "trakctl: add-filter: invalid extent size '" + std::string(size) +
                                  "': expected a number from 0 to 4294967295\n"
                                  "Try 'trakctl add-filter --help'.\n");
    }
    EXPECT_TRUE(runner.driver().requests().empty());
}

TEST_F(TrakctlAddFilter, ExtentSizesThatAreNoPowerOfTwoAreTheDriversToRefuse) {
    runner.driver().on(trak::Command::AddFilterNode, [](void*) { return -EINVAL; });

    const auto result =
        runner.run({"add-filter", "/dev/vda", "--extent-size", "12288", "--bitmap-dir", "/b"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(field_at<std::uint32_t>(runner.driver().last_record(), kExtentSize), 12288U);
    EXPECT_EQ(result.err,
              "trakctl: add-filter /dev/vda: TRAK_ADD_FILTER_NODE failed: EINVAL (the path is "
              "empty or not a block device, a filter already covers that partition, the "
              "partition cannot be opened or is empty, the extent size is bad, or the minor is "
              "too big or taken). See the kernel log (dmesg) for the driver's message.\n");
}

TEST_F(TrakctlAddFilter, AMountedPartitionIsRefusedWithTheMeaning) {
    runner.driver().on(trak::Command::AddFilterNode, [](void*) { return -EBUSY; });

    const auto result =
        runner.run({"add-filter", "/dev/vda", "--extent-size", "65536", "--bitmap-dir", "/b"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "trakctl: add-filter /dev/vda: TRAK_ADD_FILTER_NODE failed: EBUSY (the partition "
              "is mounted or already open). See the kernel log (dmesg) for the driver's "
              "message.\n");
}

TEST_F(TrakctlAddFilter, AnOverlongNameIsRefusedBeforeTheDriverSeesIt) {
    const std::string name(129, 'n');

    const auto result = runner.run(
        {"add-filter", "/dev/vda", "--extent-size", "65536", "--bitmap-dir", "/b", "--name", name});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "trakctl: add-filter /dev/vda: name is longer than 128 bytes\n");
    EXPECT_TRUE(runner.driver().requests().empty());
}

}  // namespace
