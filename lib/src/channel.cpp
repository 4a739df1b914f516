#include "trak/channel.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <system_error>

namespace trak {

namespace {

FileDescriptor open_device(const std::string& path) {
    FileDescriptor fd(path, O_RDWR);
    if (!fd.valid()) {
        throw std::system_error(
            errno, std::generic_category(),
            "cannot open the control device " + path + " (is the trak module loaded?)");
    }
    return fd;
}

}  // namespace

DeviceChannel::DeviceChannel(const std::string& path) : fd_(open_device(path)) {}

DeviceChannel::~DeviceChannel() = default;

int DeviceChannel::ioctl(unsigned long request, void* arg) {
    const int result = ::ioctl(fd_.get(), request, arg);
    return result < 0 ? -errno : result;
}

}  // namespace trak
