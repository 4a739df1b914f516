// An image file opened as the partition that the shared kernel code reads.
#ifndef TRAK_HOST_COMPAT_OPENED_IMAGE_H
#define TRAK_HOST_COMPAT_OPENED_IMAGE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "trak_env.h"

namespace trak::host {

// The major and minor that messages name as "hdd(7, 3)".
constexpr unsigned kImageMajor = 7;
constexpr unsigned kImageMinor = 3;

class OpenedImage {
  public:
    explicit OpenedImage(const std::string& path) : dev_{open(path.c_str(), O_RDONLY), 0, 0} {
        struct stat st {};
        if (dev_.fd < 0 || fstat(dev_.fd, &st) != 0) {
            throw std::runtime_error("cannot open image " + path);
        }
        dev_.bd_dev = MKDEV(kImageMajor, kImageMinor);
        dev_.nr_bytes = st.st_size;
    }
    OpenedImage(const OpenedImage&) = delete;
    OpenedImage& operator=(const OpenedImage&) = delete;
    ~OpenedImage() { close(dev_.fd); }

    block_device* get() { return &dev_; }
    [[nodiscard]] long long size() const { return dev_.nr_bytes; }

  private:
    block_device dev_;
};

}  // namespace trak::host

#endif
