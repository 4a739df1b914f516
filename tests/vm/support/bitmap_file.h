// The on-disk form of a change bitmap, read and written by the tests
// themselves: "TRAKBMP", a dirty byte, the size (u32 LE), the JAMCRC of the
// bitmap bytes (u32 LE), then the bytes. A file marked dirty is the magic
// and the dirty byte alone.
#ifndef TRAK_TESTS_VM_SUPPORT_BITMAP_FILE_H_
#define TRAK_TESTS_VM_SUPPORT_BITMAP_FILE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace trak::vmtest {

inline constexpr std::size_t kBitmapHeaderSize = 16;
inline constexpr std::size_t kDirtyBitmapFileSize = 8;

// Reflected CRC-32 (polynomial 0xEDB88320) from 0xFFFFFFFF, without the
// final inversion.
std::uint32_t Jamcrc(std::span<const std::uint8_t> bytes);

// A bitmap file as found on disk. Fields past the end of a short file are
// zero.
struct BitmapFile {
    int error = 0;  // 0, or the errno of opening or reading the file
    std::vector<std::uint8_t> raw;
    std::string magic;
    std::uint8_t dirty = 0;
    std::uint32_t size = 0;
    std::uint32_t checksum = 0;
    std::vector<std::uint8_t> bits;
};

BitmapFile ReadBitmapFile(const std::string& path);

// A complete file: header with `dirty`, `size` and `checksum`, then `bits`.
std::vector<std::uint8_t> EncodeBitmapFile(std::uint8_t dirty, std::uint32_t size,
                                           std::uint32_t checksum,
                                           std::span<const std::uint8_t> bits);
// A clean file of `bits` with its true size and checksum.
std::vector<std::uint8_t> EncodeCleanBitmapFile(std::span<const std::uint8_t> bits);

// Writes `bytes` as the whole file `path` (mode 0600). Returns 0 or errno.
int WriteWholeFile(const std::string& path, std::span<const std::uint8_t> bytes);

// The file is a clean save of exactly `bits`: magic, flag 0, the size of
// `bits`, their JAMCRC, and nothing after them.
::testing::AssertionResult IsCleanBitmapFile(const std::string& path,
                                             std::span<const std::uint8_t> bits);
// The file is the 8-byte form of a bitmap marked dirty.
::testing::AssertionResult IsDirtyBitmapFile(const std::string& path);
// The file carries the dirty flag, in the 8-byte form or still in a whole
// file (the flag is synced before the file is cut short; a crash between
// the two leaves the whole file): either loads as dirty.
::testing::AssertionResult IsMarkedDirtyBitmapFile(const std::string& path);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_BITMAP_FILE_H_
