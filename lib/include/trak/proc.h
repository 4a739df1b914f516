// Reading and writing the driver's status tree under /proc.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace trak {

inline constexpr std::string_view kDefaultProcRoot = "/proc/trak";

// The /proc/trak tree. Failures to read or write an entry throw
// std::system_error; an entry whose text is not the number expected throws
// std::runtime_error.
class ProcTree {
  public:
    explicit ProcTree(std::filesystem::path root = std::filesystem::path(kDefaultProcRoot));

    const std::filesystem::path& root() const noexcept { return root_; }

    int chr_major() const;
    int blk_major() const;
    int debug() const;
    void set_debug(int level) const;

    // The text of trakN/ENTRY without its final newline; entries that list
    // several values (`snaps`) keep the newlines between them.
    std::string node_entry(std::int32_t minor, std::string_view entry) const;
    // The value of a numeric node entry, such as `dev_size` or `use_cnt`.
    std::int64_t node_number(std::int32_t minor, std::string_view entry) const;

  private:
    std::filesystem::path node_path(std::int32_t minor, std::string_view entry) const;

    std::filesystem::path root_;
};

}  // namespace trak
