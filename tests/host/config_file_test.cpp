// The boot-time configuration file: what a good one gives, and the line
// every bad one is reported on.
#include <config_file.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using trakctl::ConfigError;
using trakctl::parse_config;

constexpr std::string_view kGood =
    "# tracked partitions\n"
    "\n"
    "[filter data]\n"
    "device = /dev/disk/by-uuid/0a1b2c3d\n"
    "minor = 0\n"
    "  extent_size=65536  \n"
    "bitmap_dir = /var/lib/trak\n"
    "uuid = {00000000-1111-2222-3333-444444444444}\n"
    "\n"
    "[filter logs]\n"
    "device = /dev/disk/by-id/ata-X-part2\n"
    "minor = 1\n"
    "extent_size = 4096\n"
    "bitmap_dir = /var/lib/trak\n"
    "\n"
    "[snap nightly]\n"
    "filter = data\n"
    "minor = 4\n"
    "chunk_size = 65536\n"
    "cow_dir = /srv/cow\n"
    "uuid = {fedcba98-7654-3210-fedc-ba9876543210}\n";

// The message parse_config throws for `text`, or "" when it accepts it.
std::string error_of(std::string_view text) {
    try {
        parse_config(text, "/etc/trak/trak.conf");
    } catch (const ConfigError& error) {
        return error.what();
    }
    return "";
}

TEST(ConfigFile, GoodFileGivesEverySection) {
    const trakctl::Config config = parse_config(kGood, "/etc/trak/trak.conf");

    ASSERT_EQ(config.filters.size(), 2U);
    const trakctl::FilterConfig& data = config.filters[0];
    EXPECT_EQ(data.name, "data");
    EXPECT_EQ(data.device, "/dev/disk/by-uuid/0a1b2c3d");
    EXPECT_EQ(data.minor, 0);
    EXPECT_EQ(data.extent_size, 65536U);
    EXPECT_EQ(data.bitmap_dir, "/var/lib/trak");
    EXPECT_EQ(data.uuid, "{00000000-1111-2222-3333-444444444444}");
    EXPECT_EQ(data.line, 3);
    EXPECT_EQ(config.filters[1].name, "logs");
    EXPECT_EQ(config.filters[1].uuid, "");
    ASSERT_EQ(config.snaps.size(), 1U);
    const trakctl::SnapConfig& snap = config.snaps[0];
    EXPECT_EQ(snap.name, "nightly");
    EXPECT_EQ(snap.filter, "data");
    EXPECT_EQ(snap.minor, 4);
    EXPECT_EQ(snap.chunk_size, 65536U);
    EXPECT_EQ(snap.cow_dir, "/srv/cow");
    EXPECT_EQ(snap.uuid, "{fedcba98-7654-3210-fedc-ba9876543210}");
    EXPECT_EQ(config.find_filter("logs"), &config.filters[1]);
    EXPECT_EQ(config.find_filter("nightly"), nullptr);
}

TEST(ConfigFile, EmptyFileConfiguresNothing) {
    const trakctl::Config config = parse_config("# nothing yet\n", "f");

    EXPECT_TRUE(config.filters.empty());
    EXPECT_TRUE(config.snaps.empty());
}

constexpr std::string_view kFilterHead = "[filter data]\ndevice = /dev/vdb\nminor = 0\n";

TEST(ConfigFile, EachBadLineIsNamedWithFileAndLine) {
    const std::string full = std::string(kFilterHead) + "extent_size = 4096\nbitmap_dir = /b\n";
    EXPECT_EQ(error_of("device = /dev/vdb\n"),
              "/etc/trak/trak.conf:1: 'device = /dev/vdb' is outside any section");
    EXPECT_EQ(error_of("\n[volume x]\n"),
              "/etc/trak/trak.conf:2: unknown section 'volume': expected filter or snap");
    EXPECT_EQ(error_of("[filter data\n"), "/etc/trak/trak.conf:1: a section header ends with ']'");
    EXPECT_EQ(error_of("[filter]\n"),
              "/etc/trak/trak.conf:1: a section is [filter NAME], NAME one word");
    EXPECT_EQ(error_of("[filter data]\ndevice /dev/vdb\n"),
              "/etc/trak/trak.conf:2: expected 'key = value', not 'device /dev/vdb'");
    EXPECT_EQ(error_of("[filter data]\ncolour = blue\n"),
              "/etc/trak/trak.conf:2: unknown key 'colour' in a filter section");
    EXPECT_EQ(error_of("[snap s]\nextent_size = 4096\n"),
              "/etc/trak/trak.conf:2: unknown key 'extent_size' in a snap section");
    EXPECT_EQ(error_of("[filter data]\nminor =\n"), "/etc/trak/trak.conf:2: 'minor' has no value");
    EXPECT_EQ(error_of(std::string(kFilterHead) + "minor = 1\n"),
              "/etc/trak/trak.conf:4: 'minor' is given twice");
    EXPECT_EQ(error_of("[filter data]\ndevice = /dev/vdb\nminor = -1\n"
                       "extent_size = 4096\nbitmap_dir = /b\n"),
              "/etc/trak/trak.conf:3: invalid minor '-1': expected a number from 0 to "
              "2147483647");
    EXPECT_EQ(error_of(std::string(kFilterHead) + "extent_size = 64k\nbitmap_dir = /b\n"),
              "/etc/trak/trak.conf:4: invalid extent size '64k': expected a number from 0 to "
              "4294967295");
    EXPECT_EQ(error_of(std::string(kFilterHead) + "extent_size = 4096\nbitmap_dir = trak\n"),
              "/etc/trak/trak.conf:5: bitmap_dir must be an absolute path, not 'trak'");
    EXPECT_EQ(error_of(full + "uuid = 1234\n"),
              "/etc/trak/trak.conf:6: '1234' is not a uuid of the form "
              "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}");
}

TEST(ConfigFile, MissingKeyIsNamedOnItsSectionsLine) {
    EXPECT_EQ(error_of("# x\n" + std::string(kFilterHead) + "extent_size = 4096\n"),
              "/etc/trak/trak.conf:2: [filter data] needs 'bitmap_dir'");
    EXPECT_EQ(error_of("[snap s]\nfilter = data\nminor = 4\nchunk_size = 4096\ncow_dir = /c\n"),
              "/etc/trak/trak.conf:1: [snap s] needs 'uuid'");
}

TEST(ConfigFile, NamesAndMinorsAreUnique) {
    const std::string data = std::string(kFilterHead) + "extent_size = 4096\nbitmap_dir = /b\n";
    EXPECT_EQ(error_of(data + "[filter data]\ndevice = /dev/vdc\nminor = 1\nextent_size = 4096\n"
                              "bitmap_dir = /b\n"),
              "/etc/trak/trak.conf:6: the name 'data' is already used on line 1");
    EXPECT_EQ(error_of(data + "[filter logs]\ndevice = /dev/vdc\nminor = 0\nextent_size = 4096\n"
                              "bitmap_dir = /b\n"),
              "/etc/trak/trak.conf:6: minor 0 is already used on line 1");
}

TEST(ConfigFile, SnapNamesAConfiguredFilter) {
    EXPECT_EQ(error_of("[snap s]\nfilter = data\nminor = 4\nchunk_size = 4096\ncow_dir = /c\n"
                       "uuid = {fedcba98-7654-3210-fedc-ba9876543210}\n"),
              "/etc/trak/trak.conf:1: no [filter data] for snap s");
}

}  // namespace
