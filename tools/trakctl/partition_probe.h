// What apply must know about a partition before it layers a filter over
// it: whether it is there at all, and whether a file system is mounted
// from it (a write through the partition itself would bypass tracking).
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace trakctl {

inline constexpr std::string_view kDefaultMountsFile = "/proc/self/mounts";

// The path with every symbolic link resolved, as far as it exists: two
// names of one partition (/dev/disk/by-uuid/..., /dev/sdb1) compare equal.
std::filesystem::path resolved_path(const std::filesystem::path& path);

// Where the partition `device` is mounted according to `mounts_file` (in
// the format of /proc/self/mounts), if anywhere. Throws std::system_error
// when the file cannot be read.
std::optional<std::string> mount_point_of(const std::filesystem::path& device,
                                          const std::filesystem::path& mounts_file);

}  // namespace trakctl
