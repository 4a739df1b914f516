// Whole images of block devices and files, read back and compared block by
// block, so that a failure names the blocks and chunks that differ.
#ifndef TRAK_TESTS_VM_SUPPORT_DEVICE_IMAGE_H_
#define TRAK_TESTS_VM_SUPPORT_DEVICE_IMAGE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace trak::vmtest {

// O_DIRECT reads bypass the page cache of the device; buffered reads go
// through it (and read ahead), which a snap node must serve as well.
enum class ReadMode { kDirect, kBuffered };

struct ReadBack {
    int error;  // 0 or errno; a read that ends early is EIO
    std::vector<std::uint8_t> bytes;
};

// `length` bytes at `offset` of the device or file `path`.
ReadBack ReadBytes(const std::string& path, std::uint64_t offset, std::size_t length,
                   ReadMode mode = ReadMode::kDirect);

// Every byte of the block device `path`.
ReadBack ReadWholeDevice(const std::string& path, ReadMode mode = ReadMode::kDirect);

// Every byte of the regular file `path`.
ReadBack ReadWholeFile(const std::string& path);

// `actual` equals `expected`; otherwise the 4096-byte blocks that differ,
// with the chunks of `chunk_size` bytes they lie in, and the first
// differing byte.
::testing::AssertionResult SameImage(std::span<const std::uint8_t> actual,
                                     std::span<const std::uint8_t> expected,
                                     std::uint32_t chunk_size);

}  // namespace trak::vmtest

#endif  // TRAK_TESTS_VM_SUPPORT_DEVICE_IMAGE_H_
