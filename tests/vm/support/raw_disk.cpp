#include "support/raw_disk.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace trak::vmtest {
namespace {

constexpr std::size_t kAlignment = 4096;
// Transfer size of whole-device reads.
constexpr std::size_t kReadChunk = 4 << 20;

class Descriptor {
  public:
    Descriptor(const std::string& path, int flags)
        : fd_(open(path.c_str(), flags | O_CLOEXEC)), error_(fd_ < 0 ? errno : 0) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] int error() const { return error_; }

  private:
    int fd_;
    int error_;
};

}  // namespace

int ReadAt(int fd, std::uint64_t offset, std::span<std::uint8_t> out) {
    std::size_t done = 0;
    while (done < out.size()) {
        const ssize_t n =
            pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
        if (n < 0) {
            return errno;
        }
        if (n == 0) {
            return EIO;
        }
        done += static_cast<std::size_t>(n);
    }
    return 0;
}

DirectBuffer::DirectBuffer(std::size_t size)
    : data_(new (std::align_val_t{kAlignment}) std::uint8_t[size]), size_(size) {}

void DirectBuffer::Delete::operator()(std::uint8_t* p) const {
    ::operator delete[](p, std::align_val_t{kAlignment});
}

DeviceSize SizeOfDevice(const std::string& path) {
    const Descriptor device(path, O_RDONLY);
    if (device.fd() < 0) {
        return {device.error(), 0};
    }
    std::uint64_t bytes = 0;
    if (ioctl(device.fd(), BLKGETSIZE64, &bytes) != 0) {
        return {errno, 0};
    }
    return {0, bytes};
}

DirectWriter::DirectWriter(const std::string& path)
    : fd_(open(path.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC)), error_(fd_ < 0 ? errno : 0) {}

DirectWriter::~DirectWriter() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

int DirectWriter::Write(std::uint64_t offset, std::span<const std::uint8_t> bytes) const {
    if (fd_ < 0) {
        return error_;
    }
    DirectBuffer buffer(bytes.size());
    std::copy(bytes.begin(), bytes.end(), buffer.bytes().begin());
    const ssize_t n = pwrite(fd_, buffer.bytes().data(), bytes.size(), static_cast<off_t>(offset));
    if (n < 0) {
        return errno;
    }
    return static_cast<std::size_t>(n) == bytes.size() ? 0 : EIO;
}

int DirectWriter::Fill(std::uint64_t offset, std::size_t length, std::uint8_t fill) const {
    const std::vector<std::uint8_t> bytes(length, fill);
    return Write(offset, bytes);
}

int DirectWriter::Sync() const {
    if (fd_ < 0) {
        return error_;
    }
    return fsync(fd_) == 0 ? 0 : errno;
}

int FillDirect(const std::string& path, std::uint64_t offset, std::size_t length,
               std::uint8_t fill) {
    return DirectWriter(path).Fill(offset, length, fill);
}

DiskBytes ReadDirect(const std::string& path, std::uint64_t offset, std::size_t length) {
    const Descriptor device(path, O_RDONLY | O_DIRECT);
    if (device.fd() < 0) {
        return {device.error(), {}};
    }
    DirectBuffer buffer(length);
    const int error = ReadAt(device.fd(), offset, buffer.bytes());
    if (error != 0) {
        return {error, {}};
    }
    return {0, {buffer.bytes().begin(), buffer.bytes().end()}};
}

int SyncDevice(const std::string& path) {
    const Descriptor device(path, O_RDONLY);
    if (device.fd() < 0) {
        return device.error();
    }
    return fsync(device.fd()) == 0 ? 0 : errno;
}

int DiskCopy::Take(const std::string& path) {
    const DeviceSize size = SizeOfDevice(path);
    if (size.error != 0) {
        return size.error;
    }
    const Descriptor device(path, O_RDONLY | O_DIRECT);
    if (device.fd() < 0) {
        return device.error();
    }
    data_ = std::make_unique<DirectBuffer>(size.bytes);
    size_ = size.bytes;
    for (std::uint64_t at = 0; at < size_; at += kReadChunk) {
        const std::size_t n = std::min<std::uint64_t>(kReadChunk, size_ - at);
        if (const int error = ReadAt(device.fd(), at, data_->bytes().subspan(at, n)); error != 0) {
            return error;
        }
    }
    return 0;
}

DiskCopy::Changes DiskCopy::ChangedExtents(const std::string& path,
                                           std::uint32_t extent_size) const {
    Changes changes{0, {}};
    const Descriptor device(path, O_RDONLY | O_DIRECT);
    if (device.fd() < 0) {
        changes.error = device.error();
        return changes;
    }
    DirectBuffer chunk(kReadChunk);
    for (std::uint64_t at = 0; at < size_; at += kReadChunk) {
        const std::size_t n = std::min<std::uint64_t>(kReadChunk, size_ - at);
        const std::span<std::uint8_t> now = chunk.bytes().first(n);
        if (const int error = ReadAt(device.fd(), at, now); error != 0) {
            changes.error = error;
            return changes;
        }
        const std::span<const std::uint8_t> then = data_->bytes().subspan(at, n);
        for (std::size_t off = 0; off < n; off += extent_size) {
            const std::size_t len = std::min<std::size_t>(extent_size, n - off);
            if (std::memcmp(now.data() + off, then.data() + off, len) != 0) {
                changes.extents.push_back((at + off) / extent_size);
            }
        }
    }
    return changes;
}

}  // namespace trak::vmtest
