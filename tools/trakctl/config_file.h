// The boot-time configuration, /etc/trak/trak.conf: the filter nodes to set
// up over partitions, and the snaps that may be resumed on them.
//
// The file is made of sections of "key = value" lines; blank lines and lines
// starting with '#' are ignored:
//
//   [filter data]                          the node's name
//   device = /dev/disk/by-uuid/0a1b...     the partition, by a stable path
//   minor = 0
//   extent_size = 65536
//   bitmap_dir = /var/lib/trak
//   uuid = {...}                           optional
//
//   [snap nightly]
//   filter = data                          the name of a [filter] section
//   minor = 4
//   chunk_size = 65536
//   cow_dir = /srv/cow                     COW files named after the uuid
//   uuid = {...}
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace trakctl {

inline constexpr std::string_view kDefaultConfigFile = "/etc/trak/trak.conf";

// A file that cannot be used; what() reads "FILE:LINE: what is wrong".
class ConfigError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct FilterConfig {
    std::string name;
    std::string device;
    std::int32_t minor = 0;
    std::uint32_t extent_size = 0;
    std::string bitmap_dir;
    std::string uuid;  // empty: the driver chooses
    int line = 0;      // of the section header
};

struct SnapConfig {
    std::string name;
    std::string filter;  // the name of its filter's section
    std::int32_t minor = 0;
    std::uint32_t chunk_size = 0;
    std::string cow_dir;
    std::string uuid;
    int line = 0;
};

struct Config {
    std::string file;  // where it was read from, for messages
    std::vector<FilterConfig> filters;
    std::vector<SnapConfig> snaps;

    const FilterConfig* find_filter(std::string_view name) const;
};

// Parses the text of a configuration read from `file`. Throws ConfigError
// for a malformed line, an unknown section or key, a key given twice, a bad
// value, a missing key, and names or minors used twice.
Config parse_config(std::string_view text, const std::string& file);

// Reads and parses `path`; throws std::system_error when it cannot be read.
Config read_config(const std::filesystem::path& path);

}  // namespace trakctl
