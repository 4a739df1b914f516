// Base fixture of the tests that put filter nodes over disks: the driver
// loaded, the control device open, an empty bitmap directory, and mounts
// and loop devices that are undone when the test ends, before the driver
// is unloaded.
#ifndef TRAK_TESTS_VM_SUPPORT_FILTER_TEST_H_
#define TRAK_TESTS_VM_SUPPORT_FILTER_TEST_H_

#include <cstdint>
#include <string>
#include <vector>

#include "support/bitmap_commands.h"
#include "support/control_device.h"
#include "support/module_test.h"

namespace trak::vmtest {

class FilterTest : public ModuleTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Module parameters of the load in SetUp.
    [[nodiscard]] virtual std::string DriverParams() const { return ""; }

    [[nodiscard]] const ControlDevice& control() const { return control_; }
    [[nodiscard]] const std::string& bmp_dir() const { return bmp_dir_; }
    // Bitmap directory of the nodes added from now on.
    void set_bmp_dir(const std::string& dir) { bmp_dir_ = dir; }
    // "<bmp_dir>/trak<minor>.incr" or ".diff".
    [[nodiscard]] std::string BitmapPath(std::int32_t minor, BitmapKind kind) const;
    // "trak(<blk_major>, <minor>)" as the driver names a node.
    [[nodiscard]] std::string NodeName(std::int32_t minor) const;

    // Adds a filter node over `hdd` on `minor` with bmp_dir(), and starts
    // it when `started` (fatal failure otherwise).
    void AddFilterNode(const std::string& hdd, std::uint32_t extent_size, std::int32_t minor,
                       bool started);
    // Closes the control device and unloads the driver, nodes and all.
    // Returns 0 or errno.
    int UnloadDriver();
    // Loads the driver again after UnloadDriver (fatal failure otherwise).
    void LoadDriverAgain();
    // Clears both bitmaps of `minor`, which leaves both files clean.
    void ClearBothBitmaps(std::int32_t minor);
    // Makes an ext4 on the spare disk, mounts it at `dir` and makes it the
    // bitmap directory: saves and dirty marks then wait for a disk.
    void KeepBitmapsOnSpareDisk(const std::string& dir);

    // mkdir -p and mount(2); the mount is undone at the end of the test.
    [[nodiscard]] int Mount(const std::string& device, const std::string& dir,
                            const std::string& fs_type);
    // Unmounts a mount made by Mount. Returns 0 or errno.
    int Unmount(const std::string& dir);
    // A loop device over a new file of `bytes` bytes in /tmp with the given
    // logical block size; detached at the end of the test. Empty on failure
    // (with a failure reported).
    std::string AttachLoop(std::uint64_t bytes, std::uint32_t sector_size);

  private:
    ControlDevice control_;
    std::string bmp_dir_;
    int blk_major_ = -1;
    std::vector<std::string> mounts_;
    std::vector<std::string> loops_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_FILTER_TEST_H_
