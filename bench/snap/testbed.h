// The devices the snapshot benchmark compares, each over its own
// memory-backed null_blk device of the same size: the raw device, a
// dm-snapshot origin (its COW store a second null_blk device) and a started
// trak filter node (its snaps' COW files on ext4 on a second null_blk
// device). Snapshots come and go per measurement (snapshots.h).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace snapbench {

class Testbed {
  public:
    // Loads null_blk with five devices of `device_gib` GiB, writes the first
    // `span_bytes` of the measured ones and the first few spans of the COW
    // stores once (so that no measurement pays for a memory-backed page's
    // first touch),
    // makes the dm-snapshot origin and the ext4 file system, loads the trak
    // module from `module` and adds and starts a filter node. What was set
    // up is undone when a step fails.
    Testbed(const std::filesystem::path& module, std::uint32_t device_gib,
            std::uint64_t span_bytes);
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;
    Testbed(Testbed&&) = delete;
    Testbed& operator=(Testbed&&) = delete;
    // Undoes everything, newest first; failures are reported on stderr.
    ~Testbed();

    static constexpr const char* kRawDevice = "/dev/nullb0";
    static constexpr const char* kOriginBase = "/dev/nullb1";
    static constexpr const char* kDmCowDevice = "/dev/nullb2";
    static constexpr const char* kFilteredDisk = "/dev/nullb3";
    static constexpr const char* kCowFileDisk = "/dev/nullb4";

    const std::string& origin() const { return origin_; }
    std::int32_t filter_minor() const { return filter_minor_; }
    const std::string& filter() const { return filter_; }
    const std::filesystem::path& cow_dir() const { return cow_dir_; }

  private:
    void set_up(const std::filesystem::path& module, std::uint32_t device_gib,
                std::uint64_t span_bytes);
    void make_cow_file_system();
    void add_filter(const std::filesystem::path& module);
    void tear_down() noexcept;

    std::string origin_;
    std::int32_t filter_minor_ = -1;
    std::string filter_;
    std::filesystem::path cow_dir_;
    std::vector<std::function<void()>> undo_;
};

}  // namespace snapbench
