// Raw reads and writes of block devices with O_DIRECT, which neither use
// nor leave pages in the device's cache: writes through a filter node do
// not pass the HDD's own cache, so only direct reads of the HDD see them.
#ifndef TRAK_TESTS_VM_SUPPORT_RAW_DISK_H_
#define TRAK_TESTS_VM_SUPPORT_RAW_DISK_H_

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace trak::vmtest {

// Memory aligned for O_DIRECT transfers.
class DirectBuffer {
  public:
    explicit DirectBuffer(std::size_t size);

    [[nodiscard]] std::span<std::uint8_t> bytes() { return {data_.get(), size_}; }
    [[nodiscard]] std::span<const std::uint8_t> bytes() const { return {data_.get(), size_}; }

  private:
    struct Delete {
        void operator()(std::uint8_t* p) const;
    };
    std::unique_ptr<std::uint8_t, Delete> data_;
    std::size_t size_;
};

// Reads exactly `out.size()` bytes at `offset` of the open file `fd`.
// Returns 0 or errno; a file that ends first is EIO.
int ReadAt(int fd, std::uint64_t offset, std::span<std::uint8_t> out);

struct DeviceSize {
    int error;  // 0 or errno
    std::uint64_t bytes;
};
// BLKGETSIZE64 of the block device `path`.
DeviceSize SizeOfDevice(const std::string& path);

// A block device open for O_DIRECT writes until this is destroyed (a
// filter node saves its bitmaps at every last close).
class DirectWriter {
  public:
    explicit DirectWriter(const std::string& path);
    ~DirectWriter();
    DirectWriter(const DirectWriter&) = delete;
    DirectWriter& operator=(const DirectWriter&) = delete;

    // 0, or the errno of the open.
    [[nodiscard]] int error() const { return error_; }

    // Writes `bytes` at `offset` (offset and length multiples of the
    // logical block size). Returns 0 or errno; a short write is EIO.
    [[nodiscard]] int Write(std::uint64_t offset, std::span<const std::uint8_t> bytes) const;
    // Writes `length` bytes `fill` at `offset`, as Write.
    [[nodiscard]] int Fill(std::uint64_t offset, std::size_t length, std::uint8_t fill) const;
    // fsync(2): the device's write cache is flushed. Returns 0 or errno.
    [[nodiscard]] int Sync() const;

  private:
    int fd_;
    int error_;
};

// Opens `path`, writes `length` bytes `fill` at `offset` with O_DIRECT and
// closes it. Returns 0 or errno.
int FillDirect(const std::string& path, std::uint64_t offset, std::size_t length,
               std::uint8_t fill);

struct DiskBytes {
    int error;  // 0 or errno
    std::vector<std::uint8_t> bytes;
};
// `length` bytes at `offset` of `path`, read with O_DIRECT (offset and
// length multiples of the logical block size).
DiskBytes ReadDirect(const std::string& path, std::uint64_t offset, std::size_t length);

// fsync(2) of the block device `path`: its cached writes are on the way
// down and done when this returns. Returns 0 or errno.
int SyncDevice(const std::string& path);

// The whole contents of a block device, read with O_DIRECT.
class DiskCopy {
  public:
    // Returns 0 or errno.
    [[nodiscard]] int Take(const std::string& path);

    // The extents of `extent_size` bytes in which the device `path` now
    // differs from this copy, ascending. Returns errno in `error`.
    struct Changes {
        int error;
        std::vector<std::uint64_t> extents;
    };
    [[nodiscard]] Changes ChangedExtents(const std::string& path, std::uint32_t extent_size) const;

    [[nodiscard]] std::uint64_t size() const { return size_; }

  private:
    std::unique_ptr<DirectBuffer> data_;
    std::uint64_t size_ = 0;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_RAW_DISK_H_
