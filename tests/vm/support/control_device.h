// The driver's control character device, used with raw ioctls.
#ifndef TRAK_TESTS_VM_SUPPORT_CONTROL_DEVICE_H_
#define TRAK_TESTS_VM_SUPPORT_CONTROL_DEVICE_H_

#include <cstdint>

namespace trak::vmtest {

inline constexpr const char* kControlDevicePath = "/dev/trakctl";

// What ioctl(2) itself returned, and errno when that was -1 (else 0).
struct IoctlOutcome {
    int result;
    int error;
};

class ControlDevice {
  public:
    ControlDevice() = default;
    ~ControlDevice();
    ControlDevice(const ControlDevice&) = delete;
    ControlDevice& operator=(const ControlDevice&) = delete;

    // Opens the device read-write. Returns 0 or errno.
    [[nodiscard]] int Open();
    // Closes it, so that the module can be unloaded.
    void Close();

    // Issues `request` with the record at `record`. Returns errno when the
    // call fails, else the call's own (non-negative) result.
    [[nodiscard]] int Ioctl(unsigned long request, void* record) const;
    // As Ioctl, but telling a positive result from a failure with the
    // same number.
    [[nodiscard]] IoctlOutcome IoctlRaw(unsigned long request, void* record) const;
    // As Ioctl, with an arbitrary address as the argument.
    [[nodiscard]] int IoctlAt(unsigned long request, std::uintptr_t address) const;

    [[nodiscard]] int fd() const { return fd_; }

  private:
    int fd_ = -1;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_CONTROL_DEVICE_H_
