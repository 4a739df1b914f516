#include "support/control_device.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

namespace trak::vmtest {

ControlDevice::~ControlDevice() { Close(); }

int ControlDevice::Open() {
    Close();
    fd_ = open(kControlDevicePath, O_RDWR | O_CLOEXEC);
    return fd_ < 0 ? errno : 0;
}

void ControlDevice::Close() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

int ControlDevice::Ioctl(unsigned long request, void* record) const {
    return IoctlAt(request, reinterpret_cast<std::uintptr_t>(record));
}

IoctlOutcome ControlDevice::IoctlRaw(unsigned long request, void* record) const {
    const int rc = ioctl(fd_, request, record);
    return {rc, rc == -1 ? errno : 0};
}

int ControlDevice::IoctlAt(unsigned long request, std::uintptr_t address) const {
    const int rc = ioctl(fd_, request, address);
    return rc < 0 ? errno : rc;
}

}  // namespace trak::vmtest
