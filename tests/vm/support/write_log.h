// The log that a device-mapper "log-writes" device keeps of every write
// that reached the device below it, read back from the log device.
//
// On-disk format (the kernel's drivers/md/dm-log-writes.c): a super block
// in the first sector (magic, version, number of entries, sector size),
// then one entry after another from the second sector on. An entry is one
// sector holding its header (sector, number of sectors, flags, length of
// its private data) and, for a mark, the mark's name; after it come the
// written sectors, except for discards and marks. Sector numbers and
// counts are in units of the logged device's logical block size.
//
// A write is logged only once it completed and a flush issued after that
// completed too (a FUA write: once it completed); the writes a flush
// covers come before it, in the order they completed. Replaying the
// entries in order therefore gives, at any prefix, a state the disk may
// have held at a power failure.
#ifndef TRAK_TESTS_VM_SUPPORT_WRITE_LOG_H_
#define TRAK_TESTS_VM_SUPPORT_WRITE_LOG_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace trak::vmtest {

struct LoggedWrite {
    // Bits of `flags` (besides them, 1 << 1 is FUA and 1 << 4 metadata).
    static constexpr std::uint64_t kFlush = 1U << 0;
    static constexpr std::uint64_t kDiscard = 1U << 2;
    static constexpr std::uint64_t kMark = 1U << 3;

    std::uint64_t offset = 0;  // in bytes on the logged device
    std::uint64_t length = 0;  // in bytes; 0 for a flush without data or a mark
    std::uint64_t flags = 0;
    std::string mark;           // a mark's name
    std::uint64_t data_at = 0;  // where in the log the written bytes lie

    [[nodiscard]] bool Is(std::uint64_t flag) const { return (flags & flag) != 0; }
    // Whether the entry carries data onto the device.
    [[nodiscard]] bool Writes() const { return length != 0 && !Is(kDiscard); }
};

// The entries are read at once, the written bytes only when applied, so
// that a long log need not fit in memory.
class WriteLog {
  public:
    WriteLog();
    ~WriteLog();
    WriteLog(const WriteLog&) = delete;
    WriteLog& operator=(const WriteLog&) = delete;

    // Reads every entry the super block of the log device `path` counts.
    [[nodiscard]] ::testing::AssertionResult Read(const std::string& path);

    [[nodiscard]] const std::vector<LoggedWrite>& entries() const { return entries_; }
    // The index of the entry that is the mark `name`, or entries().size().
    [[nodiscard]] std::size_t MarkIndex(const std::string& name) const;

    // Applies `entry` to `image`, an image of the whole logged device: the
    // bytes written, read from the log, or zeros over a discarded range.
    [[nodiscard]] ::testing::AssertionResult Apply(const LoggedWrite& entry,
                                                   std::span<std::uint8_t> image);

  private:
    class Reader;

    std::unique_ptr<Reader> reader_;
    std::vector<LoggedWrite> entries_;
};

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_WRITE_LOG_H_
