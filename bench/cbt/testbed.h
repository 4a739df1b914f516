// The three devices the benchmark compares, each over its own memory-backed
// null_blk device of the same size: the raw device, dm-linear over one, and
// a started trak filter node over one, whose bitmap files live on an ext4
// on a disk of their own, as they would in use.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace cbt {

struct Target {
    std::string name;
    std::string device;
    bool tracked;  // the trak node
};

class Testbed {
  public:
    // Loads null_blk with three devices of `device_gib` GiB, makes the
    // dm-linear device, loads the trak module from `module` and adds and
    // starts a filter node (64 KiB extents, bitmap files on a new ext4 on
    // `bitmap_disk`). What was set up is undone when a step fails.
    Testbed(const std::filesystem::path& module, std::uint32_t device_gib,
            const std::string& bitmap_disk);
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;
    Testbed(Testbed&&) = delete;
    Testbed& operator=(Testbed&&) = delete;
    // Undoes everything, newest first; failures are reported on stderr.
    ~Testbed();

    const std::vector<Target>& targets() const { return targets_; }

    // Clears both change bitmaps of the trak node, which saves both files
    // clean: the node's next write that sets a bit waits for a dirty mark.
    void clear_bitmaps() const;

  private:
    void set_up(const std::filesystem::path& module, std::uint32_t device_gib,
                const std::string& bitmap_disk);
    void tear_down() noexcept;

    std::vector<Target> targets_;
    std::int32_t trak_minor_ = -1;
    std::vector<std::function<void()>> undo_;
};

}  // namespace cbt
