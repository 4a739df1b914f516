// A file system as it comes back after a power failure: an image of its
// device, copied to a file (the image itself stays as it was), attached
// to a loop device and mounted, which replays its journal as the boot
// after the power failure would. Files are read from the mount until it
// is undone.
#ifndef TRAK_TESTS_VM_SUPPORT_RECOVERED_MOUNT_H_
#define TRAK_TESTS_VM_SUPPORT_RECOVERED_MOUNT_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <string>

namespace trak::vmtest {

class RecoveredMount {
  public:
    // `copy` is the file the image is copied to (in memory, e.g. under
    // /tmp), `dir` the mount point.
    RecoveredMount(std::string copy, std::string dir);
    // Undoes a mount still in place.
    ~RecoveredMount();
    RecoveredMount(const RecoveredMount&) = delete;
    RecoveredMount& operator=(const RecoveredMount&) = delete;

    // Mounts `image`, a file system of type `fs_type`, as recovered.
    ::testing::AssertionResult Mount(std::span<const std::uint8_t> image,
                                     const std::string& fs_type);
    // Unmounts it and detaches its loop device.
    ::testing::AssertionResult Unmount();

    // The path of `name` in the mounted file system.
    [[nodiscard]] std::string PathOf(const std::string& name) const { return dir_ + "/" + name; }

  private:
    std::string copy_;
    std::string dir_;
    std::string loop_;
    bool mounted_ = false;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_RECOVERED_MOUNT_H_
