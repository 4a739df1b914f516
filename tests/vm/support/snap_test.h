// Base fixture of the snapshot tests: a filter test with an ext4 on the
// spare disk to hold COW files (they must live on a file system with a
// block device of its own), and the mounts of nodes and device-mapper
// devices that must go before the driver is unloaded, and the COW file
// systems after it.
#ifndef TRAK_TESTS_VM_SUPPORT_SNAP_TEST_H_
#define TRAK_TESTS_VM_SUPPORT_SNAP_TEST_H_

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/filter_test.h"
#include "support/kernel_log.h"
#include "trak_ioctl.h"

namespace trak::vmtest {

class SnapTest : public FilterTest {
  protected:
    // Where COW files go unless a test chooses another place.
    static constexpr const char* kCowDir = "/mnt/trak-cow";
    // The extent size of the filters snapped here: change tracking goes on
    // under every snap, but these tests do not look at it.
    static constexpr std::uint32_t kExtent = 65536;

    void SetUp() override;
    void TearDown() override;

    // "<dir>/trak<minor>.cowbmp" and "<dir>/trak<minor>.cowdata".
    static std::string CowBitmapPath(std::int32_t minor, const std::string& dir = kCowDir);
    static std::string CowDataPath(std::int32_t minor, const std::string& dir = kCowDir);

    // Adds a snap node on `minor` to the filter, its COW files in `cow_dir`
    // (fatal failure otherwise).
    void AddSnapNode(std::int32_t filter_minor, std::uint32_t chunk_size, std::int32_t minor,
                     const std::string& cow_dir = kCowDir);
    // Adds a snap node and starts it: the snapshot is taken.
    void TakeSnap(std::int32_t filter_minor, std::uint32_t chunk_size, std::int32_t minor,
                  const std::string& cow_dir = kCowDir);

    // A loop device (512-byte sectors) whose contents are `image`; its
    // size is a multiple of 4096. Empty on failure, with a failure
    // reported.
    std::string AttachLoopHolding(std::span<const std::uint8_t> image);

    // mount(2) of a node (or anything else that must be unmounted before
    // the driver is unloaded) with `flags` and file-system `options`.
    // Returns 0 or errno.
    [[nodiscard]] int MountNode(const std::string& device, const std::string& dir,
                                const std::string& fs_type, unsigned long flags,
                                const std::string& options);
    int UnmountNode(const std::string& dir);

    // A new file system made by `mkfs` (the device is appended) on a loop
    // device of `bytes` bytes, mounted on `dir` until after the driver is
    // unloaded: a COW store of a size or kind of its own. Fatal failure
    // otherwise.
    void MountSmallFileSystem(std::uint64_t bytes, std::vector<std::string> mkfs,
                              const std::string& fs_type, const std::string& dir);

    // A device-mapper device made from `table` (one target a line),
    // removed after the driver is unloaded. Returns /dev/mapper/<name>, or "" with a failure
    // reported.
    std::string CreateMappedDevice(const std::string& name, const std::string& table);

    // Swaps the table of the device-mapper device `name` for `table`
    // (suspended for the swap); false if dmsetup failed.
    static bool ReplaceMappedTable(const std::string& name, const std::string& table);

    // A line that a thread of the driver's own (kcowd) logs at an
    // informational level, tagged with its pid: "<pid>: " and exactly
    // `text`.
    static LogPattern ThreadLine(std::string_view text);

  private:
    std::vector<std::string> node_mounts_;
    std::vector<std::string> mapped_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_SNAP_TEST_H_
