#include "trak/channel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace trak {

namespace {

int open_device(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        throw std::system_error(
            errno, std::generic_category(),
            "cannot open the control device " + path + " (is the trak module loaded?)");
    }
    return fd;
}

}  // namespace

DeviceChannel::DeviceChannel(const std::string& path) : fd_(open_device(path)) {}

DeviceChannel::~DeviceChannel() { ::close(fd_); }

int DeviceChannel::ioctl(unsigned long request, void* arg) {
    const int result = ::ioctl(fd_, request, arg);
    return result < 0 ? -errno : result;
}

}  // namespace trak
