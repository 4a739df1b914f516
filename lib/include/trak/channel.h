// The transport of control-device commands.
#pragma once

#include <string>
#include <string_view>

#include "trak/file_descriptor.h"

namespace trak {

inline constexpr std::string_view kDefaultControlDevice = "/dev/trakctl";

// Something that carries ioctl requests to the driver. Tests put a fake
// driver behind it.
class IoctlChannel {
  public:
    IoctlChannel() = default;
    IoctlChannel(const IoctlChannel&) = delete;
    IoctlChannel& operator=(const IoctlChannel&) = delete;
    IoctlChannel(IoctlChannel&&) = delete;
    IoctlChannel& operator=(IoctlChannel&&) = delete;
    virtual ~IoctlChannel() = default;

    // Issues one request; returns the driver's non-negative result, or
    // -errno on failure.
    virtual int ioctl(unsigned long request, void* arg) = 0;
};

// The control device file, open for reading and writing.
class DeviceChannel final : public IoctlChannel {
  public:
    // Throws std::system_error when the device cannot be opened.
    explicit DeviceChannel(const std::string& path);
    DeviceChannel(const DeviceChannel&) = delete;
    DeviceChannel& operator=(const DeviceChannel&) = delete;
    DeviceChannel(DeviceChannel&&) = delete;
    DeviceChannel& operator=(DeviceChannel&&) = delete;
    ~DeviceChannel() override;

    int ioctl(unsigned long request, void* arg) override;

  private:
    FileDescriptor fd_;
};

}  // namespace trak
